// The files of an account, as its user sees them and with its user's rights.
import { make, type Child } from "../elements";
import { alert, button, fillRows, label, shown, table, type Row } from "../parts";
import { Refused } from "../problem";
import type { Replies } from "../protocol";
import { _, bytesText, format, plural, timeText } from "../text";
import type { Action, Page, Tools } from "../tools";
import { download, upload } from "../transfer";
import { follow } from "../transfers";

type Entry = Replies["files list"]["entries"][number];
export interface Data { list: Replies["files list"] }

// What the editor of the agent takes.
const kEditableBytes = 2097152;

export interface Place { username: string; folder: string[] }

export function pathOf({ folder }: Place, ...names: string[]): string {
    return [...folder, ...names].join("/");
}

// The permission bits as ls shows them.
export function modeText(octal: string): string {
    const bits = parseInt(octal, 8);
    return Number.isNaN(bits) ? octal : [...Array(9).keys()].map(at => bits >> (8 - at) & 1 ? "rwx"[at % 3] : "-").join("");
}

// A browser's text field has line feeds alone: the text as it goes back into a file whose lines all end as Windows ends them. A file
// with both kinds cannot be edited without changing lines that nobody touched: null.
export function lineEnd(content: string): "\n" | "\r\n" | null {
    const all = content.split("\n").length - 1;
    const pairs = content.split("\r\n").length - 1;
    const returns = content.split("\r").length - 1;
    if (returns === 0)
        return "\n";
    return pairs === all && pairs === returns ? "\r\n" : null;
}

function editAction(place: Place, name: string, content: string, end: "\n" | "\r\n", tools: Tools): Action {
    const path = pathOf(place, name);
    const { username } = place;
    let before = content;
    return {
        id: "editor", title: path, does: _("Save"),
        fields: [{ name: "content", title: _("Text"), kind: "area", value: content, optional: true }],
        same: () => ["file", "write", username, path],
        run: async ({ content: text = "" }) => {
            const now = (await tools.agent.request("files read", { username, path })).content;
            if (now !== before) {
                before = now;
                throw new Refused(_("Somebody changed this file meanwhile. Save again to replace what they wrote."));
            }
            await tools.agent.request("files write", { username, path, content: text.replaceAll("\n", end) });
        },
    };
}

async function openEditor(place: Place, entry: Entry, tools: Tools) {
    try {
        const { content } = await tools.agent.request("files read", { username: place.username, path: pathOf(place, entry.name) });
        const end = lineEnd(content);
        if (end === null)
            throw new Refused(_("Its lines end in several ways, which would not survive the editor; download it instead."));
        tools.act(editAction(place, entry.name, content, end, tools));
    } catch (error) {
        tools.notice("danger", entry.name, (error as Error).message);
    }
}

function newFolderAction(place: Place, tools: Tools): Action {
    return {
        id: "new-folder", title: _("New folder"), does: _("Make it"), fields: [{ name: "name", title: _("Name") }],
        same: ({ name = "" }) => ["file", "mkdir", place.username, pathOf(place, name)],
        run: async ({ name = "" }) => { await tools.agent.request("files mkdir", { username: place.username, path: pathOf(place, name) }); },
    };
}

function newFileAction(place: Place, tools: Tools): Action {
    return {
        id: "new-file", title: _("New file"), does: _("Make it"),
        fields: [{ name: "name", title: _("Name") }, { name: "content", title: _("Text"), kind: "area", optional: true }],
        same: ({ name = "" }) => ["file", "write", place.username, pathOf(place, name)],
        run: async ({ name = "", content = "" }) => {
            const path = pathOf(place, name);
            const { entries } = await tools.agent.request("files list", { username: place.username, path: pathOf(place) });
            if (entries.some(entry => entry.name === name))
                throw new Refused(_("Something of that name is there already."));
            await tools.agent.request("files write", { username: place.username, path, content });
        },
    };
}

