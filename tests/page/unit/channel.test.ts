import { channels, type FakeChannel } from "./dom";
import assert from "node:assert/strict";
import test from "node:test";
import { Agent, type Pending } from "../../../src/page/channel";
import { Misfit, NoAgent, Refused } from "../../../src/page/problem";

const newest = () => channels[channels.length - 1] as FakeChannel;

test("a request is one line of JSON, and its reply what it resolves with", async () => {
    const asked = new Agent().request("services.restart", { name: "apache2" });
    assert.deepEqual(newest().options, { payload: "stream", unix: "/run/corvane/agent.sock", superuser: "require", binary: true });
    assert.deepEqual(newest().sent, ['{"cmd":"services.restart","args":{"name":"apache2"}}\n']);
    newest().says('{"ok":true,"queued":true}\n');
    assert.deepEqual(await asked, { ok: true, queued: true });
});

test("an operation on files is an argument of its one command", async () => {
    const asked = new Agent().request("files mkdir", { username: "shop", path: "a b\n" });
    assert.deepEqual(newest().sent, ['{"cmd":"files","args":{"username":"shop","path":"a b\\n","op":"mkdir"}}\n']);
    newest().says('{"ok":true}\n');
    assert.deepEqual(await asked, { ok: true });
});

test("replies belong to the requests in their order, however they are cut", async () => {
    const agent = new Agent();
    const first = agent.request("ping", {});
    const second = agent.request("hosting.getKeys", { username: "shop" });
    const bytes = new TextEncoder().encode('{"ok":true,"version":"1"}\n{"ok":true,"keys":"ü€😀"}\n');
    for (const byte of bytes)
        newest().bytes(new Uint8Array([byte]));
    assert.deepEqual([await first, await second], [{ ok: true, version: "1" }, { ok: true, keys: "ü€😀" }]);
});

test("a reply of four megabytes is taken", async () => {
    const asked = new Agent().request("files read", { username: "shop", path: "a" });
    const bytes = new TextEncoder().encode(JSON.stringify({ ok: true, content: "x".repeat(4 << 20) }) + "\n");
    for (let at = 0; at < bytes.length; at += 4096)
        newest().bytes(bytes.subarray(at, at + 4096));
    assert.equal((await asked).content.length, 4 << 20);
});

test("a refusal carries the agent's sentence", async () => {
    const asked = new Agent().request("hosting.suspend", { username: "shop" });
    newest().says('{"ok":false,"error":"no such user"}\n');
    await assert.rejects(asked, (error: Error) => error instanceof Refused && error.message === "no such user");
});

for (const [what, line] of [
    ["a member of another type", '{"ok":true,"queued":"yes"}'], ["a missing member", '{"ok":true}'], ["no object", "[]"],
    ["no JSON", "queued"], ["an ok that is no truth value", '{"ok":1,"queued":true}'], ["an error that is no text", '{"ok":false,"error":{}}'],
]) {
    test(`a reply with ${what} is an error`, async () => {
        const asked = new Agent().request("services.restart", { name: "apache2" });
        newest().says(`${line}\n`);
        await assert.rejects(asked, Misfit);
    });
}

test("a lost connection fails what waits, and the next request opens a new one", async () => {
    const agent = new Agent();
    const lost = [agent.request("ping", {}), agent.request("system.disks", {})];
    newest().says('{"ok":tr');
    newest().end({ problem: "disconnected" });
    for (const one of lost)
        await assert.rejects(one, (error: Error) => error instanceof NoAgent && error.problem === "disconnected");
    const before = channels.length;
    const asked = agent.request("ping", {});
    assert.equal(channels.length, before + 1);
    newest().says('{"ok":true,"version":"1"}\n');
    assert.deepEqual(await asked, { ok: true, version: "1" });
});

test("a connection that the agent closes without a word counts as lost", async () => {
    const asked = new Agent().request("ping", {});
    newest().end({});
    await assert.rejects(asked, (error: Error) => error instanceof NoAgent && error.problem === "lost");
});

test("what waits is told, the request in work first", async () => {
    let pending: readonly Pending[] = [];
    const agent = new Agent(now => { pending = [...now]; });
    const asked = [agent.request("backup.start", {}), agent.request("ping", {})];
    assert.deepEqual(pending.map(({ command }) => command), ["backup.start", "ping"]);
    newest().says('{"ok":true}\n');
    assert.deepEqual(pending.map(({ command }) => command), ["ping"]);
    newest().says('{"ok":true,"version":"1"}\n');
    await Promise.all(asked);
    assert.deepEqual(pending, []);
});

test("a line that nobody asked for ends the connection, so that no reply goes to another request", async () => {
    const agent = new Agent();
    const asked = agent.request("ping", {});
    const connection = newest();
    connection.says('{"ok":true,"version":"1"}\n{"ok":true,"version":"2"}\n');
    assert.deepEqual(await asked, { ok: true, version: "1" });
    assert.equal(connection.isClosed, true);
    const next = agent.request("ping", {});
    assert.notEqual(newest(), connection);
    connection.says('{"ok":true,"version":"3"}\n');
    newest().says('{"ok":true,"version":"4"}\n');
    assert.deepEqual(await next, { ok: true, version: "4" });
});

test("what is longer than the agent takes is not sent, and what waits there is not lost with it", async () => {
    const agent = new Agent();
    const first = agent.request("ping", {});
    const tooLong = agent.request("files write", { username: "shop", path: "a", content: "\u0001".repeat(1 << 20) });
    await assert.rejects(tooLong, (error: Error) => error instanceof Refused && /too much/.test(error.message));
    assert.equal(newest().sent.length, 1);
    newest().says('{"ok":true,"version":"1"}\n');
    assert.deepEqual(await first, { ok: true, version: "1" });
});
