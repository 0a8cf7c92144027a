// What pages are put together from, in PatternFly's manner.
import { draw, make, type Child } from "./elements";
import { NoAgent, Refused } from "./problem";
import { _, format, visible } from "./text";

// What a page asked for: null while it is still waited for.
export type Part<T> = { here: T } | { problem: Error } | null;

export type Level = "success" | "info" | "warning" | "danger";

const kColours: Record<Level, string> = { success: "green", info: "blue", warning: "orange", danger: "red" };

interface ButtonLook { kind?: "primary" | "secondary" | "danger" | "link"; id?: string; disabled?: boolean; label?: string; title?: string }

export function button(text: string, clicked: () => void, look: ButtonLook = {}): HTMLButtonElement {
    const { kind = "secondary", id, disabled = false, label, title } = look;
    const common = {
        type: "button", disabled, click: clicked, ...(id && { id }), ...(label && { "aria-label": label }), ...(title && { title }),
    };
    // Tables have thousands of these, and each button of PatternFly's brings more than a hundred properties to be worked out.
    if (kind === "link")
        return make("button", { class: "text-button", ...common }, text);
    return make("button", { class: `pf-v6-c-button pf-m-${kind} pf-m-small`, ...common },
        make("span", { class: "pf-v6-c-button__text" }, text));
}

// A link to another page of ours.
export function link(text: string, ...path: string[]): HTMLElement {
    return make("a", { href: `#/${path.map(encodeURIComponent).join("/")}` }, text);
}

export function label(text: string, level: Level | "none"): HTMLElement {
    return make("span", { class: `pf-v6-c-label pf-m-compact ${level === "none" ? "" : `pf-m-${kColours[level]}`}` },
        make("span", { class: "pf-v6-c-label__content" }, make("span", { class: "pf-v6-c-label__text" }, text)));
}

// A bar with its text behind; full from 90 % on it warns, unless a level is given.
export function bar(share: number, text: string, level: Level = share >= 0.95 ? "danger" : share >= 0.85 ? "warning" : "info"): HTMLElement {
    const indicator = make("div", { class: "pf-v6-c-progress__indicator" });
    indicator.style.inlineSize = `${Math.min(100, Math.max(0, 100 * share))}%`;
    return make("div", { class: "usage" },
        make("div", { class: `pf-v6-c-progress pf-m-sm pf-m-singleline ${level === "info" ? "" : `pf-m-${level}`}` },
            make("div", { class: "pf-v6-c-progress__bar", "aria-hidden": "true" }, indicator)),
        make("span", { class: "usage-text" }, text));
}

export function card(title: string, body: Child[], actions: Child[] = [], id = ""): HTMLElement {
    return make("section", { class: "pf-v6-c-card", ...(id && { id }) },
        make("div", { class: "pf-v6-c-card__header" },
            make("div", { class: "pf-v6-c-card__header-main" },
                make("h2", { class: "pf-v6-c-card__title-text" }, title)),
            make("div", { class: "card-actions" }, ...actions)),
        make("div", { class: "pf-v6-c-card__body" }, ...body));
}

export function cards(...children: Child[]): HTMLElement {
    return make("div", { class: "cards" }, ...children);
}

// Terms, each with what is said of it.
export function facts(...rows: [string, ...Child[]][]): HTMLElement {
    return make("dl", { class: "pf-v6-c-description-list pf-m-horizontal pf-m-compact" }, ...rows.map(([term, ...said]) =>
        make("div", { class: "pf-v6-c-description-list__group" },
            make("dt", { class: "pf-v6-c-description-list__term" },
                make("span", { class: "pf-v6-c-description-list__text" }, term)),
            make("dd", { class: "pf-v6-c-description-list__description" },
                make("div", { class: "pf-v6-c-description-list__text" }, ...said)))));
}

export type Row = { key: string; cells: Child[] };

export function tableRow(names: string[], { key, cells }: Row): HTMLElement {
    return make("tr", { class: "pf-v6-c-table__tr", "data-row": key }, ...cells.map((cell, at) =>
        make(at === 0 ? "th" : "td", {
            class: at === 0 ? "pf-v6-c-table__th" : "pf-v6-c-table__td", ...(at === 0 && { scope: "row" }), "data-label": names[at] ?? "",
        }, cell)));
}

// A table; on narrow screens each row becomes a block whose lines carry the names of the columns. A head may be an element of its own.
export function table(name: string, id: string, heads: (string | [string, Child])[], rows: Row[]): HTMLElement {
    const names = heads.map(head => typeof head === "string" ? head : head[0]);
    const shown = heads.map(head => typeof head === "string" ? head : head[1]);
    return make("table", { class: "pf-v6-c-table pf-m-grid-md pf-m-compact", "aria-label": name, id },
        make("thead", { class: "pf-v6-c-table__thead" },
            make("tr", { class: "pf-v6-c-table__tr" }, ...shown.map((head, at) =>
                make(names[at] ? "th" : "td", { class: "pf-v6-c-table__th", ...(names[at] && { scope: "col" }) }, head)))),
        make("tbody", { class: "pf-v6-c-table__tbody" }, ...rows.map(row => tableRow(names, row))));
}

