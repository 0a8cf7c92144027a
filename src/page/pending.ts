// What is in work at the agent, and what waits for it: the agent does one thing at a time.
import type { Pending } from "./channel";
import { _, format, plural, spanText } from "./text";

// Requests that are answered at once are not worth a word.
const kQuietMs = 1000;

function nameOf({ command, args }: Pending): string {
    const about = args.username ?? args.name ?? args.mode;
    return typeof about === "string" ? `${command} ${about}` : command;
}

// Lines on what takes longer, the one in work first; none where nothing does.
export function pendingText(pending: readonly Pending[], now: number): string[] {
    const [first, ...behind] = pending;
    if (!first || now - first.since < kQuietMs)
        return [];
    const lines = [format(_("In work for $1: $0"), nameOf(first), spanText((now - first.since) / 1000))];
    if (behind.length > 0) {
        lines.push(format(_("$0 behind it ($1)"), plural("$0 request waits", "$0 requests wait", behind.length),
            [...new Set(behind.map(nameOf))].join(", ")));
    }
    return lines;
}
