"""What many clients together may hold of the agent: its memory, its turns and its descriptors."""

import json
import os
import pathlib

import pytest

from programs import wait_until
from test_socket import PING, PONG, line_of

MEBIBYTE = 1 << 20
BUDGET = 256 * MEBIBYTE
LIMIT = 4 * MEBIBYTE  # of a line
# What an agent needs beside: itself, and one line and one reply that are being worked on.
BESIDE = 96 * MEBIBYTE
PANEL = 990


@pytest.fixture
def agent(sandbox):
    """An agent that lets the panel's user in."""
    sandbox.settings(agent_allowed_user="corv-web", agent_socket_group="corv-web")
    sandbox.start()
    sandbox.logs_in_any_order()
    return sandbox


def panel(agent):
    client = agent.connect(uid=PANEL, gid=PANEL)
    client.exchange = None  # what is sent here are megabytes
    client.socket.setblocking(False)
    return client


def push(client, data):
    """Sends what the agent takes now, and returns how much that was."""
    try:
        return client.socket.send(data)
    except BlockingIOError:
        return 0


def processor_seconds(agent):
    """What the agent has used of a processor."""
    fields = pathlib.Path(f"/proc/{agent.agent.pid}/stat").read_text().rsplit(") ", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def push_all(agent, clients, data):
    """Sends the same to all for as long as the agent takes any of it; returns how much each has sent."""
    sent = [0] * len(clients)
    idle = 0
    while idle < 3:
        taken = 0
        for i, client in enumerate(clients):
            count = push(client, data[sent[i]:])
            sent[i] += count
            taken += count
        assert agent.request("ping")["ok"]
        idle = idle + 1 if taken == 0 else 0
    return sent


def test_clients_with_half_a_line_hold_no_more_than_the_budget(agent):
    clients = [panel(agent) for _ in range(200)]
    half = line_of(LIMIT)[:-MEBIBYTE // 2]
    sent = push_all(agent, clients, half)
    assert sum(sent) > BUDGET // 2
    assert agent.sanitized or agent.agent.memory("VmHWM") < BUDGET + BESIDE

    # Whoever comes as the first of its user, and root, is not held up.
    with agent.connect() as root:
        root.send(line_of(LIMIT))
        assert root.line() == PONG
    agent.logs("agent: uid 0 ran ping -> ok")
    for client in clients:
        client.socket.close()


def test_long_lines_of_many_clients_are_all_answered(agent):
    clients = [panel(agent) for _ in range(100)]
    whole = line_of(LIMIT)
    left = {client: memoryview(whole) for client in clients}
    while left:
        for client in list(left):
            left[client] = left[client][push(client, left[client][: 1 << 18]):]
            if not left[client]:
                del left[client]
    for client in clients:
        client.socket.settimeout(60)
        assert client.line() == PONG
        client.socket.close()
    agent.logs(*[f"agent: uid {PANEL} ran ping -> ok"] * len(clients))
    assert agent.sanitized or agent.agent.memory("VmHWM") < BUDGET + BESIDE


def test_unread_replies_hold_no_more_than_the_budget(agent):
    agent.add_account("alice")
    agent.write("/home/alice/big", "\x01" * (2 << 20), owner="alice:alice")  # six times as long in a reply
    request = {"cmd": "files", "args": {"username": "alice", "op": "read", "path": "big"}}
    expected = {"ok": True, "content": "\x01" * (2 << 20)}
    first = panel(agent)  # its turn comes when all others that can be served have had theirs
    first.socket.settimeout(60)
    pings = 0
    clients = [panel(agent) for _ in range(40)]
    for client in clients:
        assert push(client, json.dumps(request).encode() + b"\n") > 0
    served = 0

    def settled():
        nonlocal served, pings
        first.send(PING)
        assert first.line() == PONG
        pings += 1
        before, served = served, len(agent.calls("runuser"))
        return before == served > 0

    wait_until(settled, "replies to pile up")
    assert 10 < served < len(clients)
    assert agent.sanitized or agent.agent.memory("VmHWM") < BUDGET + BESIDE

    # Those who had to wait are answered when others have taken their replies.
    for client in clients:
        client.socket.settimeout(60)
        assert json.loads(client.line()) == expected
        client.socket.close()
    first.socket.close()
    agent.logs(*[f"agent: uid {PANEL} ran ping -> ok"] * pings)
    agent.logs(*[f"agent: uid {PANEL} ran files -> ok"] * len(clients))


def test_client_that_has_gone_while_it_waited_keeps_nobody_busy(agent):
    clients = [panel(agent) for _ in range(80)]
    push_all(agent, clients, line_of(LIMIT)[:-1])
    for client in clients[40:]:
        client.socket.close()
    assert agent.request("ping")["ok"]
    before = processor_seconds(agent)
    for _ in range(20):
        assert agent.request("ping")["ok"]
    assert processor_seconds(agent) - before < 1
    for client in clients[:40]:
        client.socket.close()
    # What they held is there for others again.
    with panel(agent) as other, panel(agent) as another:
        for client in (other, another):
            client.socket.settimeout(60)
            client.send(line_of(LIMIT))
            assert client.line() == PONG
    agent.logs(*[f"agent: uid {PANEL} ran ping -> ok"] * 2)


def test_lines_of_one_client_let_root_have_its_turn(agent):
    agent.answer("systemctl", wait="/tmp/go", call=1)
    with panel(agent) as busy, agent.connect() as root:
        busy.socket.settimeout(60)
        root.send(PING)
        assert root.line() == PONG  # it has been let in
        busy.send(b'{"cmd":"services.status"}\n' + PING * 100)
        agent.wait_for_call("systemctl")
        root.send(PING)
        agent.write("/tmp/go")
        assert root.line() == PONG
        assert busy.reply()["ok"]
        for _ in range(100):
            assert busy.line() == PONG
    agent.logs("agent: uid 990 ran services.status -> ok", *["agent: uid 0 ran ping -> ok"] * 2, *["agent: uid 990 ran ping -> ok"] * 100)
    lines = [line for line in agent.log_lines if " ran " in line]
    assert lines[:3] == ["agent: uid 0 ran ping -> ok", "agent: uid 990 ran services.status -> ok", "agent: uid 0 ran ping -> ok"]


def test_one_user_leaves_room_for_root(sandbox):
    sandbox.settings(agent_allowed_user="corv-web", agent_socket_group="corv-web")
    sandbox.start(wrapper=("/usr/bin/prlimit", "--nofile=128"))
    sandbox.logs_in_any_order()
    clients = []
    for _ in range(64):
        client = panel(sandbox)
        client.socket.settimeout(60)
        client.send(PING)
        assert client.line() == PONG
        clients.append(client)
    for _ in range(20):
        with panel(sandbox) as refused:
            refused.socket.settimeout(60)
            assert refused.rest() == b""
    assert sandbox.request("ping")["ok"]
    assert sandbox.request("hosting.create", username="alice", domain="example.org")["ok"]
    clients.pop().socket.close()
    wait_until(lambda: accepted(sandbox), "the place of the one that went")
    for client in clients:
        client.socket.close()
    sandbox.logs(*["agent: uid 990 ran ping -> ok"] * 65)
    refusals = sum(line == "agent: refused connection from uid 990" for line in sandbox.log_lines)
    assert refusals >= 20
    sandbox.logs(*["agent: refused connection from uid 990"] * refusals)


def accepted(sandbox):
    with panel(sandbox) as client:
        client.socket.settimeout(60)
        try:
            client.send(PING)
        except (BrokenPipeError, ConnectionResetError):
            return False
        return client.line() == PONG
