import { FakeElement, programs, spawned, type FakeNode } from "./dom";
import assert from "node:assert/strict";
import test from "node:test";
import { accounts, certificates, doctor, run } from "../../../src/page/client";
import { make } from "../../../src/page/elements";
import { growth } from "../../../src/page/pages/account";
import { accountsPage, chosen, lastBackups, wished } from "../../../src/page/pages/accounts";
import { durations, sizes } from "../../../src/page/pages/backups";
import { lineEnd, pathOf } from "../../../src/page/pages/fileactions";
import { modeText } from "../../../src/page/pages/files";
import { ownPort } from "../../../src/page/pages/firewall";
import { restoreAction, undeleteAction } from "../../../src/page/pages/restoring";
import { certificatesCard } from "../../../src/page/pages/certificates";
import { concerns, overviewPage, type Data } from "../../../src/page/pages/overview";
import { lastStates, problemText, sameLine, shellLine } from "../../../src/page/parts";
import { pendingText } from "../../../src/page/pending";
import { place, plot } from "../../../src/page/plot";
import { NoAgent, Refused } from "../../../src/page/problem";
import { agoText, backupText, bytesText, spanText } from "../../../src/page/text";
import type { Parts, Tools } from "../../../src/page/tools";

const tools = {} as Tools;
const words = (nodes: unknown[]) => nodes.filter(node => node).map(node => (node as FakeNode).textContent).join("\n");
const kNow = 1_800_000_000;

function backups(...list: Record<string, unknown>[]) {
    return { destination: "/b", keepDays: 14, backups: list, running: false, next: "", log: "", freeBytes: 1, totalBytes: 2 } as never as Data["backups"];
}

test("text stays text, and no attribute becomes a script", () => {
    const attack = "<img src=x onerror=alert(1)>";
    const element = make("p", {}, attack) as unknown as FakeElement;
    assert.equal(element.textContent, attack);
    assert.deepEqual(element.all(), []);
    for (const name of ["onclick", "style", "srcdoc"])
        assert.throws(() => make("p", { [name]: attack }), /no attribute/);
});

test("an account whose names are an attack is drawn as text", () => {
    const attack = "<script>alert(1)</script>";
    const page = accountsPage.view({ accounts: { here: { accounts: [{ username: attack, domain: attack, state: attack }] } }, backups: null, gone: { here: [{ username: attack, domain: attack, sources: [] }] } }, tools);
    const root = new FakeElement("div");
    root.append(...page.filter(child => child) as never as FakeNode[]);
    assert.ok(root.textContent.includes(attack));
    assert.equal(root.querySelector("script"), null);
});

test("accounts are found, filtered and sorted", () => {
    const all = [
        { username: "zoo", domain: "a.example", state: "on-line", usedBytes: 5 },
        { username: "alpha", domain: "z.example", state: "suspended" },
        { username: "shop", domain: "m.example", state: "on-line", usedBytes: 9 }];
    const names = (wish: Partial<typeof wished>) => chosen(all, { text: "", state: "", by: "username", ...wish }).map(one => one.username);
    assert.deepEqual(names({}), ["alpha", "shop", "zoo"]);
    assert.deepEqual(names({ by: "domain" }), ["zoo", "shop", "alpha"]);
    assert.deepEqual(names({ by: "usedBytes" }), ["shop", "zoo", "alpha"]);
    assert.deepEqual(names({ state: "suspended" }), ["alpha"]);
    assert.deepEqual(names({ state: "on-line" }), ["shop", "zoo"]);
    assert.deepEqual(names({ text: "M.EX" }), ["shop"]);
    assert.deepEqual(names({ text: "nobody" }), []);
});

test("use is shown against the limit where there is one, and by its source where it is not of now", () => {
    const page = (usedFrom: string) => words(accountsPage.view({ backups: null, gone: null, accounts: { here: { usedFrom, accounts: [
        { username: "shop", domain: "d", state: "on-line", usedBytes: 50, limitBytes: 100 }, { username: "zoo", domain: "d", state: "on-line", usedBytes: 7 }] } } }, tools));
    assert.match(page("quotas"), /50 byte of 100 byte[^]*7 byte/);
    assert.doesNotMatch(page("quotas"), /newest backup/);
    assert.match(page("backup"), /archive in the newest backup/);
});

test("the newest backup of an account counts", () => {
    const status = backups({ name: "2", bytes: 1, accounts: [{ username: "shop" }] }, { name: "1", bytes: 1, accounts: [{ username: "shop" }, { username: "old" }] });
    assert.deepEqual([...lastBackups(status)], [["shop", "2"], ["old", "1"]]);
});