function renameAction(place: Place, name: string, tools: Tools): Action {
    const path = pathOf(place, name);
    return {
        id: "rename", title: format(_("Rename or move $0"), name), does: _("Rename"),
        fields: [{ name: "to", title: _("New path, from the home"), value: path }],
        same: ({ to = "" }) => ["file", "mv", place.username, path, to],
        run: async ({ to = "" }) => { await tools.agent.request("files rename", { username: place.username, path, to }); },
    };
}

function deleteAction(place: Place, entry: Entry, tools: Tools): Action {
    const path = pathOf(place, entry.name);
    return {
        id: "delete-file", title: format(_("Delete $0"), entry.name), does: _("Delete"), danger: true,
        text: [make("p", {}, entry.dir && !entry.link ? _("The folder goes with all that is in it.") : _("There is no way back but a backup."))],
        same: () => ["file", "rm", place.username, path],
        run: async () => { await tools.agent.request("files delete", { username: place.username, path }); },
    };
}

async function fetchFile(place: Place, { name, size }: Entry, tools: Tools) {
    await follow(name, size, async (gone, signal) => {
        const blob = await download(tools.agent, place.username, pathOf(place, name), gone, signal);
        const address = URL.createObjectURL(blob);
        make("a", { href: address, download: name }).click();
        setTimeout(() => URL.revokeObjectURL(address), 60000);
    });
}

// A file with its path below the folder that is shown.
export interface Chosen { path: string[]; file: File }

// Sends files, one after the other, making the folders that they bring with them.
async function sendAll(place: Place, files: readonly Chosen[], tools: Tools) {
    const made = new Set<string>();
    for (const { path, file } of files) {
        await follow(path.join("/"), file.size, async (gone, signal) => {
            for (let depth = 1; depth < path.length; ++depth) {
                const folder = pathOf(place, ...path.slice(0, depth));
                if (made.has(folder))
                    continue;
                made.add(folder);
                await tools.agent.request("files mkdir", { username: place.username, path: folder }).catch((problem: Error) => {
                    if (problem.message !== "something with that name exists")
                        throw problem;
                });
            }
            await upload(tools.agent, place.username, pathOf(place, ...path), file, gone, signal);
        });
        tools.reload();
    }
}

function replaceAction(place: Place, files: readonly Chosen[], names: string[], tools: Tools): Action {
    return {
        id: "replace", title: plural("Replace $0 file", "Replace $0 files", names.length), does: _("Replace"), danger: true,
        text: [make("p", {}, names.slice(0, 20).join(", "))],
        same: () => ["file", "put", place.username, names[0]!, pathOf(place, names[0]!)],
        run: async () => { void sendAll(place, files, tools); },
    };
}

function send(place: Place, files: readonly Chosen[], entries: readonly Entry[], tools: Tools) {
    const there = new Set(entries.map(({ name }) => name));
    const replaced = files.map(({ path }) => path[0]!).filter(name => there.has(name));
    if (replaced.length > 0)
        tools.act(replaceAction(place, files, [...new Set(replaced)], tools));
    else
        void sendAll(place, files, tools);
}

// What was dropped, folders with all that is in them.
async function dropped(entry: FileSystemEntry, above: string[] = []): Promise<Chosen[]> {
    const path = [...above, entry.name];
    if (entry.isFile)
        return [{ path, file: await new Promise<File>((done, failed) => (entry as FileSystemFileEntry).file(done, failed)) }];
    const reader = (entry as FileSystemDirectoryEntry).createReader();
    const found: Chosen[] = [];
    // It gives a hundred at a time.
    for (;;) {
        const some = await new Promise<FileSystemEntry[]>((done, failed) => reader.readEntries(done, failed));
        if (some.length === 0)
            return found;
        for (const one of some)
            found.push(...await dropped(one, path));
    }
}

