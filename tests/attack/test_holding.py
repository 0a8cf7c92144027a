"""Ways to keep everybody else waiting, or the agent's memory and descriptors busy."""

import pytest

LIMIT = 300
# After which a request counts as held up. Nothing that an account's user can hold may take longer; an unhindered one takes
# milliseconds.
PATIENCE = 45
TRIES = 40

KEY = "ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIGJ1dCBub3QgYW55Ym9keSdzIGtleSBhdCBhbGwgLi4u me"

SWAP = """
import ctypes, os
folder = os.path.expanduser("~/.ssh")
os.makedirs(folder, exist_ok=True)
os.chdir(folder)
open("authorized_keys", "a").close()
if not os.path.exists("pipe"):
    os.mkfifo("pipe")
libc = ctypes.CDLL(None)
while True:
    libc.renameat2(-100, b"authorized_keys", -100, b"pipe", 2)
"""

# Stops whatever runs under the own user but this, and writes its name down.
TRACE = """
import ctypes, os, time
libc = ctypes.CDLL(None)
log = open(os.path.expanduser("~/traced"), "a", buffering=1)
seen = {os.getpid()}
while True:
    for pid in map(int, filter(str.isdigit, os.listdir("/proc"))):
        try:
            if pid in seen:
                continue
            status = open(f"/proc/{pid}/status").read()
            if f"\\nUid:\\t{os.getuid()}\\t" not in status:
                continue
            name = open(f"/proc/{pid}/comm").read().strip()
        except OSError:
            continue
        if name == "runuser":
            continue
        if libc.ptrace(16, pid, 0, 0) == 0:
            seen.add(pid)
            log.write(name + "\\n")
"""

# Connects as often as it can and keeps what it got; with a number, sends so many bytes of a line that never ends to each.
CONNECT = """
import os, socket, sys, time
clients = []
for _ in range(int(sys.argv[1])):
    client = socket.socket(socket.AF_UNIX)
    client.setblocking(False)
    for attempt in range(200):
        try:
            client.connect("/run/corvane/agent.sock")
            break
        except BlockingIOError:
            time.sleep(0.01)
    clients.append(client)
half = b"x" * int(sys.argv[2])
sent = [0] * len(clients)
idle = 0
while idle < 20:
    before = sum(sent)
    for i, client in enumerate(clients):
        try:
            sent[i] += client.send(half[sent[i]:])
        except OSError:
            pass
    idle = idle + 1 if before == sum(sent) else 0
    time.sleep(0.05)
open("/run/attacker/ready", "w").close()
time.sleep(1000)
"""


@pytest.fixture
def busy(host):
    """Runs a script of the attacker's for as long as the test lasts: busy(user, script, argument...)."""
    host.ok(["install", "-d", "-m", "0777", "/run/attacker"])

    def start(user, script, *arguments):
        host.put("/usr/local/lib/attacker.py", script)
        host.ok(["systemd-run", "--quiet", "--collect", "--unit=attacker", f"--uid={user}", "-p", "LimitNOFILE=30000",
                 "python3", "/usr/local/lib/attacker.py", *arguments])

    yield start
    host.run(["systemctl", "stop", "attacker"])
    host.ok(["rm", "-rf", "/run/attacker"])


def test_a_pipe_in_the_place_of_the_keys_holds_nobody_up(host, account, busy):
    busy(account.name, SWAP)
    host.wait_for(lambda: host.exists(f"{account.home}/.ssh/pipe"), "the attacker")
    for _ in range(TRIES):
        assert "ok" in host.request("hosting.getKeys", username=account.name, timeout=PATIENCE)
        assert "ok" in host.request("hosting.setKeys", username=account.name, keys=KEY, timeout=PATIENCE)


def test_a_debugger_holds_nobody_up_and_never_gets_the_file_helper(host, account, busy):
    busy(account.name, TRACE)
    host.wait_for(lambda: host.exists(f"{account.home}/traced"), "the attacker")
    for _ in range(TRIES // 4):
        assert "ok" in host.request("hosting.setKeys", username=account.name, keys=KEY, timeout=PATIENCE)
    for _ in range(TRIES):
        assert host.request("files", username=account.name, op="list", path="/", timeout=PATIENCE)["ok"]
    assert "corv-agent" not in host.get(f"{account.home}/traced").split()


def test_half_lines_of_four_hundred_clients_hold_no_gigabytes(host, busy):
    busy("corv-web", CONNECT, "400", "4190000")
    host.wait_for(lambda: host.exists("/run/attacker/ready"), "the attacker", timeout=120)
    agent = host.main_process("corv-agent")
    status = host.get(f"/proc/{agent}/status")
    peak = next(int(line.split()[1]) for line in status.splitlines() if line.startswith("VmHWM:"))
    assert peak < 400 * 1024
    assert host.run(["corvctl", "call", "ping"], timeout=PATIENCE).code == 0


def test_an_administrator_gets_through_beside_seventeen_thousand(host, busy):
    busy("corv-web", CONNECT, "17000", "0")
    host.wait_for(lambda: host.exists("/run/attacker/ready"), "the attacker", timeout=120)
    assert host.run(["corvctl", "call", "ping"], timeout=PATIENCE).code == 0
    host.account()
