// The way back: of parts of an account that is there, and of whole accounts that are gone.
import { argv, option, run, type Gone, type Source } from "../client";
import { make, type Child } from "../elements";
import { button, copyable, label, log, table } from "../parts";
import { _, agoText, backupText, bytesText, format, timeText } from "../text";
import type { Action, Tools } from "../tools";

const kWays = ["beside", "folder", "home", "database"];

function sameRestore(username: string, way: string, backup: string, folder: string, more: string[] = []): string[] {
    if (way === "database" || way === "beside")
        return argv(["backup", "restore"], [username, backup, way === "database" ? "database" : "files"], more);
    return argv(["backup", "restore"], [username, backup, "files", ...(way === "folder" ? [folder || "public_html"] : [])], ["--in-place", ...more]);
}

function sameUndelete(username: string, from: string, more: string[] = []): string[] {
    return argv(["account", "restore"], [username], [...option("--from", from), ...more]);
}

// Restores from a backup: of the one account, or of that of several which the reader chooses.
export function restoreAction(accounts: readonly string[], backup: string, tools: Tools): Action {
    const names: Record<string, string> = {
        beside: _("Files, into a new folder beside the present ones"), folder: _("One file or folder, in place"),
        home: _("The whole home, in place"), database: _("The database, in place of the present one"),
    };
    const [only = ""] = accounts;
    return {
        id: "restore", does: _("Restore"), danger: true,
        title: accounts.length === 1 ? format(_("Restore $0 from $1"), only, backupText(backup))
            : format(_("Restore from $0"), backupText(backup)),
        text: [make("p", {}, _("What is replaced in place is kept beside it; the present database is not."))],
        fields: [
            ...(accounts.length === 1 ? [] : [{
                name: "account", title: _("Account"), kind: "choice" as const, value: only,
                choices: accounts.map((name): [string, string] => [name, name]) }]),
            { name: "way", title: _("What"), kind: "choice", value: "beside", choices: kWays.map(way => [way, names[way]!]) },
            { name: "folder", title: _("File or folder (for one in place)"), value: "public_html", optional: true },
            { name: "confirm", title: "", must: ({ account = only }) => account },
        ],
        same: ({ account = only, way = "", folder = "" }) => sameRestore(account, way, backup, folder),
        run: async ({ account: username = only, way = "", folder = "" }, progress) => {
            if (way === "beside" || way === "database") {
                const done = await tools.agent.request("backup.restore", { username, backup, what: way === "database" ? "database" : "files" });
                return done.restoredTo ? [make("p", {}, _("The files are in:")), copyable(done.restoredTo)] : undefined;
            }
            // The dialog has the name typed, so that the client need not ask for it.
            const said = await run(sameRestore(username, way, backup, folder, option("--confirm", username)), progress);
            return [log(_("What it says"), said)];
        },
    };
}

function sourceText({ from, kind, made, homeBytes, dbBytes, fault }: Source): string {
    const what = kind === "deletion" ? format(_("its deletion, $0"), timeText(made)) : format(_("the backup of $0"), backupText(from));
    return `${what}, ${bytesText(homeBytes + dbBytes)}${fault ? `: ${fault}` : ""}`;
}

// Brings an account back whole.
export function undeleteAction({ username, domain, sources }: Gone): Action {
    const newest = sources[0]?.from ?? "";
    return {
        id: "undelete", title: format(_("Bring $0 back"), username), does: _("Bring it back"),
        text: [make("p", {}, format(_("Files, database, passwords and settings as they were; its domain is $0."), domain || "-"))],
        fields: [
            { name: "from", title: _("From"), kind: "choice", value: newest, choices: sources.map(source => [source.from, sourceText(source)]) },
            { name: "confirm", title: "", must: username },
        ],
        same: ({ from = newest }) => sameUndelete(username, from),
        run: async ({ from = newest }, progress) => [log(_("What it says"),
            await run(sameUndelete(username, from, option("--confirm", username)), progress))],
    };
}

// The accounts that are gone and can be brought back.
export function goneTable(all: readonly Gone[], tools: Tools): Child[] {
    if (all.length === 0)
        return [make("p", {}, _("None that a backup or an archive is left of."))];
    return [table(_("Deleted accounts"), "gone", [_("Account"), _("Domain"), _("Newest"), _("Size"), ""], all.map(one => {
        const [newest] = one.sources;
        return { key: one.username, cells: [one.username, one.domain || "-",
            newest ? make("span", {}, agoText(newest.made), " ", newest.fault !== "" && label(_("Damaged"), "danger")) : "-",
            newest ? bytesText(newest.homeBytes + newest.dbBytes) : "-",
            button(_("Bring back…"), () => tools.act(undeleteAction(one)), { kind: "link", label: format(_("Bring $0 back"), one.username) })] };
    }))];
}
