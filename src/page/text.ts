// Numbers, sizes and times as the reader writes them.

export const _ = (text: string) => cockpit.gettext(text);
export const format = (text: string, ...values: (string | number)[]) => cockpit.format(text, ...values);
export const plural = (one: string, many: string, number: number) => cockpit.format(cockpit.ngettext(one, many, number), number);

// What shows nothing, turns round what stands beside it, or steers a terminal. What others wrote may hold it.
const kUnseen = /[\0-\x08\x0b\x0c\x0e-\x1f\x7f-\x9f\xad\u200b\u2028-\u202e\u2060-\u2069\ufeff]/g;

// The text with each of these written as its number, so that the reader sees what is there.
export function visible(text: string): string {
    return text.replace(kUnseen, one => `\\u{${one.charCodeAt(0).toString(16)}}`);
}

// One for each kind: to make one costs more than to draw a row.
const made = new Map<string, { format(value: number): string }>();

function language(): string {
    return (cockpit.language || "en").replace("_", "-");
}

function formatter(kind: string, make: () => { format(value: number): string }) {
    const key = `${language()} ${kind}`;
    const found = made.get(key) ?? make();
    made.set(key, found);
    return found;
}

const kUnits = ["byte", "kilobyte", "megabyte", "gigabyte", "terabyte"];

// A size, with powers of 1000 as Cockpit's own pages.
export function bytesText(bytes: number): string {
    const power = bytes < 1000 ? 0 : Math.min(kUnits.length - 1, Math.floor(Math.log10(bytes) / 3));
    const value = bytes / 1000 ** power;
    const digits = power > 0 && value < 100 ? 1 : 0;
    return formatter(`${kUnits[power]} ${digits}`, () => new Intl.NumberFormat(language(), {
        style: "unit", unit: kUnits[power]!, maximumFractionDigits: digits })).format(value);
}

// The last second that a date can hold.
const kLastSecond = 8_640_000_000_000;

// A moment, given in seconds since 1970.
export function timeText(seconds: number): string {
    if (Math.abs(seconds) > kLastSecond)
        return "-";
    return formatter("time", () => new Intl.DateTimeFormat(language(), { dateStyle: "medium", timeStyle: "short" }))
        .format(seconds * 1000);
}

export function percentText(share: number): string {
    return formatter("percent", () => new Intl.NumberFormat(language(), { style: "percent", maximumFractionDigits: 0 })).format(share);
}

const kSpans: [Intl.RelativeTimeFormatUnit, number][] = [["day", 86400], ["hour", 3600], ["minute", 60], ["second", 1]];

// How long ago a moment is.
export function agoText(seconds: number, now = Date.now() / 1000): string {
    const past = Math.max(0, Math.round(now - seconds));
    const [unit, size] = kSpans.find(([, size]) => past >= size) ?? ["second", 1];
    return new Intl.RelativeTimeFormat(language(), { numeric: "auto" }).format(-Math.floor(past / size), unit);
}

// A span of time in its two largest units, such as 3 d 4 h.
export function spanText(seconds: number): string {
    const parts: string[] = [];
    let left = Math.round(seconds);
    for (const [unit, size] of kSpans) {
        const number = Math.floor(left / size);
        left -= number * size;
        if (number > 0)
            parts.push(new Intl.NumberFormat(language(), { style: "unit", unit, unitDisplay: "narrow" }).format(number));
    }
    return parts.slice(0, 2).join(" ") || "0 s";
}

// The moment of a backup's name, such as 2026-11-22_031500, which is in the server's own time; the text as it is where it is none.
export function backupText(name: string): string {
    const parts = /^(\d{4}-\d{2}-\d{2})_(\d{2})(\d{2})(\d{2})$/.exec(name);
    return parts ? `${parts[1]} ${parts[2]}:${parts[3]}` : name;
}
