"""What the module for Apache costs: the processor time that a static file of an account takes with and without it, on a booted host."""

import json
import os
import statistics
import subprocess
import sys
from pathlib import Path

TREE = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TREE / "tests" / "host"))

from hostfloor import Host  # noqa: E402

LIMIT = 1.02
GENERATIONS, ROUNDS, REQUESTS = 10, 60, 100

# Two servers with the host's own settings, alike but for the module, each in one process and on a port of its own.
PREPARE = r"""
set -e
for kind in with:8081 without:8082; do
    name=${kind%:*} port=${kind#*:}
    cp -a /etc/apache2 "/root/$name"
    sed -i "s/^Listen .*/Listen $port/" "/root/$name/ports.conf"
    sed -i "s/\*:80>/*:$port>/" /root/$name/sites-available/*
    mkdir -p "/run/$name"
    [ "$name" = with ] || rm "/root/$name/mods-enabled/corvane.load"
done
"""

# Where a process's memory happens to lie makes a difference of its own: each generation has new ones, on one processor.
START = r"""
for name in with without; do
    systemd-run --quiet --collect --unit="$name" -p CPUAffinity=0 -E APACHE_RUN_USER=www-data -E APACHE_RUN_GROUP=www-data \
        -E APACHE_RUN_DIR="/run/$name" -E APACHE_LOCK_DIR="/run/$name" -E APACHE_PID_FILE="/run/$name/pid" \
        -E APACHE_LOG_DIR=/var/log/apache2 apache2 -X -d "/root/$name"
done
"""

# Runs on the host. Processor time is what the server itself has used: what else the machine does hardly shows in it.
MEASURE = r"""
import glob, json, os, socket, subprocess, sys, time

os.sched_setaffinity(0, {os.cpu_count() - 1})

domain, path, rounds, requests = json.load(sys.stdin)
ask = f"GET {path} HTTP/1.1\r\nHost: {domain}\r\n\r\n".encode()

class Server:
    def __init__(self, unit, port):
        self.pid = subprocess.run(["systemctl", "show", "-pMainPID", "--value", unit], capture_output=True, text=True).stdout.strip()
        self.port = port
        self.times = []

    def used(self):
        return sum(int(open(name).read().split()[0]) for name in glob.glob(f"/proc/{self.pid}/task/*/schedstat"))

    def serve(self, count):
        with socket.create_connection(("127.0.0.1", self.port)) as client:
            for turn in range(count):
                if turn % 100 == 0 and turn:
                    client.close()
                    client = socket.create_connection(("127.0.0.1", self.port))
                client.sendall(ask)
                got = b""
                while b"\r\n\r\n" not in got:
                    got += client.recv(65536)
                head, _, body = got.partition(b"\r\n\r\n")
                assert head.startswith(b"HTTP/1.1 200"), head
                left = int(head.lower().split(b"content-length: ")[1].split(b"\r\n")[0]) - len(body)
                while left > 0:
                    left -= len(client.recv(65536))

def ready(port):
    for _ in range(200):
        try:
            return socket.create_connection(("127.0.0.1", port)).close()
        except OSError:
            time.sleep(0.05)
    raise SystemExit(f"nobody listens on {port}")

servers = []
for unit, port in (("with", 8081), ("without", 8082)):
    ready(port)
    servers.append(Server(unit, port))
for server in servers:
    server.serve(500)
for turn in range(rounds):
    for server in servers if turn % 2 else servers[::-1]:
        before = server.used()
        server.serve(requests)
        server.times.append((server.used() - before) / requests / 1000)
print(json.dumps([server.times for server in servers]))
"""


def main():
    package = subprocess.run([TREE / "scripts" / "package"], stdout=subprocess.PIPE, text=True, check=True)
    host = Host(f"bench-{os.getpid()}")
    try:
        host.install(package.stdout.splitlines()[-1])
        account = host.account()
        root = f"{account.home}/public_html"
        host.put(f"{root}/plain/a.txt", "a" * 10240, owner=account.name)
        host.put(f"{root}/ruled/a.txt", "a" * 10240, owner=account.name)
        host.put(f"{root}/ruled/.htaccess", "RewriteEngine On\nRewriteBase /ruled/\nRewriteCond %{REQUEST_FILENAME} !-f\n"
                 "RewriteRule . /ruled/index.php [L]\nOptions -Indexes\n", owner=account.name)
        host.ok(["bash", "-c", PREPARE])
        files = {"10 KiB": "/plain/a.txt", "10 KiB below a .htaccess with a front controller": "/ruled/a.txt"}
        times = {what: ([], []) for what in files}
        for _ in range(GENERATIONS):
            host.ok(["bash", "-c", START])
            for what, path in files.items():
                asked = json.dumps([account.domain, path, ROUNDS, REQUESTS])
                measured = json.loads(host.ok(["python3", "-c", MEASURE], input=asked, timeout=600))
                for kept, new in zip(times[what], measured):
                    kept.extend(new)
            host.ok(["systemctl", "stop", "with", "without"])
        for what, (ours, reference) in times.items():
            # Each round has both sides, one right after the other.
            ratio = statistics.median(mine / other for mine, other in zip(ours, reference))
            print(f"| a static file of {what}, with the module against without | {statistics.median(ours):.1f} µs "
                  f"| {statistics.median(reference):.1f} µs | {ratio:.3f} | {LIMIT} |", flush=True)
    finally:
        host.stop()


main()
