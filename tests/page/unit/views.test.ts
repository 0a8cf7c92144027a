import { FakeElement, type FakeNode } from "./dom";
import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import test from "node:test";
import { accountPage } from "../../../src/page/pages/account";
import { accountsPage } from "../../../src/page/pages/accounts";
import { backupsPage } from "../../../src/page/pages/backups";
import { filesPage } from "../../../src/page/pages/files";
import { firewallPage } from "../../../src/page/pages/firewall";
import { overviewPage } from "../../../src/page/pages/overview";
import { servicesPage } from "../../../src/page/pages/services";
import { updatesPage } from "../../../src/page/pages/updates";
import { sameLine } from "../../../src/page/parts";
import { NoAgent, Refused } from "../../../src/page/problem";
import type { Action, Page, Tools } from "../../../src/page/tools";

type AnyPage = Page<Record<string, unknown>>;
const tools = { agent: { request: () => new Promise(() => undefined) } } as unknown as Tools;
const kNow = 1_800_000_000;

const backup = { name: "2026-11-22_031500", bytes: 5000, created: kNow, seconds: 61, panelBytes: 0, errors: ["bob: tar failed"],
    accounts: [{ username: "shop", homeBytes: 4000, dbBytes: 1000 }] };
const backups = { destination: "/srv/auto", keepDays: 14, backups: [backup], running: true, next: "tomorrow", log: "account shop", freeBytes: 5e9, totalBytes: 1e10 };
const source = { from: "old-20261121-120000", kind: "deletion", made: kNow, homeBytes: 3000, dbBytes: 0, state: true, checked: 0, fault: "is damaged" };
const services = { services: [{ name: "apache2", loaded: true, active: true, sub: "running", since: kNow, memory: 1e6 },
    { name: "postgresql", loaded: true, active: false, sub: "dead", since: null, memory: null }, { name: "dovecot", loaded: false, active: false, sub: "" }] };
const firewall = { installed: true, active: true, sshPort: "22", rules: [
    { number: 1, to: "22/tcp", action: "ALLOW IN", from: "Anywhere", ssh: true }, { number: 2, to: "9090/tcp", action: "ALLOW IN", from: "Anywhere", ssh: false },
    { number: 3, to: "8080/tcp", action: "ALLOW IN", from: "10.0.0.0/8", ssh: false }] };
const bans = { installed: true, running: true, jails: [{ name: "sshd", failed: 2, banned: ["192.0.2.7"], totalBanned: 9 }] };
const updates = { updates: 3, security: 1, running: false, log: "== finished", lastCheck: kNow, automatic: false, rebootRequired: true, rebootPackages: ["libc6"],
    hostname: "web1", packages: [{ name: "libc6", from: "1", to: "2", security: true }] };

// Each page with data for all of it, and what then stands on it.
const kPages: [string, unknown, Record<string, unknown>, string[]][] = [
    ["overview", overviewPage, {
        info: { hostname: "web1", os: "Debian", kernel: "6.1", uptimeSeconds: 90000 }, disks: { disks: [{ mount: "/home", device: "", type: "", total: 100, avail: 50 }] },
        services, security: { firewall: { ok: true, ...firewall }, fail2ban: { ok: true, ...bans } }, updates, backups,
        accounts: { accounts: [{ username: "shop", domain: "shop.example", state: "on-line", usedBytes: 5 }], usedFrom: "backup" }, sites: [], verdicts: new Map(),
        offsite: { repository: "/b", state: { copied: backup.name, copiedAt: 1, checkedAt: 1, checkProblem: "", problems: [] } },
        certificates: [{ username: "shop", domain: "shop.example", state: "expired", remark: "" }],
        doctor: { host: "web1", faults: 1, notes: 0, checks: [{ check: "sshd", seen: "sshd -T", findings: [{ level: "fault", problem: "it is odd", mend: "mend it" }] }] },
    }, ["web1", "/home", "1 account", "1 address banned", "3, 1 for security", "Copied", "HTTPS of shop.example: Expired", "it is odd", "mend it"]],
    ["accounts", accountsPage, {
        accounts: { accounts: [{ username: "shop", domain: "shop.example", state: "suspended", usedBytes: 5, limitBytes: 10 }] }, backups, gone: [{ username: "old", domain: "old.example", sources: [source] }],
    }, ["shop.example", "Suspended", "5 byte of 10 byte", "2026-11-22 03:15", "old.example", "Damaged"]],
    ["account", accountPage("shop"), {
        account: { username: "shop", domain: "shop.example", state: "on-line", home: "/home/shop", php: "8.2", usedBytes: 50, limitBytes: 100,
            database: { name: "shop", bytes: 7000, readOnly: true }, keys: [{ type: "ED25519", comment: "work", fingerprint: "SHA256:abc" }] },
        sites: [{ site: "corv-shop", host: "shop.example", port: 80, seen: "error", status: 502, what: "502 Bad Gateway" }],
        certificates: null, backups, keys: { keys: "ssh-ed25519 AAAA work" },
    }, ["502 Bad Gateway", "8.2", "50 byte of 100 byte", "Read-only", "SHA256:abc", "Home: 4 kB", "Restore…"]],
    ["files", filesPage("shop", "public_html"), {
        list: { entries: [{ name: "img", dir: true, link: false, size: 0, mtime: kNow, mode: "0755" }, { name: "a.html", dir: false, link: true, size: 1500, mtime: kNow, mode: "0640" }], truncated: true },
    }, ["img/", "a.html", "link", "1.5 kB", "rw-r-----", "2 entries", "the first 5000"]],
    ["backups", backupsPage, { backups, verdicts: new Map([[backup.name, { checked: kNow, faults: ["shop-db.dump is damaged"] }]]), offsite: {
        repository: "sftp:vault", state: { copied: "", copiedAt: 0, checkedAt: 0, checkProblem: "a pack is damaged", problems: [] } },
    }, ["One is being made", "account shop", "tomorrow", "14 days", "5 GB of 10 GB free", "sftp:vault", "a pack is damaged", "bob: tar failed", "shop-db.dump is damaged", "1m 1s"]],
    ["firewall", firewallPage, { firewall, fail2ban: bans }, ["keeps SSH", "keeps this page", "8080/tcp", "10.0.0.0/8", "192.0.2.7", "sshd"]],
    ["updates", updatesPage, { updates }, ["3, 1 for security", "libc6", "due for libc6", "== finished", "Security"]],
    ["services", servicesPage, { services, quota: { mount: "/", fsType: "ext4", supported: true, enabled: false, reason: "" } },
        ["apache2", "Runs", "dead", "Not installed", "1 MB", "ext4, /", "Switch on"]],
];

