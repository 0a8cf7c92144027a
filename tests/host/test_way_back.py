"""The way back: files of a backup put in place of the live ones, with the site on line; and what half an account leaves."""

import json
import re

import pytest

LIMIT = 240
AUTO = "/var/backups/corvane/auto"


def sh(host, script):
    return host.ok(["sh", "-ec", script])


@pytest.fixture(scope="module")
def server(boot):
    """A host of its own with a site of which there is a backup."""
    host = boot()
    host.tenant = tenant = host.account()
    sh(host, f"""
        cd {tenant.home}/public_html
        runuser -u {tenant.name} -- sh -ec '
            umask 022; mkdir -p shop/img; echo "<?php echo 6 * 7;" >shop/index.php; echo page >shop/page.html
            echo private >.env; chmod 600 .env; echo picture >shop/img/a.png; chmod 640 shop/img/a.png; chmod 2770 shop/img
            echo note >../note.txt'
    """)
    host.ok(["corvctl", "backup", "start", "--wait"])
    host.backup = sh(host, f"ls {AUTO} | grep [0-9]$ | tail -n 1").strip()
    host.cluster = f"postgresql@{sh(host, 'ls /etc/postgresql').strip()}-main"
    return host


def access(host, folder="public_html"):
    """Owner, group and mode of everything at and below a folder of the home."""
    return sh(host, f"cd {host.tenant.home} && find {folder} -printf '%p %u:%g %m\\n' | sort")


def status(host, path):
    return host.fetch(host.tenant.domain, path).status


def in_place(host, *words):
    done = host.run(["corvctl", "--json", "backup", "restore", host.tenant.name, host.backup, "files", "--in-place", *words])
    assert (done.code, done.err) == (0, "")
    return json.loads(done.out)


def doctor(host):
    done = host.run(["corvctl", "doctor", "--json"])
    return [(finding["problem"], finding["mend"]) for check in json.loads(done.out)["checks"] for finding in check["findings"]
            if finding["level"] == "fault" and check["check"] == "homes"]


def answers_as_ever(host):
    assert [status(host, path) for path in ("/", "/shop/page.html", "/shop/index.php", "/shop/img/a.png", "/.env")] == [
        200, 200, 200, 200, 403]
    assert host.fetch(host.tenant.domain, "/shop/index.php").body == "42"


def test_a_broken_site_is_back_with_one_command(server):
    answers_as_ever(server)
    before = access(server)
    sh(server, f"cd {server.tenant.home} && rm -r public_html/shop && runuser -u {server.tenant.name} -- sh -c 'echo hacked >public_html/index.html'")
    reply = in_place(server, "public_html")
    answers_as_ever(server)
    assert access(server) == before
    assert sh(server, f"cat {reply['replacedTo']}/public_html/index.html") == "hacked\n"
    assert sh(server, f"stat -c %U:%a {reply['replacedTo']}") == f"{server.tenant.name}:700\n"
    assert sh(server, f"ls -d {server.tenant.home}/restored-* 2>/dev/null || true") == ""
    assert doctor(server) == []


def test_one_file_and_one_folder_are_back(server):
    before = access(server)
    sh(server, f"cd {server.tenant.home}/public_html && rm -r shop && echo x >index.html && chown {server.tenant.name}: index.html && chmod 600 index.html")
    assert status(server, "/") == 403
    assert in_place(server, "public_html/index.html", "public_html/shop/img/a.png")["placed"] == [
        "public_html/index.html", "public_html/shop/img/a.png"]
    assert [status(server, path) for path in ("/", "/shop/img/a.png", "/shop/page.html")] == [200, 200, 404]
    in_place(server, "public_html/shop")
    answers_as_ever(server)
    assert access(server) == before


def test_a_whole_home_is_back_and_the_replaced_one_too(server):
    """The whole home, then what it replaced by the command that was shown for it."""
    tenant = server.tenant
    sh(server, f"echo later >{tenant.home}/note.txt")
    done = server.run(["corvctl", "backup", "restore", tenant.name, server.backup, "files", "--in-place"])
    assert (done.code, done.err) == (0, "")
    answers_as_ever(server)
    assert sh(server, f"cat {tenant.home}/note.txt") == "note\n"
    back = re.search(r"^  (corvctl backup restore .*)$", done.out, re.MULTILINE)[1]
    sh(server, back)
    assert sh(server, f"cat {tenant.home}/note.txt") == "later\n"
    answers_as_ever(server)