test("a backup that is missing or has problems is marked, and none is made up", () => {
    const day = 86400;
    const status = backups({ name: "c", bytes: 7, created: 3 * day, errors: [] }, { name: "b", bytes: 1 }, { name: "a", bytes: 5, created: day, errors: ["x"] });
    const known = [{ at: day, value: 5, mark: "with problems" }, { at: 2 * day, value: 0, mark: "no backup", isMissing: true }, { at: 3 * day, value: 7 }];
    assert.deepEqual(sizes(status, 4.4 * day), known);
    // Those that are missing until now, too.
    assert.deepEqual(sizes(status, 5.6 * day), [...known, ...[4, 5].map(days => ({ at: days * day, value: 0, mark: "no backup", isMissing: true }))]);
    // A clock that was wrong once.
    assert.equal(sizes(backups({ name: "b", bytes: 1, created: 9007199254740991 }, { name: "a", bytes: 1, created: 1 }), 2).length, 102);
});

test("the time that backups took is drawn where it is told", () => {
    const status = backups({ name: "c", bytes: 7, created: 30, seconds: 9 }, { name: "b", bytes: 1, created: 20 }, { name: "a", bytes: 5, created: 10, seconds: 4 });
    assert.deepEqual(durations(status), [{ at: 10, value: 4 }, { at: 30, value: 9 }]);
});

test("an account grows by what the manifests tell", () => {
    const status = backups({ name: "b", bytes: 1, created: 2, accounts: [{ username: "shop", homeBytes: 9 }] },
        { name: "a", bytes: 1, created: 1, accounts: [{ username: "shop", homeBytes: 4, dbBytes: 1 }] });
    assert.deepEqual(growth(status, "shop", "homeBytes"), [{ at: 1, value: 4 }, { at: 2, value: 9 }]);
    assert.deepEqual(growth(status, "shop", "dbBytes"), [{ at: 1, value: 1 }]);
});

test("what is missing is no part of the line, and not the last of it", () => {
    const drawn = plot("p", [{ name: "n", points: [{ at: 0, value: 10 }, { at: 5, value: 0, mark: "none", isMissing: true }, { at: 10, value: 5 },
        { at: 20, value: 0, mark: "none", isMissing: true }] }], String) as unknown as FakeElement;
    assert.equal(drawn.querySelector("polyline")!.getAttribute("points"), "8,8 320,80");
    assert.deepEqual(drawn.all().filter(one => one.tag === "circle").map(one => one.getAttribute("class")), ["dot line-0", "mark", "dot line-0", "mark"]);
    assert.equal(drawn.all().filter(one => one.tag === "span").pop()!.textContent, "n: 5");
});

test("points lie within their drawing", () => {
    assert.deepEqual(place({ at: 5, value: 10 }, 5, 5, 10), [320, 8]);
    assert.deepEqual(place({ at: 0, value: 0 }, 0, 10, 0), [8, 152]);
    assert.deepEqual(place({ at: 10, value: 10 }, 0, 10, 10), [632, 8]);
});

test("a server without a fault is well only when all of it was seen", () => {
    const well = {
        info: null, disks: { here: { disks: [] } }, services: { here: { services: [{ name: "apache2", loaded: true, active: true }] } },
        security: { here: { firewall: { ok: true, installed: true, sshPort: "22", active: true }, fail2ban: { ok: true, installed: false } } },
        updates: null, backups: { here: backups({ name: "a", bytes: 1, created: kNow }) }, accounts: null, sites: { here: [] },
        verdicts: { here: new Map([["a", { checked: kNow, faults: [] }]]) },
        doctor: { here: { host: "w", faults: 0, notes: 0, checks: [] } }, offsite: { problem: new Refused("no off-site place is set up") }, certificates: { here: null },
    } as Parts<Data>;
    assert.deepEqual(concerns(well, kNow), []);
    assert.match(words(overviewPage.view(well, tools)), /still looking|needs attention/);
});

