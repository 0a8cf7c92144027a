import "./dom";
import assert from "node:assert/strict";
import test from "node:test";
import { misfit } from "../../../src/page/check";
import { kShapes } from "../../../src/page/protocol";

test("all commands of the agent have a shape, the operations on files one each", () => {
    assert.equal(Object.keys(kShapes).filter(name => !name.startsWith("files ")).length, 34);
    assert.equal(Object.keys(kShapes).filter(name => name.startsWith("files ")).length, 8);
});

test("whole numbers are whole", () => {
    for (const value of [0, -1, 9007199254740991])
        assert.equal(misfit({ size: value }, { size: "integer" }), null);
    for (const value of [2.5, 1e300, NaN, "1", null, true])
        assert.equal(misfit({ size: value }, { size: "integer" }), ".size");
});

test("the first member that does not fit is named by its path", () => {
    const shape = { disks: [{ mount: "string", "type?": "string" }] } as const;
    assert.equal(misfit({ disks: [{ mount: "/" }, { mount: "/home", type: "ext4", more: 1 }] }, shape), null);
    assert.equal(misfit({ disks: [{ mount: "/" }, { type: "ext4" }] }, shape), ".disks[1].mount");
    assert.equal(misfit({ disks: {} }, shape), ".disks");
    assert.equal(misfit({ disks: [{ mount: "/", type: null }] }, shape), ".disks[0].type");
});

test("a reply within a reply may have failed, but not without a word", () => {
    const whole = { ok: true, installed: false, sshPort: "22" };
    const bans = { ok: true, installed: false };
    assert.equal(misfit({ firewall: whole, fail2ban: bans }, kShapes["security.status"]), null);
    assert.equal(misfit({ firewall: { ok: false, error: "no" }, fail2ban: bans }, kShapes["security.status"]), null);
    assert.equal(misfit({ firewall: { ok: false }, fail2ban: bans }, kShapes["security.status"]), ".firewall.error");
    assert.equal(misfit({ firewall: { ok: true }, fail2ban: bans }, kShapes["security.status"]), ".firewall.installed");
});

test("members of any name have a type too", () => {
    assert.equal(misfit(JSON.parse('{"usage":{"shop":1,"__proto__":2}}'), kShapes["hosting.usage"]), null);
    assert.equal(misfit(JSON.parse('{"usage":{"shop":1,"__proto__":{"a":2}}}'), kShapes["hosting.usage"]), ".usage.__proto__");
    assert.equal(misfit({ usage: { shop: "1" } }, kShapes["hosting.usage"]), ".usage.shop");
});

test("a member that every object has by itself does not count as one of the reply", () => {
    assert.equal(misfit(JSON.parse('{"__proto__":{"name":"x"}}'), { name: "string" }), ".name");
    assert.equal(misfit({}, { "constructor?": "string" }), null);
    assert.equal(misfit({}, JSON.parse('{"__proto__":{}}')), ".__proto__");
});
