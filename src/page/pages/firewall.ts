// The firewall, and who is banned. Whoever looks at this page came in by a port: what would shut it is refused.
import { argv, option, run } from "../client";
import { make, type Child } from "../elements";
import { alert, button, card, cards, facts, label, shown, table } from "../parts";
import { Refused } from "../problem";
import type { Replies } from "../protocol";
import { _, format } from "../text";
import type { Action, Page, Tools } from "../tools";

type Firewall = Replies["firewall.status"];
type Fail2ban = Replies["fail2ban.status"];
type Rule = NonNullable<Firewall["rules"]>[number];
export interface Data { firewall: Firewall; fail2ban: Fail2ban }

// The port by which the reader reached this page.
export function ownPort(place: { port: string; protocol: string } = location): number {
    return Number(place.port) || (place.protocol === "http:" ? 80 : 443);
}

// Where a rule goes: an address of the server, ports, a protocol, IPv6, one interface. Names of ufw's profiles have no such form.
const kTo = /^(?:(\S+) )?([\d,:]+|Anywhere)(?:\/(tcp|udp))?(?: \(v6\))?( on \S+)?$/;

function covers(ports: string, port: number): boolean {
    return ports === "Anywhere" || ports.split(",").some(one => {
        const ends = one.split(":").map(Number);
        return port >= ends[0]! && port <= ends[ends.length - 1]!;
    });
}

// What a rule is to a port over TCP: it lets everybody in or some, shuts everybody out, or has nothing to do with it. Profiles are not
// told with their ports; those of web servers are taken for what they are named after.
export function meets({ to, action, from }: Rule, port: number): "all" | "some" | "shut" | "none" {
    const verdict = /^(ALLOW|LIMIT|DENY|REJECT)( IN)?$/.exec(action)?.[1];
    if (verdict === undefined)
        return "none";
    const lets = verdict === "ALLOW" || verdict === "LIMIT";
    const [, address, ports, protocol, face] = kTo.exec(to) ?? [];
    if (ports === undefined)
        return lets && (port === 80 || port === 443) ? "some" : "none";
    if (protocol === "udp" || !covers(ports, port))
        return "none";
    const isForAll = !address && !face && /^Anywhere( \(v6\))?$/.test(from);
    return isForAll ? lets ? "all" : "shut" : lets ? "some" : "none";
}

// Of a rule for some addresses these alone tell.
function isOfSix({ to, from }: Rule): boolean {
    return to.includes("(v6)") || from.includes(":");
}

// Whether the rules of a kind of address let everybody in: the first that is about all who come decides.
function isOpen(rules: readonly Rule[], isSix: boolean, port: number): boolean {
    const first = rules.filter(rule => isOfSix(rule) === isSix).map(rule => meets(rule, port)).find(one => one === "all" || one === "shut");
    return first === "all";
}

// Whether the reader could be shut out of this page without a rule: nobody else lets everybody in, and it lets in the reader for sure, or
// perhaps.
export function keepsPage(rule: Rule, rules: readonly Rule[], port: number): boolean {
    const what = meets(rule, port);
    const others = rules.filter(other => other !== rule);
    return (what === "all" || what === "some") && !isOpen(others, isOfSix(rule), port)
        && (what === "some" || isOpen(rules, isOfSix(rule), port));
}

// Whether the rules let everybody in by each kind of address that they are about.
export function isReachable(rules: readonly Rule[], port: number): boolean {
    return rules.length > 0 && [false, true].every(isSix => !rules.some(rule => isOfSix(rule) === isSix) || isOpen(rules, isSix, port));
}

