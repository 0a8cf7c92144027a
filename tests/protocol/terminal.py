"""A terminal of 80 columns, driven by tmux, with the administrator's client in it; and agents that answer as no agent does."""

import os
import re
import socket
import subprocess
import threading
import uuid

from corvctl import PATH, install
from programs import PATIENCE, wait_until

FAKE_SOCKET = "/run/fake.sock"


class Terminal:
    """One run of corvctl in a sandbox whose agent runs already. Its end does not close the terminal."""

    def __init__(self, sandbox, *args, env=None, cwd="/"):
        install(sandbox)
        self._socket = f"/tmp/corvctl-{uuid.uuid4().hex[:12]}"
        variables = {"PATH": PATH, "HOME": "/root", "LC_ALL": "C.UTF-8", **(env or {})}
        enter = ["nsenter", f"--target={sandbox.agent.pid}", "--pid", "--uts", "--ipc", f"--root={sandbox.root}",
                 f"--wd={sandbox.path(cwd)}"]
        words = [*enter, "env", "-u", "TMUX", *(f"{key}={value}" for key, value in variables.items()), "corvctl", *args]
        # The shell tells of the end and keeps the terminal open.
        shell = ["sh", "-c", '"$@"; printf "\\n[ended with %s]" $?; exec sleep infinity', "sh"]
        self._tmux("new-session", "-d", "-x", "80", "-y", "24", "--", *shell, *words)

    def _tmux(self, *args):
        environment = {**os.environ, "TERM": "xterm", "LC_ALL": "C.UTF-8"}
        command = ["tmux", "-u", "-f", "/dev/null", "-S", self._socket, *args]
        return subprocess.run(command, check=True, capture_output=True, text=True, env=environment).stdout

    def screen(self):
        """What can be read on it, without the empty lines at its end."""
        return self._tmux("capture-pane", "-p").rstrip("\n")

    def colours(self):
        """The codes of all colours and styles on it."""
        return re.findall(r"\x1b\[(\d+)m", self._tmux("capture-pane", "-p", "-e"))

    def title(self):
        return self._tmux("display-message", "-p", "#{pane_title}").strip()

    def wait_for(self, text):
        """Waits until the text can be read; gives the whole screen."""
        return wait_until(lambda: self.screen() if text in self.screen() else None, f"{text!r} on the terminal:\n{self.screen()}")

    def type(self, text):
        """Types a line."""
        self._tmux("send-keys", "-l", text)
        self._tmux("send-keys", "Enter")

    def end(self):
        """Waits for the end of corvctl: its exit status, and the screen without what the shell says of it."""
        shown = self.wait_for("[ended with ")
        head, _, code = shown.rpartition("[ended with ")
        return int(code.rstrip("]")), head.rstrip("\n")

    def close(self):
        try:
            self._tmux("kill-server")
        except subprocess.CalledProcessError:
            pass
        if os.path.exists(self._socket):
            os.unlink(self._socket)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class FakeAgent:
    """Listens in a sandbox at FAKE_SOCKET and gives each connection to serve(connection), which gets the connected socket."""

    def __init__(self, sandbox, serve):
        folder = os.open(sandbox.path(FAKE_SOCKET).parent, os.O_PATH)
        self._listener = socket.socket(socket.AF_UNIX)
        # An address holds 107 bytes at most; the sandbox's own path must not use them up.
        self._listener.bind(f"/proc/self/fd/{folder}/{os.path.basename(FAKE_SOCKET)}")
        os.close(folder)
        self._listener.listen()
        self._serve = serve
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            with connection:
                connection.settimeout(PATIENCE)
                try:
                    self._serve(connection)
                except OSError:
                    pass  # the client went away

    def close(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self._thread.join()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


def answering(*lines):
    """Reads as many requests as there are lines, and answers each with its own."""
    def serve(connection):
        for line in lines:
            read_line(connection)
            connection.sendall(line)
    return serve


def read_line(connection):
    data = b""
    while not data.endswith(b"\n"):
        more = connection.recv(65536)
        if not more:
            break
        data += more
    return data
