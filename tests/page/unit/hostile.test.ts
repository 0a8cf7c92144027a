import { FakeElement, spawned, type FakeNode } from "./dom";
import assert from "node:assert/strict";
import test from "node:test";
import { account, argv, option } from "../../../src/page/client";
import { make } from "../../../src/page/elements";
import { keysAction } from "../../../src/page/pages/account";
import { certificateConcerns, certificateText } from "../../../src/page/pages/certificates";
import { newFileAction } from "../../../src/page/pages/fileactions";
import { filesPage } from "../../../src/page/pages/files";
import { dropped, send, sendAll, type Chosen } from "../../../src/page/pages/filetransfers";
import { concerns } from "../../../src/page/pages/overview";
import { restoreAction } from "../../../src/page/pages/restoring";
import { copyable, safely, shellLine } from "../../../src/page/parts";
import { Misfit, Refused } from "../../../src/page/problem";
import { timeText, visible } from "../../../src/page/text";
import { download } from "../../../src/page/transfer";
import { transferList } from "../../../src/page/transfers";
import type { Action, Tools } from "../../../src/page/tools";

type Asked = [string, Record<string, unknown>];

// What a page is given, with an agent that answers by a function.
function toolsThat(answer: (command: string, args: Record<string, unknown>) => unknown) {
    const asked: Asked[] = [];
    const acts: Action[] = [];
    const notices: string[] = [];
    const request = async (command: string, args: Record<string, unknown>) => {
        asked.push([command, args]);
        return answer(command, args) ?? {};
    };
    const tools = { agent: { request }, act: (action: Action) => acts.push(action), reload: () => undefined,
        notice: (_level: string, title: string) => notices.push(title) } as unknown as Tools;
    return { asked, acts, notices, tools };
}

test("no name becomes an option of the client", async () => {
    assert.deepEqual(argv(["account", "show"], ["shop"], ["--x"]), ["account", "show", "shop", "--x"]);
    assert.deepEqual(argv(["account", "show"], ["-Hevil"], ["--x"]), ["account", "show", "--x", "--", "-Hevil"]);
    assert.deepEqual(option("--from", "-x"), ["--from=-x"]);
    // The account of an address that somebody sent to the reader.
    await account("--socket=/tmp/mine").catch(() => undefined);
    assert.deepEqual(spawned.pop(), ["corvctl", "--json", "account", "show", "--", "--socket=/tmp/mine"]);
    // The account of a manifest that somebody wrote.
    await restoreAction(["-Hevil"], "--config=x", {} as Tools).run({ way: "home", confirm: "-Hevil" }, () => undefined);
    assert.deepEqual(spawned.pop(), ["corvctl", "backup", "restore", "--in-place", "--confirm=-Hevil", "--", "-Hevil", "--config=x", "files"]);
});

test("what cannot be seen is written by its number", () => {
    assert.equal(visible("gpj\u202eexe\u0007\u200b"), "gpj\\u{202e}exe\\u{7}\\u{200b}");
    for (const plain of ["größe €😀", "a\tb\r\nc", "שלום \u200f", "می\u200cخواهم"])
        assert.equal(visible(plain), plain);
    assert.equal((make("p", {}, "a\u202eb") as unknown as FakeElement).textContent, "a\\u{202e}b");
});

test("a line that is pasted does nothing before it is whole", async () => {
    assert.equal(shellLine(["file", "rm", "shop", "x\u0003rm -rf ~\n'\\"]), "file rm shop $'x\\u0003rm -rf ~\\u000a\\'\\\\'");
    let written = "";
    Object.defineProperty(globalThis, "navigator", { configurable: true, value: { clipboard: { writeText: (text: string) => { written = text; return Promise.resolve(); } } } });
    (copyable("mend \u001b[201~\u0003x") as unknown as FakeElement).querySelector("button")!.fire("click");
    assert.equal(written, "mend \\u{1b}[201~\\u{3}x");
});

test("a moment that no calendar has is none", () => {
    assert.equal(timeText(9007199254740991), "-");
    assert.equal(timeText(-9007199254740991), "-");
    assert.match(timeText(0), /19(70|69)/);
});

test("what cannot be shown says so, and the rest of the page stays", () => {
    const said = safely(() => { throw new RangeError("a <b>reason</b>"); });
    assert.match((said[0] as unknown as FakeNode).textContent, /cannot be shown: a <b>reason<\/b>/);
});

test("a state that is the name of something else is a word", () => {
    for (const state of ["constructor", "__proto__", "toString"]) {
        const one = { username: "s", domain: "d", state, remark: "" };
        assert.ok(make("p", {}, ...certificateText(one)).textContent!.includes(state));
        assert.deepEqual(certificateConcerns([one]), []);
    }
});

test("only a name of the transfer folder is fetched and removed", async () => {
    const before = spawned.length;
    const { tools } = toolsThat(() => ({ ok: true, size: 1, transfer: "../../../etc/shadow" }));
    await assert.rejects(download(tools.agent, "shop", "a", () => undefined, new AbortController().signal), Misfit);
    assert.equal(spawned.length, before);
});

