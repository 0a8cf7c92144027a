"""A server for the hostile floor: stand-ins that keep a state, so that what a run leaves of an account can be told.

PostgreSQL's roles and databases are files, sites are enabled by links as Apache's own tools do it, quotas are a file.
"""

import os

from recorded import recorded
from test_suspend import SUSPENDED as SUSPENDED_SITE

NAME = "alice"
DOMAIN = "example.org"
KEY = "ssh-ed25519 " + "A" * 68 + " alice@home"
SITE = f"/etc/apache2/sites-available/corv-{NAME}.conf"
ENABLED = f"/etc/apache2/sites-enabled/corv-{NAME}.conf"
POOL = f"/etc/php/8.2/fpm/pool.d/corv-{NAME}.conf"
# As much of it as the doctor holds against what it should be.
FENCES = f"""user = {NAME}
group = {NAME}
listen = /run/php/corv-{NAME}.sock
listen.owner = www-data
listen.group = www-data
listen.mode = 0660
php_admin_value[open_basedir] = /home/{NAME}/
"""
HOME = f"/home/{NAME}"
DATABASES = "/var/lib/postgresql/fake"
BACKUP = "2025-03-09_031500"
ACCOUNTS = f"/var/backups/corvane/auto/{BACKUP}/accounts"

# A role is a file with LOGIN or NOLOGIN in it, a database one with its content.
_PSQL = f"""
cd {DATABASES}
of() {{
    case $line in *":'tmp'"*) echo "$u"__restore ;; *":'old'"*) echo "$u"__old ;; *) echo "$u" ;; esac
}}
while IFS= read -r line; do
    case $line in
    '\\set u '*) u=${{line#*\\'}}; u=${{u%\\'}} ;;
    *'CREATE ROLE'*)
        [ ! -e "role.$u" ] || {{ echo "ERROR:  role \\"$u\\" already exists" >&2; exit 3; }}
        echo LOGIN >"role.$u" ;;
    *'CREATE DATABASE'*)
        [ ! -e "db.$(of)" ] || {{ echo "ERROR:  database \\"$(of)\\" already exists" >&2; exit 3; }}
        : >"db.$(of)" ;;
    *'DROP DATABASE IF EXISTS'*) rm -f "db.$(of)" ;;
    *'DROP DATABASE'*) rm "db.$(of)" || exit 3 ;;
    *'DROP ROLE'*) rm -f "role.$u" ;;
    *'RENAME TO'*":'old'"*) mv "db.$u" "db.${{u}}__old" || exit 3 ;;
    *'RENAME TO'*) mv "db.${{u}}__restore" "db.$u" || exit 3 ;;
    *'ALTER ROLE'*NOLOGIN*) [ -e "role.$u" ] || exit 3; echo NOLOGIN >"role.$u" ;;
    *'ALTER ROLE'*) [ -e "role.$u" ] || exit 3; echo LOGIN >"role.$u" ;;
    esac
done
"""
# What the administrator's client asks for in its examination: all roles and databases.
_EVERYTHING = f"""
cd {DATABASES}
roles= databases=
for file in role.*; do
    [ -e "$file" ] || continue
    case $(cat "$file") in LOGIN) login=true ;; *) login=false ;; esac
    roles="$roles,{{\\"name\\":\\"${{file#role.}}\\",\\"login\\":$login,\\"plain\\":true}}"
done
for file in db.*; do
    name=${{file#db.}}
    databases="$databases,{{\\"name\\":\\"$name\\",\\"owner\\":\\"${{name%%__*}}\\",\\"open\\":false}}"
done
echo "{{\\"version\\":150014,\\"roles\\":[${{roles#,}}],\\"databases\\":[${{databases#,}}]}}"
"""
_DUMP = f"""
for name; do :; done
cat "{DATABASES}/db.$name" || {{ echo "pg_dump: error: database \\"$name\\" does not exist" >&2; exit 1; }}
"""
_RESTORE = f"""
for name; do :; done
cat >"{DATABASES}/db.$name"
"""


def furnish(sandbox, *, quotas=False, ufw=True, php=True):
    """Makes the sandbox a server with Apache, PHP-FPM, PostgreSQL, a firewall and fail2ban, and without accounts."""
    if not php:
        sandbox.php()
    sandbox.mkdir(DATABASES, 0o700, "postgres:postgres")
    sandbox.write(f"{DATABASES}/db.corvane", "the panel's data\n", 0o600, "postgres:postgres")
    sandbox.answer("psql", shell=_PSQL)
    sandbox.answer("psql", "-qtAX", "-v", "ON_ERROR_STOP=1", "-c", ..., shell=_EVERYTHING)
    sandbox.answer("pg_dump", shell=_DUMP)
    sandbox.answer("pg_restore", shell=_RESTORE)
    sandbox.answer("a2ensite", shell='cd /etc/apache2/sites-enabled; ln -sf "../sites-available/$2.conf" "$2.conf"')
    sandbox.answer("a2dissite", shell='rm "/etc/apache2/sites-enabled/$2.conf"')
    sandbox.answer("sshd", out="port 22\n")
    sandbox.answer("findmnt", out="/ ext4\n")
    sandbox.answer("quotaon", "-p", ..., shell="if [ -e /etc/quotas-on ]; then echo 'user quota on / is on'; fi")
    sandbox.answer("quotaon", "-u", ..., shell=": >/etc/quotas-on")
    sandbox.answer("repquota", out="#1000     --     100       0       0              2     0     0\n")
    sandbox.answer("dpkg-query", out="install ok installed")
    sandbox.answer("systemctl", "is-active", ..., exit=3)
    sandbox.answer("systemctl", "show", ..., out="active\n")
    sandbox.answer("ufw", "status", "numbered", **recorded("bookworm", "ufw-rules"))
    sandbox.answer("fail2ban-client", "status", **recorded("bookworm", "fail2ban-two-jails"))
    sandbox.answer("fail2ban-client", "status", "sshd", **recorded("bookworm", "fail2ban-jail-banned"))
    sandbox.answer("apt", "list", ..., **recorded("bookworm", "apt-upgradable"))
    sandbox.add_standin("env")
    sandbox.add_standin("touch")
    if not ufw:
        sandbox.answer("dpkg-query", "-W", "*", "ufw", exit=1)
    if quotas:
        sandbox.write("/etc/quotas-on")


