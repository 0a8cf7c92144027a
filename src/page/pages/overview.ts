// How the server is, at a glance: what needs attention first, then each part with the way to it.
import { accounts, certificates, doctor, offsite, sites, verdicts, type Accounts, type Doctor, type Offsite, type Site, type Verdict } from "../client";
import { make, type Child } from "../elements";
import { alert, bar, button, card, cards, copyable, facts, label, link, problemText, shown, table, type Level, type Part } from "../parts";
import { Refused } from "../problem";
import type { Replies } from "../protocol";
import { _, agoText, backupText, bytesText, format, plural, spanText } from "../text";
import type { Action, Page, Parts, Tools } from "../tools";
import { useBar, useNote } from "./accounts";
import { offsiteProblems, verdictOf } from "./backups";
import { certificateConcerns, certificatesCard, type Certificates } from "./certificates";

export interface Data {
    info: Replies["system.info"]; disks: Replies["system.disks"]; services: Replies["services.status"];
    security: Replies["security.status"]; updates: Replies["updates.status"]; backups: Replies["backup.status"];
    accounts: Accounts; sites: Site[]; doctor: Doctor; verdicts: Map<string, Verdict>; offsite: Offsite; certificates: Certificates;
}

const kOldBackupSeconds = 36 * 3600;
// What visitors see where nothing is wrong, and of sites that cannot be asked from here.
const kAsItShould = ["well", "suspended", "not asked"];

function down(services: Replies["services.status"]): string[] {
    return services.services.filter(service => service.loaded && !service.active).map(service => service.name);
}

// What is wrong as far as it is known, in a sentence each, and where one goes from there.
export function concerns(data: Parts<Data>, now = Date.now() / 1000): [Level, string, string][] {
    const found: [Level, string, string][] = [];
    const look = <T>(part: Part<T>, judge: (here: T) => void) => {
        if (part && "here" in part)
            judge(part.here);
    };
    look(data.services, services => {
        for (const name of down(services))
            found.push(["danger", format(_("The service $0 does not run"), name), "services"]);
    });
    look(data.disks, ({ disks }) => {
        for (const disk of disks) {
            if (disk.avail < disk.total * 0.1)
                found.push([disk.avail < disk.total * 0.05 ? "danger" : "warning", format(_("The disk $0 is nearly full"), disk.mount), "#server"]);
        }
    });
    look(data.backups, ({ backups, running }) => {
        const [newest] = backups;
        if (!newest && !running)
            found.push(["warning", _("There is no backup"), "backups"]);
        if (newest?.errors?.length)
            found.push(["danger", plural("The last backup has $0 problem", "The last backup has $0 problems", newest.errors.length), "backups"]);
        if (newest?.created && now - newest.created > kOldBackupSeconds)
            found.push(["warning", format(_("The last backup is from $0"), agoText(newest.created, now)), "backups"]);
    });
    look(data.verdicts, all => {
        for (const [name, { faults }] of all) {
            if (faults.length > 0)
                found.push(["danger", format(_("The backup of $0 is not whole"), backupText(name)), "backups"]);
        }
    });
    look(data.offsite, copies => {
        for (const problem of offsiteProblems(copies))
            found.push(["danger", format(_("Off-site: $0"), problem), "backups"]);
    });
    look(data.certificates, all => found.push(...certificateConcerns(all).map(([level, text]): [Level, string, string] => [level, text, "#certificates"])));
    look(data.updates, ({ security, rebootRequired }) => {
        if (security > 0)
            found.push(["warning", plural("$0 security update waits", "$0 security updates wait", security), "updates"]);
        if (rebootRequired)
            found.push(["warning", _("The server waits for a restart"), "updates"]);
    });
    look(data.security, ({ firewall }) => {
        if (firewall.ok && !firewall.active)
            found.push(["warning", _("The firewall is off"), "firewall"]);
    });
    look(data.sites, all => {
        for (const { host, seen, what } of all.filter(({ seen }) => !kAsItShould.includes(seen)))
            found.push([seen === "own error" ? "warning" : "danger",
                format(_("$0: $1"), host, seen === "open" ? _("suspended, but its visitors get in") : what ?? seen), "accounts"]);
    });
    look(data.doctor, ({ faults }) => {
        if (faults > 0)
            found.push(["danger", plural("The examination found $0 fault", "The examination found $0 faults", faults), "#examination"]);
    });
    return found;
}

