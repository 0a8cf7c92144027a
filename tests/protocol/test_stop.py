"""How the agent says that it is ready, and how it ends."""

import contextlib
import json
import signal
import socket

import pytest

from programs import wait_until
from sandbox import PSQL, SOCKET

PING = b'{"cmd":"ping"}\n'
CREATE = json.dumps({"cmd": "hosting.create", "args": {"username": "alice", "domain": "example.org"}}).encode() + b"\n"
STOPS = [signal.SIGTERM, signal.SIGINT]


def notify_socket(address):
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    listener.bind(address)
    listener.settimeout(60)
    return listener


@pytest.mark.parametrize("number", STOPS)
def test_stop_signal_ends_an_idle_agent_with_0(sandbox, number):
    sandbox.request("ping")
    assert sandbox.stop(number) == 0


@pytest.mark.parametrize("number", STOPS)
def test_stop_signal_works_though_it_was_blocked_at_the_start(sandbox, number):
    sandbox.start(blocked=number)
    assert sandbox.stop(number) == 0


@pytest.mark.parametrize("number", STOPS)
def test_stop_signal_with_connections_open(sandbox, number):
    with sandbox.connect() as client, sandbox.connect() as half:
        client.send(PING)
        assert client.reply()["ok"]
        half.send(PING[:-1])
        assert sandbox.stop(number) == 0
        assert client.rest() == half.rest() == b""
    sandbox.logs("agent: uid 0 ran ping -> ok")


@pytest.mark.parametrize("number", STOPS)
def test_request_in_hand_is_finished_and_its_reply_delivered(sandbox, number):
    sandbox.answer(*PSQL[4:5], wait="/tmp/go")
    with sandbox.connect() as client, sandbox.connect() as other:
        client.send(CREATE + PING)
        sandbox.wait_for_call("psql")
        other.send(PING)
        sandbox.agent.signal(number)
        sandbox.write("/tmp/go")
        reply = client.reply()
        assert reply["ok"] is True
        sandbox.took("hosting.create", reply)
        # What waited behind it is not begun any more.
        assert client.rest() == b""
        assert other.rest() == b""
        assert sandbox.agent.wait() == 0
    assert sandbox.argvs()[-1] == ["systemctl", "reload", "php8.2-fpm"]
    assert sandbox.has_user("alice")


def test_big_reply_in_hand_is_delivered_whole(sandbox):
    sandbox.add_account("alice")
    sandbox.write("/home/alice/big", "x" * (2 << 20), owner="alice:alice")
    sandbox.answer("runuser", wait="/tmp/go", real=True)
    with sandbox.connect() as client:
        client.send(b'{"cmd":"files","args":{"username":"alice","op":"read","path":"big"}}\n' + PING)
        sandbox.wait_for_call("runuser")
        sandbox.agent.signal(signal.SIGTERM)
        sandbox.write("/tmp/go")
        assert client.rest() == b'{"content":"' + b"x" * (2 << 20) + b'","ok":true}\n'
        assert sandbox.agent.wait() == 0
    sandbox.logs("agent: uid 0 ran files -> ok")


@pytest.mark.parametrize("number", STOPS)
def test_undo_in_hand_is_finished(sandbox, number):
    sandbox.answer("psql", wait="/tmp/go", exit=1, call=1)
    with sandbox.connect() as client:
        client.send(CREATE)
        sandbox.wait_for_call("psql")
        sandbox.agent.signal(number)
        sandbox.write("/tmp/go")
        assert client.rest() == b'{"error":"runuser failed: exit code 1","ok":false}\n'
        assert sandbox.agent.wait() == 0
    sandbox.logs("agent: uid 0 ran hosting.create -> failed")
    assert sandbox.argvs()[-2:] == [["pkill", "-u", "alice"], ["userdel", "--remove", "alice"]]
    assert not sandbox.has_user("alice") and not sandbox.exists("/home/alice")


