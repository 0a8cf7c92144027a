import "./dom";
import assert from "node:assert/strict";
import test from "node:test";
import { enable, isReachable, keepsPage, meets } from "../../../src/page/pages/firewall";
import { Refused } from "../../../src/page/problem";
import type { Tools } from "../../../src/page/tools";

const rule = (to: string, action = "ALLOW IN", from = "Anywhere") => ({ number: 1, to, action, from, ssh: false });

for (const [to, what] of [["9090/tcp", "all"], ["9090", "all"], ["9090/tcp (v6)", "all"], ["80,9090/tcp", "all"], ["9000:9100/tcp", "all"],
    ["Anywhere", "all"], ["9090/udp", "none"], ["90/tcp", "none"], ["19090/tcp", "none"], ["9091:9100/tcp", "none"], ["Nginx Full", "none"],
    ["9090/tcp on eth0", "some"], ["9090/tcp (v6) on eth0", "some"], ["192.0.2.1 9090/tcp", "some"], ["192.0.2.1 22/tcp", "none"]] as const) {
    test(`a rule for ${to} lets ${what} in to port 9090`, () => assert.equal(meets(rule(to), 9090), what));
}

test("a rule may let some in only, or shut everybody out", () => {
    assert.equal(meets(rule("9090/tcp", "DENY IN"), 9090), "shut");
    assert.equal(meets(rule("Anywhere", "REJECT IN"), 9090), "shut");
    assert.equal(meets(rule("9090/tcp", "DENY IN", "192.0.2.7"), 9090), "none");
    assert.equal(meets(rule("9090/tcp", "ALLOW OUT"), 9090), "none");
    assert.equal(meets(rule("9090/tcp", "ALLOW IN", "10.0.0.0/8"), 9090), "some");
    assert.equal(meets(rule("9090/tcp (v6)", "LIMIT IN", "Anywhere (v6)"), 9090), "all");
    // A page behind a web server is reached by that one's profile.
    assert.equal(meets(rule("WWW Full"), 443), "some");
});

test("the last rule that lets the page's port in keeps it, for each kind of address by itself", () => {
    const four = rule("9090/tcp"), six = rule("9090/tcp (v6)", "ALLOW IN", "Anywhere (v6)"), range = rule("9000:9100/tcp");
    assert.equal(keepsPage(four, [four, six], 9090), true);
    assert.equal(keepsPage(four, [four, six, range], 9090), false);
    assert.equal(keepsPage(six, [four, six, range], 9090), true);
    assert.equal(keepsPage(rule("80/tcp"), [four], 9090), false);
});

test("where only some are let in, none of those rules can be told from the reader's own", () => {
    const one = rule("9090/tcp", "ALLOW IN", "10.0.0.0/8"), other = rule("9090/tcp", "ALLOW IN", "192.168.0.0/16"), all = rule("9090/tcp");
    assert.equal(keepsPage(one, [one, other], 9090), true);
    assert.equal(keepsPage(other, [one, other], 9090), true);
    assert.equal(keepsPage(one, [one, other, all], 9090), false);
    assert.equal(keepsPage(rule("9090/tcp", "ALLOW IN", "2001:db8::/32"), [one, all], 9090), true);
    assert.equal(keepsPage(all, [one, other, all], 9090), true);
});

test("a rule that shuts the port before it is let in counts", () => {
    const shut = rule("9000:9100/tcp", "DENY IN"), open = rule("9090/tcp");
    assert.equal(isReachable([open, shut], 9090), true);
    assert.equal(isReachable([shut, open], 9090), false);
    assert.equal(isReachable([], 9090), false);
    assert.equal(isReachable([open, rule("80/tcp (v6)", "ALLOW IN", "Anywhere (v6)")], 9090), false);
    // Then the rule that comes too late keeps nothing, and can go.
    assert.equal(keepsPage(open, [shut, open], 9090), false);
});

// An agent that gives each command the replies that are meant for it, in their order, and writes down what it was asked.
function agentThat(replies: Record<string, (object | Error)[]>) {
    const asked: string[] = [];
    const request = (command: string) => {
        asked.push(command);
        const reply = replies[command]?.shift() ?? {};
        return reply instanceof Error ? Promise.reject(reply) : Promise.resolve(reply);
    };
    return { asked, tools: { agent: { request } } as unknown as Tools };
}

test("the page's own port is open before the firewall is on", async () => {
    const { asked, tools } = agentThat({ "firewall.status": [{ installed: true }, { installed: true, rules: [rule("9090/tcp")] }] });
    await enable(tools, 9090);
    assert.deepEqual(asked, ["firewall.status", "firewall.allow", "firewall.enable", "firewall.status"]);
});

test("a port that cannot be opened leaves the firewall off", async () => {
    const refusal = new Refused("ufw failed");
    const before = agentThat({ "firewall.status": [{ installed: true }], "firewall.allow": [refusal] });
    await assert.rejects(enable(before.tools, 9090), refusal);
    assert.deepEqual(before.asked, ["firewall.status", "firewall.allow"]);
    // Where ufw comes with it, the rule can only follow.
    const after = agentThat({ "firewall.status": [{ installed: false }], "firewall.allow": [refusal] });
    await assert.rejects(enable(after.tools, 9090), refusal);
    assert.deepEqual(after.asked, ["firewall.status", "firewall.enable", "firewall.allow", "firewall.disable"]);
});

test("a firewall whose rules shut the page out is switched off again", async () => {
    const { asked, tools } = agentThat({ "firewall.status": [{ installed: true }, { installed: true, rules: [rule("9090/tcp", "DENY IN"), rule("9090/tcp")] }] });
    await assert.rejects(enable(tools, 9090), /off again/);
    assert.equal(asked[asked.length - 1], "firewall.disable");
});
