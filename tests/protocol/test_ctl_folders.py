"""Whole folders of an account there and back, and a file in an editor: what arrives, and what never does."""

import json
import os
import signal

import pytest
from corvctl import PATH, corvctl, install
from programs import wait_until
from terminal import FAKE_SOCKET, FakeAgent
from test_ctl_busy import begin, interrupt

TRANSFER = "/var/lib/corvane/transfer"


@pytest.fixture
def server(sandbox):
    sandbox.any_order = True
    sandbox.add_account("alice")
    sandbox.start()
    return sandbox


def declare(sandbox, *outcomes):
    sandbox.logs(*(f"agent: uid 0 ran files -> {outcome}" for outcome in outcomes))


def files_below(path):
    """Relative path -> content, None for a folder."""
    found = {}
    for folder, folders, files in os.walk(path):
        for name in folders:
            found[os.path.relpath(os.path.join(folder, name), path)] = None
        for name in files:
            full = os.path.join(folder, name)
            with open(full, "rb") as file:
                found[os.path.relpath(full, path)] = file.read()
    return found


SITE = {"index.html": b"<h1>hello</h1>", "img": None, "img/a b.png": b"\0\1" * 200000, "img/deep": None, "img/deep/ü.txt": b"x",
        "empty": None}


def make_site(sandbox, inside, owner=None):
    for name, content in SITE.items():
        if content is None:
            sandbox.mkdir(f"{inside}/{name}", owner=owner)
        else:
            sandbox.write(f"{inside}/{name}", content, owner=owner)
    if owner:
        os.chown(sandbox.path(inside), *sandbox.ids(owner))


def test_a_folder_travels_there_and_back(server):
    make_site(server, "/root/site")
    assert corvctl(server, "file", "put", "-r", "alice", "/root/site", "public_html/new") == (
        0, "public_html/new: 3 file(s), 390.6 KiB\n", "")
    assert files_below(server.path("/home/alice/public_html/new")) == SITE
    assert os.listdir(server.path("/home/alice/public_html")) == ["new"]
    assert corvctl(server, "file", "get", "-r", "alice", "public_html/new", "/root/back") == (
        0, "/root/back: 3 file(s), 390.6 KiB\n", "")
    assert files_below(server.path("/root/back")) == SITE
    assert server.entry("/root/back") == "0700 root:root"
    assert sorted(os.listdir(server.path("/root"))) == ["back", "site"]
    assert os.listdir(server.path(TRANSFER)) == []
    # Is it there, four folders, three files, its name; four lists and three files.
    declare(server, "failed", *["ok"] * 8, *["ok"] * 7)


def test_a_folder_replaces_nothing(server):
    make_site(server, "/root/site")
    server.mkdir("/home/alice/site", owner="alice:alice")
    assert corvctl(server, "file", "put", "-r", "alice", "/root/site") == (
        1, "", "corvctl: site exists already, so nothing was sent\n")
    assert corvctl(server, "file", "get", "-r", "alice", "site", "/root/") == (
        1, "", "corvctl: /root/site exists already, so nothing was fetched\n")
    declare(server, "ok")


@pytest.mark.parametrize("plant, problem", [
    (lambda box: box.symlink("/root/site/img/link", "/etc/passwd"),
     "img/link is neither a file nor a folder, which cannot be sent"),
    (lambda box: os.mkfifo(box.path("/root/site/pipe")), "pipe is neither a file nor a folder, which cannot be sent"),
    (lambda box: os.truncate(box.write("/root/site/large"), (256 << 20) + 1), "large: over 256 MiB; use SFTP for big files"),
    (lambda box: open(os.fsencode(box.path("/root/site")) + b"/\xff", "wb").close(), "\ufffd: the name is no text in UTF-8"),
])
def test_a_folder_that_cannot_be_sent_whole_is_not_sent(server, plant, problem):
    make_site(server, "/root/site")
    plant(server)
    assert corvctl(server, "file", "put", "-r", "alice", "/root/site") == (1, "", f"corvctl: {problem}\n  nothing was sent\n")
    assert server.tree("/home/alice").keys() == {"public_html", "logs", "tmp", ".ssh"}


def test_what_is_refused_on_the_way_leaves_nothing_there(server):
    """The account's disk is full, say: the folder under the other name goes again."""
    make_site(server, "/root/site")
    server.mkdir("/home/alice/site", owner="root:root", mode=0o755)
    code, out, err = corvctl(server, "file", "put", "-r", "alice", "/root/site", "site/x")
    assert (code, out) == (1, "")
    assert os.listdir(server.path("/home/alice/site")) == []
    assert os.listdir(server.path(TRANSFER)) == []
    declare(server, *["failed"] * 3)


