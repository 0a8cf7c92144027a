"""corvctl and its connection: why there is none, how long it waits, and what a hostile end of it can do."""

import json

import pytest

from corvctl import corvctl
from terminal import FAKE_SOCKET, FakeAgent, answering, read_line


def ask(sandbox, serve, *args):
    """What corvctl says to an agent that behaves so."""
    with FakeAgent(sandbox, serve):
        return corvctl(sandbox, "--socket", FAKE_SOCKET, *args, start=False, env={"COLUMNS": "80"})


def reply(**members):
    return answering(json.dumps({"ok": True, **members}).encode() + b"\n")


# No connection


def test_says_that_there_is_no_socket(sandbox):
    assert corvctl(sandbox, "call", "ping", start=False) == (
        3, "", "corvctl: there is no socket /run/corvane/agent.sock\n"
               "  is corv-agent installed and running? systemctl status corv-agent\n")


def test_says_that_nothing_listens(sandbox):
    with FakeAgent(sandbox, answering(b"")):
        pass
    assert corvctl(sandbox, "--socket", FAKE_SOCKET, "call", "ping", start=False) == (
        3, "", f"corvctl: the agent is not running: nothing listens on {FAKE_SOCKET}\n"
               "  systemctl start corv-agent, then journalctl -u corv-agent if that fails\n")


def test_says_that_there_is_no_permission(sandbox):
    sandbox.add_user("dave", "David")
    sandbox.start()
    corvctl(sandbox, "--version")
    path = "/usr/sbin:/usr/bin:/sbin:/bin"
    assert sandbox.run("setpriv", "--reuid=dave", "--regid=dave", "--clear-groups", "corvctl", "call", "ping", env={"PATH": path}) == (
        3, "", "corvctl: no permission to use /run/corvane/agent.sock\n  run corvctl as root or as the panel's user\n")


def test_says_that_the_agent_lets_nobody_of_that_name_in(sandbox):
    sandbox.add_user("dave", "David")
    sandbox.start()
    corvctl(sandbox, "--version")
    sandbox.path("/run/corvane/agent.sock").chmod(0o666)
    path = "/usr/sbin:/usr/bin:/sbin:/bin"
    uid = sandbox.uid("dave")
    assert sandbox.run("setpriv", "--reuid=dave", "--regid=dave", "--clear-groups", "corvctl", "call", "ping", env={"PATH": path}) == (
        3, "", "corvctl: the agent closed the connection without a reply\n"
               "  it lets in root and the user of the setting agent/allowed_user; or it was stopped\n")
    sandbox.logs(f"agent: refused connection from uid {uid}")


def test_finds_the_socket_of_the_settings(sandbox):
    sandbox.settings(agent_socket="/run/other.sock")
    sandbox.socket_path = "/run/other.sock"
    assert corvctl(sandbox, "call", "ping") == (0, '{"ok":true,"version":"0.1"}\n', "")
    sandbox.write("/root/other.ini", "[agent]\nsocket = /run/nowhere\n")
    for how in (["--config", "/root/other.ini"], ["-c", "/root/other.ini"]):
        assert corvctl(sandbox, *how, "call", "ping")[2].startswith("corvctl: there is no socket /run/nowhere\n")
    assert corvctl(sandbox, "call", "ping", env={"CORV_CONFIG": "/root/other.ini"})[0] == 3
    sandbox.took("ping", {"ok": True})


# A reply that never comes


def test_gives_up_after_the_time_that_was_given(sandbox):
    done = []

    def serve(connection):
        read_line(connection)
        done.append(connection.recv(1))

    assert ask(sandbox, serve, "--timeout", "1", "call", "ping") == (
        4, "", "corvctl: no reply within 1 s\n  the agent goes on with a request that it has taken; --timeout waits longer\n")
    assert done == [b""]


def test_waits_for_the_request_before(sandbox):
    sandbox.answer("apt", wait="/tmp/go")
    with sandbox.connect() as client:
        client.send(b'{"cmd":"updates.status"}\n')
        sandbox.wait_for_call("apt")
        assert corvctl(sandbox, "--timeout", "1", "call", "ping")[0] == 4
        sandbox.write("/tmp/go")
        sandbox.took("updates.status", client.reply())
    # What it asked for before it gave up is done all the same.
    sandbox.wait_for_log("agent: uid 0 ran ping -> ok")
    assert corvctl(sandbox, "call", "ping") == (0, '{"ok":true,"version":"0.1"}\n', "")
    sandbox.took("ping", {"ok": True})


# Hostile replies


