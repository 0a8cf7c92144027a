"""Drives Debian's chromium over its DevTools protocol on a pair of pipes; nothing but Python's own library is needed."""

import base64
import contextlib
import json
import os
import select
import subprocess
import tempfile
import time

# What Cockpit's own pages log before and while somebody logs in: the question whether there is a session, and fonts of its shell.
EXPECTED = ("/cockpit/login", "/shell/assets/", "/system/assets/fonts/", "/static/fonts/", "favicon")


class Failed(AssertionError):
    """The browser or the page is not as a test needs it."""


class Browser:
    """One tab. Expressions are JavaScript of the outermost document; in_frame says where they are evaluated for the page."""

    def __init__(self, prefix=(), size=(1280, 900), language="en-US"):
        self._profile = tempfile.TemporaryDirectory(prefix="corv-browser-")
        to_browser, self._write = os.pipe()
        self._read, from_browser = os.pipe()

        def place():
            # The browser reads from descriptor 3 and writes to 4. Duplicates first: either may be in the other's way.
            ends = os.dup(to_browser), os.dup(from_browser)
            os.dup2(ends[0], 3)
            os.dup2(ends[1], 4)

        self._process = subprocess.Popen(
            [*prefix, "/usr/bin/chromium", "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
             "--ignore-certificate-errors", "--no-first-run", "--disable-background-networking", "--disable-extensions",
             "--disable-component-update", "--disable-sync", "--hide-scrollbars", "--remote-debugging-pipe", f"--lang={language}",
             f"--window-size={size[0]},{size[1]}", f"--user-data-dir={self._profile.name}", "about:blank"],
            preexec_fn=place, close_fds=False, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(to_browser)
        os.close(from_browser)
        self._buffer, self._number, self.events = b"", 0, []
        target = self.send("Target.createTarget", session=None, url="about:blank")["targetId"]
        self._session = self.send("Target.attachToTarget", session=None, targetId=target, flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Log", "Network"):
            self.send(domain + ".enable")
        self.resize(*size)

    def close(self):
        with contextlib.suppress(Failed, OSError):
            self.send("Browser.close", session=None)
        try:
            self._process.wait(10)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
        os.close(self._write)
        os.close(self._read)
        with contextlib.suppress(OSError):
            self._profile.cleanup()

    def _message(self, patience):
        end = time.monotonic() + patience
        while b"\0" not in self._buffer:
            left = end - time.monotonic()
            if left <= 0 or not select.select([self._read], [], [], left)[0]:
                raise Failed("the browser says nothing")
            block = os.read(self._read, 1 << 20)
            if not block:
                raise Failed("the browser has ended")
            self._buffer += block
        line, _, self._buffer = self._buffer.partition(b"\0")
        return json.loads(line)

    def send(self, method, session="page", patience=60, **parameters):
        """One command of the DevTools protocol, and its result."""
        self._number += 1
        request = {"id": self._number, "method": method, "params": parameters}
        if session == "page":
            request["sessionId"] = self._session
        data = json.dumps(request).encode() + b"\0"
        while data:
            data = data[os.write(self._write, data):]
        while True:
            message = self._message(patience)
            if message.get("id") == self._number:
                if "error" in message:
                    raise Failed(f"{method}: {message['error']['message']}")
                return message["result"]
            if "method" in message:
                self.events.append(message)

    def js(self, code, **options):
        """The value of an expression; a promise is waited for."""
        answer = self.send("Runtime.evaluate", expression=code, returnByValue=True, awaitPromise=True, **options)
        if "exceptionDetails" in answer:
            details = answer["exceptionDetails"]
            raise Failed(details.get("exception", {}).get("description", details["text"]))
        return answer["result"].get("value")

    def wait(self, code, patience=30):
        """Waits until an expression is true. One that fails counts as not yet."""
        end = time.monotonic() + patience
        problem = None
        while time.monotonic() < end:
            try:
                if self.js(f"Boolean({code})"):
                    return
            except Failed as failure:
                problem = failure
            time.sleep(0.02)
        raise Failed(f"not within {patience} s: {code} ({problem})")

    def resize(self, width, height):
        self.send("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)

    def screenshot(self, path):
        # The shell's own frame is drawn once more when its pages have settled.
        self.js("new Promise(done => requestAnimationFrame(() => requestAnimationFrame(done)))")
        path.write_bytes(base64.b64decode(self.send("Page.captureScreenshot", format="png")["data"]))

    def click(self, code):
        """A real click of the mouse into the middle of what an expression names, in whatever frame."""
        self.wait(code)
        x, y = self.js(f"""(() => {{
            const element = {code};
            element.scrollIntoView({{block: 'center'}});
            // Of a link that goes over several lines the first one: there is nothing of it between two.
            const box = element.getClientRects()[0];
            let x = box.x + box.width / 2, y = box.y + box.height / 2;
            for (let frame = element.ownerDocument.defaultView.frameElement; frame; frame = frame.ownerDocument.defaultView.frameElement) {{
                const outer = frame.getBoundingClientRect();
                x += outer.x; y += outer.y;
            }}
            return [x, y];
        }})()""")
        for kind in ("mousePressed", "mouseReleased"):
            self.send("Input.dispatchMouseEvent", type=kind, x=x, y=y, button="left", clickCount=1)

    def type(self, text):
        self.send("Input.insertText", text=text)

    def press(self, key, code=0, text=""):
        """A key of the keyboard; `code` is its virtual key code, `text` what it writes."""
        common = {"key": key, "code": key, "windowsVirtualKeyCode": code}
        self.send("Input.dispatchKeyEvent", type="keyDown" if text else "rawKeyDown", **common, **({"text": text} if text else {}))
        self.send("Input.dispatchKeyEvent", type="keyUp", **common)

    def processor_ms(self, code):
        """Evaluates an expression, and gives the processor's time that its scripts, styles and layout took."""
        self.send("Performance.enable", timeDomain="threadTicks")
        before = self._worked()
        self.js(code)
        after = self._worked()
        self.send("Performance.disable")
        return 1000 * (after - before)

    def _worked(self):
        metrics = {one["name"]: one["value"] for one in self.send("Performance.getMetrics")["metrics"]}
        return sum(metrics[name] for name in ("ScriptDuration", "LayoutDuration", "RecalcStyleDuration"))

    def complaints(self):
        """What the pages logged as errors: scripts that failed, what the content security policy refused, what was not there."""
        found = []
        for event in self.events:
            if event["method"] == "Runtime.exceptionThrown":
                details = event["params"]["exceptionDetails"]
                found.append(details.get("exception", {}).get("description", details["text"]))
            elif event["method"] == "Log.entryAdded" and event["params"]["entry"]["level"] == "error":
                entry = event["params"]["entry"]
                found.append(f"{entry['text']} ({entry.get('url', '')})")
            elif event["method"] == "Runtime.consoleAPICalled" and event["params"]["type"] in ("error", "assert"):
                found.append(" ".join(str(a.get("value", a.get("description", ""))) for a in event["params"]["args"]))
        return [one for one in found if not any(part in one for part in EXPECTED)]
