// The list of files on their way: how far each is, how fast, and the way to stop it. It outlives the page that began them.
import { make } from "./elements";
import { bar, button, copyable, problemText, sameLine } from "./parts";
import { _, bytesText, format } from "./text";
import { Cancelled, type Gone } from "./transfer";

const kEverySeconds = 0.2;

export const transferList = make("div", { id: "transfers", role: "log", "aria-label": _("Files on their way") });

// A line for several files that are sent one after the other: which one it is, and the way to stop them all.
export function followAll(count: number, stop: () => void): { at(number: number): void; end(): void } {
    const state = make("span", {});
    const line: HTMLElement = make("div", { class: "notice", "data-all": true }, state, button(_("Cancel all"), stop, { kind: "link" }));
    transferList.append(line);
    return { at: number => state.replaceChildren(format(_("$0 of $1 files"), number, count)), end: () => line.remove() };
}

// Does a piece of work that tells how far it is, as a line of the list with what does the same by hand. Gives whether it ended well;
// whoever calls goes on either way.
export async function follow(name: string, size: number, same: string[], work: (gone: Gone, signal: AbortSignal) => Promise<void>,
    all?: AbortSignal): Promise<boolean> {
    const stop = new AbortController();
    all?.addEventListener("abort", () => stop.abort());
    const began = performance.now();
    const state = make("span", {});
    const ending = button(_("Cancel"), () => stop.abort(), { kind: "link", label: format(_("Cancel $0"), name) });
    const line: HTMLElement = make("div", { class: "notice", "data-file": name }, make("span", {}, name), state, ending,
        make("details", {}, make("summary", { "aria-label": format(_("The same by hand: $0"), name) }, _("The same by hand:")),
            copyable(sameLine(same))));
    let shown = -1;
    const gone: Gone = bytes => {
        const seconds = (performance.now() - began) / 1000;
        if (seconds - shown < kEverySeconds && bytes < size)
            return;
        shown = seconds;
        state.replaceChildren(bar(size === 0 ? 1 : bytes / size, format(_("$0 of $1, $2 a second"), bytesText(bytes), bytesText(size),
            bytesText(Math.round(bytes / Math.max(seconds, 0.001)))), "info"));
    };
    gone(0);
    transferList.append(line);
    const said = await work(gone, stop.signal).then(() => "", (problem: Error) =>
        problem instanceof Cancelled ? _("Cancelled") : problemText(problem));
    if (said === "") {
        line.remove();
        return true;
    }
    state.replaceChildren(said);
    ending.replaceWith(button(_("Dismiss"), () => line.remove(), { kind: "link" }));
    return false;
}
