"""A browser in Cockpit, on our page: what tests of the page do, in the words of whoever sits in front of it."""

import json
import time

from browser import Browser

ADDRESS = "https://10.213.0.2:9090"
FRAME = "document.querySelector('iframe[name=\"cockpit1:localhost/corvane\"]')"
PAGE = f"{FRAME}.contentDocument"
# Our overview: when it knows that the reader may do all, and when all that it shows is there.
OVERVIEW = {
    "administrator": f"{PAGE}.querySelector('#content h1')",
    "full": f"{PAGE}.querySelectorAll('.cards .pf-v6-c-card').length >= 6 && !{PAGE}.querySelector('.cards .asked')",
}


class Cockpit(Browser):
    """`page` is the document of our page, as an expression."""

    page = PAGE
    _world = None

    def login(self, user, password, *, administrator=True, path="/corvane"):
        self.send("Page.navigate", url=ADDRESS + path)
        self.wait("document.querySelector('#login-user-input')?.offsetParent && !document.querySelector('#login-button').disabled")
        # What the shell keeps of this user's last visit: whether to ask for administrative access at once.
        self.js(f"localStorage.setItem('superuser:{user}', '{'any' if administrator else 'none'}')")
        self.click("document.querySelector('#login-user-input')")
        self.type(user)
        self.click("document.querySelector('#login-password-input')")
        self.type(password)
        self.click("document.querySelector('#login-button')")

    def seconds_to(self, states):
        """After how many seconds from now each of some expressions was true, by its name."""
        began = time.monotonic()
        after = {}
        for name, state in states.items():
            self.wait(state, 60)
            after[name] = time.monotonic() - began
        return after

    def find(self, selector):
        """An expression for the first element of the page that a selector names."""
        return f"{PAGE}.querySelector({json.dumps(selector)})"

    def click(self, code):
        """A click, as a person does it: on what has come to rest."""
        self.wait(code)
        if PAGE in code:
            self.wait(f"{PAGE}.querySelector('#content').ariaBusy !== 'true'", 60)
        super().click(code)

    def row(self, key, inner=""):
        """An expression for the row of a table, or for an element in it, by what the row is about."""
        return self.find(f'[data-row="{key}"] {inner}'.strip())

    def button(self, text, within="body"):
        """An expression for the button, or link, of the page with a text, or whose name for screen readers is the text."""
        return (f"[...{PAGE}.querySelectorAll({json.dumps(within + ' button, ' + within + ' a')})]"
                f".find(e => (e.textContent.trim() === {json.dumps(text)} || e.ariaLabel === {json.dumps(text)}) && e.offsetParent)")

    def text(self, selector="body"):
        return self.js(f"{self.find(selector)}.innerText")

    def wait_for(self, selector, patience=30):
        self.wait(self.find(selector), patience)

    def wait_for_text(self, text, selector="body", patience=30):
        self.wait(f"{self.find(selector)}?.innerText.includes({json.dumps(text)})", patience)

    def visit(self, *path):
        """Goes to another page of ours, as a link does, and waits for its title."""
        self.js(f"{FRAME}.contentWindow.cockpit.location.go({json.dumps(list(path))})")
        hash = "/" + "/".join(path)
        self.wait(f"{FRAME}.contentWindow.location.hash.slice(1) === {json.dumps(hash)} && {self.find('#content h1')}")

    def press_button(self, text, within="body"):
        self.click(self.button(text, within))

    def fill(self, name, text):
        """Puts a text into a field of the open dialog, in place of what was in it."""
        field = self.find(f"#field-{name}")
        self.click(field)
        self.js(f"{field}.select()")
        if text:
            self.type(text)
        else:
            self.press("Delete", 46)

    def choose(self, selector, value):
        self.js(f"""(() => {{ const s = {self.find(selector)}; s.value = {json.dumps(value)};
            s.dispatchEvent(new ({FRAME}.contentWindow.Event)('input', {{bubbles: true}}));
            s.dispatchEvent(new ({FRAME}.contentWindow.Event)('change', {{bubbles: true}})); }})()""")

    def do(self, patience=60):
        """Presses the dialog's button, and gives what the page says of the outcome; what it had to tell is closed."""
        self.js(f"{self.find('#notices')}.replaceChildren()")
        self.click(self.find("#dialog-do:not(:disabled)"))
        outcome = "#dialog-done, dialog .pf-m-danger.pf-v6-c-alert, #notices .pf-v6-c-alert"
        self.wait_for(outcome, patience)
        # At one look: a dialog that has been closed is there a moment longer.
        has_more, said = self.js(f"""(dialog => [Boolean(dialog?.querySelector('#dialog-done')), (dialog === null ? {self.find('#notices')}
            : dialog.querySelector('#dialog-done') ? dialog : dialog.querySelector('[role=status]')).innerText])({self.find('dialog[open]')})""")
        if has_more:
            self.click(self.find("#dialog-done"))
        return said

    def theme(self, style):
        """Switches between dark and light as the shell's own menu does."""
        self.js(f"""localStorage.setItem('shell:style', '{style}');
            for (const w of [window, ...Array.from(document.querySelectorAll('iframe'), f => f.contentWindow)])
                w.dispatchEvent(new w.CustomEvent('cockpit-style', {{detail: {{style: '{style}'}}}}))""")
        self.wait(f"{PAGE}.documentElement.classList.contains('pf-v6-theme-dark') === {json.dumps(style == 'dark')}")

    def leave_dialog(self):
        """Closes what a test that failed has left open."""
        self.js(f"{PAGE}?.querySelectorAll('dialog').forEach(one => one.close())")

    def forget_frames(self):
        self._world = None

    def apart(self, code):
        """The value of an expression in a world of its own beside the page's scripts, where its security policy does not hold."""
        if self._world is None:
            tree = self.send("Page.getFrameTree")["frameTree"]
            frame = next(one["frame"]["id"] for one in tree["childFrames"] if one["frame"].get("name") == "cockpit1:localhost/corvane")
            self._world = self.send("Page.createIsolatedWorld", frameId=frame)["executionContextId"]
        return self.js(code, contextId=self._world)

    def inaccessible(self, axe):
        """What axe-core finds on the page as it is: an empty list, where it found nothing."""
        if self.apart("typeof axe") == "undefined":
            self.apart(axe + ";1")
        passed, violations = json.loads(self.apart(
            "axe.run(document).then(r => JSON.stringify([r.passes.length, "
            "r.violations.map(v => [v.id, v.nodes.map(n => n.html.slice(0, 120) + n.failureSummary.slice(0, 300))])]))"))
        assert passed > 5
        return violations

    def give_files(self, selector, *paths):
        """Chooses files for a file field, as the browser's own window for that would."""
        found = self.send("Runtime.evaluate", expression=self.find(selector))["result"]["objectId"]
        self.send("DOM.setFileInputFiles", files=[str(path) for path in paths], objectId=found)

    def drop(self, selector, *paths):
        """Drags files and folders of this machine over an element, and lets them go there."""
        self.wait_for(selector)
        self.js(f"{self.find(selector)}.scrollIntoView()")
        x, y = self.js(f"""(() => {{ const box = {self.find(selector)}.getBoundingClientRect(), outer = {FRAME}.getBoundingClientRect();
            return [outer.x + box.x + box.width / 2, outer.y + box.y + 10]; }})()""")
        data = {"items": [], "files": [str(path) for path in paths], "dragOperationsMask": 1}
        for kind in ("dragEnter", "dragOver", "drop"):
            self.send("Input.dispatchDragEvent", type=kind, x=x, y=y, data=data)

    def scroll_to_the_end(self):
        self.js(f"{self.find('#scrolled')}.scrollTop = 1e9")
