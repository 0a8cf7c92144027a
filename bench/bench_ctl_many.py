"""corvctl status and doctor on a booted host with 200 accounts, each with its site, PHP pool, role and database."""

import os
import subprocess
import sys
import time
from pathlib import Path

TREE = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TREE / "tests" / "host"))

from hostfloor import Host  # noqa: E402

ACCOUNTS = 200
ROUNDS = 5
LIMITS = {"status": 1.5, "doctor": 5.0}

# The agent would take some minutes to make them: each creation reloads both servers.
MAKE = r"""
set -e
php=$(ls /etc/php)
site=$(cat /etc/apache2/sites-available/corv-$1.conf)
for i in $(seq 2 "$2"); do
    name=many$i
    useradd --create-home --user-group --shell /bin/bash --comment "Corvane account,$name.example" "$name"
    mkdir "/home/$name/public_html"
    echo "<p>$name" >"/home/$name/public_html/index.html"
    chown -R "$name:www-data" "/home/$name"
    chmod 0710 "/home/$name"
    corvctl doctor --pool "$name" >"/etc/php/$php/fpm/pool.d/corv-$name.conf"
    printf '%s\n' "$site" | sed "s/$1/$name/g" >"/etc/apache2/sites-available/corv-$name.conf"
    ln -s "../sites-available/corv-$name.conf" /etc/apache2/sites-enabled/
    printf 'CREATE ROLE %s LOGIN;\nCREATE DATABASE %s OWNER %s;\nREVOKE ALL ON DATABASE %s FROM PUBLIC;\n' \
        "$name" "$name" "$name" "$name" >>/tmp/many.sql
done
runuser -u postgres -- psql -q -v ON_ERROR_STOP=1 -f /tmp/many.sql
systemctl restart apache2 "php$php-fpm"
"""


def median(host, command):
    seconds = []
    for _ in range(ROUNDS):
        begin = time.monotonic()
        done = host.run(["corvctl", "--json", command])
        seconds.append(time.monotonic() - begin)
        assert '"sites"' in done.out, done
    return sorted(seconds)[ROUNDS // 2]


def main():
    package = os.environ.get("CORV_PACKAGE") or subprocess.run(
        [TREE / "scripts" / "package"], stdout=subprocess.PIPE, text=True, check=True).stdout.splitlines()[-1]
    host = Host(f"many-{os.getpid()}")
    slow = False
    try:
        host.install(package)
        first = "many1"
        assert host.request("hosting.create", username=first, domain=f"{first}.example")["ok"]
        host.ok(["bash", "-c", MAKE, "make", first, str(ACCOUNTS)], timeout=900)
        host.ok(["corvctl", "call", "ping"])
        for command, limit in LIMITS.items():
            seconds = median(host, command)
            slow = slow or seconds > limit
            print(f"| `corvctl {command}` with {ACCOUNTS} accounts | {seconds:.2f} s | at most {limit} s |", flush=True)
        print(host.run(["corvctl", "status"]).out)
        print(host.run(["corvctl", "doctor", "--plain"]).out[:600])
    finally:
        host.stop()
    return 1 if slow else 0


if __name__ == "__main__":
    sys.exit(main())
