"""What the tests of the file manager share: two accounts, a transfer directory, requests, and the helper run directly."""

import json
import os

from described import wrong_reply
from sandbox import AGENT_PATH, runuser

TRANSFER = "/var/lib/corvane/transfer"
PANEL = "corv-web:corv-web"
OUTSIDE = {"ok": False, "error": "that path is outside the account's home"}
NO_ANSWER = {"ok": False, "error": "the file helper gave no answer"}
NO_UPLOAD = {"ok": False, "error": "the upload is missing or too big"}
DONE = {"ok": True}
MEBIBYTE = 1 << 20


def error(text):
    return {"ok": False, "error": text}


class Files:
    """The accounts alice and bob in a sandbox, and a transfer directory that belongs to the panel's user."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        sandbox.add_account("alice")
        sandbox.add_account("bob")
        sandbox.mkdir(TRANSFER, 0o700, PANEL)

    def ask(self, op, path="", username="alice", **more):
        """The reply to one request."""
        return self.sandbox.request("files", username=username, op=op, path=path, **more)

    def write(self, path, content="", mode=0o644, owner="alice:alice"):
        """Makes a file in alice's home; its folders must be there."""
        return self.sandbox.write(f"/home/alice/{path}", content, mode, owner)

    def mkdir(self, path, mode=0o755, owner="alice:alice"):
        return self.sandbox.mkdir(f"/home/alice/{path}", mode, owner)

    def link(self, path, target):
        link = self.sandbox.symlink(f"/home/alice/{path}", target)
        os.chown(link, *self.sandbox.ids("alice:alice"), follow_symlinks=False)
        return link

    def path(self, path=""):
        return self.sandbox.path(f"/home/alice/{path}")

    def names(self, path=""):
        """What is in a folder of alice's home, hidden entries too."""
        return sorted(os.listdir(self.path(path)))

    def upload(self, name, content=b"", mode=0o600, owner=PANEL):
        return self.sandbox.write(f"{TRANSFER}/{name}", content, mode, owner)

    def transfers(self):
        """What is in the transfer directory."""
        return sorted(os.listdir(self.sandbox.path(TRANSFER)))

    def pretend(self, **how):
        """Lets a stand-in answer in the helper's place, as it likes."""
        self.sandbox.allows_undescribed_replies()
        self.sandbox.answer("runuser", **how)

    def helper(self, *args, input=b"", user="alice", shell=""):
        """Runs the helper directly as a user: (exit code, output, errors). shell is what a shell does before it."""
        uid, gid = self.sandbox.ids(user)
        if self.sandbox.agent is None:
            self.sandbox.start()
        become = ["env", "--chdir=/", "setpriv", f"--reuid={uid}", f"--regid={gid}", "--clear-groups", "--inh-caps=-all"]
        command = [*become, "sh", "-c", f'{shell}\nexec "$@"', "sh", AGENT_PATH, "--files", *args]
        return self.sandbox.run(*command, input=input)

    def direct(self, op, path="", *more, home="/home/alice", **how):
        """The helper's reply, run directly; all that it must print and return beside it is checked."""
        code, out, err = self.helper(op, home, path, *more, **how)
        assert (code, err) == (0, "")
        assert out.endswith("\n") and out.count("\n") == 1
        reply = json.loads(out)
        assert json.loads(json.dumps(reply, separators=(",", ":"))) == reply
        assert ": " not in out or ": " in json.dumps(reply, separators=(",", ":"))
        assert wrong_reply("files", {"op": op}, reply) == []
        return reply

    def entries(self, path="", **how):
        """The names that the helper lists, in its order."""
        reply = self.direct("list", path, **how)
        assert reply["ok"] is True, reply
        return [entry["name"] for entry in reply["entries"]]


def vector(op, *paths, user="alice"):
    """The words of the call that does an operation."""
    return runuser(user, AGENT_PATH, "--files", op, f"/home/{user}", *paths)
