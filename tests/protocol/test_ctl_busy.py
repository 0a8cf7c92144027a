"""What corvctl says of the request that the agent is working on, and what goes on after Ctrl-C."""

import json
import os
import signal
import socket
import subprocess
import threading

import pytest
from corvctl import PATH, corvctl, install
from programs import PATIENCE, wait_until
from terminal import FAKE_SOCKET, FakeAgent

REQUEST = "/run/corvane/request"


def begin(sandbox, *args):
    """Starts corvctl in the sandbox beside its agent."""
    install(sandbox)
    enter = ["nsenter", f"--target={sandbox.agent.pid}", "--pid", "--uts", "--ipc", f"--root={sandbox.root}", "--wd=/"]
    env = {"PATH": PATH, "HOME": "/root", "LC_ALL": "C.UTF-8"}
    return subprocess.Popen([*enter, "env", "corvctl", *args], env=env, text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)


def interrupt(process, number=signal.SIGINT):
    """Ctrl-C for the program that nsenter became or started: (exit code, standard output, standard error)."""
    below = wait_until(lambda: corvctl_below(process.pid), "corvctl")
    os.kill(below, number)
    out, err = process.communicate()
    return process.returncode, out, err


def corvctl_below(pid):
    waiting = [pid]
    while waiting:
        one = waiting.pop()
        with open(f"/proc/{one}/comm", encoding="utf-8") as name:
            if name.read() == "corvctl\n":
                return one
        with open(f"/proc/{one}/task/{one}/children", encoding="utf-8") as children:
            waiting += map(int, children.read().split())
    return None


@pytest.fixture
def busy(sandbox):
    """An agent that suspends alice for the panel, as long as /tmp/go is not there."""
    sandbox.settings("[agent]\nallowed_user=alice\nsocket_group=corv-web\n")
    sandbox.add_group("corv-web", 990)
    sandbox.add_account("alice")
    sandbox.answer("usermod", wait="/tmp/go", exit=1)
    for name in ("a2dissite", "systemctl", "pkill", "psql", "chage"):
        sandbox.answer(name, wait="/tmp/go", exit=1)
    return sandbox


def suspend(sandbox):
    client = sandbox.connect(uid=sandbox.uid("alice"), gid=990)
    client.send(b'{"cmd":"hosting.suspend","args":{"username":"alice"}}\n')
    wait_until(lambda: sandbox.exists(REQUEST), "the request")
    return client


def finish(sandbox, client):
    sandbox.write("/tmp/go")
    sandbox.took("hosting.suspend", client.reply(), uid=sandbox.uid("alice"))


def test_the_request_in_hand_is_told_to_those_who_may_connect(busy):
    with suspend(busy) as client:
        assert busy.entry(REQUEST) == "0640 root:corv-web"
        told = json.loads(busy.read(REQUEST))
        assert (told["command"], told["account"], told["uid"]) == ("hosting.suspend", "alice", busy.uid("alice"))
        assert set(told) == {"command", "account", "uid", "began", "agent", "agentBegan"}
        finish(busy, client)
    assert not busy.exists(REQUEST)


def test_what_clients_send_beside_the_name_is_not_told(sandbox):
    sandbox.answer("apt", wait="/tmp/go")
    with sandbox.connect() as client:
        client.send(b'{"cmd":"updates.status","args":{"username":"../x","password":"secret"}}\n')
        wait_until(lambda: sandbox.exists(REQUEST), "the request")
        assert "account" not in json.loads(sandbox.read(REQUEST)) and "secret" not in sandbox.read(REQUEST)
        assert sandbox.entry(REQUEST) == "0640 root:root"
        sandbox.write("/tmp/go")
        sandbox.took("updates.status", client.reply())


def test_who_is_answered_at_once_is_not_told_of(sandbox):
    """The file is made anew for each request that takes time, so a folder that is watched shows whether one was."""
    sandbox.start()
    before = sandbox.path("/run/corvane").stat().st_mtime_ns
    for command in ("ping", "system.info"):
        sandbox.request(command)
    assert sandbox.path("/run/corvane").stat().st_mtime_ns == before
    sandbox.request("services.status")
    assert sandbox.path("/run/corvane").stat().st_mtime_ns != before


def test_status_tells_of_the_request_in_hand(busy):
    with suspend(busy) as client:
        wait_until(lambda: "timed out" if corvctl(busy, "--timeout", "1", "status")[2].startswith(
            "corvctl: the agent is busy with hosting.suspend of alice, for alice since ") else None, "two seconds of it")
        code, out, err = corvctl(busy, "--timeout", "1", "status")
        assert (code, out) == (4, "")
        lines = err.splitlines()
        assert lines[0].endswith(" s; the rest follows when it is done")
        assert lines[1] == "corvctl: no reply within 1 s"
        assert lines[2].startswith("  the agent is busy with hosting.suspend of alice, for alice since ")
        assert lines[2].endswith(" s; --timeout waits longer")
        busy.any_order = True
        finish(busy, client)
    wait_until(lambda: "agent: uid 0 ran system.info -> ok" in busy.log_lines, "the requests of status")
    busy.logs(*["agent: uid 0 ran system.info -> ok"] * busy.log_lines.count("agent: uid 0 ran system.info -> ok"))


def test_what_a_killed_agent_left_is_nobodys_request(busy):
    client = suspend(busy)
    left = busy.read(REQUEST)
    busy.allows_children()
    busy.stop(signal.SIGKILL)
    client.__exit__(None, None, None)
    assert busy.read(REQUEST) == left
    code, out, err = corvctl(busy, "status", start=False)
    assert (code, out) == (3, "")
    assert "busy" not in err
    busy.start()
    assert not busy.exists(REQUEST)


