// All accounts: found, sorted, filtered; made, taken off-line and back, deleted.
import { accounts, argv, gone, type Account, type Accounts, type Gone } from "../client";
import { make, type Child } from "../elements";
import { fillRows } from "../longtable";
import { bar, button, card, copyable, empty, facts, label, link, shown, table, type Part, type Row } from "../parts";
import type { Replies } from "../protocol";
import { _, backupText, bytesText, format, plural } from "../text";
import type { Action, Page, Tools } from "../tools";
import { goneTable } from "./restoring";

interface Data { accounts: Accounts; backups: Replies["backup.status"]; gone: Gone[] }

// What the reader looks for; it outlives a load of the page.
export const wished = { text: "", state: "", by: "username" as "username" | "domain" | "state" | "usedBytes" };

// The accounts that are looked for, in the order that is wished for; what uses most comes first.
export function chosen(all: readonly Account[], { text, state, by }: typeof wished): Account[] {
    const words = text.toLowerCase();
    const found = all.filter(account => (account.username.includes(words) || account.domain.includes(words))
        && (state === "" || (state === "suspended") === (account.state === "suspended")));
    if (by === "usedBytes")
        return found.sort((a, b) => (b.usedBytes ?? -1) - (a.usedBytes ?? -1));
    return found.sort((a, b) => a[by] < b[by] ? -1 : a[by] > b[by] ? 1 : 0);
}

// The newest backup that holds each account.
export function lastBackups(status: Replies["backup.status"]): Map<string, string> {
    const last = new Map<string, string>();
    for (const { name, accounts = [] } of status.backups) {
        for (const { username } of accounts) {
            if (username && !last.has(username))
                last.set(username, name);
        }
    }
    return last;
}

export function stateLabel(state: string): HTMLElement {
    if (state === "on-line")
        return label(_("On-line"), "success");
    return state === "suspended" ? label(_("Suspended"), "warning") : label(state, "danger");
}

function password(text: string): Child[] {
    return [make("p", {}, _("The database password, which is told here only:")), copyable(text)];
}

// A new password is what is left to offer where nobody has seen the first one.
export function resetAction(username: string, tools: Tools): Action {
    return {
        id: "password", title: format(_("New database password for $0"), username), does: _("Set a new password"),
        text: [make("p", {}, _("The site loses its database until the new password stands in its settings."))],
        same: () => argv(["account", "password"], [username]),
        run: async () => password((await tools.agent.request("hosting.resetDbPassword", { username })).dbPassword),
        lost: () => [button(_("Set a new password"), () => tools.act(resetAction(username, tools)))],
    };
}

function createAction(tools: Tools): Action {
    let name = "";
    return {
        id: "create", title: _("Create account"), does: _("Create"),
        fields: [
            { name: "username", title: _("Name"), help: _("3 to 16 small letters and digits, a letter first") },
            { name: "domain", title: _("Domain") },
            { name: "sshKey", title: _("SSH public key"), kind: "area", optional: true, help: _("In one line; may be added later") },
        ],
        same: ({ username, domain, sshKey }) =>
            argv(["account", "create"], [username || "NAME", domain || "DOMAIN"], sshKey?.trim() ? ["--key-file", "key.pub"] : []),
        run: async ({ username = "", domain = "", sshKey = "" }) => {
            name = username;
            const made = await tools.agent.request("hosting.create", { username, domain, sshKey: sshKey.trim() });
            return [...password(made.dbPassword),
                make("p", {}, format(_("$0 serves $1 with PHP $2."), username, made.domain, made.phpVersion || "-"))];
        },
        lost: () => [make("p", {}, _("Where the account was made, its password was not seen by anybody.")),
            button(_("Set a new password"), () => tools.act(resetAction(name, tools)))],
    };
}

export function suspendAction(username: string, tools: Tools): Action {
    return {
        id: "suspend", title: format(_("Suspend $0"), username), does: _("Suspend"),
        text: [make("p", {}, _("Its site answers 503, nobody logs in, its processes end. Nothing is lost."))],
        same: () => argv(["account", "suspend"], [username]),
        run: async () => { await tools.agent.request("hosting.suspend", { username }); },
    };
}

export function resumeAction(username: string, tools: Tools): Action {
    return {
        id: "resume", title: format(_("Resume $0"), username), does: _("Resume"),
        same: () => argv(["account", "resume"], [username]),
        run: async () => { await tools.agent.request("hosting.resume", { username }); },
    };
}

export function deleteAction(username: string, tools: Tools, done: () => void = () => undefined): Action {
    return {
        id: "delete", title: format(_("Delete $0"), username), does: _("Delete"), danger: true,
        text: [make("p", {}, _("Home and database are archived in /var/backups/corvane, then all of the account is removed."))],
        fields: [{ name: "confirm", title: "", must: username }],
        same: () => argv(["account", "delete"], [username]),
        run: async ({ confirm = "" }) => {
            const { archive } = await tools.agent.request("hosting.delete", { username, confirm });
            done();
            return [make("p", {}, _("The archives:")), copyable(archive)];
        },
    };
}

