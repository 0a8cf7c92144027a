"""How far the tools for many servers go: corvctl and Ansible's inventory with up to 1,000 hosts, over an ssh that is a stand-in.

Each host of the inventory answers after the time that a login over a network takes. What is counted is the client's: its time, how
many connections it has open at once, the memory of its processes. Before that two and twelve booted hosts, over real ssh. Usage:
bench_many.py [HOSTS...]"""

import contextlib
import os
import pathlib
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

from inventory import TREE, enter_mounts, make_collection, make_ssh, measured, memory_of, most_at_once, write_hosts

sys.path.insert(0, str(TREE / "tests" / "host"))

from hostfloor import OUTSIDE, Host  # noqa: E402

CORVCTL = pathlib.Path(os.environ.get("CORV_CTL", TREE / "build-bench/bin/corvctl"))
COUNTS = [10, 100, 1000]
ROUNDS = 11
ANSIBLE_PATH = "ANSIBLE_COLLECTIONS_PATHS"

# It answers one request of the protocol, or the commands that print a line.
SSH = r"""
int main(int argc, char **argv)
{
    char request[65536];
    note("+");
    usleep(LOGIN_MS * 1000);
    if (argc > 5 && strcmp(argv[5], "proxy") == 0) {
        if (read(0, request, sizeof request) > 0)
            reply("{\"ok\":true,\"pong\":true,\"version\":\"1.0\"}\n");
    } else {
        reply("{\"ok\":true,\"accounts\":[]}\n");
    }
    note("-");
    return 0;
}
"""


def corvctl_row(count, folder, tools):
    log = folder / f"log{count}"
    env = {"PATH": f"{tools}:/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "BENCH_LOG": str(log)}
    seconds, used, peak, text = measured([CORVCTL, "-H", "@all", "--json", "call", "ping"], env)
    if text.count('"ok":true') != count:
        raise SystemExit(f"{text.count(chr(10))} answers of {count}")
    print(f"| `corvctl -H @all call ping`, {count} hosts | {seconds:.1f} s | {used:.1f} s | {most_at_once(log)} | {peak:.0f} MiB |",
          flush=True)


def ansible_row(count, collections):
    env = {"PATH": os.environ["PATH"], "HOME": str(collections), ANSIBLE_PATH: str(collections),
           "ANSIBLE_INVENTORY_ENABLED": "corvane.server.hosts", "LC_ALL": "C.UTF-8"}
    seconds, used, peak, text = measured(["ansible-inventory", "-i", "/etc/corvane/hosts", "--list"], env)
    if f"web{count - 1}.example" not in text:
        raise SystemExit("the inventory is not whole")
    print(f"| `ansible-inventory --list`, {count} hosts | {seconds:.1f} s | {used:.1f} s | none | {peak:.0f} MiB |", flush=True)


# Sites like the one of the first account, each with names of its own. A mark may be one for all: it is asked for under a name.
MORE_FORWARDS = r"""
cd /etc/apache2/sites-available
for i in $(seq 2 "$1"); do
    sed "s/many1/many$i/g" 001-moved-many1.conf >"001-moved-many$i.conf"
    ln -s "../sites-available/001-moved-many$i.conf" ../sites-enabled/
done
systemctl restart apache2
"""
FORWARDS = [1, 100, 1000]


def forward_rows(old):
    """What it takes to lead one more account on, from a server that has led on so many; a web server outside is the new one."""
    for name in ("many1", "last"):
        old.ok(["corvctl", "account", "create", name, f"{name}.example"])
        old.ok(["corvctl", "account", "suspend", name])

    def forward(name):
        return old.ok(["corvctl", "account", "forward", name, OUTSIDE, "--key-file", "-"], input="0" * 32 + "\n")

    with tempfile.TemporaryDirectory() as folder, old.serving(folder):
        forward("many1")
        there = 1
        for count in FORWARDS:
            old.ok(["sh", "-c", MORE_FORWARDS.replace("seq 2", f"seq {there + 1}"), "sh", str(count)], timeout=300)
            there = count
            old.wait_for(lambda: old.fetch(f"many{count}.example").status == 200, "Apache's start", 60)
            memory = memory_of(int(old.main_process("apache2")), f"/proc/{old._first}/root/proc")
            began = time.monotonic()
            forward("last")
            seconds = time.monotonic() - began
            print(f"| `corvctl account forward`, {count} led on already | {seconds:.2f} s | | | Apache {memory:.0f} MiB |", flush=True)
            old.ok(["corvctl", "account", "forward", "last", "off"])


# Booted hosts that are asked from another one, each at a port of its own of the one address outside.
FLEET = 12
FIRST_PORT = 2201


def lead_to(here, there, port):
    """Has a host take the other one's key, and answer at a port that the other one reaches in the block that this gives."""
    there.ok(["mkdir", "-pm", "700", "/root/.ssh"])
    there.put("/root/.ssh/authorized_keys", here.get("/root/.ssh/id_ed25519.pub"), mode="600")
    there.put("/etc/ssh/sshd_config.d/port.conf", f"Port 22\nPort {port}\n")
    there.ok(["systemctl", "restart", "ssh"])
    return here.reaching(there, port)


def fleet_rows(here, hosts):
    """What a command takes over real ssh, for some and for all of the booted hosts at once."""
    here.ok(["sh", "-ec", "mkdir -pm 700 /root/.ssh; ssh-keygen -qt ed25519 -N '' -f /root/.ssh/id_ed25519"])
    with contextlib.ExitStack() as ways:
        names = ""
        for number, there in enumerate(hosts, 1):
            port = FIRST_PORT + number - 1
            ways.enter_context(lead_to(here, there, port))
            names += f"Host web{number}\nHostName {OUTSIDE}\nPort {port}\nHostKeyAlias web{number}\nStrictHostKeyChecking accept-new\n"
        here.put("/root/.ssh/config", names)
        for count in (1, 2, len(hosts)):
            here.put("/etc/corvane/hosts", "[fleet]\n" + "".join(f"root@web{number}\n" for number in range(1, count + 1)))
            for words in (["call", "ping"], ["status"]):
                times = []
                for _ in range(ROUNDS):
                    began = time.monotonic()
                    here.ok(["corvctl", "-H", "@all", *words])
                    times.append(time.monotonic() - began)
                print(f"| `corvctl -H @all {' '.join(words)}`, {count} booted | {statistics.median(times):.2f} s | | | |", flush=True)


def real_rows(package):
    """What commands take between booted hosts."""
    hosts = [Host(f"many-{os.getpid()}-{number}") for number in range(FLEET + 1)]
    try:
        for host in hosts:
            host.install(package)
        fleet_rows(hosts[0], hosts[1:])
        forward_rows(hosts[1])
    finally:
        for host in hosts:
            host.stop()


def main():
    counts = [int(word) for word in sys.argv[1:]] or COUNTS
    package = os.environ.get("CORV_PACKAGE") or subprocess.run(
        [TREE / "scripts" / "package"], stdout=subprocess.PIPE, text=True, check=True).stdout.splitlines()[-1]
    print("| what | time | processor | connections at once | memory |\n| --- | --- | --- | --- | --- |", flush=True)
    real_rows(package)
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        enter_mounts(folder)
        tools = make_ssh(folder, SSH)
        collections = make_collection(folder)
        for count in counts:
            write_hosts(count)
            corvctl_row(count, folder, tools)
            if shutil.which("ansible-inventory"):
                ansible_row(count, collections)
        # The rest is this process's own name space, and ends with it.
        subprocess.run(["umount", "-l", "/etc", str(folder)], check=False)


main()