def test_a_hostile_home_leads_nowhere(server):
    other = server.account()
    name, home = server.tenant.name, server.tenant.home
    before = sh(server, f"find {other.home} /etc -xdev -printf '%p %u:%g %m %s %C@\\n' | sort")
    for trap in (f"ln -s {other.home}/public_html public_html", "ln -s /etc public_html", "mkfifo public_html"):
        sh(server, f"cd {home} && runuser -u {name} -- sh -ec 'mv public_html aside; {trap}'")
        done = server.run(["corvctl", "backup", "restore", name, server.backup, "files", "--in-place", "public_html/index.html"])
        assert done.code == 1
        assert "public_html/index.html: a folder on its way is a link or cannot be entered" in done.err
        sh(server, f"cd {home} && rm -rf public_html restored-*; mv aside public_html")
    assert sh(server, f"find {other.home} /etc -xdev -printf '%p %u:%g %m %s %C@\\n' | sort") == before
    answers_as_ever(server)


@pytest.mark.parametrize("plant, problem", [
    ("chgrp @ /home/@; chmod 700 /home/@", "the web server cannot go through the home of the account @"),
    ("chgrp @ /home/@/public_html; chmod 750 /home/@/public_html",
     "the web server cannot read the folder public_html of the account @"),
    ("mv /home/@/public_html /home/@/gone", "the account @ has no folder public_html"),
    ("cd /home/@/public_html/shop; chgrp @ . img/a.png; chmod 750 .",
     "the web server cannot read public_html/shop of the account @"),
], ids=["home", "pages", "missing", "below"])
def test_the_doctor_finds_what_the_web_server_cannot_reach(server, plant, problem):
    name = server.tenant.name
    sh(server, plant.replace("@", name))
    mend = f"corvctl account publish {name}"
    assert doctor(server) == [(problem.replace("@", name), mend)]
    sh(server, mend)
    assert doctor(server) == []
    if "gone" in plant:
        assert server.run(["stat", "-c", "%U:%G %a", f"/home/{name}/public_html"]).out == f"{name}:www-data 2750\n"
        sh(server, f"rmdir /home/{name}/public_html && mv /home/{name}/gone /home/{name}/public_html")
    assert sh(server, f"stat -c '%U:%G %a' /home/{name} /home/{name}/public_html") == \
        f"{name}:www-data 710\n{name}:www-data 2750\n"
    assert status(server, "/") == 200


# What half an account leaves

HOLD_AFTER = """
count=0
{{ while [ $count -lt {lines} ] && IFS= read -r text; do printf '%s\\n' "$text"; count=$((count + 1)); done
   echo '\\! : >/run/stand-ins/reached'
   until [ -e /run/stand-ins/reached ]; do sleep 0.05; done
   hold; cat; }} | /usr/bin/psql "$@"
"""


def faults_of(host, name):
    done = host.run(["corvctl", "doctor", "--json"])
    return [(finding["level"], finding["problem"], finding["mend"]) for check in json.loads(done.out)["checks"]
            for finding in check["findings"] if name in finding["problem"]]


def test_a_name_can_be_used_again_after_postgresql_went_away_in_a_creation(server):
    """PostgreSQL is stopped between the role and the database of a creation."""
    name = server.free_name()
    line = ["corvctl", "account", "create", name, f"{name}.example"]
    drop = f"runuser -u postgres -- dropuser {name}"
    with server.stand_in("psql", HOLD_AFTER.format(lines=3)):
        server.ok(["chmod", "777", "/run/stand-ins"])  # psql runs as postgres
        creation = server.background([*line])
        server.wait_for_hold()
        server.ok(["systemctl", "stop", server.cluster])
        server.release()
        creation.wait(60)
    server.ok(["systemctl", "start", server.cluster])
    assert server.run(["id", name]).code != 0
    assert faults_of(server, name) == [("fault", f"PostgreSQL has a role {name}, but the server has no such user", drop)]

    done = server.run(line)
    assert (done.code, done.out) == (1, "")
    assert done.err == (f"corvctl: PostgreSQL has a role {name}, but there is no such account\ncorvctl:   {drop}\n"
                        "corvctl: the name is not free, so nothing was made\n  --clear has these commands run before\n")
    done = server.run([*line, "--clear"])
    assert done.code == 0, done.err
    server.wait_until_served(name, f"{name}.example")
    assert faults_of(server, name) == []