// Opens this page's own port before the firewall is on. Where ufw is yet to be installed its rules cannot be written before: the rule
// is sent with it, so that it follows at once even if this very connection does not come back.
export async function enable(tools: Tools, port: number) {
    const { agent } = tools;
    const open = { port, proto: "tcp", from: "any" } as const;
    const before = await agent.request("firewall.status", {});
    if (before.installed)
        await agent.request("firewall.allow", open);
    const enabled = agent.request("firewall.enable", {});
    const opened = before.installed ? null : agent.request("firewall.allow", open);
    const [first, second] = await Promise.allSettled([enabled, opened]);
    if (first.status === "rejected")
        throw first.reason;
    if (second.status === "rejected") {
        await agent.request("firewall.disable", {});
        throw second.reason;
    }
    const after = await agent.request("firewall.status", {});
    if (!isReachable(after.rules ?? [], port)) {
        await agent.request("firewall.disable", {});
        throw new Refused(format(_("The rules do not let everybody in to port $0, by which you came here: the firewall is off again."), port));
    }
}

function enableAction(tools: Tools, port: number): Action {
    return {
        id: "enable", title: _("Switch the firewall on"), does: _("Switch it on"),
        text: [make("p", {}, format(_("Open stay: the SSH ports, 80, 443, and $0, by which you came here. All else is shut."), port))],
        same: () => [["firewall", "allow", String(port), "--proto", "tcp"], ["firewall", "enable"]],
        run: () => enable(tools, port),
    };
}

function disableAction(tools: Tools): Action {
    return {
        id: "disable", title: _("Switch the firewall off"), does: _("Switch it off"), danger: true,
        text: [make("p", {}, _("Every port is open then; the rules are kept."))],
        same: () => ["firewall", "disable"],
        run: async () => { await tools.agent.request("firewall.disable", {}); },
    };
}

function allowAction(tools: Tools): Action {
    return {
        id: "allow", title: _("Open a port"), does: _("Open"),
        fields: [{ name: "port", title: _("Port"), kind: "number" },
            { name: "proto", title: _("Protocol"), kind: "choice", value: "tcp", choices: [["tcp", "TCP"], ["udp", "UDP"], ["both", _("Both")]] },
            { name: "from", title: _("For whom"), value: "any", help: _("any, an address, or a range such as 10.0.0.0/8") }],
        same: ({ port, proto = "tcp", from = "any" }) =>
            argv(["firewall", "allow"], [port || "PORT"], ["--proto", proto, ...(from.trim() === "any" ? [] : option("--from", from.trim()))]),
        run: async ({ port, proto, from = "any" }) => {
            await tools.agent.request("firewall.allow", { port: Number(port), proto: proto as "tcp" | "udp" | "both", from: from.trim() });
        },
    };
}

// The numbers may have moved since the page was drawn: what stands there now must be the same rule, and must not be the last door.
async function remove(rule: Rule, tools: Tools, port: number) {
    const { rules = [], active } = await tools.agent.request("firewall.status", {});
    const now = rules.find(({ number }) => number === rule.number);
    if (!now || now.to !== rule.to || now.action !== rule.action || now.from !== rule.from)
        throw new Refused(_("The rules have changed meanwhile; look again."));
    if (active && keepsPage(now, rules, port))
        throw new Refused(_("This rule may be what lets you in to this page. Open the port for everybody first."));
    await tools.agent.request("firewall.delete", { number: rule.number });
}

function deleteAction(rule: Rule, tools: Tools, port: number): Action {
    return {
        id: "delete-rule", title: format(_("Delete the rule for $0"), rule.to), does: _("Delete"), danger: true,
        text: [make("p", {}, `${rule.to} ${rule.action} ${rule.from}`)],
        same: () => ["firewall", "delete", String(rule.number)],
        run: () => remove(rule, tools, port),
    };
}

function ruleRows(rules: readonly Rule[], tools: Tools, port: number) {
    return rules.map(rule => ({ key: String(rule.number), cells: [rule.to, rule.action, rule.from,
        rule.ssh ? label(_("keeps SSH"), "info") : keepsPage(rule, rules, port) ? label(_("keeps this page"), "info")
            : button(_("Delete"), () => tools.act(deleteAction(rule, tools, port)), { kind: "link", label: format(_("Delete the rule for $0"), rule.to) })] }));
}

