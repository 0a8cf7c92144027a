// Makes elements. Children are nodes or text, never markup: nothing that an account's user, a tool or a log wrote becomes an element.
import { visible } from "./text";

export type Child = Node | string | null | undefined | false;
type Value = string | number | boolean | ((event: Event) => void);

function put(element: Element, attributes: Record<string, Value>, children: Child[]) {
    for (const [name, value] of Object.entries(attributes)) {
        if (typeof value === "function")
            element.addEventListener(name, value);
        else if (name.startsWith("on") || name === "style" || name === "srcdoc")
            throw new Error(`${name} is no attribute to be made of text`);
        else if (value !== false)
            element.setAttribute(name, value === true ? "" : String(value));
    }
    for (const child of children) {
        if (child !== null && child !== undefined && child !== false)
            element.append(typeof child === "string" ? visible(child) : child);
    }
}

// An element with its attributes; a function as value listens to the event of that name, false leaves the attribute out.
export function make<K extends keyof HTMLElementTagNameMap>(
    tag: K, attributes: Record<string, Value> = {}, ...children: Child[]): HTMLElementTagNameMap[K] {
    const element = document.createElement(tag);
    put(element, attributes, children);
    return element;
}

// The same for drawings.
export function draw(tag: string, attributes: Record<string, Value> = {}, ...children: Child[]): SVGElement {
    const element = document.createElementNS("http://www.w3.org/2000/svg", tag) as SVGElement;
    put(element, attributes, children);
    return element;
}