// What an account uses of its limit; without one, next to the account that uses most.
export function useBar({ usedBytes, limitBytes }: Account, largest: number): Child {
    if (usedBytes === undefined)
        return "-";
    return limitBytes ? bar(usedBytes / limitBytes, format(_("$0 of $1"), bytesText(usedBytes), bytesText(limitBytes)))
        : bar(usedBytes / largest, bytesText(usedBytes), "info");
}

// A word on numbers that are not of now.
export function useNote(usedFrom: string | undefined): Child {
    return usedFrom === "backup" && make("p", { class: "help" }, _("Disk used: each home's archive in the newest backup, as no quotas tell of more."));
}

function measureAction(tools: Tools): Action {
    return {
        id: "measure-homes", title: _("What the accounts use"), does: _("Measure"),
        text: [make("p", {}, _("All files are counted, which takes minutes where there are many; the agent does nothing else meanwhile."))],
        same: () => ["account", "usage"],
        run: async () => {
            const { usage } = await tools.agent.request("hosting.usage", {});
            return [facts(...Object.entries(usage).sort(([, one], [, other]) => other - one).map(([name, bytes]): [string, string] => [name, bytesText(bytes)]))];
        },
    };
}

function rowOf(account: Account, largest: number, backup: Part<Map<string, string>>, tools: Tools): Row {
    const { username, domain, state } = account;
    const last = backup && "here" in backup ? backup.here.get(username) : undefined;
    const isSuspended = state === "suspended";
    return { key: username, cells: [
        link(username, "accounts", username),
        domain,
        stateLabel(state),
        useBar(account, largest),
        backup === null ? "…" : last ? backupText(last) : label(_("None"), "warning"),
        make("span", { class: "row-actions" },
            isSuspended
                ? button(_("Resume"), () => tools.act(resumeAction(username, tools)), { kind: "link", label: format(_("Resume $0"), username) })
                : button(_("Suspend"), () => tools.act(suspendAction(username, tools)), { kind: "link", label: format(_("Suspend $0"), username) }),
            button(_("Delete"), () => tools.act(deleteAction(username, tools)), { kind: "link", label: format(_("Delete $0"), username) })),
    ] };
}

function list({ accounts: all, usedFrom }: Accounts, backups: Part<Replies["backup.status"]>, tools: Tools): Child[] {
    if (all.length === 0)
        return [empty("none", _("No hosting accounts yet"), "", button(_("Create account"), () => tools.act(createAction(tools)), { kind: "primary" }))];
    const last: Part<Map<string, string>> = backups && "here" in backups ? { here: lastBackups(backups.here) } : backups;
    const largest = Math.max(1, ...all.map(account => account.usedBytes ?? 0));
    const names = [_("Account"), _("Domain"), _("State"), _("Disk used"), _("Last backup"), ""];
    const count = make("span", { class: "help", role: "status" });
    const shownTable = table(_("Hosting accounts"), "accounts", names, []);
    shownTable.classList.add("pf-m-fixed");
    const fill = () => {
        const found = chosen(all, wished);
        fillRows(shownTable, names, found.map(account => () => rowOf(account, largest, last, tools)));
        count.replaceChildren(plural("$0 account", "$0 accounts", found.length));
    };
    const choice = (id: string, name: string, value: string, choices: [string, string][], changed: (value: string) => void) =>
        make("span", { class: "pf-v6-c-form-control choice" },
            make("select", { id, "aria-label": name, change: event => { changed((event.target as HTMLSelectElement).value); fill(); } },
                ...choices.map(([key, text]) => make("option", { value: key, selected: key === value }, text))));
    const search = make("input", { type: "text", id: "search", "aria-label": _("Search accounts"), placeholder: _("Name or domain"),
        input: () => { wished.text = search.value; fill(); } });
    search.value = wished.text;
    fill();
    return [make("div", { class: "toolbar" },
        make("span", { class: "pf-v6-c-form-control search" }, search),
        choice("state", _("State"), wished.state, [["", _("All states")], ["on-line", _("On-line")], ["suspended", _("Suspended")]],
            value => { wished.state = value; }),
        choice("by", _("Sort by"), wished.by, [["username", _("By name")], ["domain", _("By domain")], ["state", _("By state")], ["usedBytes", _("Largest first")]],
            value => { wished.by = value as typeof wished.by; }),
        count, button(_("Create account"), () => tools.act(createAction(tools)), { kind: "primary", id: "create-account" })),
    shownTable, useNote(usedFrom),
    usedFrom !== "quotas" && button(_("Measure the homes…"), () => tools.act(measureAction(tools)), { kind: "link", id: "measure" })];
}

export const accountsPage: Page<Data> = {
    title: () => _("Hosting accounts"),
    sources: ({ agent }) => ({ accounts, backups: () => agent.request("backup.status", {}), gone }),
    // It looks through all backups.
    later: ["gone"],
    view: (data, tools) => [
        ...shown(data.accounts, all => list(all, data.backups, tools)),
        card(_("Deleted accounts"), shown(data.gone, all => goneTable(all, tools)), [copyable("corvctl account restore")])],
};
