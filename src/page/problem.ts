// The ways in which something that was asked for does not come, each of which the page words in its own way.

// The agent or the client refused, and said why.
export class Refused extends Error {}

// The client does not know what it was told to do: it is older than this page.
export class Unknown extends Refused {}

// No connection: "access-denied" without administrative access, "lost" where it broke in the middle, else there is no agent.
export class NoAgent extends Error {
    constructor(readonly problem: string, message: string) {
        super(message);
    }
}

// What came does not fit the description of the protocol.
export class Misfit extends Error {}