@pytest.mark.parametrize("leave, what", [
    ("groupadd @", "there is a group @ without a user or a member"),
    ("touch /etc/apache2/sites-available/corv-@.conf", "an Apache site is left of @, which is no account"),
    ("mkdir /home/@ && ln -s /etc /home/@/logs", "the folder /home/@ is there, and holds links"),
    ("runuser -u postgres -- createuser @; runuser -u postgres -- createdb -O @ @; "
     "runuser -u postgres -- psql -qc 'REVOKE ALL ON DATABASE @ FROM PUBLIC'",
     "PostgreSQL has a database @, but there is no such account"),
], ids=["group", "site", "home", "database"])
def test_what_stands_in_the_way_is_named_and_goes(server, leave, what):
    name = server.free_name()
    sh(server, leave.replace("@", name))
    line = ["corvctl", "account", "create", name, f"{name}.example"]
    done = server.run(line)
    assert (done.code, done.out) == (1, "")
    assert done.err.startswith(f"corvctl: {what.replace('@', name)}\n")
    done = server.run([*line, "--clear"])
    assert done.code == 0, done.err
    server.wait_until_served(name, f"{name}.example")
    sh(server, f"rm -rf /home/.former-{name}-* /var/backups/corvane/{name}-*")


def states_beside(server, name, count):
    """The files of the account's deletions, once the watcher has put so many states beside them."""
    def files():
        return sh(server, f"ls /var/backups/corvane/{name}-*").split()
    server.wait_for(lambda: len([path for path in files() if path.endswith(".state")]) == count, "the states beside the archives")
    return files()


def test_a_deletion_that_was_cut_off_while_the_database_was_dropped_is_finished(server):
    """The agent is killed in the middle of DROP DATABASE; the next deletion is the agent's alone, and is refused."""
    tenant = server.account()
    name = tenant.name
    with server.stand_in("psql", HOLD_AFTER.format(lines=1)):
        server.ok(["chmod", "777", "/run/stand-ins"])  # psql runs as postgres
        deletion = server.background(["corvctl", "account", "delete", name, "--confirm", name])
        server.wait_for_hold()
        server.ok(["systemctl", "kill", "--signal=SIGKILL", "corv-agent"])
        deletion.wait(60)
    sh(server, f"runuser -u postgres -- psql -qc \"UPDATE pg_database SET datconnlimit = -2 WHERE datname = '{name}'\"")
    archives = states_beside(server, name, 1)
    _, dump, home = archives
    assert faults_of(server, name) == [
        ("fault", f"a deletion of the account {name} was cut off while its database was dropped; its archives are {home} and {dump}",
         f"corvctl account delete {name}")]

    assert server.request("hosting.delete", username=name, confirm=name)["error"].startswith("could not dump the database")
    refused = [path for path in states_beside(server, name, 2) if path not in archives]
    found = faults_of(server, name)[1:]
    assert [(level, re.sub(r"[\d.]+ \w+$", "SIZE", problem)) for level, problem, _ in found] == [
        ("note", f"deletions of the account {name} that were refused have left archives of SIZE")]
    assert sorted(found[0][2].split()[1:]) == sorted(refused)
    sh(server, found[0][2])

    sh(server, f"cp {dump} /root/dump && echo x >{dump}")
    done = server.run(["corvctl", "account", "delete", name, "--confirm", name])
    assert (done.code, done.out) == (1, "")
    assert f"corvctl: {dump} is damaged: " in done.err and done.err.endswith(
        "  nothing was deleted; --force deletes the rest all the same\n")
    assert server.run(["id", name]).code == 0
    sh(server, f"mv /root/dump {dump}")

    done = server.run(["corvctl", "account", "delete", name, "--confirm", name])
    assert done.code == 0, done.err
    assert f"corvctl:   {home}\ncorvctl:   {dump}\ncorvctl: both can be read to their ends, so the deletion goes on\n" in done.err
    assert server.run(["id", name]).code != 0
    assert sh(server, f"runuser -u postgres -- psql -qtAc \"SELECT rolname FROM pg_roles WHERE rolname = '{name}' "
                      f"UNION SELECT datname FROM pg_database WHERE datname = '{name}'\"") == ""
    assert faults_of(server, name) == []


def test_a_refused_deletion_says_what_it_leaves(server):
    name = server.account().name
    server.ok(["systemctl", "stop", server.cluster])
    try:
        done = server.run(["corvctl", "account", "delete", name, "--confirm", name])
    finally:
        server.ok(["systemctl", "start", server.cluster])
    left = [path for path in sh(server, f"ls /var/backups/corvane/{name}-*").split() if path.endswith("-home.tar.gz")]
    assert (done.code, done.out) == (1, "")
    assert re.search(r"^corvctl: the archive of the home that was made before stays, [\d.]+ \w+, in a folder of root's: "
                     + re.escape(left[0]) + "$", done.err, re.MULTILINE)
    assert len(left) == 1
    assert [level for level, *_ in faults_of(server, name)] == ["note"]
