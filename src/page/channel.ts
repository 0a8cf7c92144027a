// The agent's socket, opened as root through Cockpit's bridge: one connection, replies in the order of the requests. The next request
// after a lost connection opens a new one.
import { misfit } from "./check";
import { Misfit, NoAgent, Refused } from "./problem";
import { kShapes, type Command, type Replies, type Requests } from "./protocol";
import { _ } from "./text";

const kSocket = "/run/corvane/agent.sock";
// The agent closes a connection on which a longer line comes, and with it all that waits there.
const kMostLineBytes = 4194304;

// A request that has no reply yet.
export interface Pending { command: Command; args: Record<string, unknown>; since: number }

interface Waiting extends Pending {
    resolve(reply: Record<string, unknown>): void;
    reject(problem: Error): void;
}

// The request line of a command. The operations on files are one command, which is told the operation among its arguments.
function lineOf(command: Command, args: Record<string, unknown>): string {
    const [cmd, op] = command.split(" ");
    return JSON.stringify({ cmd, args: op ? { ...args, op } : args }) + "\n";
}

// What a line says, as what becomes of the request that waits for it.
function settle(line: string, { command, resolve, reject }: Waiting) {
    let reply: unknown;
    try {
        reply = JSON.parse(line);
    } catch {
        return reject(new Misfit(`${command}: the reply is no JSON`));
    }
    const failure = misfit(reply, { ok: "boolean", "error?": "string" });
    if (failure !== null)
        return reject(new Misfit(`${command}: the reply does not fit at ${failure || "its beginning"}`));
    const { ok, error } = reply as { ok: boolean; error?: string };
    if (!ok)
        return reject(new Refused(error ?? ""));
    const place = misfit(reply, kShapes[command]);
    if (place !== null)
        return reject(new Misfit(`${command}: the reply does not fit at ${place}`));
    resolve(reply as Record<string, unknown>);
}

export class Agent {
    #channel: Channel | null = null;
    #waiting: Waiting[] = [];
    #pieces: string[] = [];
    #decoder = new TextDecoder();

    // Called whenever a request begins to wait or has its reply, with those that still wait, the one in work first.
    constructor(private readonly changed: (pending: readonly Pending[]) => void = () => undefined) {}

    // Sends a request. Rejects with Refused, NoAgent or Misfit.
    request<C extends Command>(command: C, args: Requests[C]): Promise<Replies[C]> {
        const line = new TextEncoder().encode(lineOf(command, args));
        if (line.length > kMostLineBytes)
            return Promise.reject(new Refused(_("This is too much for one request; upload it as a file instead.")));
        return new Promise((resolve, reject) => {
            this.#waiting.push({
                command, args, since: Date.now(), reject, resolve: reply => resolve(reply as unknown as Replies[C]),
            });
            this.#connected().send(line);
            this.changed(this.#waiting);
        });
    }

    close() {
        this.#channel?.close();
    }

    #connected(): Channel {
        if (this.#channel)
            return this.#channel;
        // Binary: a text channel has the bridge mend characters that the end of a block cuts in two.
        const channel = cockpit.channel({ payload: "stream", unix: kSocket, superuser: "require", binary: true });
        channel.addEventListener("message", (_event, data) => this.#take(channel, data));
        channel.addEventListener("close", (_event, options) => this.#closed(channel, options));
        this.#channel = channel;
        return channel;
    }

    // Only the new piece is looked through: a reply of megabytes comes in a thousand of them.
    #take(channel: Channel, data: Uint8Array) {
        if (this.#channel !== channel)
            return;
        const lines = this.#decoder.decode(data, { stream: true }).split("\n");
        while (lines.length > 1) {
            const line = this.#pieces.join("") + lines.shift()!;
            this.#pieces = [];
            const first = this.#waiting.shift();
            // Behind a line that nobody asked for no reply can be told to belong to its request.
            if (!first)
                return channel.close("protocol-error");
            settle(line, first);
            this.changed(this.#waiting);
        }
        this.#pieces.push(lines[0]!);
    }

    #closed(channel: Channel, { problem, message }: Closed) {
        if (this.#channel !== channel)
            return;
        this.#channel = null;
        this.#pieces = [];
        this.#decoder = new TextDecoder();
        const lost = this.#waiting;
        this.#waiting = [];
        for (const one of lost)
            one.reject(new NoAgent(problem || "lost", message || problem || "disconnected"));
        this.changed(this.#waiting);
    }
}
