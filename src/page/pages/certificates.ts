// Certificates of the sites, where the server serves them over HTTPS.
import type { Certificate } from "../client";
import { make, type Child } from "../elements";
import { card, copyable, facts, label, problemText, table, type Level, type Part } from "../parts";
import { Refused } from "../problem";
import { _, format, plural, timeText } from "../text";

export type Certificates = Certificate[] | null;

const kStates = new Map<string, [() => string, Level | "none"]>([
    ["served", [() => _("Served"), "success"]], ["waiting", [() => _("Waits for its certificate"), "warning"]],
    ["ending", [() => _("Ends soon"), "warning"]], ["expired", [() => _("Expired"), "danger"]],
    ["left out", [() => _("Left out"), "danger"]], ["off", [() => _("Off"), "none"]],
]);

// The state of a site's certificate, until when it is valid, and what there is to be said of it.
export function certificateText({ state, validUntil, remark }: Certificate): Child[] {
    const [text, level] = kStates.get(state) ?? [() => state, "none" as const];
    return [label(text(), level), " ", validUntil !== undefined && format(_("until $0"), timeText(validUntil)), " ", remark];
}

// Those that somebody has to look after.
export function certificateConcerns(all: Certificates): [Level, string][] {
    return (all ?? []).flatMap(({ domain, state, remark }): [Level, string][] => {
        const [text, level] = kStates.get(state) ?? [];
        return level !== "danger" && state !== "ending" ? []
            : [[level === "danger" ? "danger" : "warning", format(_("HTTPS of $0: $1"), domain, remark || text!())]];
    });
}

// Nothing where the client knows of no HTTPS.
export function certificatesCard(part: Part<Certificates>): Child {
    if (part === null || ("here" in part && part.here === null))
        return null;
    if ("problem" in part) {
        return card(_("Certificates"), part.problem instanceof Refused
            ? [facts([_("HTTPS"), label(_("Off"), "none")], [_("Switch on"), copyable("corvctl https on")])] : [problemText(part.problem)], [], "certificates");
    }
    const all = part.here!;
    const served = all.filter(({ state }) => state === "served" || state === "ending").length;
    const next = Math.min(...all.map(({ validUntil }) => validUntil ?? Infinity));
    const others = all.filter(({ state }) => state !== "served").slice(0, 10);
    return card(_("Certificates"), [
        facts([_("Served"), plural("$0 site", "$0 sites", served)], [_("First end"), Number.isFinite(next) ? timeText(next) : "-"]),
        others.length > 0 && table(_("Certificates"), "certificate-list", [_("Domain"), _("State")],
            others.map(one => ({ key: one.domain, cells: [one.domain, make("span", {}, ...certificateText(one))] }))),
    ], [copyable("corvctl https list")], "certificates");
}
