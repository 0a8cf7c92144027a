"""A large account moves between two booted hosts: how long nobody serves it, seen from outside, and what that is made of.

CORV_BENCH_HOME has the home's size in MiB (965, in 10,159 files), CORV_BENCH_DATABASE the database's (120). One percent of the files and
of the rows changes between the rehearsal and the move. Both hosts share this machine's processors; the load is told beside the figures.
"""

import json
import os
import subprocess
import sys
from pathlib import Path

TREE = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TREE / "tests" / "host"))

from hostfloor import Host  # noqa: E402
from moves import HOST, Watch, move, reaching  # noqa: E402

MEGABYTES = int(os.environ.get("CORV_BENCH_HOME", "965"))
DATABASE = int(os.environ.get("CORV_BENCH_DATABASE", "120"))
ROUNDS = int(os.environ.get("CORV_BENCH_ROUNDS", "3"))
FILES = 10_000

FILL = r"""
cd "/home/$1"
mkdir -p public_html/up && cd public_html/up
size=$(($2 * 1048576 / $3))
for folder in $(seq 1 $(($3 / 100))); do
    mkdir "$folder"
    head -c $((size * 100)) /dev/urandom | split -b "$size" -a 3 - "$folder/f"
done
chown -R "$1:www-data" "/home/$1/public_html"
"""
CHANGE = r"""
find "/home/$1/public_html/up" -type f | sort | awk 'NR % 100 == 0' | while read -r file; do
    echo "$2" | dd of="$file" bs=1 conv=notrunc status=none
    touch "$file"
done
"""
# A kilobyte a row, in two tables with an index each.
ROWS = """CREATE TABLE orders (id serial PRIMARY KEY, who text, what text);
CREATE TABLE visits (id serial PRIMARY KEY, who text, what text);
INSERT INTO orders (who, what) SELECT md5(i::text), repeat(md5(random()::text), 30) FROM generate_series(1, {0}) i;
INSERT INTO visits (who, what) SELECT md5(i::text), repeat(md5(random()::text), 30) FROM generate_series(1, {0}) i;
CREATE INDEX ON orders (who); CREATE INDEX ON visits (who);"""


def row(what, ours, limit=""):
    print(f"| {what} | {ours} |  |  | {limit} |", flush=True)


def load():
    return Path("/proc/loadavg").read_text().split()[0]


def make(host):
    account = host.account()
    host.ok(["bash", "-c", FILL, "bash", account.name, str(MEGABYTES), str(FILES)], timeout=600)
    host.put(f"{account.home}/public_html/here.html", "<p>here", owner=f"{account.name}:www-data")
    done = host.sql(ROWS.format(DATABASE * 1024 // 2), database=account.name, role=account.name, password=account.password)
    assert done.code == 0, done
    return account


def change(host, account, number):
    host.ok(["bash", "-c", CHANGE, "bash", account.name, str(number)], timeout=600)
    done = host.sql(f"UPDATE orders SET who = md5('{number}' || id) WHERE id % 100 = 0", database=account.name)
    assert done.code == 0, done


def one(old, new, number):
    account = make(old)
    new._accounts.append((account.name, account.domain))
    done = move(new, account.name, "--rehearse", timeout=600)
    assert done.code == 0, done
    change(old, account, number)
    before = load()
    with Watch([old, new], account.domain, "/here.html") as watch:
        done = new.run(["corvctl", "--json", "account", "move", account.name, HOST, "--confirm", account.name], timeout=600)
    assert done.code == 0, done
    told = json.loads(done.out)
    parts = ", ".join(f"{name} {milliseconds / 1000:.1f}" for name, milliseconds in told["switchMilliseconds"].items())
    row(f"nobody serves it (load {before} before)", f"{watch.gap():.1f} s", "3 s")
    row("its old address leads nowhere", f"{watch.gap_at_the_old_address():.1f} s", "3 s")
    row("of it, as the move tells", f"{told['offlineMilliseconds'] / 1000:.1f} s: {parts}")
    new.remove_accounts()
    old.ok(["corvctl", "account", "forward", account.name, "off"])
    old.remove_accounts()


def main():
    package = os.environ.get("CORV_PACKAGE") or subprocess.run(
        [TREE / "scripts" / "package"], stdout=subprocess.PIPE, text=True, check=True).stdout.splitlines()[-1]
    hosts = [Host(f"bench-{os.getpid()}-{name}") for name in ("old", "new")]
    try:
        for host in hosts:
            host.install(package)
        old, new = hosts
        with reaching(new, old):
            for number in range(ROUNDS):
                one(old, new, number)
    finally:
        for host in hosts:
            host.stop()


if __name__ == "__main__":
    main()
