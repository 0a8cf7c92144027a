// The frame around the pages: which one is shown, its data as it comes, what is said while something is missing.
import { watchAccess, type Access } from "./access";
import { Agent, type Pending } from "./channel";
import { openDialog } from "./dialog";
import { make, type Child } from "./elements";
import { accountPage } from "./pages/account";
import { accountsPage } from "./pages/accounts";
import { backupsPage } from "./pages/backups";
import { filesPage } from "./pages/files";
import { firewallPage } from "./pages/firewall";
import { overviewPage } from "./pages/overview";
import { servicesPage } from "./pages/services";
import { updatesPage } from "./pages/updates";
import { alert, button, empty, safely, waiting, type Level } from "./parts";
import { pendingText } from "./pending";
import { NoAgent } from "./problem";
import { _, format } from "./text";
import { followTheme } from "./theme";
import type { Page, Parts, Tools } from "./tools";
import { transferList } from "./transfers";
import "./index.css";

// The data of a page is its own matter: here they are parts that come or do not.
type AnyPage = Page<Record<string, unknown>>;

const kAgainSeconds = 3;
// Parts that come within so long of each other are drawn together.
const kTogetherMs = 40;

// The pages by the first word of the address, in the order of the tabs.
const kTabs: [string, () => string][] = [
    ["", () => _("Overview")],
    ["accounts", () => _("Accounts")],
    ["backups", () => _("Backups")],
    ["firewall", () => _("Firewall and bans")],
    ["updates", () => _("Updates")],
    ["services", () => _("Services and quotas")],
];

const kPages = new Map<string, unknown>([
    ["accounts", accountsPage], ["backups", backupsPage], ["firewall", firewallPage], ["updates", updatesPage], ["services", servicesPage],
]);

function pageAt(path: string[]): AnyPage {
    const [first = "", second, ...rest] = path;
    if (first === "files" && second)
        return filesPage(second, ...rest) as unknown as AnyPage;
    if (first === "accounts" && second)
        return accountPage(second) as unknown as AnyPage;
    return (kPages.get(first) ?? overviewPage) as unknown as AnyPage;
}

const content = make("div", { id: "content" });
const tabs = make("nav", { class: "tabs", "aria-label": _("Hosting") });
const busy = make("div", { id: "busy", role: "status" });
const notices = make("div", { id: "notices", role: "log", "aria-label": _("What was done") });

let page: AnyPage | null = null;
let data: Parts<Record<string, unknown>> = {};
// Counts the loads: what an older one brings is not shown any more.
let load = 0;
let again: ReturnType<typeof setTimeout> | undefined;
let pending: readonly Pending[] = [];
let access: Access = null;
// Whether a load has ended before the access was known: then it is done once more.
let isEnded = false;
let cameThrough = () => undefined as void;
let isPressed = false;
let isOverdue = false;
let drawn = 0;
let drawing: ReturnType<typeof setTimeout> | undefined;

const agent = new Agent(now => {
    pending = now;
    drawBusy();
});

function drawBusy() {
    busy.replaceChildren(...pendingText(pending, Date.now()).map(text => make("span", {}, text)));
}

const tools: Tools = {
    agent,
    act: action => openDialog(action, tools),
    notice: (level: Level, title: string, ...more: Child[]) => {
        const one: HTMLElement = make("div", { class: "notice" }, alert(level, title, ...more),
            button(_("Dismiss"), () => one.remove(), { kind: "link" }));
        notices.append(one);
    },
    go: (...path) => cockpit.location.go(path),
    reload: () => void loadPage(),
    redraw: () => drawPage(),
};

// Draws the page now, or with what comes right behind.
function drawSoon() {
    clearTimeout(drawing);
    drawing = setTimeout(drawPage, Math.max(0, drawn + kTogetherMs - performance.now()));
}

// Draws the page, and gives the focus back to what had it. Not while a button of the mouse is down: what it was pressed on must still
// be there when it is let go.
function drawPage() {
    const shown = page;
    if (!shown || access !== true)
        return;
    isOverdue = isPressed;
    if (isPressed)
        return;
    clearTimeout(drawing);
    drawing = undefined;
    drawn = performance.now();
    const scrolled = document.getElementById("scrolled")!;
    const top = scrolled.scrollTop;
    const active = document.activeElement as HTMLInputElement | null;
    const id = active && content.contains(active) ? active.id : "";
    const [begin, end] = id && active!.type === "text" ? [active!.selectionStart, active!.selectionEnd] : [null, null];
    content.replaceChildren(make("h1", { class: "pf-v6-c-title pf-m-xl", tabindex: -1 }, shown.title()),
        ...safely(() => shown.view(data, tools)).filter((child): child is Node => child instanceof Node));
    scrolled.scrollTop = top;
    const now = id ? document.getElementById(id) as HTMLInputElement | null : null;
    now?.focus({ preventScroll: true });
    if (now && begin !== null)
        now.setSelectionRange(begin, end);
}

