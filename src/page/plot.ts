// Plots over time, as drawings with a table of the same behind for whoever cannot see them.
import { draw, make, type Child } from "./elements";
import { timeText } from "./text";

// A point of a line, with a mark where something is to be said of it. What is missing is a mark on the ground, and none of the line.
export interface Point { at: number; value: number; mark?: string; isMissing?: boolean }

export interface Line { name: string; points: Point[] }

const kWide = 640;
const kHigh = 160;
const kEdge = 8;

// Where a point lies in the drawing; a plot of one moment has it in the middle.
export function place(point: Point, first: number, last: number, largest: number): [number, number] {
    const x = last === first ? kWide / 2 : kEdge + (point.at - first) / (last - first) * (kWide - 2 * kEdge);
    const y = kHigh - kEdge - (largest === 0 ? 0 : point.value / largest * (kHigh - 2 * kEdge));
    return [Math.round(x * 10) / 10, Math.round(y * 10) / 10];
}

function measured(points: Point[]): Point[] {
    return points.filter(({ isMissing }) => !isMissing);
}

function lineOf({ points }: Line, number: number, bounds: [number, number, number], text: (value: number) => string): Child[] {
    const places = points.map(point => place(point, ...bounds));
    return [
        draw("polyline", { class: `line line-${number}`, points: measured(points).map(point => place(point, ...bounds).join()).join(" ") }),
        ...points.map((point, at) => draw("circle", {
            class: point.mark ? "mark" : `dot line-${number}`, cx: places[at]![0], cy: places[at]![1], r: point.mark ? 5 : 2.5,
        }, draw("title", {}, `${timeText(point.at)}${point.isMissing ? "" : `: ${text(point.value)}`}${point.mark ? `, ${point.mark}` : ""}`))),
    ];
}

// Values over time, written by the text that is given; nothing is drawn that was not measured, so that no line is drawn where there is no point.
export function plot(name: string, lines: Line[], text: (value: number) => string): HTMLElement {
    const all = lines.flatMap(({ points }) => points);
    if (all.length === 0)
        return make("p", {}, "-");
    const times = all.map(({ at }) => at);
    const first = Math.min(...times), last = Math.max(...times), largest = Math.max(...all.map(({ value }) => value));
    return make("figure", { class: "plot" },
        draw("svg", { viewBox: `0 0 ${kWide} ${kHigh}`, role: "img", "aria-label": name },
            ...lines.flatMap((line, at) => lineOf(line, at, [first, last, largest], text))),
        make("figcaption", {},
            make("span", {}, timeText(first)), make("span", {}, timeText(last)),
            ...lines.map(({ name, points }, at) => make("span", { class: `key line-${at}` }, `${name}: ${text(measured(points).pop()?.value ?? 0)}`))));
}