def test_ctrl_c_leaves_nothing_of_a_folder_that_is_sent(server):
    make_site(server, "/root/site")
    server.write("/root/site/z-last", b"x" * 50_000_000)
    process = begin(server, "file", "put", "-r", "alice", "/root/site")
    wait_until(lambda: list(server.path("/home/alice").glob(".corvctl-*/index.html")), "the first file")
    code, out, err = interrupt(process)
    assert (code, out) == (130, "")
    assert server.tree("/home/alice").keys() == {"public_html", "logs", "tmp", ".ssh"}
    assert os.listdir(server.path(TRANSFER)) == []
    server.expected_log += server.log_lines[len(server.expected_log):]


def test_ctrl_c_leaves_nothing_of_a_folder_that_is_fetched(server):
    make_site(server, "/home/alice/site", "alice:alice")
    server.write("/home/alice/site/z-last", b"x" * 50_000_000, owner="alice:alice")
    process = begin(server, "file", "get", "-r", "alice", "site", "/root/site")
    wait_until(lambda: list(server.path("/root").glob(".corvctl-*/index.html")), "the first file")
    code, out, err = interrupt(process)
    assert (code, out) == (130, "")
    assert os.listdir(server.path("/root")) == []
    # A download that the agent was about to hand over has no taker any more; what is a day old there is removed.
    assert len(os.listdir(server.path(TRANSFER))) <= 1
    server.request("ping")  # behind it in the queue
    server.expected_log += ["agent: uid 0 ran files -> ok"] * (len(server.log_lines) - len(server.expected_log))


def swap_folder(box):
    """By a link that leads out, to a folder with a file of that name."""
    os.rename(box.path("/home/alice/from/sub"), box.path("/home/alice/from/gone"))
    box.symlink("/home/alice/from/sub", "/etc/private")


def swap_file(box, make):
    box.path("/home/alice/from/sub/page").unlink()
    make(box.path("/home/alice/from/sub/page"))


@pytest.mark.parametrize("swap, problem", [
    (swap_folder, "sub/page: Not a directory"),
    (lambda box: swap_file(box, lambda path: os.symlink("/etc/private/page", path)), "sub/page: Too many levels of symbolic links"),
    (lambda box: swap_file(box, os.mkfifo), "sub/page is no file any more"),
    (lambda box: swap_file(box, os.mkdir), "sub/page is no file any more"),
])
def test_what_a_tenant_swaps_in_while_his_folder_is_sent_is_not_sent(server, swap, problem):
    """Root sends a folder of the tenant's, who puts something else in the place of what was looked at: a file of root's, say."""
    server.write("/etc/private/page", "of root alone", mode=0o600)
    server.write("/home/alice/from/sub/page", "of alice", owner="alice:alice")
    sent = []

    def serve(connection):
        for line in connection.makefile("rb"):
            args = json.loads(line)["args"]
            if args["op"] == "mkdir" and args["path"].endswith("/sub"):
                swap(server)
            if args["op"] == "upload":
                sent.append(server.read(f"{TRANSFER}/{args['transfer']}"))
            reply = {"ok": True} if args["op"] != "list" else {"ok": False, "error": "not there"}
            connection.sendall(json.dumps(reply).encode() + b"\n")

    with FakeAgent(server, serve):
        end = corvctl(server, "--socket", FAKE_SOCKET, "file", "put", "-r", "alice", "/home/alice/from", "to")
    assert end == (1, "", f"corvctl: {problem}\n")
    assert sent == [] and os.listdir(server.path(TRANSFER)) == []


def test_links_are_left_out_and_told(server):
    make_site(server, "/home/alice/site", "alice:alice")
    server.symlink("/home/alice/site/img/link", "/etc/passwd")
    server.symlink("/home/alice/site/out", "/etc")
    code, out, err = corvctl(server, "file", "get", "-r", "alice", "site", "/root/site")
    assert (code, out) == (1, "/root/site: 3 file(s), 390.6 KiB\n")
    assert sorted(err.splitlines()) == ["corvctl: 2 of it could not be fetched", "corvctl: site/img/link: a link, which is left out",
                                        "corvctl: site/out: a link, which is left out"]
    assert files_below(server.path("/root/site")) == SITE
    declare(server, *["ok"] * 7)


def hostile(listings):
    """An agent whose lists hold anything, and whose files are all "evil"."""
    def serve(connection):
        for line in connection.makefile("rb"):
            args = json.loads(line)["args"]
            if args["op"] == "list":
                reply = {"ok": True, "entries": listings.get(args["path"], [])}
            else:
                reply = {"ok": False, "error": "nothing but lists"}
            connection.sendall(json.dumps(reply).encode() + b"\n")
    return serve


def entry(name, folder=False):
    return {"name": name, "dir": folder, "link": False, "size": 1, "mtime": 1, "mode": "644"}


