// One account: how it is, who gets in, its database, its backups and their way back.
import { account, argv, certificates, sites, type Certificate, type Shown, type Site } from "../client";
import { make, type Child } from "../elements";
import { alert, button, card, cards, facts, label, link, shown, table } from "../parts";
import { plot, type Point } from "../plot";
import { Refused } from "../problem";
import type { Replies } from "../protocol";
import { _, backupText, bytesText, format, timeText } from "../text";
import type { Action, Page, Tools } from "../tools";
import { deleteAction, resetAction, resumeAction, stateLabel, suspendAction, useBar, useNote } from "./accounts";
import { certificateText, type Certificates } from "./certificates";
import { restoreAction } from "./restoring";

type Backups = Replies["backup.status"];
export interface Data { account: Shown; sites: Site[]; certificates: Certificates; backups: Backups; keys: Replies["hosting.getKeys"] }

// The sizes of an account in each backup that tells them, the oldest first.
export function growth({ backups }: Backups, username: string, of: "homeBytes" | "dbBytes"): Point[] {
    return backups.flatMap(({ created, accounts = [] }) => {
        const value = accounts.find(one => one.username === username)?.[of];
        return created === undefined || value === undefined ? [] : [{ at: created, value }];
    }).reverse();
}

export function keysAction(username: string, keys: string, tools: Tools): Action {
    let before = keys;
    return {
        id: "keys", title: format(_("SSH keys of $0"), username), does: _("Save"),
        text: [make("p", {}, _("Who has one of these keys logs in as the account. One a line; none lets nobody in."))],
        fields: [{ name: "keys", title: _("Keys"), kind: "area", value: keys, optional: true }],
        same: () => argv(["account", "keys"], [username], ["--set", "keys.txt"]),
        run: async ({ keys = "" }) => {
            const now = (await tools.agent.request("hosting.getKeys", { username })).keys;
            if (now !== before) {
                before = now;
                throw new Refused(_("Somebody changed the keys meanwhile. Save again to replace what is there now."));
            }
            await tools.agent.request("hosting.setKeys", { username, keys: keys.trim() });
        },
    };
}

function readOnlyAction(username: string, readOnly: boolean, tools: Tools): Action {
    return {
        id: "read-only", does: readOnly ? _("Make it read-only") : _("Make it writable"),
        title: format(readOnly ? _("Make the database of $0 read-only") : _("Make the database of $0 writable"), username),
        text: [make("p", {}, _("Its connections are ended; the site opens new ones by itself."))],
        same: () => argv(["account", "read-only"], [username, readOnly ? "on" : "off"]),
        run: async () => { await tools.agent.request("hosting.dbReadOnly", { username, readOnly }); },
    };
}

function limitAction(username: string, bytes: number | undefined, tools: Tools): Action {
    return {
        id: "limit", title: format(_("Disk limit of $0"), username), does: _("Set the limit"),
        fields: [{ name: "mb", title: _("Limit in MiB; 0 is none"), kind: "number", value: String(Math.round((bytes ?? 0) / 1048576)) }],
        same: ({ mb }) => argv(["account", "limit"], [username, Number(mb) > 0 ? `${Number(mb)}M` : "none"]),
        run: async ({ mb }) => {
            const limit = Number(mb);
            if (!Number.isInteger(limit) || limit < 0)
                throw new Error(_("The limit is a whole number."));
            await tools.agent.request("quota.set", { username, mb: limit });
        },
    };
}

function seenLabel({ seen, what }: Site): HTMLElement {
    if (seen === "well")
        return label(_("The page"), "success");
    if (seen === "not asked")
        return label(_("Not looked at"), "none");
    if (seen === "open")
        return label(_("Its pages, although it is suspended"), "danger");
    return label(what ?? seen, seen === "broken" ? "danger" : "warning");
}

