"""The socket: who may connect, and how requests and replies are framed on it."""

import errno
import json
import os
import socket
import time

import pytest

from programs import wait_until
from sandbox import LISTENING, SOCKET

LIMIT = 4_194_304  # bytes of one line with its line feed, and of what may be buffered without one
PING = b'{"cmd":"ping"}\n'
PONG = b'{"ok":true,"version":"0.1"}\n'
UNKNOWN = b'{"error":"unknown command","ok":false}\n'
RAN_PING = "agent: uid 0 ran ping -> ok"
NO_COMMAND = "agent: uid 0 sent unknown command ''"


def answers(sandbox):
    """A round trip on a connection of its own: what others sent before has reached the agent and been looked at."""
    assert sandbox.request("ping") == {"ok": True, "version": "0.1"}


def line_of(size):
    """A ping of so many bytes, its line feed included."""
    head, tail = b'{"cmd":"ping","x":"', b'"}\n'
    return head + b"x" * (size - len(head) - len(tail)) + tail


# Who may connect


def test_socket_is_for_owner_and_group(sandbox):
    sandbox.start()
    assert sandbox.entry(SOCKET) == "0660 root:root"


def test_socket_is_given_to_its_group(sandbox):
    sandbox.settings(agent_socket_group="corv-web")
    sandbox.start()
    assert sandbox.entry(SOCKET) == "0660 root:corv-web"


@pytest.mark.parametrize("mask", ["000", "077"])
def test_socket_lets_others_in_at_no_moment(sandbox, mask):
    # Every call that makes the socket or changes its mode is held up, so that each state lasts long enough to be seen.
    calls = "bind,listen,chmod,fchmod,fchmodat,chown,fchown,fchownat,rename,renameat,renameat2,link,linkat"
    slow = ["/usr/bin/strace", "-f", "-qq", "-e", f"inject={calls}:delay_exit=60000", "-o", "/dev/null"]
    sandbox.settings(agent_socket_group="corv-web")
    # The leak checker cannot work on a traced process.
    sandbox.launch(
        wrapper=["/bin/sh", "-c", f'umask {mask}; exec "$@"', "sh", *slow], env={"ASAN_OPTIONS": "detect_leaks=0"}
    )
    sandbox.logs(LISTENING % SOCKET)

    seen = set()
    while not sandbox.listening() and sandbox.agent.running():
        for folder, _, names in os.walk(sandbox.path("/run")):
            inside = "/" + os.path.relpath(folder, sandbox.root)
            reachable = os.lstat(folder).st_mode & 0o011 if inside != "/run" else True
            seen |= {sandbox.entry(f"{inside}/{name}") for name in names if reachable}
        time.sleep(0.002)
    seen.add(sandbox.entry(SOCKET))
    assert "0660 root:corv-web" in seen
    assert {entry for entry in seen if entry.split()[0][-1] != "0"} - {"missing"} == set()
    (traced,) = sandbox.agent.children()
    os.kill(traced, 15)
    assert sandbox.agent.wait() == 0


def test_root_is_let_in_when_another_user_is_allowed(sandbox):
    sandbox.settings(agent_allowed_user="corv-web")
    with sandbox.connect() as client:
        client.send(PING)
        assert client.line() == PONG
    sandbox.logs(RAN_PING)


def test_allowed_user_is_let_in_and_logged_with_its_uid(sandbox):
    sandbox.settings(agent_allowed_user="corv-web", agent_socket_group="corv-web")
    with sandbox.connect(uid=990, gid=990) as client:
        client.send(PING + b"{}\n")
        assert client.line() == PONG
        assert client.line() == UNKNOWN
    sandbox.logs("agent: uid 990 ran ping -> ok", "agent: uid 990 sent unknown command ''")


@pytest.mark.parametrize("allowed", ["corv-web", ""])
def test_any_other_user_is_refused_and_gets_nothing(sandbox, allowed):
    sandbox.settings(agent_allowed_user=allowed, agent_socket_group="corv-web")
    with sandbox.connect(uid=33, gid=990) as client:
        try:
            client.send(PING)
        except (BrokenPipeError, ConnectionResetError):
            pass
        assert client.rest() == b""
    sandbox.wait_for_log("agent: refused connection from uid 33")
    answers(sandbox)


