// Files between the reader's own machine and an account: chosen or dropped, sent one after the other, fetched.
import { make } from "../elements";
import { _, plural } from "../text";
import type { Action, Tools } from "../tools";
import { download, upload } from "../transfer";
import { follow } from "../transfers";
import { pathOf, type Entry, type Place } from "./fileactions";

export async function fetchFile(place: Place, { name, size }: Entry, tools: Tools) {
    await follow(name, size, ["file", "get", place.username, pathOf(place, name), name], async (gone, signal) => {
        const blob = await download(tools.agent, place.username, pathOf(place, name), gone, signal);
        const address = URL.createObjectURL(blob);
        make("a", { href: address, download: name }).click();
        setTimeout(() => URL.revokeObjectURL(address), 60000);
    });
}

// How long the list may lag behind while many files are sent.
const kReloadMs = 3000;

// A file with its path below the folder that is shown.
export interface Chosen { path: string[]; file: File }

// Sends files, one after the other, making the folders that they bring with them.
async function sendAll(place: Place, files: readonly Chosen[], tools: Tools) {
    const made = new Set<string>();
    let loaded = performance.now();
    for (const { path, file } of files) {
        const same = ["file", "put", place.username, path.join("/"), pathOf(place, ...path)];
        await follow(path.join("/"), file.size, same, async (gone, signal) => {
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
        if (performance.now() - loaded > kReloadMs) {
            loaded = performance.now();
            tools.reload();
        }
    }
    tools.reload();
}

function replaceAction(place: Place, files: readonly Chosen[], names: string[], tools: Tools): Action {
    return {
        id: "replace", title: plural("Replace $0 file", "Replace $0 files", names.length), does: _("Replace"), danger: true,
        text: [make("p", {}, names.slice(0, 20).join(", "))],
        same: () => files.slice(0, 20).map(({ path }) => ["file", "put", place.username, path.join("/"), pathOf(place, ...path)]),
        run: async () => { void sendAll(place, files, tools); },
    };
}

export function send(place: Place, files: readonly Chosen[], entries: readonly Entry[], tools: Tools) {
    const there = new Set(entries.map(({ name }) => name));
    const replaced = files.map(({ path }) => path[0]!).filter(name => there.has(name));
    if (replaced.length > 0)
        tools.act(replaceAction(place, files, [...new Set(replaced)], tools));
    else
        void sendAll(place, files, tools);
}

// What was dropped, folders with all that is in them.
export async function dropped(entry: FileSystemEntry, above: string[] = []): Promise<Chosen[]> {
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
