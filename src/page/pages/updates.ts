// What can be installed, and the installation while it runs: the agent's log tells, so that a reload loses nothing.
import { make, type Child } from "../elements";
import { button, card, cards, facts, label, log, shown, table } from "../parts";
import type { Replies } from "../protocol";
import { _, agoText, format } from "../text";
import type { Action, Page, Tools } from "../tools";
import { restartAction } from "./overview";

type Status = Replies["updates.status"];
export interface Data { updates: Status }

const kLiveSeconds = 2;

function refreshAction(tools: Tools): Action {
    return {
        id: "refresh", title: _("Look for updates"), does: _("Look"), same: () => ["update", "refresh"],
        run: async () => { await tools.agent.request("updates.refresh", {}); },
    };
}

function installAction(mode: "security" | "all", tools: Tools): Action {
    return {
        id: "install", title: mode === "all" ? _("Install all updates") : _("Install security updates"), does: _("Install"),
        text: [make("p", {}, _("It goes on when this page is closed; sites may be gone for moments while their services restart."))],
        same: () => ["update", "install", mode, "--wait"],
        run: async () => { await tools.agent.request("updates.install", { mode }); },
    };
}

function automaticAction(on: boolean, tools: Tools): Action {
    return {
        id: "automatic", title: on ? _("Install security updates every day") : _("No longer install updates by itself"),
        does: on ? _("Switch it on") : _("Switch it off"), same: () => ["update", "automatic", on ? "on" : "off"],
        run: async () => { await tools.agent.request("updates.automatic", { on }); },
    };
}

function stateCard(status: Status, tools: Tools): HTMLElement {
    const { updates, security, running, lastCheck, automatic, rebootRequired, rebootPackages, hostname } = status;
    return card(_("Now"), [facts(
        [_("State"), running ? label(_("Being installed"), "info") : updates === 0 ? label(_("Nothing waits"), "success")
            : label(format(_("$0, $1 for security"), updates, security), security > 0 ? "warning" : "info")],
        [_("Last look"), lastCheck === null ? _("not known") : agoText(lastCheck)],
        [_("Automatic"), automatic ? label(_("On"), "success") : label(_("Off"), "none")],
        [_("Restart"), rebootRequired ? format(_("due for $0"), rebootPackages.join(", ") || "-") : _("not due")])], [
        button(_("Look for updates"), () => tools.act(refreshAction(tools)), { id: "refresh-updates", disabled: running }),
        button(automatic ? _("Automatic off") : _("Automatic on"), () => tools.act(automaticAction(!automatic, tools)), { id: "automatic-updates" }),
        security > 0 && button(_("Install security updates"), () => tools.act(installAction("security", tools)), { kind: "primary", id: "install-security", disabled: running }),
        updates > 0 && button(_("Install all"), () => tools.act(installAction("all", tools)), { id: "install-all", disabled: running }),
        rebootRequired && button(_("Restart…"), () => tools.act(restartAction(hostname, tools)), { kind: "danger", id: "restart-server" }),
    ]);
}

function packages({ packages }: Status): Child[] {
    return packages.length === 0 ? [] : [card(_("Packages"), [table(_("Packages"), "packages", [_("Package"), _("Installed"), _("New"), _("Kind")],
        packages.map(({ name, from, to, security }) => ({ key: name, cells: [name, from, to, security ? label(_("Security"), "warning") : label(_("Other"), "none")] })))])];
}

export const updatesPage: Page<Data> = {
    title: () => _("Updates"),
    sources: ({ agent }) => ({ updates: () => agent.request("updates.status", {}) }),
    view: ({ updates }, tools) => shown(updates, status => [
        cards(stateCard(status, tools), status.log !== "" && card(_("Log"), [log(_("Log of the installation"), status.log)])),
        ...packages(status)]),
    again: ({ updates }) => updates && "here" in updates && updates.here.running ? kLiveSeconds : null,
};