def test_users_outside_the_group_cannot_connect(sandbox):
    sandbox.settings(agent_allowed_user="www-data", agent_socket_group="corv-web")
    sandbox.start()
    with pytest.raises(PermissionError):
        sandbox.connect(uid=33, gid=33)


def test_agents_own_user_is_let_in_and_others_are_not(sandbox):
    sandbox.mkdir("/run/own", owner="nobody:nogroup")
    sandbox.settings(agent_socket="/run/own/s", agent_allowed_user="corv-web")
    sandbox.socket_path = "/run/own/s"
    sandbox.start(uid=65534, gid=65534)
    with sandbox.connect(uid=65534, gid=65534) as client:
        client.send(PING)
        assert client.line() == PONG
    with sandbox.connect(uid=33, gid=65534) as client:
        assert client.rest() == b""
    with sandbox.connect(uid=990, gid=65534) as client:
        client.send(PING)
        assert client.line() == PONG
    sandbox.logs(
        "agent: uid 65534 ran ping -> ok", "agent: refused connection from uid 33", "agent: uid 990 ran ping -> ok"
    )


def test_uid_above_the_signed_range_is_logged_unsigned(sandbox):
    sandbox.settings(agent_socket_group="corv-web")
    with sandbox.connect(uid=4_000_000_000, gid=990) as client:
        assert client.rest() == b""
    sandbox.wait_for_log("agent: refused connection from uid 4000000000")


def test_socket_left_by_a_killed_agent_is_replaced(sandbox):
    sandbox.start()
    sandbox.agent.signal(9)
    assert sandbox.agent.wait() == -9
    assert sandbox.exists(SOCKET)
    sandbox.start()
    answers(sandbox)


# Framing


def test_reply_is_one_line_of_compact_json(sandbox):
    with sandbox.connect() as client:
        client.send(PING)
        assert client.line() == PONG
        answers(sandbox)
        assert client.silent()
    sandbox.logs(RAN_PING)


def test_requests_of_one_write_are_answered_in_order(sandbox):
    with sandbox.connect() as client:
        client.send((PING + b"{}\n") * 32)
        for _ in range(32):
            assert client.line() == PONG
            assert client.line() == UNKNOWN
        answers(sandbox)
        assert client.silent()
    sandbox.logs(*[RAN_PING, NO_COMMAND] * 32)
    sandbox.logs_in_any_order()


def test_split_request_is_answered_once_it_is_complete(sandbox):
    with sandbox.connect() as client:
        for part in (PING[:1], PING[1:9], PING[9:-1]):
            client.send(part)
            answers(sandbox)
            assert client.silent()
        client.send(PING[-1:])
        assert client.line() == PONG
        answers(sandbox)
        assert client.silent()
    sandbox.logs_in_any_order()
    sandbox.logs(RAN_PING)


def test_request_and_the_begin_of_the_next_in_one_write(sandbox):
    with sandbox.connect() as client:
        client.send(PING + PING[:5])
        assert client.line() == PONG
        client.send(PING[5:])
        assert client.line() == PONG
    sandbox.logs(RAN_PING, RAN_PING)


def test_request_without_line_feed_is_never_answered(sandbox):
    with sandbox.connect() as client:
        client.send(PING[:-1])
        client.end_sending()
        assert client.rest() == b""


@pytest.mark.parametrize("line", [b"\n", b"\r\n", b" \n", b"\0\n", b"\xff\xfe\n", b"ping\n"])
def test_line_that_holds_no_request_is_answered(sandbox, line):
    with sandbox.connect() as client:
        client.send(line + PING)
        assert client.line() == UNKNOWN
        assert client.line() == PONG
    sandbox.logs(NO_COMMAND, RAN_PING)


def test_carriage_return_before_the_line_feed_is_white_space(sandbox):
    with sandbox.connect() as client:
        client.send(PING[:-1] + b"\r\n")
        assert client.line() == PONG
    sandbox.logs(RAN_PING)


def test_line_of_just_the_limit_is_one_request(sandbox):
    with sandbox.connect() as client:
        client.send(line_of(LIMIT) + PING)
        assert client.line() == PONG
        assert client.line() == PONG
    sandbox.logs(RAN_PING, RAN_PING)


def test_line_of_one_byte_more_is_read_in_two_pieces(sandbox):
    # The first piece is all but the line feed, and so a whole request; the line feed alone is none.
    with sandbox.connect() as client:
        client.send(line_of(LIMIT + 1) + PING)
        assert [client.line() for _ in range(3)] == [PONG, UNKNOWN, PONG]
    sandbox.logs(RAN_PING, NO_COMMAND, RAN_PING)