export function empty(id: string, title: string, text: string, ...actions: Child[]): HTMLElement {
    return make("div", { class: "pf-v6-c-empty-state", id },
        make("div", { class: "pf-v6-c-empty-state__content" },
            make("div", { class: "pf-v6-c-empty-state__header" },
                make("div", { class: "pf-v6-c-empty-state__title" },
                    make("h1", { class: "pf-v6-c-empty-state__title-text" }, title))),
            make("div", { class: "pf-v6-c-empty-state__body" }, text),
            make("div", { class: "pf-v6-c-empty-state__footer" },
                make("div", { class: "pf-v6-c-empty-state__actions" }, ...actions))));
}

const kDisc = "M8 0a8 8 0 1 0 0 16A8 8 0 0 0 8 0z";
const kIcons: Record<Level, string> = {
    success: `${kDisc}M6.9 11.6 3.7 8.7 5 7.3l1.7 1.5 4-4.4 1.5 1.3z`, info: `${kDisc}M7 7h2v6H7zM7 3h2v2H7z`,
    warning: "M8 1 0 15h16zM7 6h2v5H7zM7 12h2v2H7z", danger: `${kDisc}M7 3h2v6H7zM7 11h2v2H7z`,
};

export function alert(level: Level, title: string, ...more: Child[]): HTMLElement {
    const names: Record<Level, string> = { success: _("Done:"), info: _("Note:"), warning: _("Warning:"), danger: _("Error:") };
    return make("div", { class: `pf-v6-c-alert pf-m-inline pf-m-${level}` },
        make("div", { class: "pf-v6-c-alert__icon", "aria-hidden": "true" },
            draw("svg", { viewBox: "0 0 16 16", class: "icon" }, draw("path", { d: kIcons[level], "fill-rule": "evenodd" }))),
        make("p", { class: "pf-v6-c-alert__title" }, make("span", { class: "pf-v6-screen-reader" }, `${names[level]} `), title),
        make("div", { class: "pf-v6-c-alert__description" }, ...more));
}

// A word as a shell takes it. What a terminal would act on while it is pasted, or what nobody sees, is written by its number.
function shellWord(word: string): string {
    if (/^[\w@%+=:,./-]+$/.test(word))
        return word;
    if (visible(word) === word && !/[\r\n\t]/.test(word))
        return `'${word.replaceAll("'", "'\\''")}'`;
    const written = (one: string) => {
        if (one === "'" || one === "\\")
            return `\\${one}`;
        return visible(one) !== one || /[\r\n\t]/.test(one) ? `\\u${one.charCodeAt(0).toString(16).padStart(4, "0")}` : one;
    };
    return `$'${[...word].map(written).join("")}'`;
}

// Words as a shell takes them.
export function shellLine(words: string[]): string {
    return words.map(shellWord).join(" ");
}

// The lines of the client that do what an action does.
export function sameLine(same: string[] | string[][]): string {
    const lines = (Array.isArray(same[0]) ? same : [same]) as string[][];
    return lines.map(words => `corvctl ${shellLine(words)}`).join(" && ");
}

// A line to be copied.
export function copyable(text: string): HTMLElement {
    const code = make("code", {}, text);
    const copy = button(_("Copy"), () => {
        navigator.clipboard.writeText(visible(text)).then(() => { copy.firstChild!.textContent = _("Copied"); },
            () => getSelection()?.selectAllChildren(code));
    }, { kind: "link", label: format(_("Copy $0"), text) });
    return make("span", { class: "copyable" }, code, " ", copy);
}

export function waiting(): HTMLElement {
    return make("span", { class: "asked" }, _("Asking…"));
}

// What went wrong, in words of this page.
export function problemText(problem: Error): string {
    if (problem instanceof Refused && problem.message === "unknown command")
        return _("The agent on this server is older than this page and does not know this.");
    if (problem instanceof NoAgent && problem.problem === "access-denied")
        return _("This needs administrative access.");
    if (problem instanceof NoAgent)
        return _("The connection was lost before the answer came. Whether it was done shows when the page is loaded anew.");
    return problem.message;
}

// What a view gives, or why it cannot: where a server tells what no page can show, its reader is told so.
export function safely(view: () => Child[]): Child[] {
    try {
        return view();
    } catch (error) {
        return [alert("danger", format(_("What the server says cannot be shown: $0"), (error as Error).message))];
    }
}

// What a part of the page shows: itself, that it is still asked for, or why it did not come.
export function shown<T>(part: Part<T>, view: (here: T) => Child[]): Child[] {
    if (part === null)
        return [waiting()];
    return "here" in part ? view(part.here) : [alert("danger", problemText(part.problem))];
}

// Of each line that a program wrote over and over, the last state.
export function lastStates(text: string): string {
    return text.split("\n").map(line => line.slice(line.lastIndexOf("\r", line.length - 2) + 1)).join("\n");
}

// A log in a block that can be scrolled by keyboard too.
export function log(name: string, text: string): HTMLElement {
    const block = make("pre", { class: "log", tabindex: 0, role: "region", "aria-label": name }, lastStates(text));
    // The end is what one wants to read, as soon as it has been put into the page.
    queueMicrotask(() => { block.scrollTop = block.scrollHeight; });
    return block;
}