@pytest.mark.parametrize("line", [
    b"\n", b"{}\n", b"[]\n", b"null\n", b"nonsense\n", b'{"ok":1}\n', b'{"ok":"true"}\n', b'{"ok":true\n', b'{"ok":true}}\n',
    b'{"ok":true,"version":"\xff\xfe"}\n', b"\0\n", b"[" * 5000 + b"\n",
])
def test_what_is_no_reply_is_told_from_one(sandbox, line):
    code, out, err = ask(sandbox, answering(line), "call", "ping")
    assert (code, out, err) == (3, "", "corvctl: what answers there does not speak the agent's protocol\n")


@pytest.mark.parametrize("part", [b"{", b'{"ok":true,"version":"0.1"}', b'{"ok":tr'])
def test_a_connection_that_is_cut_off_is_no_reply(sandbox, part):
    assert ask(sandbox, answering(part), "call", "ping") == (
        3, "", "corvctl: the connection was cut off in the middle of the reply\n")


def test_only_the_first_line_is_the_reply(sandbox):
    serve = answering(b'{"ok":true,"version":"1"}\n{"ok":false,"error":"another"}\n')
    assert ask(sandbox, serve, "call", "ping") == (0, '{"ok":true,"version":"1"}\n', "")


def test_a_reply_without_end_is_not_kept(sandbox):
    def serve(connection):
        read_line(connection)
        connection.sendall(b"{")
        while True:
            connection.sendall(b" " * (1 << 20))

    assert ask(sandbox, serve, "call", "ping") == (3, "", "corvctl: the reply is larger than 64 MiB\n")


def test_a_reply_in_many_pieces_is_put_together(sandbox):
    def serve(connection):
        read_line(connection)
        for byte in b'{"ok":true,"version":"0.1"}\n':
            connection.sendall(bytes([byte]))

    assert ask(sandbox, serve, "call", "ping") == (0, '{"ok":true,"version":"0.1"}\n', "")


STEERING = "\x1b]0;title\x07\x1b[2J\x9b31m\r\n\t\x7f\u202e\u2066\ufeff\u200b\u2028\\"
HARMLESS = r"\x1b]0;title\x07\x1b[2J\x9b31m\r\n\t\x7f\u202e\u2066\ufeff\u200b\u2028" + "\\\\"


@pytest.mark.parametrize("args, members", [
    (["host", "info"], {"hostname": STEERING, "os": "x", "kernel": "x", "cpus": 1, "uptimeSeconds": 1}),
    (["service", "list"], {"services": [{"name": STEERING}]}),
    (["file", "ls", "alice"], {"entries": [{"name": STEERING, "dir": False, "size": 1, "mtime": 1, "mode": "644"}]}),
    (["firewall", "list"], {"installed": True, "active": True, "rules": [{"to": STEERING, "action": "ALLOW", "number": 1}]}),
    (["ban", "list"], {"installed": True, "running": True, "jails": [{"name": STEERING, "banned": ["::1"]}]}),
    (["ban", "jails"], {"installed": True, "running": True, "jails": [{"name": STEERING, "banned": ["::1"]}]}),
    (["update", "list"], {"packages": [{"name": STEERING, "from": "1", "to": "2"}]}),
    (["quota", "status"], {"mount": STEERING}),
    (["backup", "list"], {"backups": [{"name": STEERING}]}),
    (["account", "usage"], {"usage": {STEERING: 1}}),
    (["account", "password", "alice"], {"dbPassword": STEERING}),
    (["account", "create", "alice", "a.b"], {"domain": STEERING, "phpVersion": "", "accessLog": "", "dbPassword": ""}),
    (["firewall", "enable"], {"sshPort": "22", "allowed": [STEERING]}),
    (["backup", "restore", "alice", "x", "files"], {"restoredTo": STEERING}),
])
def test_no_string_of_a_reply_reaches_a_terminal_unescaped(sandbox, args, members):
    def serve(connection):
        while read_line(connection):
            connection.sendall(json.dumps({"ok": True, **members}).encode() + b"\n")

    for form in ([], ["--plain"]):
        if form and args[:2] in (["firewall", "enable"], ["backup", "restore"]):
            continue  # what succeeded has nothing to tell programs
        code, out, err = ask_wide(sandbox, serve, *form, *args)
        assert (code, err) == (0, "")
        assert HARMLESS in out
        assert not [c for c in out if c not in "\n\t" and not c.isprintable()]
        sandbox.path(FAKE_SOCKET).unlink()


def ask_wide(sandbox, serve, *args):
    with FakeAgent(sandbox, serve):
        return corvctl(sandbox, "--socket", FAKE_SOCKET, *args, start=False)