function firewallCard({ installed, active, sshPort, rules = [] }: Firewall, tools: Tools): HTMLElement {
    const port = ownPort();
    return card(_("Firewall"), [
        facts([_("State"), active ? label(_("On"), "success") : label(installed ? _("Off") : _("Not installed"), "warning")],
            [_("SSH ports"), sshPort], [_("This page"), String(port)]),
        rules.length > 0 && table(_("Rules"), "rules", [_("To"), _("Action"), _("From"), ""], ruleRows(rules, tools, port)),
    ], [
        installed && button(_("Open a port…"), () => tools.act(allowAction(tools)), { id: "open-port" }),
        active ? button(_("Switch off"), () => tools.act(disableAction(tools)), { id: "firewall-off" })
            : button(_("Switch on"), () => tools.act(enableAction(tools, port)), { kind: "primary", id: "firewall-on" }),
    ]);
}

function banAction(tools: Tools): Action {
    return {
        id: "ban", title: _("Ban whoever guesses passwords"), does: _("Switch it on"),
        text: [make("p", {}, _("fail2ban is installed where it is missing, and watches SSH and the panel's sign-in."))],
        same: () => ["ban", "enable"],
        run: async () => { await tools.agent.request("fail2ban.enable", {}); },
    };
}

function sameBan(address: string, jail: string): string[] {
    return argv(["ban", "add"], [address], option("--jail", jail));
}

function banAddressAction(jails: string[]): Action {
    return {
        id: "ban-address", title: _("Ban an address"), does: _("Ban"),
        text: [make("p", {}, _("It is shut out of the jail's ports until the jail's time is over."))],
        fields: [{ name: "address", title: _("Address") },
            { name: "jail", title: _("Jail"), kind: "choice", value: jails[0]!, choices: jails.map((name): [string, string] => [name, name]) }],
        same: ({ address, jail = "" }) => sameBan(address?.trim() || "ADDRESS", jail),
        run: async ({ address = "", jail = "" }) => { await run(sameBan(address.trim(), jail)); },
    };
}

function liftAction(jail: string, ip: string, tools: Tools): Action {
    return {
        id: "lift", title: format(_("Lift the ban of $0"), ip), does: _("Lift"),
        same: () => argv(["ban", "lift"], [jail, ip]),
        run: async () => { await tools.agent.request("fail2ban.unban", { jail, ip }); },
    };
}

function bansCard({ installed, running, jails = [] }: Fail2ban, tools: Tools): HTMLElement {
    const banned = jails.flatMap(({ name, banned }) => banned.map(ip => ({ key: `${name} ${ip}`, cells: [ip, name,
        button(_("Lift"), () => tools.act(liftAction(name, ip, tools)), { kind: "link", label: format(_("Lift the ban of $0"), ip) })] as Child[] })));
    return card(_("Bans"), [
        facts([_("State"), running ? label(_("On"), "success") : label(installed ? _("Does not run") : _("Not installed"), "warning")]),
        jails.length > 0 && table(_("Jails"), "jails", [_("Jail"), _("Failed now"), _("Banned now"), _("Banned so far")],
            jails.map(jail => ({ key: jail.name, cells: [jail.name, String(jail.failed), String(jail.banned.length), String(jail.totalBanned)] }))),
        banned.length > 0 ? table(_("Banned addresses"), "banned", [_("Address"), _("Jail"), ""], banned)
            : running && alert("info", _("Nobody is banned")),
    ], [
        jails.length > 0 && button(_("Ban an address…"), () => tools.act(banAddressAction(jails.map(({ name }) => name))), { id: "ban-one" }),
        !running && button(_("Switch on"), () => tools.act(banAction(tools)), { kind: "primary", id: "bans-on" }),
    ]);
}

export const firewallPage: Page<Data> = {
    title: () => _("Firewall and bans"),
    sources: ({ agent }) => ({
        firewall: () => agent.request("firewall.status", {}), fail2ban: () => agent.request("fail2ban.status", {}),
    }),
    view: ({ firewall, fail2ban }, tools) => [cards(
        ...shown(firewall, here => [firewallCard(here, tools)]),
        ...shown(fail2ban, here => [bansCard(here, tools)]))],
};
