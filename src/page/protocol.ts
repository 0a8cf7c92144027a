// Written by data/describe.py from data/protocol.json; change it there.

// A reply within a reply, which may have failed by itself.
export type Half<T> = ({ ok: true } & T) | { ok: false; error: string };

// What a command takes; the operations on files each by itself.
export interface Requests {
    "ping": Record<string, never>;
    "system.info": Record<string, never>;
    "system.disks": Record<string, never>;
    "services.status": Record<string, never>;
    "services.restart": { name: string };
    "hosting.create": { username: string; domain: string; sshKey?: string };
    "hosting.suspend": { username: string };
    "hosting.resume": { username: string };
    "hosting.delete": { username: string; confirm: string };
    "hosting.usage": Record<string, never>;
    "hosting.getKeys": { username: string };
    "quota.status": Record<string, never>;
    "quota.enable": Record<string, never>;
    "quota.set": { username: string; mb?: number };
    "firewall.status": Record<string, never>;
    "firewall.enable": Record<string, never>;
    "firewall.disable": Record<string, never>;
    "firewall.allow": { port: number; proto?: "tcp" | "udp" | "both"; from?: string };
    "firewall.delete": { number: number };
    "fail2ban.status": Record<string, never>;
    "fail2ban.enable": Record<string, never>;
    "fail2ban.unban": { jail: string; ip: string };
    "updates.status": Record<string, never>;
    "updates.refresh": Record<string, never>;
    "updates.install": { mode: "security" | "all" };
    "updates.automatic": { on?: boolean };
    "system.reboot": { confirm: string };
    "security.status": Record<string, never>;
    "backup.status": Record<string, never>;
    "backup.start": Record<string, never>;
    "backup.restore": { username: string; backup: string; what: "files" | "database" };
    "files list": { username: string; path?: string };
    "files read": { username: string; path?: string };
    "files write": { username: string; path?: string; content?: string };
    "files mkdir": { username: string; path?: string };
    "files rename": { username: string; path?: string; to: string };
    "files delete": { username: string; path?: string };
    "files upload": { username: string; path?: string; transfer: string };
    "files download": { username: string; path?: string };
    "hosting.setKeys": { username: string; keys?: string };
    "hosting.resetDbPassword": { username: string };
    "hosting.dbReadOnly": { username: string; readOnly?: boolean };
}

// What it replies where it succeeds.
export interface Replies {
    "ping": { version: string };
    "system.info": { hostname: string; os: string; kernel: string; cpus: number; uptimeSeconds: number };
    "system.disks": { disks: { mount: string; device: string; type: string; total: number; avail: number }[] };
    "services.status": { services: { name: string; loaded?: boolean; active?: boolean; sub?: string; memory?: number; since?: number }[] };
    "services.restart": { queued: boolean };
    "hosting.create": { domain: string; phpVersion: string; dbPassword: string; accessLog: string };
    "hosting.suspend": Record<never, never>;
    "hosting.resume": Record<never, never>;
    "hosting.delete": { archive: string };
    "hosting.usage": { usage: Record<string, number> };
    "hosting.getKeys": { keys: string };
    "quota.status": { mount: string; fsType: string; supported: boolean; enabled: boolean; reason?: string };
    "quota.enable": { already?: boolean; mount?: string; fstabBackup?: string };
    "quota.set": Record<never, never>;
    "firewall.status": { installed: boolean; sshPort: string; active?: boolean; rules?: { number: number; to: string; action: string; from: string; ssh: boolean }[] };
    "firewall.enable": { allowed: string[] };
    "firewall.disable": Record<never, never>;
    "firewall.allow": Record<never, never>;
    "firewall.delete": Record<never, never>;
    "fail2ban.status": { installed: boolean; running?: boolean; jails?: { name: string; failed: number; totalBanned: number; banned: string[] }[] };
    "fail2ban.enable": Record<never, never>;
    "fail2ban.unban": Record<never, never>;
    "updates.status": { updates: number; security: number; packages: { name: string; to: string; from: string; security: boolean }[]; rebootRequired: boolean; rebootPackages: string[]; automatic: boolean; lastCheck: number | null; running: boolean; log: string; hostname: string };
    "updates.refresh": Record<never, never>;
    "updates.install": Record<never, never>;
    "updates.automatic": Record<never, never>;
    "system.reboot": Record<never, never>;
    "security.status": { firewall: Half<Replies["firewall.status"]>; fail2ban: Half<Replies["fail2ban.status"]> };
    "backup.status": { destination: string; keepDays: number; backups: { name: string; bytes: number; created?: number; seconds?: number; accounts?: { username?: string; domain?: string; homeBytes?: number; dbBytes?: number }[]; panelBytes?: number; errors?: string[] }[]; running: boolean; next: string; log: string; freeBytes: number; totalBytes: number };
    "backup.start": Record<never, never>;
    "backup.restore": { restoredTo?: string };
    "files list": { entries: { name: string; dir: boolean; link: boolean; size: number; mtime: number; mode: string }[]; truncated: boolean };
    "files read": { content: string };
    "files write": { size: number };
    "files mkdir": Record<never, never>;
    "files rename": Record<never, never>;
    "files delete": Record<never, never>;
    "files upload": { size: number };
    "files download": { size: number; transfer: string };
    "hosting.setKeys": { count: number };
    "hosting.resetDbPassword": { dbPassword: string };
    "hosting.dbReadOnly": Record<never, never>;
}

