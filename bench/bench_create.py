"""hosting.create on a booted host, beside a shell script of the same tools in the same order."""

import os
import statistics
import subprocess
import sys
import time
from pathlib import Path

TREE = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TREE / "tests" / "host"))

from hostfloor import Host  # noqa: E402

ROUNDS, LIMIT = 15, 1.03

# What creation does, written down as an administrator would. The time is taken inside, without the way onto the host.
SCRIPT = r"""
set -e
u=$1 d=$2 home=/home/$1
began=$EPOCHREALTIME
useradd --create-home --user-group --shell /bin/bash --comment "Corvane account,$d" "$u"
mkdir -p "$home/public_html" "$home/logs" "$home/tmp" "$home/.ssh"
echo "<!doctype html><title>$d</title>$d is ready." >"$home/public_html/index.html"
chown "$u:$u" -R "$home"
chown "$u:www-data" "$home" "$home/public_html" "$home/public_html/index.html"
chmod 0710 "$home"
chmod 2750 "$home/public_html"
chmod 0700 "$home/.ssh" "$home/tmp"
runuser -u postgres -- psql -qtAX -v ON_ERROR_STOP=1 >/dev/null <<SQL
\set u '$u'
\set pw 'abcdefghijklmnopqrstuvwx'
SELECT format('CREATE ROLE %I LOGIN PASSWORD %L', :'u', :'pw') \gexec
SELECT format('CREATE DATABASE %I OWNER %I', :'u', :'u') \gexec
SELECT format('REVOKE ALL ON DATABASE %I FROM PUBLIC', :'u') \gexec
SQL
php=$(ls /etc/php | sort -V | tail -n 1)
sed "s/@MODEL@/$u/g" </root/model.pool >"/etc/php/$php/fpm/pool.d/corv-$u.conf"
sed "s/@MODEL@/$u/g" </root/model.site >"/etc/apache2/sites-available/corv-$u.conf"
a2ensite -q "corv-$u"
apache2ctl configtest 2>/dev/null
systemctl reload apache2
systemctl reload "php$php-fpm"
ended=$EPOCHREALTIME
echo $(((${ended/./} - ${began/./}) / 1000))
"""

KEEP_MODEL = r"""
sed "s/$1/@MODEL@/g" /etc/apache2/sites-available/corv-$1.conf >/root/model.site
sed "s/$1/@MODEL@/g" /etc/php/*/fpm/pool.d/corv-$1.conf >/root/model.pool
"""


def main():
    package = subprocess.run([TREE / "scripts" / "package"], stdout=subprocess.PIPE, text=True, check=True)
    host = Host(f"bench-{os.getpid()}")
    try:
        host.install(package.stdout.splitlines()[-1])
        host.put("/root/create", SCRIPT)
        host.ok(["bash", "-c", KEEP_MODEL, "bash", host.account().name])
        host.remove_accounts()

        def asked():
            name = host.free_name()
            began = time.perf_counter()
            reply = host.request("hosting.create", username=name, domain=f"{name}.example")
            spent = (time.perf_counter() - began) * 1000
            assert reply["ok"], reply
            return spent

        def scripted():
            name = host.free_name()
            return float(host.ok(["bash", "/root/create", name, f"{name}.example"]).splitlines()[-1])

        ours, reference = [], []
        for _ in range(ROUNDS):
            ours.append(asked())
            host.remove_accounts()
            reference.append(scripted())
            host.remove_accounts()
        mine, other = statistics.median(ours), statistics.median(reference)
        print(f"| hosting.create on a booted host, against a shell script of the same tools | {mine:.0f} ms | {other:.0f} ms "
              f"| {mine / other:.3f} | {LIMIT} |", flush=True)
    finally:
        host.stop()


main()
