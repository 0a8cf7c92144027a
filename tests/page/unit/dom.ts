// As much of a document as the page's modules need without a browser: elements with attributes, children, text and listeners. Cockpit's
// interface is there too, with channels and programs that a test answers by hand. To be imported before anything of the page.

export class FakeNode {
    childNodes: FakeNode[] = [];
    parent: FakeNode | null = null;
    get firstChild() { return this.childNodes[0] ?? null; }
    get lastChild() { return this.childNodes[this.childNodes.length - 1] ?? null; }
    get textContent(): string { return this.childNodes.map(child => child.textContent).join(""); }
    set textContent(text: string) { this.replaceChildren(text); }
    append(...children: (FakeNode | string)[]) {
        for (const child of children) {
            const node = typeof child === "string" ? new FakeText(child) : child;
            node.remove();
            node.parent = this;
            this.childNodes.push(node);
        }
    }
    replaceChildren(...children: (FakeNode | string)[]) {
        this.childNodes = [];
        this.append(...children);
    }
    replaceWith(other: FakeNode) {
        const { parent } = this;
        if (!parent)
            return;
        parent.childNodes = parent.childNodes.map(child => child === this ? other : child);
        other.parent = parent;
        this.parent = null;
    }
    remove() {
        if (this.parent)
            this.parent.childNodes = this.parent.childNodes.filter(child => child !== this);
        this.parent = null;
    }
}

class FakeText extends FakeNode {
    constructor(private text: string) { super(); }
    override get textContent() { return this.text; }
    override set textContent(text: string) { this.text = text; }
}

export class FakeElement extends FakeNode {
    attributes = new Map<string, string>();
    listeners: Record<string, ((event: unknown) => void)[]> = {};
    style: Record<string, string> = {};
    classList = { add: (name: string) => { this.setAttribute("class", `${this.getAttribute("class") ?? ""} ${name}`); } };
    value = "";
    constructor(readonly tag: string) { super(); }
    setAttribute(name: string, value: string) {
        this.attributes.set(name, value);
        if (name === "value")
            this.value = value;
    }
    getAttribute(name: string) { return this.attributes.get(name) ?? null; }
    addEventListener(name: string, listener: (event: unknown) => void) { (this.listeners[name] ??= []).push(listener); }
    fire(name: string) { this.listeners[name]?.forEach(listener => listener({ target: this, preventDefault: () => undefined })); }
    click() { this.fire("click"); }
    all(): FakeElement[] {
        return this.childNodes.flatMap(child => child instanceof FakeElement ? [child, ...child.all()] : []);
    }
    // By the name of the element alone, or its identity.
    querySelector(selector: string) {
        return this.all().find(one => selector.startsWith("#") ? one.getAttribute("id") === selector.slice(1) : one.tag === selector) ?? null;
    }
}

type Listener = (event: unknown, data: unknown) => void;

export class FakeChannel {
    sent: string[] = [];
    isClosed = false;
    private listeners: Record<string, Listener[]> = {};
    constructor(readonly options: Record<string, unknown>) {}
    addEventListener(type: string, listener: Listener) { (this.listeners[type] ??= []).push(listener); }
    send(data: Uint8Array) { this.sent.push(new TextDecoder().decode(data)); }
    close(problem?: string) { this.end(problem ? { problem } : {}); }
    says(text: string) { this.bytes(new TextEncoder().encode(text)); }
    bytes(data: Uint8Array) { this.listeners.message?.forEach(listener => listener({}, data)); }
    end(options: { problem?: string; message?: string }) {
        this.isClosed = true;
        this.listeners.close?.forEach(listener => listener({}, options));
    }
}

export const channels: FakeChannel[] = [];
export const spawned: string[][] = [];
export const programs: { printed: string; fails?: Record<string, unknown> }[] = [];

function spawn(argv: string[]) {
    spawned.push(argv);
    const { printed, fails } = programs.shift() ?? { printed: "" };
    const process = (fails ? Promise.reject(Object.assign(new Error(String(fails.message)), fails)) : Promise.resolve(printed)) as
        Promise<string> & { stream(take: (text: string) => void): unknown };
    process.stream = take => {
        if (printed)
            take(printed);
        return process;
    };
    return process;
}

const put = (text: string, ...values: unknown[]) => text.replace(/\$(\d)/g, (_whole, at: string) => String(values[Number(at)]));

Object.assign(globalThis, {
    Node: FakeNode,
    document: { querySelector: () => null, createElement: (tag: string) => new FakeElement(tag), createElementNS: (_space: string, tag: string) => new FakeElement(tag) },
    location: { port: "9090", protocol: "https:" },
    cockpit: {
        language: "en", gettext: (text: string) => text, ngettext: (one: string, many: string, number: number) => number === 1 ? one : many,
        format: put, spawn,
        channel: (options: Record<string, unknown>) => {
            const channel = new FakeChannel(options);
            channels.push(channel);
            return channel;
        },
    },
});