// A link to a part of this page, whose address is taken by the page itself.
function jump(text: string, to: string): HTMLElement {
    return button(text, () => document.querySelector(to)?.scrollIntoView({ behavior: "smooth" }), { kind: "link" });
}

function verdict(data: Parts<Data>): HTMLElement {
    const found = concerns(data);
    if (found.length > 0) {
        return make("div", { id: "verdict" }, alert(found.some(([level]) => level === "danger") ? "danger" : "warning",
            plural("$0 thing needs attention", "$0 things need attention", found.length),
            make("ul", {}, ...found.map(([, text, to]) => make("li", {}, to.startsWith("#") ? jump(text, to) : link(text, to))))));
    }
    const isWhole = Object.values(data).every(part => part !== null);
    return make("div", { id: "verdict" }, isWhole
        ? alert("success", _("The server is well")) : alert("info", _("Well as far as it has been seen; still looking…")));
}

export function restartAction(hostname: string, tools: Tools): Action {
    return {
        id: "restart", title: format(_("Restart $0"), hostname), does: _("Restart the server"), danger: true,
        text: [make("p", {}, _("All sites are gone until the server is up again; this page comes back by itself."))],
        fields: [{ name: "confirm", title: "", must: hostname }],
        same: () => ["host", "restart"],
        run: async ({ confirm = "" }) => { await tools.agent.request("system.reboot", { confirm }); },
    };
}

function serverCard(data: Parts<Data>, tools: Tools): HTMLElement {
    const actions = data.info && "here" in data.info
        ? [button(_("Restart…"), () => tools.act(restartAction((data.info as { here: Data["info"] }).here.hostname, tools)), { id: "restart-server" })] : [];
    return card(_("Server"), [
        ...shown(data.info, info => [facts([_("Name"), info.hostname], [_("System"), info.os], [_("Kernel"), info.kernel],
            [_("Up for"), spanText(info.uptimeSeconds)])]),
        ...shown(data.disks, ({ disks }) => disks.map(disk => make("div", {}, make("div", {}, disk.mount),
            bar(1 - disk.avail / disk.total, format(_("$0 of $1 free"), bytesText(disk.avail), bytesText(disk.total)))))),
    ], actions, "server");
}

function servicesCard(services: Data["services"]): Child[] {
    return [facts(...services.services.map(({ name, loaded, active, sub }): [string, ...Child[]] =>
        [name, active ? label(_("Runs"), "success") : loaded === false ? label(_("Not installed"), "none") : label(sub || _("Unknown"), "danger")]))];
}

function accountsCard({ accounts: all, usedFrom }: Accounts): Child[] {
    const suspended = all.filter(({ state }) => state === "suspended").length;
    const largest = [...all].sort((a, b) => (b.usedBytes ?? 0) - (a.usedBytes ?? 0)).slice(0, 5);
    const most = Math.max(1, largest[0]?.usedBytes ?? 1);
    return [make("p", {}, plural("$0 account", "$0 accounts", all.length), ", ", plural("$0 suspended", "$0 suspended", suspended)),
        facts(...largest.map((one): [string, ...Child[]] => [one.username, useBar(one, most)])), useNote(usedFrom)];
}

function offsiteText(newest: string | undefined, copies: Part<Offsite>): Child[] {
    if (copies === null)
        return ["…"];
    if ("problem" in copies)
        return copies.problem instanceof Refused ? [label(_("No copies elsewhere"), "none")] : [problemText(copies.problem)];
    const { copied } = copies.here.state;
    return [copied === "" ? label(_("Nothing yet"), "warning") : copied === newest ? label(_("Copied"), "success")
        : label(format(_("Up to $0"), backupText(copied)), "warning")];
}

