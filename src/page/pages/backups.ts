// The backups that there are, how they went, and what becomes of them elsewhere.
import { accounts, ask, run, verdicts, type Account, type Verdict } from "../client";
import { make, type Child } from "../elements";
import { alert, bar, button, card, cards, facts, label, log, shown, table, type Part } from "../parts";
import { plot, type Point } from "../plot";
import type { Replies, Shape } from "../protocol";
import { _, agoText, backupText, bytesText, format, plural, spanText, timeText } from "../text";
import type { Action, Page, Tools } from "../tools";

type Status = Replies["backup.status"];

export interface Offsite {
    repository: string;
    state: { copied: string; copiedAt: number; checkedAt: number; checkProblem: string; problems: string[] };
}

type Verdicts = Map<string, Verdict>;
export interface Data { backups: Status; offsite: Offsite; accounts: Account[]; verdicts: Verdicts }

const kOffsite: Shape = {
    repository: "string",
    state: { copied: "string", copiedAt: "integer", checkedAt: "integer", checkProblem: "string", problems: ["string"] },
};
const kDaySeconds = 86400;
const kLiveSeconds = 2;

// The backups' sizes, oldest first; those with problems marked, and a mark on the ground for each day without one.
export function sizes({ backups }: Status): Point[] {
    const points: Point[] = [];
    for (const { created, bytes, errors } of [...backups].reverse()) {
        if (created === undefined)
            continue;
        const before = points[points.length - 1];
        for (let day = (before?.at ?? created) + kDaySeconds; day < created - kDaySeconds / 2; day += kDaySeconds)
            points.push({ at: day, value: 0, mark: _("no backup") });
        points.push({ at: created, value: bytes, ...(errors?.length && { mark: _("with problems") }) });
    }
    return points;
}

// Accounts that backups hold and the server does not, each with the newest backup that does.
export function gone({ backups }: Status, present: readonly Account[]): [string, string][] {
    const names = new Set(present.map(({ username }) => username));
    const found: [string, string][] = [];
    for (const { name, accounts = [] } of backups) {
        for (const { username } of accounts) {
            if (username && !names.has(username)) {
                names.add(username);
                found.push([username, name]);
            }
        }
    }
    return found;
}

function startAction(tools: Tools): Action {
    return {
        id: "start", title: _("Make a backup now"), does: _("Start"),
        text: [make("p", {}, _("All accounts are saved, one after the other; the page shows how far it is."))],
        same: () => ["backup", "start", "--wait"],
        run: async () => { await tools.agent.request("backup.start", {}); },
    };
}

function verifyAction(backup: string): Action {
    return {
        id: "verify", title: format(_("Verify the backup of $0"), backupText(backup)), does: _("Verify"),
        text: [make("p", {}, _("Each archive and each dump is read to its end."))],
        same: () => ["backup", "verify", backup],
        run: async (_values, progress) => [log(_("What it says"), await run(["backup", "verify", backup], progress))],
    };
}

function undeleteAction(username: string, backup: string): Action {
    return {
        id: "undelete", title: format(_("Bring $0 back"), username), does: _("Bring it back"),
        text: [make("p", {}, format(_("Files, database and settings as they were in the backup of $0."), backupText(backup)))],
        fields: [{ name: "confirm", title: "", must: username }],
        same: () => ["account", "restore", username, "--from", backup],
        run: async (_values, progress) => [log(_("What it says"),
            await run(["account", "restore", username, "--from", backup, "--confirm", username], progress))],
    };
}

function fetchAction(): Action {
    return {
        id: "fetch", title: _("Fetch an account from off-site"), does: _("Fetch"),
        fields: [{ name: "username", title: _("Account") },
            { name: "date", title: _("Day or backup"), help: _("Such as 2026-11-22; the newest without one"), optional: true }],
        same: ({ username, date }) => ["offsite", "fetch", username || "ACCOUNT", ...(date ? [date.trim()] : [])],
        run: async ({ username = "", date = "" }, progress) =>
            [log(_("What it says"), await run(["offsite", "fetch", username, ...(date ? [date.trim()] : [])], progress))],
    };
}

const kCopyNow: () => Action = () => ({
    id: "copy", title: _("Copy the newest backup off-site"), does: _("Copy"),
    same: () => ["offsite", "run"],
    run: async (_values, progress) => [log(_("What it says"), await run(["offsite", "run"], progress))],
});

