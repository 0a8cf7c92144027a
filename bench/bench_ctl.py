"""corvctl as a whole process on a booted host, beside a bare C client and beside systemctl."""

import base64
import os
import subprocess
import sys
from pathlib import Path

TREE = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TREE / "tests" / "host"))

from hostfloor import Host  # noqa: E402

ROUNDS = 300


def main():
    package = subprocess.run([TREE / "scripts" / "package"], stdout=subprocess.PIPE, text=True, check=True)
    host = Host(f"bench-{os.getpid()}")
    try:
        host.install(package.stdout.splitlines()[-1])
        for program in ("bare_ping", "bench_ctl"):
            content = base64.b64encode((TREE / "build-bench/bin" / program).read_bytes()).decode()
            host.ok(["sh", "-c", 'base64 -d >"$1" && chmod 755 "$1"', "sh", f"/root/{program}"], input=content)
        programs = [["corvctl", "call", "ping"], ["/root/bare_ping"], ["systemctl", "is-active", "apache2"]]
        words = [word for program in programs for word in ("--", *program)][1:]
        ours, bare, systemctl = (float(line) / 1000 for line in host.ok(["/root/bench_ctl", str(ROUNDS), *words]).split())
        for what, reference, limit in (("a bare C client", bare, 8), ("`systemctl is-active apache2`", systemctl, 0.65)):
            print(f"| `corvctl call ping` as a process, against {what} | {ours:.2f} ms | {reference:.2f} ms | {ours / reference:.2f} "
                  f"| {limit} |", flush=True)
    finally:
        host.stop()


main()