test("each thing that needs attention is a sentence with the way to it", () => {
    const sick = {
        info: null, disks: { here: { disks: [{ mount: "/home", device: "", type: "", total: 100, avail: 3 }] } },
        services: { here: { services: [{ name: "apache2", loaded: true, active: false }, { name: "gone", loaded: false, active: false }] } },
        security: { here: { firewall: { ok: true, installed: false, sshPort: "22" }, fail2ban: { ok: true, installed: false } } },
        updates: { here: { security: 2, updates: 3, rebootRequired: true } as never },
        backups: { here: backups({ name: "a", bytes: 1, created: kNow - 3 * 86400, errors: ["x", "y"] }) }, accounts: null,
        sites: { here: [{ site: "s", host: "shop.example", port: 80, seen: "error", what: "500" }, { site: "t", host: "b", port: 80, seen: "suspended" }] },
        verdicts: { here: new Map([["2026-11-22_031500", { checked: kNow, faults: ["cut"] }]]) },
        doctor: { here: { host: "w", faults: 1, notes: 0, checks: [] } },
        offsite: { here: { repository: "/b", state: { copied: "", copiedAt: 0, checkedAt: 0, checkProblem: "a pack is damaged", problems: ["no way there"] } } },
        certificates: { here: [
            { username: "s", domain: "shop.example", state: "served", remark: "", validUntil: kNow + 9e6 }, { username: "t", domain: "t.example", state: "ending", remark: "" },
            { username: "u", domain: "u.example", state: "left out", remark: "it leads elsewhere" }, { username: "v", domain: "v.example", state: "waiting", remark: "" }] },
    } as Parts<Data>;
    assert.deepEqual(concerns(sick, kNow), [
        ["danger", "The service apache2 does not run", "services"], ["danger", "The disk /home is nearly full", "#server"],
        ["danger", "The last backup has 2 problems", "backups"], ["warning", "The last backup is from 3 days ago", "backups"],
        ["danger", "The backup of 2026-11-22 03:15 is not whole", "backups"],
        ["danger", "Off-site: no way there", "backups"], ["danger", "Off-site: a pack is damaged", "backups"],
        ["warning", "HTTPS of t.example: Ends soon", "#certificates"], ["danger", "HTTPS of u.example: it leads elsewhere", "#certificates"], ["warning", "2 security updates wait", "updates"], ["warning", "The server waits for a restart", "updates"],
        ["warning", "The firewall is off", "firewall"], ["danger", "shop.example: 500", "accounts"],
        ["danger", "The examination found 1 fault", "#examination"]]);
});

test("the port of this page is the browser's", () => {
    assert.equal(ownPort({ port: "9090", protocol: "https:" }), 9090);
    assert.equal(ownPort({ port: "", protocol: "https:" }), 443);
    assert.equal(ownPort({ port: "", protocol: "http:" }), 80);
});

test("certificates are shown where the client knows of them, and nothing where it does not", () => {
    assert.equal(certificatesCard(null), null);
    assert.equal(certificatesCard({ here: null }), null);
    assert.match(words([certificatesCard({ problem: new Refused("HTTPS is off") })]), /Off/);
    const said = words([certificatesCard({ here: [
        { username: "s", domain: "shop.example", state: "served", remark: "", validUntil: kNow }, { username: "u", domain: "u.example", state: "left out", remark: "it leads elsewhere" }] })]);
    assert.match(said, /1 site/);
    assert.match(said, /u\.exampleLeft out {2}it leads elsewhere/);
    assert.doesNotMatch(said, /shop\.example/);
});

test("a client that knows nothing of HTTPS is no error, one that refuses is", async () => {
    programs.push({ printed: "", fails: { exit_status: 2, message: "corvctl: no command 'https'\n  corvctl help lists them" } });
    assert.equal(await certificates(), null);
    programs.push({ printed: '{"ok":false,"error":"HTTPS is off"}', fails: { exit_status: 1, message: "corvctl: HTTPS is off" } });
    await assert.rejects(certificates(), (error: Error) => error instanceof Refused && error.message === "HTTPS is off");
    programs.push({ printed: '{"ok":true,"sites":[{"username":"s","domain":"d","names":["d"],"state":"served","remark":"","brought":false,"validUntil":5}]}' });
    assert.equal((await certificates())![0]!.validUntil, 5);
});

const source = { from: "2026-11-22_031500", kind: "backup", made: kNow, homeBytes: 1000, dbBytes: 0, state: true, checked: 0, fault: "" };

test("an account that is gone comes back from what the reader chooses, by its name", () => {
    const action = undeleteAction({ username: "old", domain: "", sources: [source, { ...source, from: "old-20261121-120000", kind: "deletion" }] });
    assert.deepEqual(action.fields!.map(({ name, value, must }) => [name, value, must]), [["from", "2026-11-22_031500", undefined], ["confirm", undefined, "old"]]);
    assert.deepEqual(action.same({ from: "old-20261121-120000" }), ["account", "restore", "old", "--from", "old-20261121-120000"]);
});

test("a restore asks for the name of the account that was chosen", () => {
    const must = (names: string[], chosen: Record<string, string>) =>
        (restoreAction(names, "b", tools).fields!.find(({ name }) => name === "confirm")!.must as (values: Record<string, string>) => string)(chosen);
    assert.equal(must(["shop"], {}), "shop");
    assert.equal(must(["alice", "shop"], { account: "shop" }), "shop");
    const action = restoreAction(["alice", "shop"], "b", tools);
    assert.deepEqual(action.same({ account: "shop", way: "folder", folder: "x y" }), ["backup", "restore", "shop", "b", "files", "x y", "--in-place"]);
    assert.deepEqual(action.same({ account: "shop", way: "home", folder: "x" }), ["backup", "restore", "shop", "b", "files", "--in-place"]);
    assert.deepEqual(action.same({ account: "shop", way: "beside", folder: "x" }), ["backup", "restore", "shop", "b", "files"]);
    assert.deepEqual(action.same({ account: "shop", way: "database", folder: "x" }), ["backup", "restore", "shop", "b", "database"]);
});

