// Files between the reader's own machine and an account: chosen or dropped, sent one after the other, fetched.
import { argv } from "../client";
import { make } from "../elements";
import { problemText } from "../parts";
import type { Replies } from "../protocol";
import { _, format, plural } from "../text";
import type { Action, Tools } from "../tools";
import { Cancelled, download, upload } from "../transfer";
import { follow, followAll } from "../transfers";
import { pathOf, type Entry, type Place } from "./fileactions";

export async function fetchFile(place: Place, { name, size }: Entry, tools: Tools) {
    await follow(name, size, argv(["file", "get"], [place.username, pathOf(place, name), name]), async (gone, signal) => {
        const blob = await download(tools.agent, place.username, pathOf(place, name), gone, signal);
        const address = URL.createObjectURL(blob);
        make("a", { href: address, download: name }).click();
        setTimeout(() => URL.revokeObjectURL(address), 60000);
    });
}

// How long the list may lag behind while many files are sent.
const kReloadMs = 3000;

// A file with its path below the folder that is shown; a folder has none.
export interface Chosen { path: string[]; file?: File }

async function makeFolder(place: Place, path: string[], tools: Tools) {
    await tools.agent.request("files mkdir", { username: place.username, path: pathOf(place, ...path) }).catch((problem: Error) => {
        if (problem.message !== "something with that name exists")
            throw problem;
    });
}

function sameSend(place: Place, { path, file }: Chosen): string[] {
    return file ? argv(["file", "put"], [place.username, path.join("/"), pathOf(place, ...path)])
        : argv(["file", "mkdir"], [place.username, pathOf(place, ...path)]);
}

// Sends files, one after the other, making the folders that they bring with them.
export async function sendAll(place: Place, files: readonly Chosen[], tools: Tools) {
    const made = new Set<string>();
    const stop = new AbortController();
    const all = files.length > 1 ? followAll(files.length, () => stop.abort()) : null;
    let loaded = performance.now();
    for (const [at, one] of files.entries()) {
        if (stop.signal.aborted)
            break;
        const { path, file } = one;
        all?.at(at + 1);
        await follow(path.join("/"), file?.size ?? 0, sameSend(place, one), async (gone, signal) => {
            for (let depth = 1; depth < path.length + (file ? 0 : 1); ++depth) {
                const folder = path.slice(0, depth);
                if (made.has(folder.join("/")))
                    continue;
                await makeFolder(place, folder, tools);
                made.add(folder.join("/"));
            }
            if (signal.aborted)
                throw new Cancelled();
            if (file)
                await upload(tools.agent, place.username, pathOf(place, ...path), file, gone, signal);
        }, stop.signal);
        if (performance.now() - loaded > kReloadMs) {
            loaded = performance.now();
            tools.reload();
        }
    }
    all?.end();
    tools.reload();
}

function replaceAction(place: Place, files: readonly Chosen[], names: string[], tools: Tools): Action {
    return {
        id: "replace", title: plural("Replace $0 file", "Replace $0 files", names.length), does: _("Replace"), danger: true,
        text: [make("p", {}, names.slice(0, 20).join(", "))],
        same: () => files.slice(0, 20).map(one => sameSend(place, one)),
        run: async () => { void sendAll(place, files, tools); },
    };
}

// Sends files, those that would replace something only when the reader said so. What is there is asked for anew: the list on the page may
// be old.
export async function send(place: Place, files: readonly Chosen[], tools: Tools) {
    if (files.length === 0)
        return;
    let now: Replies["files list"];
    try {
        now = await tools.agent.request("files list", { username: place.username, path: pathOf(place) });
    } catch (problem) {
        return tools.notice("danger", format(_("Files of $0"), place.username), problemText(problem as Error));
    }
    const there = new Set(now.entries.map(({ name }) => name));
    // Of a folder with more than the agent lists nobody knows what would be replaced.
    const replaced = files.map(({ path }) => path[0]!).filter(name => now.truncated || there.has(name));
    if (replaced.length > 0)
        tools.act(replaceAction(place, files, [...new Set(replaced)], tools));
    else
        void sendAll(place, files, tools);
}

// What was dropped, folders with all that is in them, each before that.
export async function dropped(entry: FileSystemEntry, above: string[] = []): Promise<Chosen[]> {
    const path = [...above, entry.name];
    if (entry.isFile)
        return [{ path, file: await new Promise<File>((done, failed) => (entry as FileSystemFileEntry).file(done, failed)) }];
    const reader = (entry as FileSystemDirectoryEntry).createReader();
    const found: Chosen[] = [{ path }];
    // It gives a hundred at a time.
    for (;;) {
        const some = await new Promise<FileSystemEntry[]>((done, failed) => reader.readEntries(done, failed));
        if (some.length === 0)
            return found;
        for (const one of some)
            found.push(...await dropped(one, path));
    }
}
