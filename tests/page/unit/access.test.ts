import "./dom";
import assert from "node:assert/strict";
import test from "node:test";
import { watchAccess, type Access } from "../../../src/page/access";

// What Cockpit tells of the session's access, by hand.
function session() {
    const waiting: (() => void)[] = [];
    const proxy = { valid: false, Current: "init", wait: (done: () => void) => waiting.push(done), addEventListener: (_type: string, done: () => void) => waiting.push(done) };
    Object.assign(cockpit, { dbus: () => ({ proxy: () => proxy }) });
    return { proxy, tell: (current: string) => { Object.assign(proxy, { valid: true, Current: current }); waiting.forEach(done => done()); } };
}

const kNever = () => new Promise<void>(() => undefined);

test("access is as Cockpit tells it, each change once", () => {
    const { tell } = session();
    const seen: Access[] = [];
    watchAccess(access => seen.push(access), kNever);
    for (const current of ["init", "none", "sudo", "sudo", "none"])
        tell(current);
    assert.deepEqual(seen, [null, false, true, false]);
});

test("a request that goes through tells of it sooner, and Cockpit has the last word", async () => {
    const { tell } = session();
    const seen: Access[] = [];
    watchAccess(access => seen.push(access), () => Promise.resolve());
    await new Promise(done => setTimeout(done));
    assert.deepEqual(seen, [true]);
    tell("init");
    tell("sudo");
    assert.deepEqual(seen, [true]);
    tell("none");
    assert.deepEqual(seen, [true, false]);
});

test("a request that is refused tells nothing", async () => {
    const { tell } = session();
    const seen: Access[] = [];
    watchAccess(access => seen.push(access), () => Promise.reject(new Error("access-denied")));
    await new Promise(done => setTimeout(done));
    assert.deepEqual(seen, []);
    tell("none");
    assert.deepEqual(seen, [false]);
});

test("a request that goes through late says nothing against Cockpit", async () => {
    const { tell } = session();
    const seen: Access[] = [];
    let done = () => undefined as void;
    watchAccess(access => seen.push(access), () => new Promise<void>(resolve => { done = resolve; }));
    tell("none");
    done();
    await new Promise(again => setTimeout(again));
    assert.deepEqual(seen, [false]);
});