def test_limit_without_line_feed_is_kept_and_one_byte_more_dropped(sandbox):
    with sandbox.connect() as client:
        client.send(b"x" * LIMIT)
        wait_until(lambda: client.unread() == 0, "the agent to take it all")
        answers(sandbox)
        assert client.silent()
        client.send(b"x")
        assert client.rest() == b""
    answers(sandbox)


def test_limit_counts_from_the_last_line_feed(sandbox):
    with sandbox.connect() as client:
        client.send(line_of(LIMIT))
        assert client.line() == PONG
        client.send(b"x" * (LIMIT - 1))
        wait_until(lambda: client.unread() == 0, "the agent to take it all")
        client.send(b"\n")
        assert client.line() == UNKNOWN
    sandbox.logs(RAN_PING, NO_COMMAND)


def test_dropped_client_gets_the_replies_to_what_it_sent_before(sandbox):
    with sandbox.connect() as client:
        client.send(PING)
        assert client.line() == PONG
        with pytest.raises((BrokenPipeError, ConnectionResetError)):
            while True:
                client.send(b"x" * LIMIT)
        assert client.rest() == b""
    sandbox.logs(RAN_PING)


def test_dribbled_long_line_costs_no_more_than_short_ones(sandbox):
    piece = 512

    def dribble(data):
        before = sandbox.agent.cpu_seconds()
        with sandbox.connect() as client:
            for start in range(0, len(data), piece):
                client.send(data[start : start + piece])
                while client.unread():
                    pass
            for _ in range(data.count(b"\n")):
                assert client.line() == PONG
        return sandbox.agent.cpu_seconds() - before

    sandbox.start()
    short = dribble(line_of(LIMIT // 64) * 64)
    long = dribble(line_of(LIMIT))
    # Scanning again from the line's begin would be a thousand times the scanning.
    assert long < 4 * short + 0.3
    sandbox.logs(*[RAN_PING] * 65)


# Clients that behave oddly


def test_client_that_ends_sending_gets_its_reply(sandbox):
    with sandbox.connect() as client:
        client.send(PING)
        client.end_sending()
        assert client.rest() == PONG
    sandbox.logs(RAN_PING)


def test_client_that_ends_sending_gets_megabytes_of_replies(sandbox):
    count = 100_000
    with sandbox.connect() as client:
        client.socket.setblocking(False)
        left = memoryview(PING * count)
        taken = []
        while left:
            try:
                left = left[client.socket.send(left) :]
            except BlockingIOError:
                # Its requests wait for their replies to be taken, but for that they would not.
                try:
                    taken.append(client.socket.recv(1 << 16))
                except BlockingIOError:
                    pass
        client.end_sending()
        client.socket.setblocking(True)
        client.buffer = b"".join(taken)
        assert client.rest() == PONG * count
    sandbox.logs(*[RAN_PING] * count)


def test_client_that_has_gone_harms_nobody(sandbox):
    sandbox.answer("useradd", wait="/tmp/go", exit=1)
    client = sandbox.connect()
    client.send(b'{"cmd":"hosting.create","args":{"username":"alice","domain":"example.org"}}\n' + PING)
    sandbox.wait_for_call("useradd")
    client.close()
    sandbox.write("/tmp/go")
    sandbox.wait_for_log("agent: uid 0 ran hosting.create -> failed")
    answers(sandbox)
    # What had arrived before the client went is carried out all the same, though nobody reads the reply.
    sandbox.wait_for_log(RAN_PING)


def test_client_that_never_reads_waits_and_takes_no_memory(sandbox):
    sandbox.start()
    answers(sandbox)
    before = sandbox.agent.memory()
    block = PING * 1000
    with sandbox.connect() as client:
        client.socket.setblocking(False)
        sent = 0
        stuck = 0
        # Nothing more was taken between two round trips of somebody else: the agent has stopped listening here.
        while stuck < 20 and sent < 64 << 20:
            try:
                sent += client.socket.send(block[sent % len(block) :])
                stuck = 0
            except BlockingIOError:
                unread = client.unread()
                answers(sandbox)
                stuck = stuck + 1 if client.unread() == unread else 0
        assert sent < 8 << 20
        assert sandbox.sanitized or sandbox.agent.memory() - before < 16 << 20

        # Whoever begins to read gets every reply.
        client.socket.setblocking(True)
        whole = sent // len(PING)
        for _ in range(whole):
            assert client.line() == PONG
    sandbox.logs(*[RAN_PING] * whole)
    sandbox.logs_in_any_order()


def read_big_file(sandbox):
    """A request whose reply is 2 MiB, and that reply."""
    sandbox.add_account("alice")
    sandbox.write("/home/alice/big", "x" * (2 << 20), owner="alice:alice")
    request = {"cmd": "files", "args": {"username": "alice", "op": "read", "path": "big"}}
    return json.dumps(request).encode() + b"\n", b'{"content":"' + b"x" * (2 << 20) + b'","ok":true}\n'


def test_client_that_ends_sending_gets_a_whole_big_reply(sandbox):
    request, expected = read_big_file(sandbox)
    with sandbox.connect() as client:
        client.send(request)
        client.end_sending()
        sandbox.wait_for_log("agent: uid 0 ran files -> ok")
        assert client.rest() == expected


def test_big_replies_do_not_pile_up_for_a_client_that_never_reads(sandbox):
    request, expected = read_big_file(sandbox)
    sandbox.start()
    count = 60
    with sandbox.connect() as client:
        client.send(request * count)
        sandbox.wait_for_call("runuser")
        for _ in range(20):
            answers(sandbox)
        assert len(sandbox.calls("runuser")) <= 3
        assert sandbox.sanitized or sandbox.agent.memory("VmHWM") < 100 << 20
        for _ in range(count):
            assert client.line() == expected
    sandbox.logs(*["agent: uid 0 ran files -> ok"] * count)
    sandbox.logs_in_any_order()


def test_two_hundred_clients_connect_while_a_handler_runs(sandbox):
    sandbox.answer("useradd", wait="/tmp/go", exit=1)
    first = sandbox.connect()
    first.send(b'{"cmd":"hosting.create","args":{"username":"alice","domain":"example.org"}}\n')
    sandbox.wait_for_call("useradd")

    clients = []
    folder = os.open(sandbox.path("/run/corvane"), os.O_PATH)
    for _ in range(200):
        client = socket.socket(socket.AF_UNIX)
        client.setblocking(False)
        assert client.connect_ex(f"/proc/self/fd/{folder}/agent.sock") != errno.EAGAIN, "the queue is full"
        client.send(PING)
        clients.append(client)
    os.close(folder)
    assert first.silent()

    sandbox.write("/tmp/go")
    assert first.reply() == {"ok": False, "error": "useradd failed: exit code 1"}
    for client in clients:
        client.settimeout(60)
        assert client.recv(100) == PONG
        client.close()
    first.close()
    sandbox.logs("agent: uid 0 ran hosting.create -> failed", *[RAN_PING] * 200)


def test_requests_of_others_wait_while_a_handler_runs(sandbox):
    sandbox.answer("useradd", wait="/tmp/go", exit=1)
    with sandbox.connect() as busy, sandbox.connect() as waiting:
        busy.send(b'{"cmd":"hosting.create","args":{"username":"alice","domain":"example.org"}}\n')
        call = sandbox.wait_for_call("useradd")
        waiting.send(PING)
        assert waiting.silent() and busy.silent() and not call.done
        sandbox.write("/tmp/go")
        assert busy.reply()["ok"] is False
        assert waiting.line() == PONG
    sandbox.logs("agent: uid 0 ran hosting.create -> failed", RAN_PING)


def test_many_connections_leave_no_descriptors(sandbox):
    sandbox.start()
    before = len(sandbox.agent.fds())
    for _ in range(50):
        answers(sandbox)
        with sandbox.connect() as client:
            client.send(PING[:5])
    wait_until(lambda: len(sandbox.agent.fds()) <= before, "the connections' descriptors to be closed")


def test_reply_keeps_letters_outside_ascii(sandbox):
    with sandbox.connect() as client:
        args = {"username": "alice", "domain": "example.org", "sshKey": "no key"}
        client.send(json.dumps({"cmd": "hosting.create", "args": args}).encode() + b"\n")
        line = client.line()
    assert "AAAA… comment" in line.decode()
    sandbox.logs("agent: uid 0 ran hosting.create -> failed")
