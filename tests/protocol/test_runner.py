"""How programs are run: what they are given, how each of their ends reads, and what stays behind. Creation drives it."""

import os
import signal

import pytest

from programs import wait_until
from sandbox import PSQL, SOCKET

MEBIBYTE = 1 << 20


def create(sandbox):
    return sandbox.request("hosting.create", username="alice", domain="example.org")


def error(sandbox):
    reply = create(sandbox)
    assert set(reply) == {"ok", "error"} and reply["ok"] is False
    return reply["error"]


def nothing_is_left(sandbox, fds):
    """No child, zombie or descriptor of the agent's, and no process of anybody else's."""
    assert sandbox.agent.children() == []
    # Processes that were killed may take their time to vanish.
    wait_until(lambda: sandbox.agent.others() == [], "processes to vanish")
    # The connection of the request closes once the agent has noticed that the client went.
    wait_until(lambda: len(sandbox.agent.fds()) <= len(fds), "descriptors to be closed")


# How each end reads


def test_program_that_is_missing(sandbox):
    sandbox.remove_standin("useradd")
    assert error(sandbox) == "useradd: cannot start"


def test_program_that_may_not_be_executed(sandbox):
    sandbox.remove_standin("useradd")
    sandbox.write("/standins/bin/useradd", "no program")
    assert error(sandbox) == "useradd: cannot start"


def test_program_that_is_no_program(sandbox):
    sandbox.remove_standin("useradd")
    sandbox.write("/standins/bin/useradd", b"\0\1\2", mode=0o755)
    assert error(sandbox) == "useradd: cannot start"


@pytest.mark.parametrize("code", [1, 9, 127, 255])
def test_exit_code_without_a_text(sandbox, code):
    sandbox.answer("useradd", exit=code)
    assert error(sandbox) == f"useradd failed: exit code {code}"


def test_output_is_no_reason(sandbox):
    sandbox.answer("useradd", exit=3, out="on standard output")
    assert error(sandbox) == "useradd failed: exit code 3"


@pytest.mark.parametrize("blank", [" ", "\n", " \t\r\n\v\f", "\u00a0\u2003"])
def test_blank_error_output_is_none(sandbox, blank):
    sandbox.answer("useradd", exit=3, err=blank)
    assert error(sandbox) == "useradd failed: exit code 3"


@pytest.mark.parametrize("number", [6, 9, 11, 15])
def test_signal_reads_as_an_exit_code(sandbox, number):
    sandbox.answer("useradd", signal=number)
    assert error(sandbox) == f"useradd failed: exit code {number}"


def test_text_of_a_program_that_a_signal_ended(sandbox):
    sandbox.answer("useradd", err="it hurts\n", signal=11)
    assert error(sandbox) == "useradd failed: it hurts"


def test_error_output_of_a_program_that_succeeds_is_dropped(sandbox):
    sandbox.answer("apache2ctl", err="AH00558: Could not reliably determine the server's name\n")
    assert create(sandbox)["ok"] is True


@pytest.mark.parametrize(
    "text, detail",
    [
        ("useradd: user 'alice' already exists\n", "useradd: user 'alice' already exists"),
        ("\n  two\nlines \n\n", "two\nlines"),
        ("%1 %2 %3 %L1 %% 100%", "%1 %2 %3 %L1 %% 100%"),
        ("%2", "%2"),
        ("a" + "b" * 398 + "c", "a" + "b" * 398 + "c"),
        ("x" + "b" * 400, "b" * 400),
        ("".join(chr(97 + i % 26) for i in range(1000)), "".join(chr(97 + i % 26) for i in range(600, 1000))),
        ("x" * 500 + " " * 500, "x" * 400),
        ("x" * 100 + " " * 350 + "end", "x" * 47 + " " * 350 + "end"),
        ("é" * 500, "é" * 400),
        ("😀" * 300, "😀" * 200),  # counted as UTF-16 units
        (b"bad \xff\xfe bytes", "bad \ufffd\ufffd bytes"),
        ('"quoted" \\ back', '"quoted" \\ back'),
    ],
    ids=range(13),
)
def test_error_output_is_the_detail_trimmed_and_cut_to_its_end(sandbox, text, detail):
    sandbox.answer("useradd", exit=1, err=text)
    assert error(sandbox) == f"useradd failed: {detail}"


