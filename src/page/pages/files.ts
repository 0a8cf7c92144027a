// The files of an account, as its user sees them and with its user's rights.
import { make, type Child } from "../elements";
import { fillRows } from "../longtable";
import { alert, button, label, link, shown, table, type Row } from "../parts";
import type { Replies } from "../protocol";
import { _, bytesText, format, plural, timeText } from "../text";
import type { Page, Tools } from "../tools";
import { deleteAction, newFileAction, newFolderAction, openEditor, pathOf, renameAction, type Entry, type Place } from "./fileactions";
import { dropped, fetchFile, send } from "./filetransfers";

export interface Data { list: Replies["files list"] }

// What the editor of the agent takes.
const kEditableBytes = 2097152;

// The permission bits as ls shows them.
export function modeText(octal: string): string {
    const bits = parseInt(octal, 8);
    return Number.isNaN(bits) ? octal : [...Array(9).keys()].map(at => bits >> (8 - at) & 1 ? "rwx"[at % 3] : "-").join("");
}

function rowOf(place: Place, entry: Entry, tools: Tools): Row {
    const { name, dir, size, mtime, mode } = entry;
    const editable = !dir && size <= kEditableBytes;
    const title = dir ? make("a", { href: `#/${["files", place.username, ...place.folder, name].map(encodeURIComponent).join("/")}` }, `${name}/`)
        : editable ? button(name, () => void openEditor(place, entry, tools), { kind: "link" }) : name;
    return { key: name, cells: [
        entry.link ? make("span", {}, title, " ", label(_("link"), "none")) : title,
        dir ? "" : bytesText(size), timeText(mtime), make("code", {}, modeText(mode)),
        make("span", { class: "row-actions" },
            !dir && button(_("Download"), () => void fetchFile(place, entry, tools), { kind: "link", label: format(_("Download $0"), name) }),
            button(_("Rename"), () => tools.act(renameAction(place, name, tools)), { kind: "link", label: format(_("Rename $0"), name) }),
            button(_("Delete"), () => tools.act(deleteAction(place, entry, tools)), { kind: "link", label: format(_("Delete $0"), name) })),
    ] };
}

// Arrow keys go from one to the next, F2 renames, Delete deletes.
function pressed(event: Event, place: Place, entries: readonly Entry[], tools: Tools) {
    const { key, target, currentTarget } = event as KeyboardEvent & { target: HTMLElement; currentTarget: HTMLElement };
    const row = target.closest<HTMLElement>("[data-row]");
    const entry = entries.find(({ name }) => name === row?.dataset.row);
    if (!row || !entry)
        return;
    if (key === "ArrowDown" || key === "ArrowUp") {
        const rows = [...currentTarget.querySelectorAll("[data-row]")];
        rows[rows.indexOf(row) + (key === "ArrowDown" ? 1 : -1)]?.querySelector<HTMLElement>("a, button")?.focus();
    } else if (key === "F2") {
        tools.act(renameAction(place, entry.name, tools));
    } else if (key === "Delete") {
        tools.act(deleteAction(place, entry, tools));
    } else {
        return;
    }
    event.preventDefault();
}

function toolbar(place: Place, wish: HTMLElement, count: HTMLElement, tools: Tools): HTMLElement {
    const picked = (input: HTMLInputElement) => {
        const chosen = [...input.files ?? []].map(file => ({ path: (file.webkitRelativePath || file.name).split("/"), file }));
        // So that the same one can be chosen once more.
        input.value = "";
        void send(place, chosen, tools);
    };
    const files: HTMLInputElement = make("input", { type: "file", id: "pick-files", multiple: true, hidden: true, change: () => picked(files) });
    const folder: HTMLInputElement = make("input", { type: "file", id: "pick-folder", webkitdirectory: true, hidden: true, change: () => picked(folder) });
    return make("div", { class: "toolbar" }, make("span", { class: "pf-v6-c-form-control search" }, wish), count,
        button(_("New folder"), () => tools.act(newFolderAction(place, tools)), { id: "make-folder" }),
        button(_("New file"), () => tools.act(newFileAction(place, tools)), { id: "make-file" }),
        button(_("Upload files"), () => files.click(), { kind: "primary", id: "upload-files" }),
        button(_("Upload a folder"), () => folder.click(), { id: "upload-folder" }), files, folder,
        make("span", { class: "help" }, _("or drop them here. In the list: arrow keys, F2 renames, Delete deletes.")));
}

function listing(place: Place, { entries, truncated }: Replies["files list"], wished: { text: string }, tools: Tools): Child[] {
    const names = [_("Name"), _("Size"), _("Changed"), _("Mode"), ""];
    const whole = table(format(_("Files of $0"), place.username), "files", names, []);
    whole.classList.add("pf-m-fixed");
    const count = make("span", { class: "help", role: "status" });
    const fill = () => {
        const found = entries.filter(({ name }) => name.toLowerCase().includes(wished.text.toLowerCase()));
        fillRows(whole, names, found.map(entry => () => rowOf(place, entry, tools)));
        count.replaceChildren(plural("$0 entry", "$0 entries", found.length));
    };
    const wish = make("input", { type: "text", id: "search", "aria-label": _("Search this folder"), placeholder: _("Part of a name"),
        input: () => { wished.text = wish.value; fill(); } });
    wish.value = wished.text;
    fill();
    return [
        toolbar(place, wish, count, tools),
        truncated && alert("warning", _("The folder has more than these; the first 5000 are shown.")),
        make("div", {
            id: "drop",
            keydown: event => pressed(event, place, entries, tools),
            dragover: event => event.preventDefault(),
            drop: event => {
                event.preventDefault();
                const items = [...(event as DragEvent).dataTransfer?.items ?? []].map(item => item.webkitGetAsEntry());
                void Promise.all(items.filter((item): item is FileSystemEntry => item !== null).map(item => dropped(item)))
                    .then(found => send(place, found.flat(), tools),
                        (problem: Error) => tools.notice("danger", _("What was dropped cannot be read"), problem.message));
            },
        }, whole),
    ];
}

function trail({ username, folder }: Place): HTMLElement {
    const step = (text: string, depth: number) => make("a", {
        href: `#/${["files", username, ...folder.slice(0, depth)].map(encodeURIComponent).join("/")}` }, text);
    return make("nav", { "aria-label": _("Folder") }, link(format(_("Account $0"), username), "accounts", username), " / ",
        step(_("Home"), 0), ...folder.flatMap((name, at) => [" / ", step(name, at + 1)]));
}

export function filesPage(username: string, ...folder: string[]): Page<Data> {
    const place = { username, folder };
    // What the reader looks for, until another folder is opened.
    const wished = { text: "" };
    return {
        title: () => format(_("Files of $0"), username),
        sources: ({ agent }) => ({ list: () => agent.request("files list", { username, path: pathOf(place) }) }),
        view: ({ list }, tools) => [trail(place), ...shown(list, here => listing(place, here, wished, tools))],
    };
}
