// Files on their way between the browser and an account: through the agent's transfer folder, as root, by Cockpit's own channels.
import type { Agent } from "./channel";
import { Misfit, NoAgent, Refused } from "./problem";
import { _ } from "./text";

export const kMostBytes = 268435456;

const kFolder = "/var/lib/corvane/transfer";
const kTransferName = /^[\w-]{16,64}$/;
const kBlock = 65536;
// How far to run ahead of a bridge that acknowledges; older ones do not, and are given a breath after as much.
const kAhead = 2 << 20;

// Called with the bytes that have gone.
export type Gone = (bytes: number) => void;

export class Cancelled extends Error {}

function newName(): string {
    return crypto.randomUUID().replaceAll("-", "");
}

function remove(name: string) {
    return cockpit.spawn(["rm", "-f", "--", `${kFolder}/${name}`], { superuser: "require", err: "ignore" }).catch(() => "");
}

// Writes a file into the transfer folder.
async function send(file: Blob, name: string, gone: Gone, signal: AbortSignal) {
    const channel = cockpit.channel({
        payload: "fsreplace1", path: `${kFolder}/${name}`, superuser: "require", binary: true, "send-acks": "bytes", size: file.size,
    });
    let acknowledged = 0;
    let closed: Closed | null = null;
    let wake = () => undefined as void;
    const ended = new Promise<void>(done => channel.addEventListener("close", (_event, options) => {
        closed = options;
        wake();
        done();
    }));
    channel.addEventListener("control", (_event, message) => {
        if (message.command === "ack") {
            acknowledged += message.bytes ?? 0;
            wake();
        }
    });
    for (let at = 0; at < file.size && !closed && !signal.aborted; at += kBlock) {
        channel.send(new Uint8Array(await file.slice(at, at + kBlock).arrayBuffer()));
        gone(Math.min(at + kBlock, file.size));
        while (acknowledged > 0 && at - acknowledged > kAhead && !closed && !signal.aborted)
            await new Promise<void>(done => { wake = done; });
        if (acknowledged === 0 && at % kAhead === 0)
            await new Promise(done => setTimeout(done));
    }
    if (signal.aborted) {
        channel.close("cancelled");
        throw new Cancelled();
    }
    channel.control({ command: "done" });
    await ended;
    const { problem, message } = closed as Closed | null ?? {};
    if (problem)
        throw new NoAgent(problem, message || problem);
}

// Puts a file into an account. Rejects with Cancelled where the signal says so.
export async function upload(agent: Agent, username: string, path: string, file: Blob, gone: Gone, signal: AbortSignal) {
    if (file.size > kMostBytes)
        throw new Refused(_("over 256 MB; use SFTP for big files"));
    const transfer = newName();
    try {
        await send(file, transfer, gone, signal);
        await agent.request("files upload", { username, path, transfer });
    } catch (error) {
        void remove(transfer);
        throw error;
    }
}

// The address at which Cockpit hands a file of the transfer folder out.
function addressOf(transfer: string): string {
    const query = btoa(JSON.stringify({
        payload: "fsread1", binary: "raw", path: `${kFolder}/${transfer}`, superuser: "require", max_read_size: kMostBytes,
        external: { "content-type": "application/octet-stream" },
    }));
    return `${new URL(cockpit.transport.uri(`channel/${cockpit.transport.csrf_token}`)).pathname}?${query}`;
}

// Fetches a file of an account. Rejects with Cancelled where the signal says so.
export async function download(agent: Agent, username: string, path: string, gone: Gone, signal: AbortSignal): Promise<Blob> {
    const { transfer } = await agent.request("files download", { username, path });
    // It becomes part of a path that is read and removed as root.
    if (!kTransferName.test(transfer))
        throw new Misfit("files download: the reply does not fit at .transfer");
    try {
        const response = await fetch(addressOf(transfer), { signal });
        if (!response.ok || !response.body)
            throw new Refused(`${response.status} ${response.statusText}`);
        const pieces: BlobPart[] = [];
        let bytes = 0;
        for (const reader = response.body.getReader(); ;) {
            const { done, value } = await reader.read();
            if (done)
                return new Blob(pieces, { type: "application/octet-stream" });
            pieces.push(value as unknown as BlobPart);
            bytes += value.length;
            gone(bytes);
        }
    } catch (error) {
        throw signal.aborted ? new Cancelled() : error;
    } finally {
        void remove(transfer);
    }
}