function drawn(page: AnyPage, parts: Record<string, unknown>): string {
    const root = new FakeElement("div");
    root.append(...page.view(parts as never, tools).filter(child => child) as never as FakeNode[]);
    return root.textContent;
}

for (const [name, page, data, texts] of kPages) {
    const each = (part: (value: unknown) => unknown) => Object.fromEntries(Object.entries(data).map(([key, value]) => [key, part(value)]));

    test(`${name}: all that has come is shown`, () => {
        const said = drawn(page as AnyPage, each(here => ({ here })));
        for (const text of texts)
            assert.ok(said.includes(text), `${text} in ${said}`);
    });

    test(`${name}: what it is drawn from is what it asks for`, () =>
        assert.deepEqual(Object.keys((page as AnyPage).sources(tools)).sort(), Object.keys(data).sort()));

    test(`${name}: what is still asked for says so`, () =>
        assert.match(drawn(page as AnyPage, each(() => null)), /Asking…/));

    test(`${name}: what did not come says why`, () => {
        assert.match(drawn(page as AnyPage, each(() => ({ problem: new Refused("a <b>reason</b>") }))), /a <b>reason<\/b>/);
        assert.match(drawn(page as AnyPage, each(() => ({ problem: new Refused("unknown command") }))), /older than this page/);
        assert.match(drawn(page as AnyPage, each(() => ({ problem: new NoAgent("lost", "x") }))), /connection was lost/);
    });
}

// What a reader types into the fields of an action.
const kTyped: Record<string, string> = { username: "carol", domain: "carol.example", sshKey: "ssh-ed25519 AAAA", mb: "100", port: "8080", "allow.from": "10.0.0.0/8",
    address: "192.0.2.8", name: "b", to: "c", date: "2026-11-22", folder: "public_html", way: "folder" };

test("each action has the line of the client that does the same", () => {
    const acts: Action[] = [];
    const recording = { ...tools, act: (action: Action) => acts.push(action) } as unknown as Tools;
    const press = (page: AnyPage, parts: Record<string, unknown>) => {
        const root = new FakeElement("div");
        root.append(...page.view(parts as never, recording).filter(child => child) as never as FakeNode[]);
        root.all().filter(one => one.tag === "button" && one.textContent !== "Copy").forEach(one => one.fire("click"));
    };
    for (const [, page, data] of kPages) {
        const each = (other: Record<string, unknown>) => Object.fromEntries(Object.entries({ ...data, ...other }).map(([key, here]) => [key, { here }]));
        press(page as AnyPage, each({}));
        // What stands there instead where the state is the other one.
        press(page as AnyPage, each({ ...(data.backups && { backups: { ...backups, running: false } }),
            ...(data.firewall && { firewall: { ...firewall, active: false, rules: [] }, fail2ban: { ...bans, running: false } }),
            ...(data.account && { account: { ...(data.account as object), state: "suspended", database: { name: "shop", bytes: 7000, readOnly: false } } }),
            ...(data.updates && { updates: { ...updates, automatic: true } }),
            ...(data.accounts && { accounts: { accounts: [{ username: "shop", domain: "shop.example", state: "on-line" }] } }) }));
    }
    const lines = acts.map(action => sameLine(action.same(Object.fromEntries((action.fields ?? []).map(({ name, value }) => [name, kTyped[`${action.id}.${name}`] ?? kTyped[name] ?? value ?? ""])))));
    assert.deepEqual([...new Set(lines.flatMap(line => line.split(" && ")))].sort(), readFileSync(process.env.CORV_SAME!, "utf8").trimEnd().split("\n"));
});