# What a program is given


def test_program_is_given_no_input_and_its_own_session(sandbox):
    sandbox.answer("useradd", exit=1)
    error(sandbox)
    (call,) = sandbox.calls()
    assert call.stdin == b""
    assert call.sid == call.pid and call.pgid == call.pid
    assert sorted(call.fds) == [0, 1, 2]
    assert call.cwd == "/" and call.umask == 0o022 and call.uid == 0


def test_environment_keeps_path_and_time_zone_and_loses_what_misleads(sandbox):
    misleading = {
        "LC_ALL": "de_DE.UTF-8",
        "LANG": "de_DE.UTF-8",
        "LANGUAGE": "de",
        "PGHOST": "elsewhere",
        "PGPASSWORD": "x",
        "PG": "x",
        "LD_LIBRARY_PATH": "/tmp",
        "CORV_CONFIG": "/etc/corvane/corvane.ini",
        "NOTIFY_SOCKET": "/run/none",
    }
    sandbox.start(env={**misleading, "TZ": "Europe/Berlin", "LDAP": "stays", "XPG": "stays"})
    create(sandbox)
    for call in sandbox.calls():
        assert call.env["LC_ALL"] == "C.UTF-8"
        assert call.env["TZ"] == "Europe/Berlin"
        assert call.env["PATH"] == "/standins/bin"
        assert call.env["LDAP"] == call.env["XPG"] == "stays"
        assert not {"LANGUAGE", "PGHOST", "PGPASSWORD", "PG", "LD_LIBRARY_PATH", "CORV_CONFIG"} & set(call.env)


def test_blocked_signals_are_not_passed_on(sandbox):
    sandbox.start(blocked=signal.SIGUSR1)
    sandbox.answer("useradd", exit=1)
    error(sandbox)
    assert sandbox.calls()[0].blocked == 0


@pytest.mark.parametrize("how", [{"unread": True}, {"ignore_input": True}])
def test_program_that_does_not_read_its_input(sandbox, how):
    sandbox.answer("psql", **how)
    assert create(sandbox)["ok"] is True


# Much output, background children


@pytest.mark.parametrize("code", [0, 1])
def test_program_that_fills_both_pipes(sandbox, code):
    sandbox.answer("useradd", flood_out=8 * MEBIBYTE, flood_err=8 * MEBIBYTE, exit=1)
    assert error(sandbox) == "useradd failed: " + "x" * 400
    sandbox.answer("useradd", flood_err=8 * MEBIBYTE, exit=1, err="the end")
    assert error(sandbox).startswith("useradd failed: ")


def test_flood_of_errors_takes_no_memory(sandbox):
    sandbox.start()
    sandbox.request("ping")
    before = sandbox.agent.memory("VmHWM")
    sandbox.answer("useradd", flood_err=128 * MEBIBYTE, exit=1)
    assert error(sandbox) == "useradd failed: " + "x" * 400
    assert sandbox.sanitized or sandbox.agent.memory("VmHWM") - before < 32 * MEBIBYTE


@pytest.mark.parametrize("kind", ["child", "session_child"])
def test_background_child_that_holds_the_pipes_is_not_waited_for(sandbox, kind):
    sandbox.answer("useradd", exit=4, err="told", **{kind: "/tmp/never"})
    assert error(sandbox) == "useradd failed: told"
    assert sandbox.agent.children() == []
    assert len(sandbox.agent.others()) == 1
    sandbox.write("/tmp/never")


