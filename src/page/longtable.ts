// Tables of thousands of rows: drawn are those where the reader looks, and empty height stands for the others.
import { make } from "./elements";
import { tableRow, type Row } from "./parts";

const kRowsALot = 50;
// How far ahead of the reader rows are drawn, so that no scrolling is faster.
const kAheadPixels = 1500;
// How high a row is, as far as one has been seen.
let rowPixels = 40;

const watchers = new WeakMap<Element, IntersectionObserver>();

function draw(lot: HTMLElement, names: string[], rows: (() => Row)[], from: number) {
    lot.replaceChildren(...rows.slice(from, from + kRowsALot).map((row, at) => {
        const element = tableRow(names, row());
        element.setAttribute("aria-rowindex", String(from + at + 2));
        return element;
    }));
}

// Fills a table with rows in place of those that were in it. Each lot is a body of its own, so that the browser does not lay out the
// others again.
export function fillRows(whole: HTMLElement, names: string[], rows: (() => Row)[]) {
    watchers.get(whole)?.disconnect();
    whole.replaceChildren(whole.firstChild!);
    whole.setAttribute("aria-rowcount", String(rows.length + 1));
    const lots = Array.from({ length: Math.ceil(rows.length / kRowsALot) }, () => make("tbody", { class: "pf-v6-c-table__tbody" }));
    whole.append(...lots);
    const [first, ...others] = lots;
    if (first)
        draw(first, names, rows, 0);
    if (!first || others.length === 0)
        return;
    const watcher = new IntersectionObserver(seen => {
        for (const { isIntersecting, target } of seen) {
            if (!isIntersecting)
                continue;
            watcher.unobserve(target);
            draw(target as HTMLElement, names, rows, lots.indexOf(target as HTMLTableSectionElement) * kRowsALot);
        }
    }, { root: document.getElementById("scrolled"), rootMargin: `${kAheadPixels}px 0px` });
    watchers.set(whole, watcher);
    const spacers = others.map((lot, at) => {
        const spacer = make("tr", { "aria-hidden": "true" }, make("td", { colspan: names.length }));
        lot.append(spacer);
        return () => { spacer.style.blockSize = `${rowPixels * Math.min(kRowsALot, rows.length - (at + 1) * kRowsALot)}px`; };
    });
    spacers.forEach(spread => spread());
    // How high a row really is shows when the first ones are in the page.
    setTimeout(() => {
        if (watchers.get(whole) !== watcher)
            return;
        rowPixels = first.offsetHeight / kRowsALot || rowPixels;
        spacers.forEach(spread => spread());
        others.forEach(lot => watcher.observe(lot));
    });
}