function stateCard(one: Shown, all: Data["sites"] | null, own: Certificate | undefined, tools: Tools): HTMLElement {
    const { username, state } = one;
    const seen = (all ?? []).filter(site => site.host === one.domain);
    return card(_("Site"), [facts(
        [_("Domain"), one.domain],
        [_("State"), stateLabel(state)],
        [_("Visitors see"), ...(all === null ? ["…"] : seen.length === 0 ? ["-"] : seen.map(seenLabel))],
        [_("PHP"), one.php ?? "-"],
        [_("Certificate"), ...(own ? certificateText(own) : [one.certificate?.validUntil ? format(_("until $0"), timeText(one.certificate.validUntil)) : _("none known")])],
        [_("Disk used"), useBar(one, one.usedBytes ?? 1)],
    ), useNote(one.usedFrom)], [
        button(_("Limit"), () => tools.act(limitAction(username, one.limitBytes, tools)), { id: "set-limit" }),
        state === "suspended" ? button(_("Resume"), () => tools.act(resumeAction(username, tools)), { id: "resume-account" })
            : button(_("Suspend"), () => tools.act(suspendAction(username, tools)), { id: "suspend-account" }),
        button(_("Delete"), () => tools.act(deleteAction(username, tools, () => tools.go("accounts"))), { kind: "danger", id: "delete-account" }),
    ]);
}

function keysCard(one: Shown, keys: string | null, tools: Tools): HTMLElement {
    return card(_("SSH keys"), [one.keys.length === 0 ? make("p", {}, _("Nobody logs in by a key.")) : table(_("SSH keys"), "keys-table",
        [_("Comment"), _("Kind"), _("Fingerprint")],
        one.keys.map((key, at) => ({ key: String(at), cells: [key.comment || "-", key.type, make("code", {}, key.fingerprint)] })))],
    keys === null ? [] : [button(_("Edit"), () => tools.act(keysAction(one.username, keys, tools)), { id: "edit-keys" })]);
}

function databaseCard({ username, database }: Shown, tools: Tools): HTMLElement {
    if (!database)
        return card(_("Database"), [make("p", {}, _("Nothing is known of its database."))]);
    return card(_("Database"), [facts([_("Name"), database.name], [_("Size"), bytesText(database.bytes)],
        [_("Use"), database.readOnly ? label(_("Read-only"), "warning") : label(_("Writable"), "success")])], [
        button(_("New password"), () => tools.act(resetAction(username, tools)), { id: "new-password" }),
        button(database.readOnly ? _("Make writable") : _("Make read-only"),
            () => tools.act(readOnlyAction(username, !database.readOnly, tools)), { id: "read-only-switch" }),
    ]);
}

function backupsOf(username: string, status: Backups, tools: Tools): Child[] {
    const mine = status.backups.filter(({ accounts = [] }) => accounts.some(one => one.username === username));
    if (mine.length === 0)
        return [alert("warning", _("No backup holds this account"))];
    return [
        plot(format(_("Growth of $0"), username), [
            { name: _("Home"), points: growth(status, username, "homeBytes") },
            { name: _("Database"), points: growth(status, username, "dbBytes") }], bytesText),
        table(_("Backups of the account"), "account-backups", [_("Backup"), _("Home"), _("Database"), ""], mine.map(({ name, accounts = [] }) => {
            const one = accounts.find(account => account.username === username);
            return { key: name, cells: [backupText(name), one?.homeBytes === undefined ? "-" : bytesText(one.homeBytes),
                one?.dbBytes === undefined ? "-" : bytesText(one.dbBytes),
                button(_("Restore…"), () => tools.act(restoreAction([username], name, tools)),
                    { kind: "link", label: format(_("Restore from $0"), backupText(name)) })] };
        })),
    ];
}

export function accountPage(name: string): Page<Data> {
    return {
        title: () => name,
        sources: ({ agent }) => ({
            account: () => account(name), sites, certificates, backups: () => agent.request("backup.status", {}),
            keys: () => agent.request("hosting.getKeys", { username: name }),
        }),
        view: (data, tools) => [
            make("p", {}, link(_("All accounts"), "accounts"), " · ", link(_("Files"), "files", name)),
            ...shown(data.account, one => [cards(
                stateCard(one, data.sites && "here" in data.sites ? data.sites.here : null,
                    data.certificates && "here" in data.certificates ? data.certificates.here?.find(({ username }) => username === name) : undefined, tools),
                databaseCard(one, tools),
                keysCard(one, data.keys && "here" in data.keys ? data.keys.here.keys : null, tools))]),
            card(_("Backups"), shown(data.backups, status => backupsOf(name, status, tools))),
        ],
    };
}