function rowOf(place: Place, entry: Entry, tools: Tools): Row {
    const { name, dir, link, size, mtime, mode } = entry;
    const editable = !dir && size <= kEditableBytes;
    const title = dir ? make("a", { href: `#/${["files", place.username, ...place.folder, name].map(encodeURIComponent).join("/")}` }, `${name}/`)
        : editable ? button(name, () => void openEditor(place, entry, tools), { kind: "link" }) : name;
    return { key: name, cells: [
        link ? make("span", {}, title, " ", label(_("link"), "none")) : title,
        dir ? "" : bytesText(size), timeText(mtime), make("code", {}, modeText(mode)),
        make("span", { class: "row-actions" },
            !dir && button(_("Download"), () => void fetchFile(place, entry, tools), { kind: "link", label: format(_("Download $0"), name) }),
            button(_("Rename"), () => tools.act(renameAction(place, name, tools)), { kind: "link", label: format(_("Rename $0"), name) }),
            button(_("Delete"), () => tools.act(deleteAction(place, entry, tools)), { kind: "link", label: format(_("Delete $0"), name) })),
    ] };
}

function listing(place: Place, { entries, truncated }: Replies["files list"], tools: Tools): Child[] {
    const names = [_("Name"), _("Size"), _("Changed"), _("Mode"), ""];
    const whole = table(format(_("Files of $0"), place.username), "files", names, []);
    whole.classList.add("pf-m-fixed");
    fillRows(whole, names, entries.map(entry => () => rowOf(place, entry, tools)));
    const picked = (input: HTMLInputElement) => send(place, [...input.files ?? []].map(file =>
        ({ path: (file.webkitRelativePath || file.name).split("/"), file })), entries, tools);
    const files: HTMLInputElement = make("input", { type: "file", id: "pick-files", multiple: true, hidden: true, change: () => picked(files) });
    const folder: HTMLInputElement = make("input", { type: "file", id: "pick-folder", webkitdirectory: true, hidden: true, change: () => picked(folder) });
    return [
        make("div", { class: "toolbar" }, plural("$0 entry", "$0 entries", entries.length),
            button(_("New folder"), () => tools.act(newFolderAction(place, tools)), { id: "make-folder" }),
            button(_("New file"), () => tools.act(newFileAction(place, tools)), { id: "make-file" }),
            button(_("Upload files"), () => files.click(), { kind: "primary", id: "upload-files" }),
            button(_("Upload a folder"), () => folder.click(), { id: "upload-folder" }), files, folder,
            make("span", { class: "help" }, _("or drop them here"))),
        truncated && alert("warning", _("The folder has more than these; the first 5000 are shown.")),
        make("div", {
            id: "drop",
            dragover: event => event.preventDefault(),
            drop: event => {
                event.preventDefault();
                const items = [...(event as DragEvent).dataTransfer?.items ?? []].map(item => item.webkitGetAsEntry());
                void Promise.all(items.filter((item): item is FileSystemEntry => item !== null).map(item => dropped(item)))
                    .then(found => send(place, found.flat(), entries, tools));
            },
        }, whole),
    ];
}

function trail({ username, folder }: Place): HTMLElement {
    const step = (text: string, depth: number) => make("a", {
        href: `#/${["files", username, ...folder.slice(0, depth)].map(encodeURIComponent).join("/")}` }, text);
    return make("nav", { "aria-label": _("Folder") }, make("a", { href: `#/accounts/${username}` }, format(_("Account $0"), username)), " / ",
        step(_("Home"), 0), ...folder.flatMap((name, at) => [" / ", step(name, at + 1)]));
}

export function filesPage(username: string, ...folder: string[]): Page<Data> {
    const place = { username, folder };
    return {
        title: () => format(_("Files of $0"), username),
        sources: ({ agent }) => ({ list: () => agent.request("files list", { username, path: pathOf(place) }) }),
        view: ({ list }, tools) => [trail(place), ...shown(list, here => listing(place, here, tools))],
    };
}
