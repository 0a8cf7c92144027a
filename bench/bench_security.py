"""The three status commands on a booted host with the real ufw, fail2ban and apt, each against its tools run bare."""

import json
import os
import subprocess
import sys
from pathlib import Path

TREE = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TREE / "tests" / "host"))

from hostfloor import Host  # noqa: E402

LIMIT = 1.05
RULES, BANNED, UPGRADABLE = 500, 5000, 1500

# What each command runs, in its order.
COMMANDS = {
    "firewall.status": [["sshd", "-T"], ["dpkg-query", "-W", "-f=${Status}", "ufw"], ["ufw", "status", "numbered"]],
    "fail2ban.status": [["dpkg-query", "-W", "-f=${Status}", "fail2ban"], ["fail2ban-client", "status"],
                        ["fail2ban-client", "status", "sshd"]],
    "updates.status": [["apt", "list", "--upgradable"], ["systemctl", "is-active", "--quiet", "corv-upgrade"]],
}

# Runs on the host: both sides in turn, so that what else the machine does befalls both.
MEASURE = r"""
import json, socket, statistics, subprocess, sys, time

command, tools, rounds = json.load(sys.stdin)

def agent():
    with socket.socket(socket.AF_UNIX) as client:
        client.connect("/run/corvane/agent.sock")
        client.sendall(json.dumps({"cmd": command}).encode() + b"\n")
        reply = b""
        while not reply.endswith(b"\n"):
            reply += client.recv(1 << 20)
    return reply

def bare():
    for argv in tools:
        subprocess.run(argv, stdin=subprocess.DEVNULL, capture_output=True)

def timed(call):
    began = time.perf_counter()
    call()
    return (time.perf_counter() - began) * 1000

reply = json.loads(agent())
times = [(timed(agent), timed(bare)) if turn % 2 else (timed(bare), timed(agent))[::-1] for turn in range(rounds)]
print(json.dumps([reply, *(statistics.median(side) for side in zip(*times))]))
"""


def prepare_firewall(host):
    host.ok(["apt-get", "install", "-yq", "ufw"])
    rules = "".join(f"\n### tuple ### allow tcp {port} 0.0.0.0/0 any 203.0.113.0/24 in\n"
                    f"-A ufw-user-input -p tcp --dport {port} -s 203.0.113.0/24 -j ACCEPT\n"
                    for port in range(10001, 10001 + RULES))
    host.ok(["sed", "-i", "/^### RULES ###$/r /dev/stdin", "/etc/ufw/user.rules"], input=rules)
    host.ok(["ufw", "--force", "enable"])
    return lambda reply: len(reply["rules"]) == RULES


def prepare_fail2ban(host):
    host.ok(["apt-get", "install", "-yq", "fail2ban", "python3-systemd"])
    # Without an action: it is the list that is measured, not a packet filter of thousands of rules.
    host.put("/etc/fail2ban/jail.d/bench.local", "[sshd]\nenabled = true\nbackend = systemd\naction =\n")
    host.ok(["systemctl", "restart", "fail2ban"])
    host.wait_for(lambda: host.run(["fail2ban-client", "ping"]).code == 0, "fail2ban's start")
    host.ok(["fail2ban-client", "set", "sshd", "banip", *(f"198.18.{n >> 8}.{n & 255}" for n in range(BANNED))])
    host.wait_for(lambda: f"Currently banned:\t{BANNED}" in host.ok(["fail2ban-client", "status", "sshd"]), "the bans")
    return lambda reply: [len(jail["banned"]) for jail in reply["jails"]] == [BANNED]


def prepare_updates(host):
    def entry(name, version, more=""):
        return (f"Package: {name}\n{more}Version: {version}\nArchitecture: all\nMaintainer: Test <test@web1.test>\n"
                f"Description: test\n\n")

    upgradable = [f"update-{number}" for number in range(UPGRADABLE)]
    installed = "".join(entry(name, "1", "Status: install ok installed\n") for name in upgradable)
    offered = "".join(entry(name, "2", "Filename: none.deb\nSize: 1\n") for name in upgradable)
    # What a host's own small repository lacks: the rest of Debian, which apt goes through as well.
    offered += subprocess.run(["apt-cache", "dumpavail"], capture_output=True, text=True, check=True).stdout
    host.ok(["tee", "-a", "/var/lib/dpkg/status"], input=installed)
    host.put("/srv/bench/Packages", offered)
    host.put("/etc/apt/sources.list.d/bench.list", "deb [trusted=yes] file:/srv/bench ./\n")
    host.ok(["apt-get", "-qq", "update"])
    return lambda reply: reply["updates"] == UPGRADABLE


def measure(host, command, what, prepare, rounds):
    complete = prepare(host)
    out = host.ok(["/usr/bin/python3", "-c", MEASURE], input=json.dumps([command, COMMANDS[command], rounds]), timeout=600)
    reply, ours, reference = json.loads(out)
    assert complete(reply), reply
    print(f"| {command}, {what}, against its tools run bare | {ours:.0f} ms | {reference:.0f} ms | {ours / reference:.3f} "
          f"| {LIMIT} |", flush=True)


package = os.environ.get("CORV_PACKAGE") or subprocess.run(
    [TREE / "scripts" / "package"], stdout=subprocess.PIPE, text=True, check=True).stdout.splitlines()[-1]
host = Host(f"bench-{os.getpid()}")
try:
    host.install(package)
    measure(host, "firewall.status", f"{RULES} rules", prepare_firewall, 15)
    measure(host, "fail2ban.status", f"{BANNED} banned addresses", prepare_fail2ban, 31)
    measure(host, "updates.status", f"{UPGRADABLE} upgradable beside Debian's own archive", prepare_updates, 21)
finally:
    host.stop()
