// The dialog of an action: what it takes, the line that does the same by hand, what became of it.
import { make, type Child } from "./elements";
import { alert, button, copyable, problemText, sameLine } from "./parts";
import { NoAgent } from "./problem";
import { _, format, visible } from "./text";
import type { Action, Field, Tools, Values } from "./tools";

type Input = HTMLInputElement | HTMLTextAreaElement | HTMLSelectElement;

function inputOf(field: Field): Input {
    const common = { id: `field-${field.name}`, name: field.name, required: !field.optional, autocomplete: "off", spellcheck: "false" };
    const help = field.help ? { "aria-describedby": `help-${field.name}` } : {};
    if (field.kind === "choice") {
        return make("select", { ...common, ...help }, ...(field.choices ?? []).map(([value, text]) =>
            make("option", { value, selected: value === field.value }, text)));
    }
    const input = field.kind === "area"
        ? make("textarea", { ...common, ...help, rows: 5 })
        : make("input", { ...common, ...help, type: field.kind === "number" ? "number" : "text" });
    input.value = field.value ?? "";
    return input;
}

// What is to be typed into a field, undefined where that is the reader's choice.
function mustOf({ must }: Field, values: Values): string | undefined {
    return typeof must === "function" ? must(values) : must;
}

function lineOf(field: Field, input: Input, title: HTMLElement): HTMLElement {
    return make("div", { class: "field" }, title,
        make("span", { class: `pf-v6-c-form-control ${field.kind === "area" ? "pf-m-textarea" : ""}` }, input),
        field.help && make("div", { class: "help", id: `help-${field.name}` }, field.help));
}

function isComplete(field: Field, value: string, must: string | undefined): boolean {
    return must === undefined ? Boolean(field.optional) || value.trim() !== "" : value === must;
}

export function openDialog(action: Action, tools: Tools) {
    const fields = action.fields ?? [];
    const inputs = fields.map(inputOf);
    const titles = fields.map(field => make("label", { for: `field-${field.name}` }));
    const values = (): Values => Object.fromEntries(inputs.map(input => [input.name, input.value]));
    const outcome = make("div", { role: "status" });
    const same = make("div", { class: "same" });
    const progress = make("pre", { class: "log", hidden: true, tabindex: 0, "aria-label": _("What it says") });
    const before = document.activeElement?.id ?? "";
    const written = inputs.map(input => input.value);
    let isOpen = true;
    let isWarned = false;

    const submit = make("button", { class: `pf-v6-c-button pf-m-${action.danger ? "danger" : "primary"}`, type: "submit", id: "dialog-do" },
        make("span", { class: "pf-v6-c-button__text" }, action.does));
    const close = button(_("Cancel"), () => dialog.close(), { kind: "link", id: "dialog-close" });
    const form = make("form", { method: "dialog", submit: event => { event.preventDefault(); void perform(); }, input: () => look() },
        make("div", { class: "pf-v6-c-modal-box__body" }, ...(action.text ?? []),
            ...fields.map((field, at) => lineOf(field, inputs[at]!, titles[at]!)), same, progress, outcome),
        make("footer", { class: "pf-v6-c-modal-box__footer" }, submit, close));
    const dialog = make("dialog", {
        class: "pf-v6-c-modal-box pf-m-sm", id: action.id, "aria-labelledby": "dialog-title",
        // One key throws a longer text away only when it is pressed again.
        cancel: event => {
            const isWritten = fields.some((field, at) => field.kind === "area" && inputs[at]!.value !== written[at]);
            if (!isWritten || isWarned || inputs.some(input => input.disabled))
                return;
            isWarned = true;
            event.preventDefault();
            say(alert("warning", _("What you wrote is not saved. Escape once more throws it away.")));
        },
        close: () => {
            isOpen = false;
            dialog.remove();
            // The page may have been drawn anew meanwhile, so that the browser has lost what had the focus.
            document.getElementById(before)?.focus();
        },
    }, make("header", { class: "pf-v6-c-modal-box__header" },
        make("h1", { class: "pf-v6-c-modal-box__title", id: "dialog-title" }, action.title)), form);

    const look = () => {
        const given = values();
        fields.forEach((field, at) => {
            const must = mustOf(field, given);
            titles[at]!.textContent = must === undefined ? field.title : format(_("To confirm, type $0"), visible(must));
        });
        submit.disabled = !fields.every((field, at) => isComplete(field, inputs[at]!.value, mustOf(field, given)));
        same.replaceChildren(make("span", { class: "help" }, _("The same by hand:")), " ",
            copyable(sameLine(action.same(given))));
    };
    const say = (...children: Child[]) => outcome.replaceChildren(...children.filter((child): child is Node => child instanceof Node));

    const perform = async () => {
        submit.disabled = true;
        inputs.forEach(input => { input.disabled = true; });
        close.firstChild!.textContent = _("Go on in the background");
        say(alert("info", _("Working…")));
        try {
            const given = await action.run(values(), text => {
                progress.hidden = false;
                progress.append(visible(text));
                progress.scrollTop = progress.scrollHeight;
            });
            finish(alert("success", action.title, ...(given ?? [])), Boolean(given));
        } catch (error) {
            refuse(error as Error);
        }
        tools.reload();
    };
    const finish = (result: HTMLElement, hasMore: boolean) => {
        if (!isOpen || !hasMore) {
            if (isOpen)
                dialog.close();
            tools.notice("success", action.title, ...result.lastChild!.childNodes);
            return;
        }
        form.replaceChildren(make("div", { class: "pf-v6-c-modal-box__body" }, result),
            make("footer", { class: "pf-v6-c-modal-box__footer" },
                button(_("Close"), () => dialog.close(), { kind: "primary", id: "dialog-done" })));
    };
    const refuse = (problem: Error) => {
        const more = problem instanceof NoAgent && problem.problem !== "access-denied" ? action.lost?.() ?? [] : [];
        if (!isOpen)
            return tools.notice("danger", action.title, problemText(problem), ...more);
        inputs.forEach(input => { input.disabled = false; });
        close.firstChild!.textContent = _("Close");
        say(alert("danger", problemText(problem), ...more));
        look();
    };

    look();
    document.body.append(dialog);
    dialog.showModal();
    inputs[0]?.focus();
}
