"""Runs on the host and says what there is of accounts, without asking the agent or its client: from standard input the names of the
accounts, those on HTTPS and the PHP version, on standard output the facts, both in JSON. `files` instead of names: what every file is."""

import glob
import json
import os
import ssl
import stat
import subprocess
import sys
import urllib.error
import urllib.request

# What changes while a server runs, whoever does it; logs are searched for secrets instead.
PASSING = ("/proc", "/sys", "/dev", "/run", "/tmp", "/var/tmp", "/var/log", "/var/cache", "/var/lib/postgresql", "/var/lib/systemd",
           "/var/lib/apt", "/var/lib/dpkg", "/var/lib/fail2ban", "/var/lib/php/sessions", "/var/lib/apache2", "/srv/repository", "/root/.cache")


def output(*argv):
    """What a program prints; nothing where it fails."""
    return subprocess.run(argv, capture_output=True, text=True, check=False).stdout


def sql(statement):
    """The rows, each a list of texts."""
    out = output("runuser", "-u", "postgres", "--", "psql", "-qtAX", "-d", "template1", "-c", statement)
    return [line.split("|") for line in out.splitlines()]


def read(path):
    try:
        with open(path, encoding="utf-8", errors="replace") as file:
            return file.read()
    except OSError:
        return None


def visit_secure(domain):
    """The status of the site on port 443, 0 where there is none; /etc/hosts leads the name here."""
    context = ssl.create_default_context()
    context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
    try:
        with urllib.request.urlopen(f"https://{domain}/index.html", timeout=20, context=context) as answer:
            return answer.status
    except urllib.error.HTTPError as error:
        return error.code
    except OSError:
        return 0


def visit(domain, path):
    """Status and body of a page."""
    request = urllib.request.Request("http://127.0.0.1" + path, headers={"Host": domain})
    try:
        with urllib.request.urlopen(request, timeout=20) as answer:
            return answer.status, answer.read(2000).decode(errors="replace")
    except urllib.error.HTTPError as error:
        return error.code, error.read(2000).decode(errors="replace")
    except OSError as error:
        return 0, str(error)


def account(name, php, roles, databases):
    """The parts of an account that are there."""
    users = {line.split(":")[0]: line.split(":") for line in read("/etc/passwd").splitlines()}
    shadow = {line.split(":")[0]: line.split(":") for line in read("/etc/shadow").splitlines()}
    site = read(f"/etc/apache2/sites-available/corv-{name}.conf")
    parts = {
        "user": users.get(name, [""] * 5)[4] if name in users else None,
        "expired": shadow.get(name, [""] * 8)[7] == "1",
        "group": any(line.startswith(name + ":") for line in read("/etc/group").splitlines()),
        "home": os.path.lexists(f"/home/{name}"),
        "role": roles.get(name),
        "database": databases.get(name),
        "scratch": [other for other in databases if other.startswith(name + "__")],
        "site": None if site is None else ("off" if "R=503" in site else "on" if "</VirtualHost>" in site else "cut off"),
        "enabled": os.path.exists(f"/etc/apache2/sites-enabled/corv-{name}.conf"),
        "pool": sorted(glob.glob(f"/etc/php/*/fpm/pool.d/corv-{name}.conf")),
        "parked": sorted(glob.glob(f"/etc/php/*/fpm/pool.d/corv-{name}.conf.suspended")),
    }
    return {**parts, "state": state(parts, f"/etc/php/{php}/fpm/pool.d/corv-{name}.conf")}


def state(parts, pool):
    """on, off, gone or half."""
    if not any(parts[part] for part in ("group", "home", "role", "database", "scratch", "site", "enabled", "pool", "parked")):
        return "gone" if parts["user"] is None else "half"
    whole = (parts["user"] or "").startswith("Corvane account") and parts["home"] and parts["enabled"] and not parts["scratch"]
    whole = whole and parts["database"] == "open"
    if whole and (parts["site"], parts["role"], parts["expired"], parts["pool"], parts["parked"]) == ("on", "may", False, [pool], []):
        return "on"
    if whole and (parts["site"], parts["role"], parts["expired"], parts["pool"]) == ("off", "may not", True, []) and (
            parts["parked"] == [pool + ".suspended"]):
        return "off"
    return "half"


def accounts(names, php, secure):
    """The facts of each, with what visitors get of those that are whole, also on port 443 of those that are to be there."""
    roles = {name: "may" if may == "t" else "may not" for name, may in sql("SELECT rolname, rolcanlogin FROM pg_roles")}
    databases = {name: "open" if limit == "-1" and allowed == "t" and template == "f" else "closed" for name, limit, allowed, template
                 in sql("SELECT datname, datconnlimit, datallowconn, datistemplate FROM pg_database")}
    facts = {name: account(name, php, roles, databases) for name in names}
    for name, one in facts.items():
        if one["state"] == "on":
            # As its owner would: links in the way are the owner's own.
            output("runuser", "-u", name, "--", "sh", "-c", "echo '<?php echo \"by \", posix_getpwuid(posix_geteuid())[\"name\"];' >~/public_html/by.php")
            one["visit"] = visit(f"{name}.example", "/index.html")[0]
            one["php"] = visit(f"{name}.example", "/by.php")
        elif one["state"] == "off":
            one["visit"] = visit(f"{name}.example", "/index.html")[0]
        if name in secure and one["state"] in ("on", "off"):
            one["secure"] = visit_secure(f"{name}.example")
    return facts


def files():
    """Each file's kind, mode, owner and, but for folders, size and times."""
    found = {}
    for folder, folders, names in os.walk("/"):
        folders[:] = [name for name in folders if not os.path.join(folder, name).startswith(PASSING)]
        for name in folders + names:
            path = os.path.join(folder, name)
            try:
                status = os.lstat(path)
            except OSError:
                continue
            entry = [status.st_mode, status.st_uid, status.st_gid]
            if not stat.S_ISDIR(status.st_mode):
                entry += [status.st_size, status.st_mtime_ns, status.st_ctime_ns]
            found[os.fsencode(path).decode(errors="backslashreplace")] = entry
    return found


given = json.load(sys.stdin)
print(json.dumps(files() if given == "files" else accounts(given["names"], given["php"], given["secure"])))
