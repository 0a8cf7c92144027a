// The client on the server, for what the agent has no command for. Its arguments are a list, so that no shell reads them.
import { misfit } from "./check";
import { Misfit, NoAgent, Refused, Unknown } from "./problem";
import type { Shape } from "./protocol";

export interface Account { username: string; domain: string; state: string; usedBytes?: number; limitBytes?: number }

// All accounts, and what tells of their use: "quotas", or "backup" for the archives of the newest one.
export interface Accounts { accounts: Account[]; usedFrom?: string }

export interface Shown {
    username: string; domain: string; state: string; home: string; php?: string; usedBytes?: number; usedFrom?: string; limitBytes?: number;
    database?: { name: string; bytes: number; readOnly: boolean };
    keys: { type: string; comment: string; fingerprint: string }[];
    lastBackup?: { name: string }; certificate?: { validUntil?: number };
}

export interface Finding { level: string; problem: string; mend: string }

export interface Doctor { host: string; faults: number; notes: number; checks: { check: string; seen: string; findings: Finding[] }[] }

export interface Site { site: string; host: string; port: number; seen: string; status?: number; what?: string }

// What the last verification of a backup found.
export interface Verdict { checked: number; faults: string[] }

export interface Source { from: string; kind: string; made: number; homeBytes: number; dbBytes: number; state: boolean; checked: number; fault: string }

// What is known of the copies elsewhere.
export interface Offsite {
    repository: string;
    state: { copied: string; copiedAt: number; checkedAt: number; checkProblem: string; problems: string[] };
}

// What a site has for HTTPS.
export interface Certificate { username: string; domain: string; state: string; remark: string; validUntil?: number }

// An account that is gone.
export interface Gone { username: string; domain: string; sources: Source[] }

const kFinding = { level: "string", problem: "string", mend: "string" };
const kAccount = { username: "string", domain: "string", state: "string", "usedBytes?": "integer", "limitBytes?": "integer" };

const kLists: Shape = { accounts: [kAccount], "usedFrom?": "string" };
const kShown: Shape = {
    ...kAccount, home: "string", "php?": "string", "usedFrom?": "string",
    "database?": { name: "string", bytes: "integer", readOnly: "boolean" },
    keys: [{ type: "string", comment: "string", fingerprint: "string" }],
    "lastBackup?": { name: "string" }, "certificate?": { "validUntil?": "integer" },
};
const kDoctor: Shape = {
    host: "string", faults: "integer", notes: "integer",
    checks: [{ check: "string", seen: "string", findings: [kFinding] }],
};
const kVerdicts: Shape = { backups: [{ name: "string", "verified?": { checked: "integer", faults: ["string"] } }] };
const kOffsite: Shape = {
    repository: "string",
    state: { copied: "string", copiedAt: "integer", checkedAt: "integer", checkProblem: "string", problems: ["string"] },
};
const kCertificates: Shape = {
    sites: [{ username: "string", domain: "string", state: "string", remark: "string", "validUntil?": "integer" }],
};
const kGone: Shape = {
    accounts: [{ username: "string", domain: "string", sources: [{ from: "string", kind: "string", made: "integer", homeBytes: "integer",
        dbBytes: "integer", state: "boolean", checked: "integer", fault: "string" }] }],
};
const kSites: Shape = {
    here: { sites: [{ site: "string", host: "string", port: "integer", seen: "string", "status?": "integer", "what?": "string" }] },
};

// The arguments of one of its commands. What begins as an option does stands behind "--", so that no name of an account, a backup or a
// file that others chose becomes one.
export function argv(command: string[], words: string[], options: string[] = []): string[] {
    return words.some(word => word.startsWith("-")) ? [...command, ...options, "--", ...words] : [...command, ...words, ...options];
}

// An option with its value.
export function option(name: string, value: string): string[] {
    return value.startsWith("-") ? [`${name}=${value}`] : [name, value];
}

// Runs the client and gives what it printed. It prints its report and fails when the report is bad, so that what it printed counts
// first. Rejects with Refused, Unknown or NoAgent.
export async function run(words: string[], output?: (text: string) => void): Promise<string> {
    let printed = "";
    const take = (text: string) => {
        printed += text;
        output?.(text);
    };
    // An array of this frame's own: Cockpit takes no other one for a list.
    const process = cockpit.spawn(["corvctl", ...words], { superuser: "require", err: "message" }).stream(take);
    try {
        await process;
    } catch (error) {
        const { problem, message, exit_status } = error as CockpitError;
        if (problem)
            throw new NoAgent(problem, message);
        if (/^corvctl: no command '/.test(message))
            throw new Unknown(message.replace(/^corvctl: /, ""));
        if (exit_status !== 1 || printed.trim() === "" || output)
            throw new Refused((errorIn(printed) ?? message).replace(/^corvctl: /, ""));
    }
    return printed;
}

// The error that stands in what the client printed for programs.
function errorIn(printed: string): string | null {
    try {
        const { error } = JSON.parse(printed) as { error?: unknown };
        return typeof error === "string" ? error : null;
    } catch {
        return null;
    }
}

// Runs the client for one object that fits the shape. Rejects with Misfit beside what run rejects with.
export async function ask<T>(words: string[], shape: Shape): Promise<T> {
    const printed = await run(["--json", ...words]);
    let value: unknown;
    try {
        value = JSON.parse(printed);
    } catch {
        throw new Misfit(`corvctl ${words.join(" ")}: no JSON`);
    }
    const error = errorIn(printed);
    if (error !== null)
        throw new Refused(error);
    const place = misfit(value, shape);
    if (place !== null)
        throw new Misfit(`corvctl ${words.join(" ")}: does not fit at ${place || "its beginning"}`);
    return value as T;
}

export function accounts(): Promise<Accounts> {
    return ask(["account", "list"], kLists);
}

export function account(name: string): Promise<Shown> {
    return ask(argv(["account", "show"], [name]), kShown);
}

export function doctor(): Promise<Doctor> {
    return ask(["doctor"], kDoctor);
}

// The backups that were verified, by name.
export async function verdicts(): Promise<Map<string, Verdict>> {
    const { backups } = await ask<{ backups: { name: string; verified?: Verdict }[] }>(["backup", "list"], kVerdicts);
    return new Map(backups.flatMap(({ name, verified }) => verified ? [[name, verified] as [string, Verdict]] : []));
}

// The copies elsewhere. Rejects with Refused where there are none to be made.
export function offsite(): Promise<Offsite> {
    return ask(["offsite", "status"], kOffsite);
}

// What each site has for HTTPS; null where the client knows nothing of that. Rejects with Refused where HTTPS is off.
export async function certificates(): Promise<Certificate[] | null> {
    try {
        return (await ask<{ sites: Certificate[] }>(["https", "list"], kCertificates)).sites;
    } catch (error) {
        if (error instanceof Unknown)
            return null;
        throw error;
    }
}

// The accounts that are gone and can be brought back, each with what from, the newest first.
export async function gone(): Promise<Gone[]> {
    return (await ask<{ accounts: Gone[] }>(["account", "restore"], kGone)).accounts;
}

// What a visitor of each site sees.
export async function sites(): Promise<Site[]> {
    return (await ask<{ here: { sites: Site[] } }>(["status"], kSites)).here.sites;
}
