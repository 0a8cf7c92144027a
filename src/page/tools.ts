// What a page is given to work with, and what it has to tell of itself.
import type { Agent } from "./channel";
import type { Child } from "./elements";
import type { Level, Part } from "./parts";

export type Values = Record<string, string>;

export interface Field {
    name: string;
    title: string;
    kind?: "text" | "area" | "choice" | "number";
    value?: string;
    choices?: [string, string][];
    help?: string;
    // The text that has to be typed, for what cannot be taken back; it may depend on what was chosen.
    must?: string | ((values: Values) => string);
    optional?: boolean;
}

export interface Action {
    id: string;
    title: string;
    text?: Child[];
    fields?: Field[];
    does: string;
    danger?: boolean;
    // The arguments of the corvctl line that does the same, or of each of several.
    same(values: Values): string[] | string[][];
    // What it does; what it gives is shown until it is closed.
    run(values: Values, progress: (text: string) => void): Promise<Child[] | void>;
    // What is offered where the connection was lost in the middle.
    lost?: () => Child[];
}

export interface Tools {
    agent: Agent;
    // Opens the dialog of an action, and loads the page anew after it.
    act(action: Action): void;
    notice(level: Level, title: string, ...more: Child[]): void;
    go(...path: string[]): void;
    reload(): void;
    // Draws the page again from the data that is there.
    redraw(): void;
}

export type Parts<D> = { [K in keyof D]: Part<D[K]> };

export interface Page<D> {
    title(): string;
    // What the page shows, each by how it is asked for; each is shown as it comes.
    sources(tools: Tools): { [K in keyof D]: () => Promise<D[K]> };
    // What is asked for only when the others have come.
    later?: (keyof D)[];
    // The page as a function of what has come.
    view(data: Parts<D>, tools: Tools): Child[];
    // After how many seconds to ask again; null where nothing moves.
    again?(data: Parts<D>): number | null;
}