function press(isDown: boolean) {
    isPressed = isDown;
    if (!isDown && isOverdue)
        setTimeout(drawPage);
}

function sameData(before: unknown, now: unknown): boolean {
    const plain = (_name: string, value: unknown) => value instanceof Map ? [...value] : value;
    return JSON.stringify(before, plain) === JSON.stringify(now, plain);
}

// Asks for what the page shows, and draws each part as it comes. A part that was there stays until the new one is. It is asked for even
// before the access is known: Cockpit holds it back until then.
async function loadPage() {
    clearTimeout(again);
    const shown = page;
    if (!shown || access === false)
        return;
    const mine = ++load;
    isEnded = false;
    content.setAttribute("aria-busy", "true");
    const sources = Object.entries(shown.sources(tools));
    const problems: Error[] = [];
    if (Object.keys(data).length === 0) {
        data = Object.fromEntries(sources.map(([name]) => [name, null]));
        drawPage();
    }
    const bring = async ([name, ask]: [string, () => Promise<unknown>]) => {
        const part = await ask().then(here => ({ here }), (problem: Error) => ({ problem }));
        if (mine !== load || access === false)
            return;
        if ("problem" in part)
            problems.push(part.problem);
        else
            cameThrough();
        if (part && "problem" in part || !sameData(data[name], part)) {
            data = { ...data, [name]: part };
            drawSoon();
        }
    };
    const isLater = ([name]: [string, unknown]) => shown.later?.includes(name) ?? false;
    await Promise.all(sources.filter(source => !isLater(source)).map(bring));
    const isOver = () => mine !== load || access === false;
    if (!isOver() && !problems.some(problem => problem instanceof NoAgent))
        await Promise.all(sources.filter(isLater).map(bring));
    if (isOver())
        return;
    if (access === null) {
        isEnded = true;
        return;
    }
    if (drawing !== undefined)
        drawPage();
    content.setAttribute("aria-busy", "false");
    const gone = problems.find(problem => problem instanceof NoAgent);
    if (gone)
        return waitForAgent(gone as NoAgent);
    const seconds = shown.again?.(data) ?? null;
    if (seconds !== null)
        again = setTimeout(() => void loadPage(), seconds * 1000);
}

// Says that there is no agent, and looks whether there is one again.
function waitForAgent(problem: NoAgent) {
    if (problem.problem === "access-denied")
        return showLimited();
    content.replaceChildren(empty("no-agent", _("The hosting agent does not answer"),
        format(_("$0. This page looks again every few seconds; corvctl doctor tells why."), problem.message),
        button(_("Try again"), () => void lookAgain(), { kind: "primary" })));
    again = setTimeout(() => void lookAgain(), kAgainSeconds * 1000);
}

async function lookAgain() {
    clearTimeout(again);
    try {
        await agent.request("ping", {});
    } catch (error) {
        if (error instanceof NoAgent)
            return waitForAgent(error);
    }
    data = {};
    void loadPage();
}

function showLimited() {
    content.replaceChildren(empty("limited", _("Administrative access is needed"),
        _("Hosting is managed as root. Turn on administrative access at the top of the window: this page follows by itself.")));
}

function follow() {
    const path = cockpit.location.path;
    page = pageAt(path);
    data = {};
    tabs.replaceChildren(...kTabs.map(([name, title]) => make("a", {
        href: `#/${name}`, class: "tab", ...((path[0] ?? "") === name && { "aria-current": "page" }) }, title())));
    document.title = `${page.title()} - ${_("Hosting")}`;
    void loadPage();
    document.getElementById("scrolled")!.scrollTop = 0;
}

followTheme();
document.addEventListener("DOMContentLoaded", () => {
    document.documentElement.lang = (cockpit.language || "en").replace("_", "-");
    document.documentElement.dir = cockpit.language_direction || "ltr";
    document.body.append(make("div", { class: "pf-v6-c-page pf-m-no-sidebar" },
        make("div", { class: "pf-v6-c-page__main-container" },
            make("main", { class: "pf-v6-c-page__main", id: "scrolled", tabindex: -1 },
                make("section", { class: "pf-v6-c-page__main-section" }, tabs, busy, notices, transferList, content)))));
    setInterval(drawBusy, 1000);
    document.addEventListener("pointerdown", () => press(true), true);
    for (const end of ["pointerup", "pointercancel", "dragend"])
        document.addEventListener(end, () => press(false), true);
    // A file that is dropped beside its place would be opened by the browser, in place of Cockpit.
    for (const kind of ["dragover", "drop"])
        document.addEventListener(kind, event => event.preventDefault());
    cockpit.addEventListener("locationchanged", follow);
    content.append(waiting());
    watchAccess(now => {
        const isFirst = access === null && !isEnded;
        access = now;
        if (access === false) {
            clearTimeout(again);
            agent.close();
            showLimited();
        } else if (access && isFirst) {
            drawPage();
        } else if (access) {
            follow();
        }
    }, () => new Promise<void>(resolve => { cameThrough = resolve; }));
    follow();
});
