"""Accounts with an application over its database, and all that is to be the same when one of them is back."""

import json
import re

CRONTAB = "17 3 * * * /bin/true\n"
LOGIN_HASH = "$y$j9T$5XvhJkAMUE7EuwfcOV7hT.$mo4il/5WhwZMDWqB8Jcv0ml.naYIHZ9Tf3Iwq1/dMj3"

PAGE = """<?php
$c = pg_connect('host=127.0.0.1 dbname={0} user={0} password={1}');
if (!$c) {{ http_response_code(500); exit('no database'); }}
echo pg_fetch_result(pg_query($c, 'SELECT count(*) FROM orders'), 0, 0), ' orders, ', getenv('REDIRECT_SHOP'), "\n";
"""

SCHEMA = """
CREATE TABLE orders (id serial PRIMARY KEY, what text NOT NULL, at timestamptz DEFAULT '2026-01-01');
CREATE INDEX ON orders (what);
INSERT INTO orders (what) SELECT md5(i::text) FROM generate_series(1, 2000) i;
CREATE VIEW recent AS SELECT * FROM orders ORDER BY id DESC LIMIT 10;
CREATE SCHEMA app; CREATE TABLE app.cfg (k text PRIMARY KEY, v jsonb); INSERT INTO app.cfg VALUES ('a', '{"x": 1}');
"""

FILES = r"""
umask 022
cd /home/$1
rm public_html/index.html
mkdir -p public_html/up private
printf 'RewriteEngine On\nRewriteRule ^order/([0-9]+)$ index.php?id=$1 [E=SHOP:open,L]\n' >public_html/.htaccess
for i in $(seq 1 40); do head -c 20000 /dev/urandom >public_html/up/f$i.bin; done
echo secret >private/.env; chmod 600 private/.env
ln -s ../up/f1.bin public_html/link; ln public_html/up/f2.bin public_html/hard; mkdir -m 2775 public_html/cache
echo odd >"public_html/a name
with \\ all é"; mkdir -m 500 private/sealed; mkfifo private/pipe
chown -R $1:$1 private; chown -R $1:www-data public_html
"""


def make_shop(host):
    """An account with a PHP page over its database, rewritten addresses, odd files, a crontab, a password and settings."""
    account = host.account()
    host.put(f"{account.home}/public_html/index.php", PAGE.format(account.name, account.password),
             owner=f"{account.name}:www-data")
    host.ok(["bash", "-ec", FILES, "bash", account.name])
    done = host.sql(SCHEMA, database=account.name, role=account.name, password=account.password)
    assert done.code == 0, done.err
    host.ok(["crontab", "-u", account.name, "-"], input=CRONTAB)
    host.ok(["chpasswd", "-e"], input=f"{account.name}:{LOGIN_HASH}\n")
    for statement in (f"ALTER DATABASE {account.name} SET search_path = app, \"$user\", public",
                      f"ALTER DATABASE {account.name} SET statement_timeout = '1h'",
                      f"ALTER ROLE {account.name} SET work_mem = '8MB'"):
        assert host.sql(statement).code == 0
    return account


def everything(host, name):
    """Names, kinds, modes, sizes, owners, links and times of the home's entries but for tmp, contents, the database,
    hashes, jobs and settings; lines to compare."""
    files = host.ok(["bash", "-ec", f"""cd /home/{name}
        find . -mindepth 1 -path ./tmp -prune -o -printf '%p %y %m %s %u %g %l %n\\n' | LC_ALL=C sort
        find . -mindepth 1 -path ./tmp -prune -o -not -type l -printf '%p %TY-%Tm-%Td %TH:%TM\\n' | LC_ALL=C sort
        find . -type f ! -path './tmp/*' -print0 | LC_ALL=C sort -z | xargs -0 sha256sum
        stat -c '%U %G %a' . ./tmp; crontab -l -u {name}; getent passwd {name} | cut -d: -f1,5-"""])
    dump = re.sub(r"^\\(un)?restrict .*\n", "", host.ok(["pg_dump", name], user="postgres"), flags=re.MULTILINE)
    role = host.sql(f"SELECT rolpassword, rolcanlogin FROM pg_authid WHERE rolname = '{name}'").out
    settings = host.sql("SELECT coalesce(datname, ''), coalesce(rolname, ''), setconfig FROM pg_db_role_setting "
                        "LEFT JOIN pg_database d ON d.oid = setdatabase LEFT JOIN pg_roles r ON r.oid = setrole "
                        f"WHERE datname = '{name}' OR rolname = '{name}' ORDER BY 1, 2").out
    shadow = host.ok(["getent", "shadow", name]).split(":")[1]
    return [*files.splitlines(), *dump.splitlines(), role, settings, shadow]


def but_for_logs(lines):
    """A visitor whose query the switch ends leaves a line there, after it was looked at."""
    return [line for line in lines if "./logs" not in line]


def page(host, account, path="/"):
    answer = host.fetch(account.domain, path)
    return answer.status, answer.body


def archives(host, account):
    """What the archives of the account's last deletion have in common."""
    names = host.ok(["sh", "-c", f"ls /var/backups/corvane | grep '^{account.name}-[0-9]*-[0-9]*-home.tar.gz$'"]).split()
    return names[-1].removesuffix("-home.tar.gz")


def restore(host, account, *options, confirm=None):
    """Restores one, and gives what the client says of it."""
    done = host.run(["corvctl", "--json", "account", "restore", account.name, *options, "--confirm", confirm or account.name])
    assert (done.code, done.err) == (0, ""), done
    return json.loads(done.out)