function backupsCard({ backups, running, next, freeBytes }: Data["backups"], { verdicts, offsite }: Parts<Data>): Child[] {
    const [newest] = backups;
    return [facts(
        [_("Last"), newest ? backupText(newest.name) : _("None"), " ",
            running ? label(_("One is being made"), "info") : newest && (newest.errors?.length ? label(_("With problems"), "danger") : label(_("Whole"), "success"))],
        [_("Verified"), newest ? verdictOf(newest.name, verdicts) : "-"],
        [_("Off-site"), ...offsiteText(newest?.name, offsite)],
        [_("Next"), next || label(_("None planned"), "warning")],
        [_("Free there"), freeBytes < 0 ? "-" : bytesText(freeBytes)])];
}

function securityCard({ firewall, fail2ban }: Data["security"]): Child[] {
    const bans = fail2ban.ok ? (fail2ban.jails ?? []).reduce((sum, jail) => sum + jail.banned.length, 0) : 0;
    return [facts(
        [_("Firewall"), !firewall.ok ? firewall.error : firewall.active ? label(_("On"), "success") : label(_("Off"), "warning")],
        [_("Bans"), !fail2ban.ok ? fail2ban.error : fail2ban.running
            ? plural("$0 address banned", "$0 addresses banned", bans) : label(_("Off"), "warning")])];
}

function updatesCard(updates: Data["updates"]): Child[] {
    return [facts(
        [_("Waiting"), updates.updates === 0 ? label(_("None"), "success")
            : format(_("$0, $1 for security"), updates.updates, updates.security)],
        [_("Automatic"), updates.automatic ? _("yes") : _("no")],
        [_("Restart"), updates.rebootRequired ? label(_("Due"), "warning") : _("not due")])];
}

function findings({ checks }: Doctor): Child[] {
    const rows = checks.flatMap(({ check, findings }) => findings.map(({ level, problem, mend }, at) => ({
        key: `${check} ${at}`, cells: [check, label(level === "fault" ? _("Fault") : _("Note"), level === "fault" ? "danger" : "info"), problem, copyable(mend)] })));
    return [
        rows.length === 0 ? make("p", {}, plural("$0 check, nothing found", "$0 checks, nothing found", checks.length))
            : table(_("Findings"), "findings", [_("Part"), _("Kind"), _("What was found"), _("What mends it")], rows),
        make("details", {}, make("summary", {}, _("What was looked at")),
            facts(...checks.map(({ check, seen }): [string, ...Child[]] => [check, seen]))),
    ];
}

export const overviewPage: Page<Data> = {
    title: () => _("Overview"),
    sources: ({ agent }) => ({
        info: () => agent.request("system.info", {}), disks: () => agent.request("system.disks", {}),
        services: () => agent.request("services.status", {}), backups: () => agent.request("backup.status", {}),
        security: () => agent.request("security.status", {}), updates: () => agent.request("updates.status", {}),
        accounts, sites, doctor, verdicts, offsite, certificates,
    }),
    // They ask the agent for much of this once more, and take seconds: they come when the reader has something to look at.
    later: ["verdicts", "offsite", "certificates", "sites", "doctor"],
    view: (data, tools) => [
        verdict(data),
        cards(
            serverCard(data, tools),
            card(_("Services"), shown(data.services, servicesCard), [link(_("All services"), "services")]),
            card(_("Accounts"), shown(data.accounts, accountsCard), [link(_("All accounts"), "accounts")]),
            card(_("Backups"), shown(data.backups, here => backupsCard(here, data)), [link(_("All backups"), "backups")]),
            card(_("Security"), shown(data.security, securityCard), [link(_("Firewall and bans"), "firewall")]),
            card(_("Updates"), shown(data.updates, updatesCard), [link(_("All updates"), "updates")]),
            certificatesCard(data.certificates)),
        card(_("Examination"), shown(data.doctor, findings), [copyable("corvctl doctor")], "examination"),
    ],
};