def test_a_refusal_is_escaped_and_has_an_end(sandbox):
    sentence = json.dumps({"ok": False, "error": STEERING + "x" * 10_000_000}).encode() + b"\n"
    code, out, err = ask(sandbox, answering(sentence), "host", "info")
    assert (code, out) == (1, "")
    one_line = r"\x1b]0;title\x07\x1b[2J\x9b31m; \x7f\u202e\u2066\ufeff\u200b " + "\\\\"
    assert err.startswith("corvctl: " + one_line) and err.endswith("x…\n") and len(err) < 5000


def test_a_refusal_without_a_sentence_is_one(sandbox):
    assert ask(sandbox, answering(b'{"ok":false}\n'), "host", "info") == (
        1, "", "corvctl: the agent refused, and did not say why\n")


@pytest.mark.parametrize("where", ["name", "mode"])
def test_a_string_of_ten_megabytes_fits_a_table(sandbox, where):
    entry = {"name": "a", "dir": False, "size": 1, "mtime": 1, "mode": "644", where: "x" * 10_000_000}
    code, out, err = ask(sandbox, reply(entries=[entry, {**entry, "name": "b", "mode": "755"}], truncated=True), "file", "ls", "alice")
    assert (code, err) == (0, "corvctl: there are more entries than these 2\n")
    assert all(len(line) <= 80 for line in out.splitlines()) and len(out.splitlines()) == 3


def test_members_of_other_types_do_no_harm(sandbox):
    members = {"entries": [1, "x", None, {"name": 1, "size": "x", "mtime": -1e300, "mode": []}], "jails": {}, "services": 7,
               "usage": [1], "disks": [{"total": -5, "avail": 1e30}], "backups": "x", "rules": [[]], "packages": [0]}
    for args in ("file ls a", "ban list", "service list", "account usage", "host disks", "backup list", "backup status",
                 "firewall list", "update list", "update status", "host info", "quota status"):
        code, out, _ = ask(sandbox, reply(**members), *args.split())
        assert code == 0 and out
        sandbox.path(FAKE_SOCKET).unlink()


@pytest.mark.parametrize("name", ["../../../etc/shadow", "/etc/shadow", "..", "", "a/b", "x" * 15, "x" * 65])
def test_a_download_is_taken_from_nowhere_else(sandbox, name):
    sandbox.write("/root/old", "old")
    code, out, err = ask(sandbox, reply(transfer=name, size=1), "file", "get", "alice", "a", "/root/old")
    assert (code, out, err) == (1, "", "corvctl: /root/old: the agent named no file of the transfer directory\n")
    assert sandbox.read("/root/old") == "old"
    assert sandbox.exists("/etc/shadow")


def test_a_link_in_the_place_of_a_download_is_not_followed(sandbox):
    name = "x" * 20
    sandbox.write("/root/secret", "secret")
    sandbox.symlink(f"/var/lib/corvane/transfer/{name}", "/root/secret")
    code, out, err = ask(sandbox, reply(transfer=name, size=1), "file", "get", "alice", "a", "-")
    assert (code, out) == (1, "")
    assert "Too many levels of symbolic links" in err


# What was typed


@pytest.mark.parametrize("args", [
    [], ["nosuch"], ["account"], ["account", "nosuch"], ["account", "create", "alice"], ["call"], ["call", "ping", "{}", "x"],
    ["--timeout", "0", "call", "ping"], ["--timeout", "x", "call", "ping"], ["--nosuch", "call", "ping"],
    ["account", "read-only", "alice", "maybe"], ["update", "install", "some"], ["completion", "tcsh"],
    ["account", "limit", "alice", "2"], ["account", "limit", "alice", "0G"], ["account", "limit", "alice", "-1G"],
    ["account", "limit", "alice", "1.5G"], ["account", "limit", "alice", "99999999999999999999G"],
    ["firewall", "allow", "http"], ["firewall", "delete", "x"], ["firewall", "allow", "1", "--proto", "sctp"],
    ["call", "ping", "[]"], ["call", "ping", "x"], ["-n", "account", "list"],
])
def test_wrong_usage_is_told_and_nothing_sent(sandbox, args):
    code, out, err = corvctl(sandbox, *args, start=False)
    assert (code, out) == (2, "")
    assert err


def test_help_and_version_need_no_agent(sandbox):
    assert corvctl(sandbox, "--version", start=False) == (0, "corvctl 0.1\n", "")
    for args in (["--help"], ["account", "--help"], ["account", "create", "-h"]):
        code, out, err = corvctl(sandbox, *args, start=False)
        assert (code, err) == (0, "") and "Usage: corvctl" in out


def test_a_full_disk_behind_standard_output_is_no_success(sandbox):
    sandbox.start()
    corvctl(sandbox, "--version")
    code, _, err = sandbox.run("env", "--chdir=/", "sh", "-c", "exec corvctl call ping >/dev/full")
    assert (code, err) == (1, "corvctl: cannot write to standard output\n")
    sandbox.took("ping", {"ok": True})
