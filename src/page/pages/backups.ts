// The backups that there are, how they went, and what becomes of them elsewhere.
import { argv, offsite, run, verdicts, type Offsite, type Verdict } from "../client";
import { make, type Child } from "../elements";
import { alert, bar, button, card, cards, facts, label, log, shown, table, type Part } from "../parts";
import { plot, type Point } from "../plot";
import type { Replies } from "../protocol";
import { _, agoText, backupText, bytesText, format, plural, spanText, timeText } from "../text";
import type { Action, Page, Tools } from "../tools";
import { restoreAction } from "./restoring";

type Status = Replies["backup.status"];

type Verdicts = Map<string, Verdict>;
export interface Data { backups: Status; offsite: Offsite; verdicts: Verdicts }

const kDaySeconds = 86400;
// Of a longer time without backups no more days are marked, so that a clock that was wrong once does not fill the plot.
const kMostMissing = 100;
const kLiveSeconds = 2;
const kStartTries = 20;
const kStartMs = 250;

// A mark on the ground for each day without a backup between two moments.
function missing(after: number, before: number): Point[] {
    const days = Math.min(kMostMissing, Math.max(0, Math.ceil((before - kDaySeconds / 2 - after) / kDaySeconds) - 1));
    return Array.from({ length: days }, (_none, at) => ({ at: after + (at + 1) * kDaySeconds, value: 0, mark: _("no backup"), isMissing: true }));
}

// The backups' sizes until now, oldest first; those with problems are marked, and the days without one.
export function sizes({ backups }: Status, now = Date.now() / 1000): Point[] {
    const points: Point[] = [];
    for (const { created, bytes, errors } of [...backups].reverse()) {
        if (created === undefined)
            continue;
        points.push(...missing(points[points.length - 1]?.at ?? created, created),
            { at: created, value: bytes, ...(errors?.length && { mark: _("with problems") }) });
    }
    return [...points, ...missing(points[points.length - 1]?.at ?? now, now)];
}

// Whether a backup that was asked for has begun, or even ended: systemd starts it in its own time.
async function hasBegun(agent: Tools["agent"], before: Status): Promise<boolean> {
    const now = await agent.request("backup.status", {});
    return now.running || now.backups[0]?.name !== before.backups[0]?.name || now.log !== before.log;
}

function startAction(status: Status, tools: Tools): Action {
    return {
        id: "start", title: _("Make a backup now"), does: _("Start"),
        text: [make("p", {}, _("All accounts are saved, one after the other; the page shows how far it is."))],
        same: () => ["backup", "start", "--wait"],
        run: async () => {
            await tools.agent.request("backup.start", {});
            for (let tries = 0; tries < kStartTries && !await hasBegun(tools.agent, status); ++tries)
                await new Promise(done => setTimeout(done, kStartMs));
        },
    };
}

function verifyAction(backup: string): Action {
    return {
        id: "verify", title: format(_("Verify the backup of $0"), backupText(backup)), does: _("Verify"),
        text: [make("p", {}, _("Each archive and each dump is read to its end."))],
        same: () => argv(["backup", "verify"], [backup]),
        run: async (_values, progress) => [log(_("What it says"), await run(argv(["backup", "verify"], [backup]), progress))],
    };
}

function sameFetch(username: string, date = ""): string[] {
    return argv(["offsite", "fetch"], [username, ...(date.trim() ? [date.trim()] : [])]);
}

function fetchAction(): Action {
    return {
        id: "fetch", title: _("Fetch an account from off-site"), does: _("Fetch"),
        fields: [{ name: "username", title: _("Account") },
            { name: "date", title: _("Day or backup"), help: _("Such as 2026-11-22; the newest without one"), optional: true }],
        same: ({ username, date }) => sameFetch(username?.trim() || "ACCOUNT", date),
        run: async ({ username = "", date }, progress) => [log(_("What it says"), await run(sameFetch(username.trim(), date), progress))],
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
    ], [button(_("Make a backup now"), () => tools.act(startAction(status, tools)), { kind: "primary", id: "start-backup", disabled: running })]);
}

// Problems of the copies elsewhere, of the last copy and of the last check.
export function offsiteProblems({ state }: Offsite): string[] {
    return [...state.problems, state.checkProblem].filter(problem => problem !== "");
}

function offsiteCard(offsite: Offsite, tools: Tools): HTMLElement {
    const { repository, state } = offsite;
    const when = (seconds: number) => seconds > 0 ? timeText(seconds) : _("never");
    return card(_("Off-site"), [
        facts([_("Place"), make("code", {}, repository)], [_("Newest there"), state.copied ? backupText(state.copied) : _("None")],
            [_("Copied"), when(state.copiedAt)], [_("Checked"), when(state.checkedAt)]),
        ...offsiteProblems(offsite).map(problem => alert("danger", problem)),
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

// How long each took that tells it, the oldest first.
export function durations({ backups }: Status): Point[] {
    return backups.flatMap(({ created, seconds }) => created === undefined || seconds === undefined ? [] : [{ at: created, value: seconds }]).reverse();
}

function list(status: Status, verdicts: Part<Verdicts>, tools: Tools): Child[] {
    if (status.backups.length === 0)
        return [alert("warning", _("There is no backup"))];
    return [cards(
        plot(_("Sizes of the backups"), [{ name: _("Size"), points: sizes(status) }], bytesText),
        plot(_("How long the backups took"), [{ name: _("Took"), points: durations(status) }], spanText)),
        table(_("Backups"), "backups", [_("Backup"), _("Size"), _("Took"), _("Accounts"), _("Problems"), _("Verified"), ""], status.backups.map(one => ({
            key: one.name, cells: [backupText(one.name), bytesText(one.bytes), one.seconds === undefined ? "-" : spanText(one.seconds),
                one.accounts ? String(one.accounts.length) : "-",
                one.errors?.length ? make("ul", {}, ...one.errors.map(error => make("li", {}, error))) : label(_("None"), "success"),
                verdictOf(one.name, verdicts),
                make("span", { class: "row-actions" },
                    button(_("Verify"), () => tools.act(verifyAction(one.name)), { kind: "link", label: format(_("Verify $0"), backupText(one.name)) }),
                    one.accounts && one.accounts.length > 0 && button(_("Restore…"), () => tools.act(restoreAction(
                        one.accounts!.flatMap(({ username }) => username ?? []).sort(), one.name, tools)),
                    { kind: "link", label: format(_("Restore from $0"), backupText(one.name)) }))],
        })))];
}

export const backupsPage: Page<Data> = {
    title: () => _("Backups"),
    sources: ({ agent }) => ({
        backups: () => agent.request("backup.status", {}), verdicts, offsite,
    }),
    view: ({ backups, offsite, verdicts }, tools) => [
        cards(...shown(backups, status => [stateCard(status, tools)]),
            ...(offsite && "here" in offsite ? [offsiteCard(offsite.here, tools)]
                : [card(_("Off-site"), offsite ? [make("p", {}, _("No copies are made elsewhere, as far as this server tells:")),
                    make("p", { class: "help" }, offsite.problem.message)] : [_("Asking…")])])),
        card(_("Backups"), shown(backups, status => list(status, verdicts, tools))),
    ],
    again: ({ backups }) => backups && "here" in backups && backups.here.running ? kLiveSeconds : null,
};
