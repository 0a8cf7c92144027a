"""Many clients at a time, most of them up to no good, while one goes through the lives of accounts."""

import json
import resource
import statistics
import subprocess
import sys
import time
from pathlib import Path

import pytest

from figures import count, note
from fixtures import used
from programs import wait_until
from sandbox import SOCKET
from server import GONE, KEY, NAME, account, furnish

LOAD = Path(__file__).with_name("load.py")
NOBODY = "65534"
CLIENTS = {
    "idle": ("1000", "are connected and silent"),
    "dribble": ("200", "send their requests byte by byte"),
    "long": ("50", "send lines of 4 MiB, and longer ones"),
    "cut": ("20", "hang up in the middle of replies"),
    "knock": ("10", "are of a user who may not connect"),
}
PINGS = 500
ROUNDS = 20
SHORT, LONG = 30, 600  # seconds
MEBIBYTE = 1 << 20

LIFE = [
    ("hosting.create", {"domain": "example.org", "sshKey": KEY}),
    ("hosting.getKeys", {}),
    ("files", {"op": "write", "path": "public_html/a.txt", "content": "text"}),
    ("files", {"op": "read", "path": "public_html/a.txt"}),
    ("hosting.suspend", {}),
    ("hosting.resume", {}),
    ("hosting.resetDbPassword", {}),
    ("hosting.delete", {"confirm": NAME}),
]


def start(box, kind):
    """Starts the clients of a kind, and returns the process when all are there."""
    command = [sys.executable, LOAD, box.path(SOCKET), kind, CLIENTS[kind][0], *([NOBODY] if kind == "knock" else [])]
    process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    assert process.stdout.readline() == "ready\n", kind
    return process


def finish(process):
    """Lets the clients come to their end, and returns what they say."""
    out, _ = process.communicate(timeout=300)
    return json.loads(out)


def median_pings(*boxes):
    """The median of each agent's pings, in microseconds; taken in turn, so that what else the machine does weighs on all."""
    clients = [box.connect() for box in boxes]
    times = [[] for _ in boxes]
    for _ in range(PINGS):
        for client, mine in zip(clients, times):
            began = time.perf_counter()
            client.send(b'{"cmd":"ping"}\n')
            client.reply()
            mine.append((time.perf_counter() - began) * 1e6)
    for client in clients:
        client.close()
    return [statistics.median(mine) for mine in times]


def pings_until_as_fast(box, unburdened):
    """The medians of both agents' pings, taken again where one took more than twice as long as the other: other programs of the
    machine can hold one up in a round, but an agent whose clients cost it time is slower in every one."""
    for _ in range(ROUNDS):
        mine, other = median_pings(box, unburdened)
        if mine <= 2 * other:
            break
    return mine, other


def live(box):
    """One life of an account: what was wrong with it."""
    wrong = []
    for command, args in LIFE:
        with box.connect() as client:
            client.send(json.dumps({"cmd": command, "args": {"username": NAME, **args}}).encode() + b"\n")
            reply = client.reply()
        if reply["ok"] is not True:
            wrong.append(f"{command}: {reply}")
    if account(box) != GONE:
        wrong.append(f"something is left: {account(box)}")
    return wrong


def press(box, seconds, processes):
    """Lives accounts for so long, and returns the lives, what was wrong, and what the agent took meanwhile."""
    lives, wrong, samples = 0, [], []
    began = time.monotonic()
    while (now := time.monotonic() - began) < seconds:
        wrong += live(box)
        lives += 1
        samples.append((now, box.agent.memory(), len(box.agent.fds())))
        assert all(process.poll() is None for process in processes), "a client came to its end"
        for archive in box.path("/var/backups/corvane").iterdir():
            archive.unlink()
    return lives, wrong, samples


def growth(samples, since, column):
    """The greatest values in the two halves of the time from since on."""
    late = [sample for sample in samples if sample[0] >= since]
    middle = (late[0][0] + late[-1][0]) / 2
    halves = [sample[column] for sample in late if sample[0] < middle], [sample[column] for sample in late if sample[0] >= middle]
    return max(halves[0]), max(halves[1])


@pytest.fixture
def unburdened(ground):
    """A sandbox whose agent has nothing to do."""
    with used(ground) as box:
        box.check_log = False
        yield box


def test_load(sandbox, unburdened, is_long):
    limit = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))
    furnish(sandbox)
    sandbox.check_log = False  # looked at below: there are too many lines to declare
    sandbox.start()
    fds = len(sandbox.agent.fds())

    seconds = LONG if is_long else SHORT
    processes = {kind: start(sandbox, kind) for kind in CLIENTS}
    try:
        lives, wrong, samples = press(sandbox, seconds, processes.values())
        results = {kind: finish(processes[kind]) for kind in CLIENTS if kind != "idle"}
        crowded, quiet = pings_until_as_fast(sandbox, unburdened)
        results["idle"] = finish(processes["idle"])
    finally:
        for process in processes.values():
            process.kill()
            process.wait()
    wait_until(lambda: len(sandbox.agent.fds()) == fds, "the end of all connections")
    after, alone = pings_until_as_fast(sandbox, unburdened)

    for kind, (number, what) in CLIENTS.items():
        result = results[kind]
        wrong += result["wrong"]
        count(f"{number} clients {what}", "each is answered as if it were alone", result["done"] + len(result["wrong"]),
              result["done"])
    count("accounts are made and deleted meanwhile", "no reply is wrong", lives, lives - bool(wrong))
    memory = growth(samples, 60 if is_long else seconds / 3, 1)
    descriptors = growth(samples, 60 if is_long else seconds / 3, 2)
    note(
        f"Load of {seconds} s, {lives} lives of an account: memory at most {memory[0] // MEBIBYTE} MiB and then"
        f" {memory[1] // MEBIBYTE} MiB, descriptors at most {descriptors[0]} and then {descriptors[1]}; median of ping"
        f" {quiet:.0f} µs of an agent without clients, {crowded:.0f} µs with 1000 silent clients,"
        f" {after:.0f} µs against {alone:.0f} µs when they have gone."
    )
    kinds = ("agent: listening on ", "agent: refused connection from uid " + NOBODY, "agent: uid 0 ran ")
    wrong += [line for line in sandbox.log_lines if not line.startswith(kinds) or line.endswith("failed")][:5]
    assert wrong == []
    assert lives >= 4 and all(result["done"] > 0 for result in results.values())
    assert sandbox.sanitized or memory[1] <= memory[0] * 1.1 + 16 * MEBIBYTE
    assert descriptors[1] <= descriptors[0] + 64
    assert after <= 2 * alone
    assert crowded <= 2 * quiet