def test_program_that_is_stopped_holds_nobody_up(sandbox):
    sandbox.start()
    fds = sandbox.agent.fds()
    sandbox.answer("useradd", hang=True)
    with sandbox.connect() as client:
        client.send(b'{"cmd":"hosting.create","args":{"username":"alice","domain":"example.org"}}\n')
        sandbox.wait_for_call("useradd")
        (program,) = sandbox.agent.children()
        os.kill(program, signal.SIGSTOP)
        assert client.reply()["error"].startswith("useradd failed: exit code ")
    sandbox.logs("agent: uid 0 ran hosting.create -> failed")
    nothing_is_left(sandbox, fds)


def test_program_of_a_user_that_waits_at_a_fifo_holds_nobody_up(sandbox):
    """One that is open already: the kernel no longer waits for its other end. The command has minutes otherwise."""
    uid = sandbox.add_account("alice")
    sandbox.start()
    os.mkfifo(sandbox.path("/home/alice/pipe"))
    os.chown(sandbox.path("/home/alice/pipe"), uid, uid)
    inner = "exec 3<>/home/alice/pipe; read line <&3; exit 1"
    sandbox.answer("runuser", shell=f"/usr/bin/setpriv --reuid={uid} --clear-groups /bin/sh -c '{inner}'")
    reply = sandbox.request("files", username="alice", op="delete", path="logs")
    assert reply == {"ok": False, "error": "runuser: took too long"}


# Time-outs, with the agent that waits 2 s


def test_program_that_never_ends_is_killed(impatient):
    impatient.start()
    fds = impatient.agent.fds()
    impatient.answer("useradd", out="some", err="text", hang=True)
    assert error(impatient) == "useradd: took too long"
    nothing_is_left(impatient, fds)
    assert impatient.argvs()[1:] == []


def test_everything_that_the_program_started_is_killed(impatient):
    impatient.start()
    fds = impatient.agent.fds()
    impatient.answer("useradd", shell="(sleep 1000 & sleep 1000) & trap '' TERM HUP; sleep 1000; sleep 1000")
    assert error(impatient) == "useradd: took too long"
    nothing_is_left(impatient, fds)


def test_what_runuser_started_is_killed(impatient):
    impatient.start()
    fds = impatient.agent.fds()
    impatient.answer("psql", hang=True, call=1)
    assert error(impatient) == "runuser: took too long"
    nothing_is_left(impatient, fds)
    assert impatient.argvs()[-3:] == [PSQL, ["pkill", "-u", "alice"], ["userdel", "--remove", "alice"]]
    assert not impatient.has_user("alice")


@pytest.mark.parametrize("stream", ["flood_out", "flood_err"])
def test_endless_output_ends_with_the_time(impatient, stream):
    impatient.start()
    fds = impatient.agent.fds()
    impatient.answer("useradd", **{stream: -1})
    assert error(impatient) == "useradd: took too long"
    assert impatient.sanitized or impatient.agent.memory("VmHWM") < 128 * MEBIBYTE
    nothing_is_left(impatient, fds)


def test_program_that_closes_its_pipes_is_still_waited_for(impatient):
    impatient.answer("useradd", shell="exec >&- 2>&- <&-; sleep 1000")
    assert error(impatient) == "useradd: took too long"


def test_agent_serves_on_after_a_kill(impatient):
    impatient.answer("useradd", hang=True, call=1)
    assert error(impatient) == "useradd: took too long"
    assert create(impatient)["ok"] is True


def test_many_failures_leave_nothing(sandbox):
    sandbox.start()
    fds = sandbox.agent.fds()
    sandbox.answer("useradd", exit=1, err="no")
    sandbox.answer("useradd", signal=9, calls=(3, 6))
    for _ in range(20):
        error(sandbox)
    sandbox.remove_standin("useradd")
    for _ in range(5):
        assert error(sandbox) == "useradd: cannot start"
    sandbox.write("/standins/bin/useradd", b"\0\1\2", mode=0o755)
    for _ in range(5):
        assert error(sandbox) == "useradd: cannot start"
    nothing_is_left(sandbox, fds)
    assert sandbox.exists(SOCKET)
