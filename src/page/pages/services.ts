// The services that the accounts live on, and whether disk quotas are to be had.
import { argv } from "../client";
import { make } from "../elements";
import { button, card, facts, label, shown, table } from "../parts";
import type { Replies } from "../protocol";
import { _, agoText, bytesText, format } from "../text";
import type { Action, Page, Tools } from "../tools";

type Service = Replies["services.status"]["services"][number];
type Quota = Replies["quota.status"];
export interface Data { services: Replies["services.status"]; quota: Quota }

function restartAction(name: string, tools: Tools): Action {
    return {
        id: "restart", title: format(_("Restart $0"), name), does: _("Restart"),
        text: [make("p", {}, _("What depends on it is gone for a moment."))],
        same: () => argv(["service", "restart"], [name]),
        run: async () => {
            const { queued } = await tools.agent.request("services.restart", { name });
            return queued ? [make("p", {}, _("It restarts a second from now."))] : undefined;
        },
    };
}

function enableAction(tools: Tools): Action {
    return {
        id: "quotas", title: _("Switch disk quotas on"), does: _("Switch them on"),
        text: [make("p", {}, _("Installs what is missing, adds options to /etc/fstab, and counts all files, which takes its time."))],
        same: () => ["quota", "enable"],
        run: async () => { await tools.agent.request("quota.enable", {}); },
    };
}

function row({ name, loaded, active, sub, since, memory }: Service, tools: Tools) {
    return { key: name, cells: [name,
        active ? label(_("Runs"), "success") : loaded === false ? label(_("Not installed"), "none") : label(sub || _("Unknown"), "danger"),
        since ? agoText(since) : "-", memory ? bytesText(memory) : "-",
        loaded === false ? "" : button(_("Restart"), () => tools.act(restartAction(name, tools)), { kind: "link", label: format(_("Restart $0"), name) })] };
}

function quotaCard({ mount, fsType, supported, enabled, reason }: Quota, tools: Tools): HTMLElement {
    return card(_("Disk quotas"), [facts(
        [_("State"), enabled ? label(_("On"), "success") : label(_("Off"), "none")],
        [_("File system"), `${fsType}, ${mount}`],
        ...(reason ? [[_("Why not"), reason] as [string, string]] : []))],
    [supported && !enabled && button(_("Switch on"), () => tools.act(enableAction(tools)), { kind: "primary", id: "quotas-on" })]);
}

export const servicesPage: Page<Data> = {
    title: () => _("Services and quotas"),
    sources: ({ agent }) => ({ services: () => agent.request("services.status", {}), quota: () => agent.request("quota.status", {}) }),
    view: ({ services, quota }, tools) => [
        card(_("Services"), shown(services, ({ services }) => [table(_("Services"), "services",
            [_("Service"), _("State"), _("Since"), _("Memory"), ""], services.map(service => row(service, tools)))])),
        ...shown(quota, here => [quotaCard(here, tools)])],
};