def test_second_stop_signal_changes_nothing(sandbox):
    sandbox.answer("useradd", wait="/tmp/go", exit=1)
    with sandbox.connect() as client:
        client.send(CREATE)
        sandbox.wait_for_call("useradd")
        for number in STOPS + STOPS:
            sandbox.agent.signal(number)
        sandbox.write("/tmp/go")
        assert client.rest() == b'{"error":"useradd failed: exit code 1","ok":false}\n'
        assert sandbox.agent.wait() == 0
    sandbox.logs("agent: uid 0 ran hosting.create -> failed")


def test_client_that_never_reads_does_not_hold_up_the_end(sandbox):
    with sandbox.connect() as client:
        client.socket.setblocking(False)
        sent = 0
        while sent < 32 << 20:
            try:
                sent += client.socket.send(PING * 10_000)
            except BlockingIOError:
                break
        assert sandbox.stop() == 0
    count = sandbox.log_lines.count("agent: uid 0 ran ping -> ok")
    sandbox.logs(*["agent: uid 0 ran ping -> ok"] * count)


@pytest.mark.parametrize("reads", [True, False])
def test_the_end_keeps_no_processor_busy(sandbox, reads):
    """Whether there is nothing left to send, or all the time that there is goes by with a client that never reads."""
    sandbox.add_account("alice")
    sandbox.write("/home/alice/big", "x" * (2 << 20), owner="alice:alice")
    with sandbox.connect() as client:
        client.exchange = None
        client.send(b'{"cmd":"files","args":{"username":"alice","op":"read","path":"big"}}\n')
        sandbox.wait_for_log("agent: uid 0 ran files -> ok")
        if reads:
            assert client.line().endswith(b"}\n")
        agent = sandbox.agent
        used, states = [agent.cpu_seconds()], []

        def has_ended():
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                used.append(agent.cpu_seconds())
                states.append(agent.state())
            return not agent.running()

        agent.signal(signal.SIGTERM)
        wait_until(has_ended, "the agent's end")
        assert agent.wait() == 0
        assert sandbox.sanitized or used[-1] - used[0] < 0.5
        assert reads or states.count("S") > len(states) / 2


def test_agent_starts_again_after_its_end(sandbox):
    for _ in range(2):
        sandbox.request("ping")
        assert sandbox.stop() == 0


def test_ready_is_said_once_the_socket_listens(sandbox):
    with notify_socket(str(sandbox.path("/run/notify"))) as listener:
        sandbox.launch(env={"NOTIFY_SOCKET": "/run/notify"})
        sandbox.logs("agent: listening on /run/corvane/agent.sock")
        assert listener.recv(1000) == b"READY=1"
        assert sandbox.exists(SOCKET)
        sandbox.request("ping")
        sandbox.request("hosting.create", username="alice", domain="example.org")
        assert sandbox.stop() == 0
        listener.setblocking(False)
        with pytest.raises(BlockingIOError):
            listener.recv(1000)


def test_ready_is_said_to_an_abstract_address(sandbox):
    name = f"corv-test-{id(sandbox)}"
    with notify_socket("\0" + name) as listener:
        sandbox.start(env={"NOTIFY_SOCKET": "@" + name})
        assert listener.recv(1000) == b"READY=1"


@pytest.mark.parametrize("address", ["", "/run/none", "relative", "/" + "a" * 300, "@"])
def test_address_that_nobody_listens_at_is_no_problem(sandbox, address):
    sandbox.start(env={"NOTIFY_SOCKET": address})
    assert sandbox.request("ping")["ok"]


def test_ready_is_never_said_by_an_agent_that_does_not_start(sandbox):
    sandbox.settings(agent_socket_group="nosuch")
    with notify_socket(str(sandbox.path("/run/notify"))) as listener:
        assert sandbox.run_agent(env={"NOTIFY_SOCKET": "/run/notify"}) == (1, "")
        listener.setblocking(False)
        with pytest.raises(BlockingIOError):
            listener.recv(1000)
    sandbox.logs("agent: cannot give /run/corvane/agent.sock to group nosuch")
