// What this page uses of Cockpit's documented interface, which base1/cockpit.js brings.
interface Closed { problem?: string | null; message?: string }

interface ChannelOptions {
    payload: "stream" | "fsreplace1";
    unix?: string;
    path?: string;
    superuser: "require";
    binary: true;
    size?: number;
    "send-acks"?: "bytes";
}

interface Channel {
    send(data: Uint8Array): void;
    control(message: { command: string }): void;
    close(problem?: string): void;
    addEventListener(type: "message", listener: (event: unknown, data: Uint8Array) => void): void;
    addEventListener(type: "control", listener: (event: unknown, message: { command: string; bytes?: number }) => void): void;
    addEventListener(type: "close", listener: (event: unknown, options: Closed) => void): void;
}

interface Proxy {
    valid: boolean;
    wait(callback: () => void): void;
    addEventListener(type: "changed", listener: () => void): void;
    Current?: unknown;
}

interface CockpitError extends Error { problem?: string | null; exit_status?: number | null }

interface Process extends Promise<string> {
    stream(callback: (text: string) => void): Process;
    close(problem?: string): void;
}

interface Cockpit {
    channel(options: ChannelOptions): Channel;
    spawn(argv: string[], options: { superuser: "require"; err: "message" | "ignore" }): Process;
    dbus(name: null, options: { bus: "internal" }): { proxy(name: string, path: string): Proxy };
    gettext(text: string): string;
    ngettext(one: string, many: string, number: number): string;
    format(text: string, ...values: (string | number)[]): string;
    language: string;
    language_direction?: string;
    location: { path: string[]; go(path: string[]): void };
    transport: { csrf_token: string; uri(suffix: string): string };
    addEventListener(type: "locationchanged", listener: () => void): void;
}

declare const cockpit: Cockpit;
