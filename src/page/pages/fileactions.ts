// What is done with single files and folders of an account.
import { argv } from "../client";
import { make } from "../elements";
import { problemText } from "../parts";
import { Refused } from "../problem";
import type { Replies } from "../protocol";
import { _, format } from "../text";
import type { Action, Tools } from "../tools";

export type Entry = Replies["files list"]["entries"][number];

// A folder of an account, by the names from the home on.
export interface Place { username: string; folder: string[] }

export function pathOf({ folder }: Place, ...names: string[]): string {
    return [...folder, ...names].join("/");
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
        same: () => argv(["file", "write"], [username, path]),
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

export async function openEditor(place: Place, entry: Entry, tools: Tools) {
    try {
        const { content } = await tools.agent.request("files read", { username: place.username, path: pathOf(place, entry.name) });
        const end = lineEnd(content);
        if (end === null)
            throw new Refused(_("Its lines end in several ways, which would not survive the editor; download it instead."));
        tools.act(editAction(place, entry.name, content, end, tools));
    } catch (error) {
        tools.notice("danger", entry.name, problemText(error as Error));
    }
}

// Whether a file has this path: a list of its folder would end after the first 5000. What is no file is told when it is written.
async function isThere(username: string, path: string, tools: Tools): Promise<boolean> {
    return tools.agent.request("files read", { username, path }).then(() => true, (problem: Error) => {
        if (problem instanceof Refused && problem.message === "not a file")
            return false;
        if (problem instanceof Refused && /^(not a text file|too big )/.test(problem.message))
            return true;
        throw problem;
    });
}

export function newFolderAction(place: Place, tools: Tools): Action {
    return {
        id: "new-folder", title: _("New folder"), does: _("Make it"), fields: [{ name: "name", title: _("Name") }],
        same: ({ name = "" }) => argv(["file", "mkdir"], [place.username, pathOf(place, name)]),
        run: async ({ name = "" }) => { await tools.agent.request("files mkdir", { username: place.username, path: pathOf(place, name) }); },
    };
}

export function newFileAction(place: Place, tools: Tools): Action {
    return {
        id: "new-file", title: _("New file"), does: _("Make it"),
        fields: [{ name: "name", title: _("Name") }, { name: "content", title: _("Text"), kind: "area", optional: true }],
        same: ({ name = "" }) => argv(["file", "write"], [place.username, pathOf(place, name)]),
        run: async ({ name = "", content = "" }) => {
            const path = pathOf(place, name);
            if (await isThere(place.username, path, tools))
                throw new Refused(_("Something of that name is there already."));
            await tools.agent.request("files write", { username: place.username, path, content });
        },
    };
}

export function renameAction(place: Place, name: string, tools: Tools): Action {
    const path = pathOf(place, name);
    return {
        id: "rename", title: format(_("Rename or move $0"), name), does: _("Rename"),
        fields: [{ name: "to", title: _("New path, from the home"), value: path }],
        same: ({ to = "" }) => argv(["file", "mv"], [place.username, path, to]),
        run: async ({ to = "" }) => { await tools.agent.request("files rename", { username: place.username, path, to }); },
    };
}

export function deleteAction(place: Place, entry: Entry, tools: Tools): Action {
    const path = pathOf(place, entry.name);
    return {
        id: "delete-file", title: format(_("Delete $0"), entry.name), does: _("Delete"), danger: true,
        text: [make("p", {}, entry.dir && !entry.link ? _("The folder goes with all that is in it.") : _("There is no way back but a backup."))],
        same: () => argv(["file", "rm"], [place.username, path]),
        run: async () => { await tools.agent.request("files delete", { username: place.username, path }); },
    };
}
