"""Two accounts that try to reach each other, and root's files, by every trick with a path: each is refused or harmless."""

import os

import pytest

from files import OUTSIDE, TRANSFER, Files, error

SECRET = "what only bob may know"
ROOTS = "what only root may know"
REFUSED = {
    "to another home": "../bob/secret.txt",
    "with a slash first": "/../bob/secret.txt",
    "with two slashes": "..//bob//secret.txt",
    "through a folder": "public_html/../../bob/secret.txt",
    "through a folder that is not there": "x/../../bob/secret.txt",
    "through a file": "own.txt/../../bob/secret.txt",
    "with dots between": "./.././bob/./secret.txt",
    "through the root": "../../home/bob/secret.txt",
    "beyond the root": "../../../../../../home/bob/secret.txt",
    "in and out": "../alice/../bob/secret.txt",
    "out, in and out": "../bob/../alice/../bob/secret.txt",
    "far below and up": "a/b/c/d/../../../../../bob/secret.txt",
    "a page": "../bob/public_html/config.php",
    "another home itself": "../bob",
    "another home with a slash": "../bob/",
    "another home with a dot": "../bob/.",
    "the folder of homes": "..",
    "the folder of homes with a slash": "../",
    "the folder of homes with a dot": "../.",
    "the root": "../..",
    "the root by many steps": "../" * 500,
    "a file by many steps": "../" * 500 + "home/bob/secret.txt",
    "root's file": "../../etc/roots.txt",
    "root's file with a slash first": "/../../etc/roots.txt",
    "a name with a common prefix": "../alice2/secret.txt",
    "a home with a common prefix": "../alice2",
    "a prefix of the name": "../alic/secret.txt",
    "the name in upper case": "../ALICE/secret.txt",
    "the process's root": "../../proc/self/root/home/bob/secret.txt",
    "the first process's root": "../../proc/1/root/home/bob/secret.txt",
    "the process's descriptors": "../../proc/self/fd/0",
    "the transfer directory": "../../var/lib/corvane/transfer",
    "a line feed after it": "../bob/secret.txt\n",
    "a NUL after it": "../bob/secret.txt\0",
    "a NUL and an end after it": "../bob/secret.txt\0.txt",
    "a NUL before it": "own.txt\0/../../bob/secret.txt",
    "half of a character": "\ud800/../../bob/secret.txt",
    "through a link": "homes/../../bob/secret.txt",
}
HARMLESS = {
    "an absolute path": "/home/bob/secret.txt",
    "an absolute path with two slashes": "//home/bob/secret.txt",
    "an absolute path to root's file": "/etc/roots.txt",
    "the process's root as an absolute path": "/proc/self/root/home/bob/secret.txt",
    "backslashes": "..\\bob\\secret.txt",
    "an escape of the web": "%2e%2e/bob/secret.txt",
    "an escaped slash": "..%2fbob%2fsecret.txt",
    "an address": "file:///home/bob/secret.txt",
    "a resource of the framework": ":/home/bob/secret.txt",
    "three dots": ".../bob/secret.txt",
    "two dots and a blank": ".. /bob/secret.txt",
    "a blank and two dots": " ../bob/secret.txt",
    "a character of two dots": "\u2025/bob/secret.txt",
    "wide dots": "\uff0e\uff0e/bob/secret.txt",
    "a character like a slash": "..\u2215bob\u2215secret.txt",
    "a change of direction": "\u202e../x",
    "an overlong slash": "..\ufffd\ufffdbob",
    "a tilde": "~bob/secret.txt",
    "a variable": "$HOME/secret.txt",
    "a command": "$(cat /home/bob/secret.txt)",
    "a command in backticks": "`cat /home/bob/secret.txt`",
    "a second command": "; cat /home/bob/secret.txt",
    "a pattern": "*",
    "an option": "-rf",
    "the end of options": "--",
    "the option of the helper": "--files",
    "an option with a value": "--config=/etc/roots.txt",
    "a line feed": "\n",
    "a quote": "'\"",
    "a long name": "n" * 255,
    "a name that is too long": "n" * 256,
    "a path that is too long": "n/" * 2500,
    "a path of one long name": "n" * 5000,
    "a link to another home": "to_bob",
    "a link to another home and on": "to_bob/secret.txt",
    "a link to another home's page": "to_bob/public_html/config.php",
    "a link to another's file": "to_secret",
    "a link to another's file that is not there": "to_new",
    "a link to the folder of homes": "homes",
    "a link to the folder of homes and on": "homes/bob/secret.txt",
    "a link by dots": "by_dots",
    "a link to the root": "to_root",
    "a link to the root and on": "to_root/home/bob/secret.txt",
    "a link to the root and to root's file": "to_root/etc/roots.txt",
    "a link to root's file": "to_roots",
    "a link to the passwords": "to_shadow",
    "a link to the process's root": "to_proc_root/home/bob/secret.txt",
    "a link to the first process's root": "to_init_root/home/bob/secret.txt",
    "a link to the process's folder": "to_cwd/home/bob/secret.txt",
    "a link to the process's program": "to_exe",
    "a link to the process's input": "to_input",
    "a link to the process's memory": "to_memory",
    "a link to a device": "to_device",
    "a link to the transfer directory": "to_transfer",
    "a link to an upload": "to_transfer/abcdefghijklmnop",
    "a link to itself": "circle",
    "a link to a link": "chain",
    "a link to a link and on": "chain/secret.txt",
    "another's file under an own name": "hard",
    "another's page under an own name": "hard_page",
    "root's file under an own name": "hard_roots",
}
LINKS = {
    "to_bob": "/home/bob",
    "to_secret": "/home/bob/secret.txt",
    "to_new": "/home/bob/new.txt",
    "homes": "/home",
    "by_dots": "../bob/secret.txt",
    "to_root": "/",
    "to_roots": "/etc/roots.txt",
    "to_shadow": "/etc/shadow",
    "to_proc_root": "/proc/self/root",
    "to_init_root": "/proc/1/root",
    "to_cwd": "/proc/self/cwd",
    "to_exe": "/proc/self/exe",
    "to_input": "/proc/self/fd/0",
    "to_memory": "/proc/self/mem",
    "to_device": "/dev/null",
    "to_transfer": TRANSFER,
    "circle": "circle",
    "chain": "to_bob",
}