test("keys that somebody changed meanwhile are not replaced unseen", async () => {
    let keys = "one";
    const { asked, tools } = toolsThat(command => command === "hosting.getKeys" ? { keys } : {});
    const action = keysAction("shop", "one", tools);
    keys = "one\ntwo";
    await assert.rejects(action.run({ keys: "three" }, () => undefined), Refused);
    assert.deepEqual(asked.map(([command]) => command), ["hosting.getKeys"]);
    await action.run({ keys: "three" }, () => undefined);
    assert.deepEqual(asked[asked.length - 1], ["hosting.setKeys", { username: "shop", keys: "three" }]);
});

const kShop = { username: "shop", folder: ["a"] };

for (const [what, answer, isThere] of [["a file", null, true], ["a picture", "not a text file; download it instead", true],
    ["what nobody can read", "Permission denied", true], ["nothing", "not a file", false]] as const) {
    test(`a new file where ${what} is ${isThere ? "replaces nothing" : "is written"}`, async () => {
        const { asked, tools } = toolsThat(command => {
            if (command === "files read" && answer !== null)
                throw new Refused(answer);
        });
        // Also in a folder below, of which the page has no list.
        const done = newFileAction(kShop, tools).run({ name: "b/c", content: "x" }, () => undefined);
        await (isThere ? assert.rejects(done, Refused) : done);
        assert.equal(asked.some(([command]) => command === "files write"), !isThere);
    });
}

const kFile = {} as File;

test("what would be replaced is asked about by what is there now, and by what cannot be known", async () => {
    const files: Chosen[] = [{ path: ["x", "y"], file: kFile }];
    const there = toolsThat(() => ({ entries: [{ name: "x" }], truncated: false }));
    await send(kShop, files, there.tools);
    assert.deepEqual(there.acts.map(({ id }) => id), ["replace"]);
    const unknown = toolsThat(() => ({ entries: [], truncated: true }));
    await send(kShop, files, unknown.tools);
    assert.deepEqual(unknown.acts.map(({ id }) => id), ["replace"]);
    const gone = toolsThat(() => { throw new Refused("not a folder"); });
    await send(kShop, files, gone.tools);
    assert.deepEqual([gone.acts.length, gone.notices], [0, ["Files of shop"]]);
});

const folder = (name: string, ...inside: object[]) => ({ name, isFile: false,
    createReader: () => ({ readEntries: (done: (some: object[]) => void) => done(inside.splice(0, 100)) }) });
const file = (name: string) => ({ name, isFile: true, file: (done: (one: File) => void) => done(kFile) });

test("a folder that is dropped brings those in it that are empty", async () => {
    const found = await dropped(folder("site", folder("empty"), file("a"), folder("deep", folder("er"))) as unknown as FileSystemEntry);
    assert.deepEqual(found.map(({ path, file }) => path.join("/") + (file ? "" : "/")), ["site/", "site/empty/", "site/a", "site/deep/", "site/deep/er/"]);
    const { asked, tools } = toolsThat(() => ({}));
    await sendAll(kShop, found.filter(({ file }) => !file), tools);
    assert.deepEqual(asked.map(([command, { path }]) => `${command} ${path}`),
        ["files mkdir a/site", "files mkdir a/site/empty", "files mkdir a/site/deep", "files mkdir a/site/deep/er"]);
});

test("what is dropped and cannot be read is said, and text that is dropped is nothing", async () => {
    const { asked, notices, tools } = toolsThat(() => ({}));
    const root = new FakeElement("div");
    const view = filesPage("shop", "a").view({ list: { here: { entries: [], truncated: false } } }, tools);
    root.append(...view.filter(child => child) as never as FakeNode[]);
    const drop = (...entries: unknown[]) => root.querySelector("#drop")!.listeners.drop![0]!({ preventDefault: () => undefined,
        dataTransfer: { items: entries.map(entry => ({ webkitGetAsEntry: () => entry })) } });
    drop({ name: "gone", isFile: true, file: (_done: unknown, failed: (problem: Error) => void) => failed(new Error("it is not there any more")) });
    drop(null);
    await new Promise(done => setTimeout(done));
    assert.deepEqual(notices, ["What was dropped cannot be read"]);
    assert.deepEqual(asked, []);
});

test("of several files the rest is cancelled with one press", async () => {
    const list = transferList as unknown as FakeElement;
    const { asked, tools } = toolsThat(() => {
        list.all().find(one => one.tag === "button" && one.textContent === "Cancel all")!.fire("click");
    });
    await sendAll(kShop, ["a", "b", "c"].map(name => ({ path: [name] })), tools);
    assert.deepEqual(asked.map(([, { path }]) => path), ["a/a"]);
    assert.match(list.textContent, /Cancelled/);
    assert.doesNotMatch(list.textContent, /Cancel all/);
});

test("sites that cannot be asked are no concern, and those of suspended accounts that answer are", () => {
    const site = (seen: string, what?: string) => ({ site: "s", host: "h", port: 80, seen, ...(what && { what }) });
    const found = concerns({ sites: { here: [site("well"), site("suspended", "503"), site("not asked"), site("own error", "404 Not Found"),
        site("broken", "no answer"), site("open", "200 OK")] } } as never);
    assert.deepEqual(found.map(([level, text]) => [level, text]), [["warning", "h: 404 Not Found"], ["danger", "h: no answer"],
        ["danger", "h: suspended, but its visitors get in"]]);
});