def test_a_file_that_cannot_be_read_is_no_request(sandbox):
    """The agent is made to wait behind a FIFO, a link and nonsense."""
    def serve(connection):
        connection.recv(65536)
        connection.recv(1)

    sandbox.start()
    for make in (lambda: os.mkfifo(sandbox.path(REQUEST)), lambda: sandbox.symlink(REQUEST, "/etc/passwd"),
                 lambda: sandbox.write(REQUEST, "{"), lambda: sandbox.write(REQUEST, '{"command":"x","agent":-1}')):
        make()
        with FakeAgent(sandbox, serve):
            code, out, err = corvctl(sandbox, "--socket", FAKE_SOCKET, "--timeout", "1", "status")
        assert (code, out) == (4, "") and "busy with x" not in err and len(err.splitlines()) == 2
        sandbox.path(REQUEST).unlink()
        sandbox.path(FAKE_SOCKET).unlink()


def test_ctrl_c_says_what_goes_on(busy):
    busy.start()
    process = begin(busy, "account", "suspend", "alice")
    wait_until(lambda: busy.exists(REQUEST), "the request")
    assert interrupt(process) == (
        130, "", "corvctl: the agent goes on with hosting.suspend of alice; corvctl status shows when it is done\n")
    busy.write("/tmp/go")
    wait_until(lambda: len(busy.log_lines) == 2, "the end of the request")
    busy.logs(busy.log_lines[1])
    assert busy.log_lines[1].startswith("agent: uid 0 ran hosting.suspend -> ")


def test_ctrl_c_in_the_queue_says_that_it_goes_on_later(sandbox):
    """An agent that does not read yet."""
    arrived, over = threading.Event(), threading.Event()

    def serve(connection):
        while connection.recv(65536, socket.MSG_PEEK)[-1:] != b"\n":
            pass
        arrived.set()
        over.wait(PATIENCE)

    sandbox.start()
    with FakeAgent(sandbox, serve):
        process = begin(sandbox, "--socket", FAKE_SOCKET, "service", "list")
        assert arrived.wait(PATIENCE)
        assert interrupt(process) == (
            130, "", "corvctl: the agent will go on with services.status after the request before it; "
                     "corvctl status shows when it is done\n")
        over.set()


def test_ctrl_c_on_another_server_names_it(busy):
    busy.answer("ssh", shell='shift 3; exec "$@"')
    busy.allows_loose_calls("ssh")
    busy.start()
    process = begin(busy, "-H", "web1", "account", "resume", "alice")
    wait_until(lambda: busy.exists(REQUEST), "the request")
    assert interrupt(process, signal.SIGTERM) == (
        143, "", "corvctl: the agent goes on with hosting.resume of alice; corvctl -H web1 status shows when it is done\n")
    busy.write("/tmp/go")
    wait_until(lambda: len(busy.log_lines) == 2, "the end of the request")
    busy.logs(busy.log_lines[1])


# A suspended account whose database is restored: resumed for that time


LOCKED = {"ok": False, "error": "alice may not log in to PostgreSQL: resume the account first"}
RESTORE = ["--socket", FAKE_SOCKET, "--confirm", "alice", "backup", "restore", "alice", "2026-01-05_031500", "database", "--resume"]


def half_resuming(asked, resumed=None, suspended=None, restored=None):
    """An agent that answers so; None stands for no answer at all."""
    replies = {"backup.restore": [LOCKED, restored], "hosting.resume": [resumed], "hosting.suspend": [suspended]}

    def serve(connection):
        for line in connection.makefile("rb"):
            command = json.loads(line)["cmd"]
            asked.append(command)
            reply = replies[command].pop(0)
            if reply is not None:
                connection.sendall(json.dumps(reply).encode() + b"\n")
    return serve


@pytest.mark.parametrize("suspended, note", [
    ({"ok": True}, ""),
    ({"ok": False, "error": "psql failed: no"},
     "corvctl: alice could not be suspended again, and is on-line, or a part of it is: corvctl account suspend alice\n")])
def test_a_resumption_that_fails_is_taken_back_for_it_may_be_half_done(sandbox, suspended, note):
    asked = []
    sandbox.start()
    with FakeAgent(sandbox, half_resuming(asked, {"ok": False, "error": "apache2ctl failed: no"}, suspended)):
        assert corvctl(sandbox, *RESTORE) == (1, "", f"corvctl: apache2ctl failed: no\n{note}")
    assert asked == ["backup.restore", "hosting.resume", "hosting.suspend"]


def test_a_resumption_that_takes_too_long_is_taken_back(sandbox):
    asked = []
    sandbox.start()
    with FakeAgent(sandbox, half_resuming(asked, None, {"ok": True})):
        code, out, err = corvctl(sandbox, "--timeout", "1", *RESTORE)
    assert (code, out) == (4, "")
    assert asked == ["backup.restore", "hosting.resume", "hosting.suspend"]


@pytest.mark.parametrize("at", ["hosting.resume", "backup.restore"])
def test_ctrl_c_leaves_the_account_suspended(sandbox, at):
    asked = []
    sandbox.start()
    replies = {"resumed": {"ok": True}} if at == "backup.restore" else {}
    with FakeAgent(sandbox, half_resuming(asked, suspended={"ok": True}, **replies)):
        process = begin(sandbox, *RESTORE)
        wait_until(lambda: asked[1:] and asked[-1] == at, "what is interrupted")
        code, out, _ = interrupt(process)
    assert (code, out) == (130, "")
    assert asked == ["backup.restore", *(["hosting.resume"] if at == "backup.restore" else []), at, "hosting.suspend"]