class Fence:
    """What bob and root own, and whether it is as it was."""

    def __init__(self, files):
        self.files = files
        self.box = files.sandbox
        self.box.add_account("alice2")
        for home in ("bob", "alice2"):
            self.box.write(f"/home/{home}/secret.txt", SECRET, 0o600, f"{home}:{home}")
            self.box.write(f"/home/{home}/public_html/config.php", SECRET, 0o640, f"{home}:www-data")
        self.box.write("/etc/roots.txt", ROOTS, 0o600)
        self.box.write("/home/roots.txt", ROOTS, 0o600)
        files.write("own.txt", "alice's own")
        for name, target in LINKS.items():
            files.link(name, target)
        # The system itself forbids these to users; somebody may have allowed them.
        os.link(self.box.path("/home/bob/secret.txt"), files.path("hard"))
        os.link(self.box.path("/home/bob/public_html/config.php"), files.path("hard_page"))
        os.link(self.box.path("/home/roots.txt"), files.path("hard_roots"))
        self.box.start()
        self.before = self.all()

    def all(self):
        trees = {top: self.box.tree(top) for top in ("/home/bob", "/home/alice2", "/etc", "/srv", "/root")}
        return trees, self.box.entry("/home"), self.box.entry("/dev/null"), self.box.read("/home/roots.txt")

    def try_all(self, path):
        """Tries every operation on a path, those that take away last, and returns the replies."""
        replies = {}
        for op in ("list", "read", "download", "write", "upload", "mkdir"):
            self.files.upload("q" * 16, b"alice's upload")
            replies[op] = self.files.ask(op, path, content="alice's content", transfer="q" * 16)
        self.files.write("gift", "alice's gift")
        replies["rename to"] = self.files.ask("rename", "gift", to=path)
        replies["rename"] = self.files.ask("rename", path, to="taken")
        if replies["rename"]["ok"]:
            assert self.files.ask("rename", "taken", to=path)["ok"]
        replies["delete"] = self.files.ask("delete", path)
        return replies

    def check(self, replies):
        assert self.all() == self.before
        for reply in replies.values():
            assert SECRET not in str(reply) and ROOTS not in str(reply)
        for name in self.files.transfers():
            content = self.box.path(f"{TRANSFER}/{name}").read_bytes()
            assert SECRET.encode() not in content and ROOTS.encode() not in content


@pytest.fixture
def fence(sandbox):
    return Fence(Files(sandbox))


def test_the_table_is_long():
    assert len(REFUSED) + len(HARMLESS) >= 60


@pytest.mark.parametrize("path", REFUSED.values(), ids=REFUSED.keys())
def test_path_that_leads_out(fence, path):
    replies = fence.try_all(path)
    assert replies.pop("rename to") in (OUTSIDE, error("cannot rename that"))
    assert all(reply == OUTSIDE for reply in replies.values()), replies
    fence.check(replies)


@pytest.mark.parametrize("path", HARMLESS.values(), ids=HARMLESS.keys())
def test_path_that_leads_nowhere(fence, path):
    fence.check(fence.try_all(path))


@pytest.mark.parametrize("path", ["", "/", "secret.txt", "public_html/config.php", "public_html", "new.txt"])
def test_home_that_is_a_link_to_another(fence, path):
    os.rename(fence.files.path(), fence.box.path("/home/moved"))
    fence.box.symlink("/home/alice", "/home/bob")
    fence.check(try_without_home(fence, path))


@pytest.mark.parametrize("path", ["", "/", "secret.txt", "public_html/config.php", "public_html", "new.txt"])
def test_home_that_is_anothers_by_the_user_database(fence, path):
    passwd = fence.box.path("/etc/passwd")
    passwd.write_text(passwd.read_text().replace(":/home/alice:", ":/home/bob:"))
    fence.before = fence.all()
    fence.check(try_without_home(fence, path))


def try_without_home(fence, path):
    """Every operation, where alice has no home to put anything into."""
    replies = {}
    for op in ("list", "read", "download", "write", "upload", "mkdir", "rename", "delete"):
        fence.files.upload("q" * 16, b"alice's upload")
        replies[op] = fence.files.ask(op, path, to="taken", content="alice's content", transfer="q" * 16)
        assert replies[op]["ok"] is False, replies
    return replies