test("what is in work is named, with what waits behind it", () => {
    const began = (command: string, args = {}) => ({ command, args, since: 0 }) as never;
    assert.deepEqual(pendingText([], 5000), []);
    assert.deepEqual(pendingText([began("ping")], 900), []);
    assert.deepEqual(pendingText([began("hosting.create", { username: "shop" }), began("backup.status"), began("backup.status")], 12000),
        ["In work for 12s: hosting.create shop", "2 requests wait behind it (backup.status)"]);
});

test("the line to be copied is one that a shell reads as it was meant", () => {
    assert.equal(shellLine(["file", "rm", "shop", "a b", "it's", "", "$(x)"]), "file rm shop 'a b' 'it'\\''s' '' '$(x)'");
    assert.equal(sameLine([["firewall", "allow", "9090"], ["firewall", "enable"]]), "corvctl firewall allow 9090 && corvctl firewall enable");
});

test("the client is run with a list of arguments, and its report counts though it found faults", async () => {
    programs.push({ printed: '{"ok":true,"accounts":[{"username":"shop","domain":"d","state":"on-line"}]}' });
    assert.deepEqual((await accounts()).accounts, [{ username: "shop", domain: "d", state: "on-line" }]);
    assert.deepEqual(spawned.pop(), ["corvctl", "--json", "account", "list"]);
    programs.push({ printed: '{"ok":true,"host":"w","faults":1,"notes":0,"checks":[]}', fails: { exit_status: 1, message: "failed" } });
    assert.equal((await doctor()).faults, 1);
});

test("what the client refuses is told in its words", async () => {
    programs.push({ printed: "", fails: { exit_status: 2, message: "corvctl: no command 'offsite'" } });
    await assert.rejects(run(["offsite", "status"]), (error: Error) => error instanceof Refused && error.message === "no command 'offsite'");
    programs.push({ printed: '{"ok":false,"error":"there is no backup"}', fails: { exit_status: 1, message: "x" } });
    await assert.rejects(accounts(), (error: Error) => error instanceof Refused && error.message === "there is no backup");
    programs.push({ printed: '{"ok":true,"accounts":[{"username":1}]}' });
    await assert.rejects(accounts(), /does not fit at \.accounts\[0\]\.username/);
    programs.push({ printed: "", fails: { problem: "access-denied", message: "no" } });
    await assert.rejects(accounts(), (error: Error) => error instanceof NoAgent && error.problem === "access-denied");
});

test("an old agent and a lost connection have words of their own", () => {
    assert.match(problemText(new Refused("unknown command")), /older than this page/);
    assert.match(problemText(new NoAgent("lost", "x")), /connection was lost/);
    assert.equal(problemText(new Refused("no such user")), "no such user");
});

test("a text field gives back what it was given", () => {
    for (const [content, end] of [["", "\n"], ["a\nb\n", "\n"], ["a\r\nb\r\n", "\r\n"], ["a\r\nb\n", null], ["a\rb", null], ["a\r\n\rb", null]] as const)
        assert.equal(lineEnd(content), end, JSON.stringify(content));
});

test("modes, paths, sizes and times are written for a reader", () => {
    assert.equal(modeText("0755"), "rwxr-xr-x");
    assert.equal(modeText("2640"), "rw-r-----");
    assert.equal(pathOf({ username: "a", folder: ["x", "y"] }, "z"), "x/y/z");
    assert.equal(pathOf({ username: "a", folder: [] }), "");
    assert.deepEqual([0, 999, 1000, 15100, 268435456, 5e12].map(bytesText), ["0 byte", "999 byte", "1 kB", "15.1 kB", "268 MB", "5 TB"]);
    assert.equal(spanText(93784), "1d 2h");
    assert.equal(spanText(0), "0 s");
    assert.equal(agoText(kNow - 7200, kNow), "2 hours ago");
    assert.equal(backupText("2026-11-22_031500"), "2026-11-22 03:15");
    assert.equal(backupText("../x"), "../x");
});

test("of a line that was written over and over the last state is shown, and a long log costs no time", () => {
    assert.equal(lastStates("a\n5%\r10%\r100%\nb\r\n\n"), "a\n100%\nb\r\n\n");
    const long = "x".repeat(4 << 20);
    assert.equal(lastStates(long), long);
});