function stateCard(status: Status, tools: Tools): HTMLElement {
    const { running, next, destination, keepDays, freeBytes, totalBytes } = status;
    return card(_("Now"), [
        facts([_("State"), running ? label(_("One is being made"), "info") : label(_("At rest"), "none")],
            [_("Next"), next || label(_("None planned"), "warning")],
            [_("In"), make("code", {}, destination)],
            [_("Kept for"), plural("$0 day", "$0 days", keepDays)],
            [_("Disk"), freeBytes < 0 ? "-" : bar(1 - freeBytes / totalBytes, format(_("$0 of $1 free"), bytesText(freeBytes), bytesText(totalBytes)))]),
        running && log(_("Log of the backup"), status.log),
    ], [button(_("Make a backup now"), () => tools.act(startAction(tools)), { kind: "primary", id: "start-backup", disabled: running })]);
}

function offsiteCard({ repository, state }: Offsite, tools: Tools): HTMLElement {
    const when = (seconds: number) => seconds > 0 ? timeText(seconds) : _("never");
    const problems = [...state.problems, state.checkProblem].filter(problem => problem !== "");
    return card(_("Off-site"), [
        facts([_("Place"), make("code", {}, repository)], [_("Newest there"), state.copied ? backupText(state.copied) : _("None")],
            [_("Copied"), when(state.copiedAt)], [_("Checked"), when(state.checkedAt)]),
        ...problems.map(problem => alert("danger", problem)),
    ], [button(_("Copy now"), () => tools.act(kCopyNow())), button(_("Fetch…"), () => tools.act(fetchAction()), { id: "fetch-offsite" })]);
}

// Whether a backup was verified, and what that found.
export function verdictOf(name: string, verdicts: Part<Verdicts>): Child {
    if (verdicts === null)
        return "…";
    const verdict = "here" in verdicts ? verdicts.here.get(name) : undefined;
    if (!verdict)
        return label(_("Not verified"), "none");
    return verdict.faults.length === 0 ? make("span", {}, label(_("Whole"), "success"), " ", agoText(verdict.checked))
        : make("ul", {}, ...verdict.faults.map(fault => make("li", {}, fault)));
}

function list(status: Status, verdicts: Part<Verdicts>, tools: Tools): Child[] {
    if (status.backups.length === 0)
        return [alert("warning", _("There is no backup"))];
    return [plot(_("Sizes of the backups"), [{ name: _("Size"), points: sizes(status) }]),
        table(_("Backups"), "backups", [_("Backup"), _("Size"), _("Took"), _("Accounts"), _("Problems"), _("Verified"), ""], status.backups.map(one => ({
            key: one.name, cells: [backupText(one.name), bytesText(one.bytes), one.seconds === undefined ? "-" : spanText(one.seconds),
                one.accounts ? String(one.accounts.length) : "-",
                one.errors?.length ? make("ul", {}, ...one.errors.map(error => make("li", {}, error))) : label(_("None"), "success"),
                verdictOf(one.name, verdicts),
                button(_("Verify"), () => tools.act(verifyAction(one.name)), { kind: "link", label: format(_("Verify $0"), backupText(one.name)) })],
        })))];
}

function goneCard(found: [string, string][], tools: Tools): HTMLElement | null {
    return found.length === 0 ? null : card(_("Accounts that are gone"), [table(_("Accounts that are gone"), "gone",
        [_("Account"), _("Newest backup"), ""], found.map(([username, backup]) => ({ key: username, cells: [username, backupText(backup),
            button(_("Bring back…"), () => tools.act(undeleteAction(username, backup)), { kind: "link", label: format(_("Bring $0 back"), username) })] })))]);
}

export const backupsPage: Page<Data> = {
    title: () => _("Backups"),
    sources: ({ agent }) => ({
        backups: () => agent.request("backup.status", {}), accounts, verdicts, offsite: () => ask<Offsite>(["offsite", "status"], kOffsite),
    }),
    view: ({ backups, offsite, accounts, verdicts }, tools) => [
        cards(...shown(backups, status => [stateCard(status, tools)]),
            ...(offsite && "here" in offsite ? [offsiteCard(offsite.here, tools)]
                : [card(_("Off-site"), offsite ? [make("p", {}, _("No copies are made elsewhere, as far as this server tells:")),
                    make("p", { class: "help" }, offsite.problem.message)] : [_("Asking…")])])),
        card(_("Backups"), shown(backups, status => list(status, verdicts, tools))),
        backups && "here" in backups && accounts && "here" in accounts ? goneCard(gone(backups.here, accounts.here), tools) : null,
    ],
    again: ({ backups }) => backups && "here" in backups && backups.here.running ? kLiveSeconds : null,
};