def add_account(sandbox):
    """Adds the account as the agent leaves it after creation; a test holds the two against each other."""
    sandbox.add_account(NAME, DOMAIN)
    sandbox.write(f"{HOME}/public_html/index.html", "the page\n", 0o644, f"{NAME}:www-data")
    sandbox.write(f"{HOME}/.ssh/authorized_keys", KEY + "\n", 0o600, f"{NAME}:{NAME}")
    sandbox.write(f"{DATABASES}/role.{NAME}", "LOGIN\n", 0o600, "postgres:postgres")
    sandbox.write(f"{DATABASES}/db.{NAME}", "its data\n", 0o600, "postgres:postgres")
    sandbox.write(SITE, "the site\n")
    sandbox.write(POOL, FENCES)
    sandbox.symlink(ENABLED, f"../sites-available/corv-{NAME}.conf")


def suspend_account(sandbox):
    """Changes the account into a suspended one."""
    sandbox.path(POOL).rename(sandbox.path(POOL + ".suspended"))
    sandbox.write(SITE, SUSPENDED_SITE)
    sandbox.write(f"{DATABASES}/role.{NAME}", "NOLOGIN\n", 0o600, "postgres:postgres")
    lines = sandbox.read("/etc/shadow").splitlines()
    lines[-1] = f"{NAME}:!:19000:0:99999:7::1:"
    sandbox.write("/etc/shadow", "\n".join(lines) + "\n", 0o640, "root:shadow")


def add_backup(sandbox):
    """Adds a finished backup of the account."""
    sandbox.mkdir(ACCOUNTS)
    code, _, _ = sandbox.run("tar", "-czf", f"{ACCOUNTS}/{NAME}-home.tar.gz", "-C", "/home", NAME)
    assert code == 0
    sandbox.write(f"{ACCOUNTS}/{NAME}-db.dump", "the old data\n", 0o600)


def _field(sandbox, database, number):
    for line in sandbox.read(database).splitlines():
        fields = line.split(":")
        if fields[0] == NAME:
            return fields[number] if number < len(fields) else ""
    return None


def _kind_of_site(sandbox):
    if not sandbox.exists(SITE):
        return None
    text = sandbox.read(SITE)
    return "suspended" if "temporarily unavailable" in text else "active" if text else "empty"


def account(sandbox):
    """What there is of the account: each of its parts with its state, None for a part that is missing."""
    role = f"{DATABASES}/role.{NAME}"
    expires = _field(sandbox, "/etc/shadow", 7)
    pool = "active" if sandbox.exists(POOL) else "parked" if sandbox.exists(POOL + ".suspended") else None
    folders = [sandbox.entry(f"{HOME}/{name}") for name in ("", "public_html", "logs", "tmp", ".ssh")]
    return {
        "user": _field(sandbox, "/etc/passwd", 4),
        "group": None if _field(sandbox, "/etc/group", 2) is None else "there",
        "login": None if expires is None else "expired" if expires == "1" else "open",
        "home": None if not sandbox.exists(HOME) else " ".join(folders),
        "role": sandbox.read(role).strip() if sandbox.exists(role) else None,
        "database": "there" if sandbox.exists(f"{DATABASES}/db.{NAME}") else None,
        "site": _kind_of_site(sandbox),
        "enabled": sandbox.entry(ENABLED) if sandbox.exists(ENABLED) else None,
        "pool": pool,
    }


ACTIVE = {
    "user": f"Corvane account,{DOMAIN}",
    "group": "there",
    "login": "open",
    "home": "0710 alice:www-data 2750 alice:www-data 0755 alice:alice 0700 alice:alice 0700 alice:alice",
    "role": "LOGIN",
    "database": "there",
    "site": "active",
    "enabled": f"link -> ../sites-available/corv-{NAME}.conf",
    "pool": "active",
}
SUSPENDED = {**ACTIVE, "login": "expired", "role": "NOLOGIN", "site": "suspended", "pool": "parked"}
GONE = dict.fromkeys(ACTIVE)


def remove_by_hand(sandbox):
    """What the documentation tells an operator to do with what a killed agent left of an account: a few commands that can
    all be given whatever is left."""
    sandbox.run("userdel", "--remove", NAME)
    for path in (ENABLED, SITE, POOL, POOL + ".suspended"):
        if sandbox.exists(path):
            sandbox.path(path).unlink()
    for kind in ("role", "db"):
        path = sandbox.path(f"{DATABASES}/{kind}.{NAME}")
        if os.path.exists(path):
            path.unlink()
