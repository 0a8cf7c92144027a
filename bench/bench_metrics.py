"""What the metrics cost a booted host with 1000 accounts, each with its site, PHP pool, role and database: the processor time of all
that runs on it, servers that are asked included, for a run of every five minutes and for the one of every hour."""

import json
import os
import subprocess
import sys
import time
from pathlib import Path

TREE = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TREE / "tests" / "host"))

from bench_ctl_many import MAKE  # noqa: E402
from hostfloor import Host  # noqa: E402

ACCOUNTS = 1000
ROUNDS = 5
RUNS_AN_HOUR = 12
LIMIT = 1.0  # % of one processor


# A thousand databases of 7 MB do not fit beside the host. Those that are asked for are in the catalogue; their files are not, which
# nothing looks at that is measured.
DATABASES = r"""
ALTER SYSTEM SET autovacuum = off;
SELECT pg_reload_conf();
SET allow_system_table_mods = on;
CREATE TEMP TABLE one AS SELECT * FROM pg_database WHERE datname = 'many1';
DO $$ BEGIN FOR i IN 2..{accounts} LOOP
    EXECUTE format('CREATE ROLE many%s LOGIN', i);
    UPDATE one SET oid = 1000000 + i, datname = 'many' || i, datdba = (SELECT oid FROM pg_roles WHERE rolname = 'many' || i), datacl = NULL;
    INSERT INTO pg_database SELECT * FROM one;
END LOOP; END $$;
"""


def used(host):
    """Seconds of processor time that the host has had since it was booted."""
    return int(host.ok(["sed", "-n", "s/^usage_usec //p", "/sys/fs/cgroup/cpu.stat"])) / 1_000_000


def median(host, *args):
    """Processor time and time of a run."""
    found = []
    for _ in range(ROUNDS):
        before, began = used(host), time.monotonic()
        # By systemd: what enters the host from outside is not counted to it.
        done = host.run(["systemd-run", "-q", "--wait", "--pipe", "--collect", "corvctl", "metrics", *args], timeout=300)
        took = time.monotonic() - began
        assert done.out.count("corvane_account_backup_bytes{") == 2 * ACCOUNTS, done
        found.append((used(host) - before, took))
    return [sorted(values)[ROUNDS // 2] for values in zip(*found)], len(done.out)


def back_up(host):
    """Leaves a manifest as a backup of all the accounts would."""
    accounts = [{"username": f"many{i}", "domain": f"many{i}.example", "homeBytes": i * 1_000_003, "dbBytes": i * 10_007}
                for i in range(1, ACCOUNTS + 1)]
    name = time.strftime("%Y-%m-%d_031500")
    manifest = {"name": name, "created": int(time.time()), "seconds": 900, "accounts": accounts, "panelBytes": 1, "errors": []}
    host.put(f"/var/backups/corvane/auto/{name}/manifest.json", json.dumps(manifest))


def main():
    package = os.environ.get("CORV_PACKAGE") or subprocess.run(
        [TREE / "scripts" / "package"], stdout=subprocess.PIPE, text=True, check=True).stdout.splitlines()[-1]
    host = Host(f"metrics-{os.getpid()}")
    try:
        host.install(package)
        if program := os.environ.get("CORV_CTL"):  # another client than the package's
            host.run(["sh", "-c", "base64 -d >/usr/bin/corvctl"], input=subprocess.run(
                ["base64", program], stdout=subprocess.PIPE, text=True, check=True).stdout)
        assert host.request("hosting.create", username="many1", domain="many1.example")["ok"]
        make = "\n".join(line for line in MAKE.splitlines() if "CREATE ROLE" not in line and "/tmp/many.sql" not in line)
        host.ok(["bash", "-c", make, "make", "many1", str(ACCOUNTS)], timeout=1800)
        host.ok(["runuser", "-u", "postgres", "--", "psql", "-qtAX", "-v", "ON_ERROR_STOP=1"],
                input=DATABASES.format(accounts=ACCOUNTS))
        host.request("fail2ban.enable")
        back_up(host)
        host.run(["corvctl", "metrics"], timeout=300)  # the first one has all to collect
        (often, often_took), size = median(host)
        (hourly, hourly_took), _ = median(host, "--fresh")
        share = 100 * ((RUNS_AN_HOUR - 1) * often + hourly) / 3600
        print(f"| a run of every five minutes | {often * 1000:.0f} ms | {often_took:.2f} s |")
        print(f"| the one of every hour, with the doctor | {hourly:.2f} s | {hourly_took:.1f} s |")
        print(f"| of one processor, in all | {share:.2f} % | limit {LIMIT} % |")
        print(f"| the text | {size / 1024:.0f} KiB | |", flush=True)
        print(host.run(["sh", "-c", "corvctl metrics | grep collector_duration | grep -v '#'"], timeout=300).out, file=sys.stderr)
    finally:
        host.stop()
    return 1 if share > LIMIT else 0


if __name__ == "__main__":
    sys.exit(main())
