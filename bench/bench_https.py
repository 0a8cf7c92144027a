"""HTTPS with many sites on one booted host: making and trying them, reloads, what a request of the agent takes, and getting certificates.

CORV_BENCH_SITES has how many sites (1000). They are files of the agent's form, as a thousand accounts would have them, beside one
account that is whole. The authority is Debian's ACME test server, on the same host; getting a thousand certificates from it takes
most of an hour. With CORV_BENCH_CERTIFICATES=own each site has a pair that was brought instead, which is read as often.
CORV_BENCH_SUITE is the release (bookworm).
"""

import json
import os
import statistics
import subprocess
import sys
import time
from pathlib import Path

TREE = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TREE / "tests" / "host"))

from certified import LIVE, SETTINGS, STATE, STORE, reload, start_authority  # noqa: E402
from hostfloor import Host  # noqa: E402

SITES = int(os.environ.get("CORV_BENCH_SITES", "1000"))
OWN = os.environ.get("CORV_BENCH_CERTIFICATES", "") == "own"
SUITE = os.environ.get("CORV_BENCH_SUITE", "bookworm")
ROUNDS, PATIENCE = 5, 3600

# A site as the agent wrote it for the one account that there is, under other names.
MAKE_SITES = r"""
for i in $(seq 1 "$2"); do
    sed "s/\b$1\b/shop$i/g" "/etc/apache2/sites-available/corv-$1.conf" >"/etc/apache2/sites-enabled/corv-shop$i.conf"
    mkdir -p "/home/shop$i/public_html"
    echo "127.0.0.1 shop$i.example www.shop$i.example" >>/etc/hosts
done
"""
# As corvctl keeps what was brought, without a reload for each. As an authority's, each comes with the one that signed it.
BRING_PAIRS = r"""
umask 077
mkdir -p /etc/corvane/https/own /etc/corvane/https.d
between=$(mktemp -d)
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 900 -subj "/CN=Bench Intermediate" \
    -keyout "$between/key" -out "$between/crt" 2>/dev/null
for i in $(seq 1 "$1"); do
    own=/etc/corvane/https/own/shop$i-$(printf %064x "$i")
    openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "/CN=shop$i.example" -keyout "$own.key" -out "$between/csr" 2>/dev/null
    openssl x509 -req -in "$between/csr" -CA "$between/crt" -CAkey "$between/key" -days 90 -set_serial "$i" -out "$own.crt" \
        -extfile <(echo "subjectAltName=DNS:shop$i.example,DNS:www.shop$i.example") 2>/dev/null
    cat "$between/crt" >>"$own.crt"
    echo "own $(basename "$own")" >"/etc/corvane/https.d/shop$i"
done
"""
COUNT = f"ls {STORE}/domains/shop*/pubcert.p-256.pem 2>/dev/null | wc -l"


def row(what, ours, reference="", ratio="", limit=""):
    print(f"| {what} | {ours} | {reference} | {ratio} | {limit} |", flush=True)


def seconds(work):
    began = time.perf_counter()
    work()
    return time.perf_counter() - began


def median(work):
    return statistics.median(seconds(work) for _ in range(ROUNDS))


def life(host, name):
    """How long a suspension and the end of it take, as whoever asks for them sees it."""
    times = []
    for command in ("hosting.suspend", "hosting.resume"):
        def ask(command=command):
            assert host.request(command, username=name) == {"ok": True}
        times.append(seconds(ask))
        time.sleep(2)  # the agent's two reloads follow each other
    return sum(times) / len(times)


def issue(host, what):
    """How long it takes until each site has its certificate."""
    began = time.monotonic()
    while int(host.ok(["sh", "-c", COUNT])) < SITES:
        if time.monotonic() - began > PATIENCE:
            raise SystemExit(f"only {host.ok(['sh', '-c', COUNT])} after {PATIENCE} s: {host.journal('corv-https')[-2000:]}")
        time.sleep(2)
    row(what, f"{time.monotonic() - began:.0f} s")


def settle(host):
    """Waits until the last certificates are in use and nothing is at work."""
    host.ok(["systemctl", "start", "corv-https"], timeout=PATIENCE)
    host.wait_for(lambda: not host.active("corv-https") and host.ok(["ls", "/run/corvane/https/inbox"]) == "", "the end of all work", PATIENCE)


def measure(host):
    account = host.account()
    host.ok(["bash", "-c", MAKE_SITES, "bash", account.name, str(SITES)], timeout=PATIENCE)
    host.ok(["systemctl", "reload", "apache2"])
    without = statistics.median(life(host, account.name) for _ in range(ROUNDS))
    bare = median(lambda: reload(host))

    if OWN:
        host.ok(["bash", "-c", BRING_PAIRS, "bash", str(SITES)], timeout=PATIENCE)
    else:
        host.ok(["apt-get", "-q", "install", "--yes", "pebble"], env={"DEBIAN_FRONTEND": "noninteractive"})
        start_authority(host)
        host.put("/etc/corvane/https.conf", SETTINGS.replace("check=2s", "check=30s") + f"orders={SITES * 2}\n")
    row(f"HTTPS switched on for {SITES} sites", f"{seconds(lambda: host.ok(['corvctl', 'https', 'on'])):.1f} s")
    if not OWN:
        issue(host, f"until all {SITES} have their certificates")
    settle(host)

    def sync():
        host.ok(["/usr/libexec/corvane/corv-https", "sync"])

    def afresh():
        host.ok(["rm", "-f", "/run/corvane/https/proof.json"])
        sync()

    row(f"all {SITES} made and tried", f"{median(afresh):.2f} s")
    row("made again, none of them changed", f"{median(sync):.2f} s")
    row("reload of Apache until it answers with the new configuration", f"{median(lambda: reload(host)):.2f} s",
        f"{bare:.2f} s without HTTPS", "", "3 s")
    with_https = statistics.median(life(host, account.name) for _ in range(ROUNDS))
    row("suspending and resuming an account", f"{with_https:.2f} s", f"{without:.2f} s without HTTPS", "", "1 s more")
    took = json.loads(host.get(STATE))["milliseconds"]
    size = len(host.get(LIVE)) // 1024
    memory = int(host.ok(["sh", "-c", "ps -o rss= -p $(cat /run/apache2/apache2.pid)"])) // 1024
    row("of it the sync", f"{took / 1000:.2f} s")
    row("the file that Apache includes; memory of its first process", f"{size} KiB; {memory} MiB")


def main():
    package = os.environ.get("CORV_PACKAGE") or subprocess.run(
        [TREE / "scripts" / "package"], stdout=subprocess.PIPE, text=True, check=True).stdout.splitlines()[-1]
    host = Host(f"bench-{os.getpid()}", SUITE)
    try:
        host.install(package, https=True)
        measure(host)
    finally:
        host.stop()


if __name__ == "__main__":
    main()
