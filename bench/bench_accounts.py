"""Accounts: measuring 200 homes in a sandbox, and deleting an account with 1 GiB of files on a booted host."""

import os
import statistics
import subprocess
import sys
import time
from pathlib import Path

TREE = Path(__file__).resolve().parents[1]
sys.path[:0] = [str(TREE / "tests" / "protocol"), str(TREE / "tests" / "host")]
os.environ.setdefault("CORV_AGENT", str(TREE / "build-bench/bin/corv-agent"))

from ground import Ground  # noqa: E402
from hostfloor import Host  # noqa: E402
from sandbox import Sandbox  # noqa: E402

USAGE_ROUNDS, USAGE_LIMIT = 41, 1.05
ACCOUNTS, FILES = 200, 500
DELETE_ROUNDS, DELETE_LIMIT = 3, 1.03
PATIENCE = 900

# Files as uploads are: they do not compress. All of the host's homes are filled from the one folder.
MAKE_FILES = "mkdir /root/files && cd /root/files && head -c 1G /dev/urandom | split -b 1M"
FILL = "cp -r /root/files /home/$1/public_html/ && chown -R $1:www-data /home/$1/public_html && sync"
COPY_AND_REMOVE = """
tar -czf /root/home.tar.gz -C /home $1 && runuser -u postgres -- pg_dump -Fc $1 >/root/dump && userdel --remove $1
"""


def seconds(work):
    began = time.perf_counter()
    work()
    return time.perf_counter() - began


def compare(what, ours, reference, rounds, limit, unit):
    """Runs both sides alternately and prints the row; unit is a suffix and the seconds that it stands for."""
    times = [(ours(), reference()) for _ in range(rounds)]
    mine, other = (statistics.median(side) for side in zip(*times))
    suffix, size = unit
    cells = [what, f"{mine / size:.1f} {suffix}", f"{other / size:.1f} {suffix}", f"{mine / other:.3f}", str(limit)]
    print(f"| {' | '.join(cells)} |", flush=True)


def usage(ground):
    box = Sandbox(ground)
    try:
        homes = []
        for number in range(ACCOUNTS):
            name = f"site{number}"
            box.add_account(name, f"{name}.example")
            homes.append(box.path(f"/home/{name}"))
            for file in range(FILES):
                (homes[-1] / "public_html" / f"page{file}").write_bytes(b"x" * 100)

        def asked():
            reply = box.request("hosting.usage")
            assert len(reply["usage"]) == ACCOUNTS, reply

        def measured():
            subprocess.run(["du", "-sb", *homes], stdout=subprocess.PIPE, check=True)

        # The real tools, not stand-ins that keep a record of each call.
        box.start(env={"PATH": "/usr/sbin:/usr/bin"})
        asked()
        compare(f"hosting.usage of {ACCOUNTS} accounts with {FILES} files each, against du -sb of their homes",
                lambda: seconds(asked), lambda: seconds(measured), USAGE_ROUNDS, USAGE_LIMIT, ("ms", 1e-3))
    finally:
        box.close()


def deletion(package):
    host = Host(f"bench-{os.getpid()}")
    try:
        host.install(package)
        host.ok(["sh", "-c", MAKE_FILES], timeout=PATIENCE)

        def account():
            made = host.account()
            host.ok(["sh", "-c", FILL, "sh", made.name], timeout=PATIENCE)
            return made.name

        def asked():
            name = account()
            replies = []
            wanted = {"username": name, "confirm": name}
            spent = seconds(lambda: replies.append(host.request("hosting.delete", timeout=PATIENCE, **wanted)))
            assert replies[0]["ok"] is True, replies
            host.ok(["sh", "-c", "rm /var/backups/corvane/*"])
            return spent

        def by_hand():
            name = account()
            # PHP-FPM ends when it is reloaded with the pool of a user who is gone.
            host.ok(["sh", "-c", 'rm /etc/php/*/fpm/pool.d/corv-"$1".conf', "sh", name])
            spent = seconds(lambda: host.ok(["sh", "-c", COPY_AND_REMOVE, "sh", name], timeout=PATIENCE))
            host.ok(["rm", "/root/home.tar.gz", "/root/dump"])
            host.remove_accounts()
            return spent

        compare("hosting.delete of an account with 1 GiB of files, against tar, pg_dump and userdel alone",
                asked, by_hand, DELETE_ROUNDS, DELETE_LIMIT, ("s", 1))
    finally:
        host.stop()


def main():
    shared = Ground()
    try:
        usage(shared)
    finally:
        shared.close()
    built = subprocess.run([TREE / "scripts" / "package"], capture_output=True, text=True, check=True)
    deletion(built.stdout.splitlines()[-1])


main()