export type Command = keyof Replies;

// The same for a look at each reply: a type by its name, [of what] for lists, members with a ? where they may be missing,
// * for members of any name, @ for the reply of another command with an ok of its own.
export type Shape = string | readonly [Shape] | { readonly [member: string]: Shape };

export const kShapes: Record<Command, Shape> = {
    "ping": {"version": "string"},
    "system.info": {"hostname": "string", "os": "string", "kernel": "string", "cpus": "integer", "uptimeSeconds": "integer"},
    "system.disks": {"disks": [{"mount": "string", "device": "string", "type": "string", "total": "integer", "avail": "integer"}]},
    "services.status": {"services": [{"name": "string", "loaded?": "boolean", "active?": "boolean", "sub?": "string", "memory?": "integer", "since?": "integer"}]},
    "services.restart": {"queued": "boolean"},
    "hosting.create": {"domain": "string", "phpVersion": "string", "dbPassword": "string", "accessLog": "string"},
    "hosting.suspend": {},
    "hosting.resume": {},
    "hosting.delete": {"archive": "string"},
    "hosting.usage": {"usage": {"*": "integer"}},
    "hosting.getKeys": {"keys": "string"},
    "quota.status": {"mount": "string", "fsType": "string", "supported": "boolean", "enabled": "boolean", "reason?": "string"},
    "quota.enable": {"already?": "boolean", "mount?": "string", "fstabBackup?": "string"},
    "quota.set": {},
    "firewall.status": {"installed": "boolean", "sshPort": "string", "active?": "boolean", "rules?": [{"number": "integer", "to": "string", "action": "string", "from": "string", "ssh": "boolean"}]},
    "firewall.enable": {"allowed": ["string"]},
    "firewall.disable": {},
    "firewall.allow": {},
    "firewall.delete": {},
    "fail2ban.status": {"installed": "boolean", "running?": "boolean", "jails?": [{"name": "string", "failed": "integer", "totalBanned": "integer", "banned": ["string"]}]},
    "fail2ban.enable": {},
    "fail2ban.unban": {},
    "updates.status": {"updates": "integer", "security": "integer", "packages": [{"name": "string", "to": "string", "from": "string", "security": "boolean"}], "rebootRequired": "boolean", "rebootPackages": ["string"], "automatic": "boolean", "lastCheck": "integer or null", "running": "boolean", "log": "string", "hostname": "string"},
    "updates.refresh": {},
    "updates.install": {},
    "updates.automatic": {},
    "system.reboot": {},
    "security.status": {"firewall": "@firewall.status", "fail2ban": "@fail2ban.status"},
    "backup.status": {"destination": "string", "keepDays": "integer", "backups": [{"name": "string", "bytes": "integer", "created?": "integer", "seconds?": "integer", "accounts?": [{"username?": "string", "domain?": "string", "homeBytes?": "integer", "dbBytes?": "integer"}], "panelBytes?": "integer", "errors?": ["string"]}], "running": "boolean", "next": "string", "log": "string", "freeBytes": "integer", "totalBytes": "integer"},
    "backup.start": {},
    "backup.restore": {"restoredTo?": "string"},
    "files list": {"entries": [{"name": "string", "dir": "boolean", "link": "boolean", "size": "integer", "mtime": "integer", "mode": "string"}], "truncated": "boolean"},
    "files read": {"content": "string"},
    "files write": {"size": "integer"},
    "files mkdir": {},
    "files rename": {},
    "files delete": {},
    "files upload": {"size": "integer"},
    "files download": {"size": "integer", "transfer": "string"},
    "hosting.setKeys": {"count": "integer"},
    "hosting.resetDbPassword": {"dbPassword": "string"},
    "hosting.dbReadOnly": {},
};