@pytest.mark.parametrize("name", ["..", ".", "", "/etc/cron.d/x", "../x", "a/b", "a\0b"])
@pytest.mark.parametrize("folder", [True, False])
def test_a_server_cannot_write_outside_of_the_folder(sandbox, name, folder):
    sandbox.start()
    before = sandbox.tree("/root"), sandbox.tree("/etc/cron.d") if sandbox.exists("/etc/cron.d") else None
    with FakeAgent(sandbox, hostile({"site": [entry("fine", True), entry(name, folder)]})):
        code, out, err = corvctl(sandbox, "--socket", FAKE_SOCKET, "file", "get", "-r", "alice", "site", "/root/site")
    assert (code, out) == (1, "")
    assert err.endswith(": the server names what cannot be in a folder\n")
    assert before == (sandbox.tree("/root"), sandbox.tree("/etc/cron.d") if sandbox.exists("/etc/cron.d") else None)


def test_a_server_that_names_one_thing_twice_or_without_end(sandbox):
    sandbox.start()
    with FakeAgent(sandbox, hostile({"a": [entry("x", True), entry("x", True)]})):
        code, _, err = corvctl(sandbox, "--socket", FAKE_SOCKET, "file", "get", "-r", "alice", "a", "/root/a")
        assert (code, err) == (1, "corvctl: a/x: cannot make the folder: File exists\n")

    def endless(connection):
        for _ in connection.makefile("rb"):
            connection.sendall(json.dumps({"ok": True, "entries": [entry("d", True)]}).encode() + b"\n")

    sandbox.path(FAKE_SOCKET).unlink()
    with FakeAgent(sandbox, endless):
        code, _, err = corvctl(sandbox, "--socket", FAKE_SOCKET, "file", "get", "-r", "alice", "a", "/root/a")
        assert code == 1 and err.endswith("/d: folders are nested too deeply\n")
    assert os.listdir(sandbox.path("/root")) == []


# The editor


def edit(sandbox, script, path="a.txt", **env):
    sandbox.write("/root/editor", f"#!/bin/sh\n{script}\n", 0o755)
    install(sandbox)
    words = [f"{name}={value}" for name, value in {"EDITOR": "/root/editor", "PATH": PATH, **env}.items()]
    return sandbox.run("env", "--chdir=/", *words, "corvctl", "file", "edit", "alice", path)


@pytest.fixture
def text(server):
    server.write("/home/alice/a.txt", "hello\n", 0o644, "alice:alice")
    return server


def test_what_the_editor_left_is_written_back(text):
    assert edit(text, 'echo more >>"$1"; echo "$1" >/tmp/where') == (0, "a.txt: 11 B\n", "")
    assert text.read("/home/alice/a.txt") == "hello\nmore\n"
    assert text.read("/tmp/where").endswith("/a.txt\n")
    assert not text.exists(text.read("/tmp/where").strip())
    assert text.entry("/home/alice/a.txt") == "0644 alice:alice"
    declare(text, "ok", "ok", "ok")


def test_an_editor_with_options_is_taken_apart(text):
    assert edit(text, '[ "$1" = -w ] && echo more >>"$2"', VISUAL="/root/editor -w") == (0, "a.txt: 11 B\n", "")
    declare(text, "ok", "ok", "ok")


def test_what_was_changed_meanwhile_is_not_written_over(text):
    code, out, err = edit(text, 'echo more >>"$1"; echo other >/home/alice/a.txt')
    assert (code, out) == (1, "")
    lines = err.splitlines()
    assert lines[0] == "corvctl: a.txt was changed meanwhile, so nothing was written"
    kept = lines[1].removeprefix("  your text is in ")
    assert text.read(kept) == "hello\nmore\n" and text.entry(kept) == "0600 root:root"
    assert text.read("/home/alice/a.txt") == "other\n"
    declare(text, "ok", "ok")


@pytest.mark.parametrize("script, code, err", [
    ("exit 0", 0, "corvctl: nothing was changed, so nothing was written\n"),
    ('echo x >>"$1"; exit 3', 1, "corvctl: the editor ended with exit code 3, so nothing was written\n"),
    ("kill -9 $$", 1, "corvctl: the editor ended with exit code 137, so nothing was written\n"),
    ('rm "$1"', 1, "corvctl: the editor took the copy away, so nothing was written\n"),
])
def test_an_editor_that_changes_nothing(text, script, code, err):
    done = edit(text, script)
    assert (done[0], done[1], done[2].removeprefix("Killed\n")) == (code, "", err)
    assert text.read("/home/alice/a.txt") == "hello\n"
    assert os.listdir(text.path("/tmp")) == []
    declare(text, "ok")


def test_what_is_no_text_is_not_edited(text):
    text.write("/home/alice/a.bin", b"\0", 0o644, "alice:alice")
    assert edit(text, "exit 9", "a.bin") == (
        1, "", "corvctl: not a text file; download it instead\n  corvctl file get fetches it\n")
    declare(text, "failed")


def test_an_editor_is_for_one_server(sandbox):
    code, out, err = corvctl(sandbox, "-H", "a", "-H", "b", "file", "edit", "alice", "x", start=False)
    assert (code, out) == (2, "")
    assert "corvctl: an editor works on the file of one server: name one\n" in err
