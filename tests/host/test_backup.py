"""Backups by the real unit, and what a restore brings back, on the same host and on one that never saw the accounts."""

import re
import subprocess
from dataclasses import dataclass

import pytest

STORE = "etc/corvane/https/md"
DESTINATION = "/var/backups/corvane/auto"
UNIT = "corv-backup.service"
HOLD_RUN = "/run/systemd/system/corv-backup.service.d/hold.conf"
NOTHING_MORE_THAN_ITS_OWNER = 0o7022  # what unpacking under an account's rights takes off: its mask, the special bits

SITE = r"""
cd "$HOME/public_html"
mkdir -p inc/deep .hidden
echo '<?php require "inc/name.php"; echo name();' >index.php
echo '<?php function name() { return "restored site"; }' >inc/name.php
echo secret >.hidden/.env
chmod 600 .hidden/.env
chmod 775 inc
echo '#!/bin/sh' >inc/run.sh
chmod 755 inc/run.sh
ln -s inc/name.php link
ln -s /etc/passwd outside
ln -s nowhere dangling
ln inc/run.sh inc/hard
mkfifo inc/pipe
touch -d 2001-01-01 inc/deep/old
printf x >"name with blank"
printf x >"$(printf 'line\nfeed')"
printf x >"$(printf 'no text \377')"
printf x >-dash
echo temporary >"$HOME/tmp/session"
"""

MANY_FILES = r"""
import os
for folder in range(100):
    top = f"/home/{os.environ['USER']}/public_html/many/{folder:02}"
    os.makedirs(top)
    for number in range(100):
        with open(f"{top}/{number}", "w") as file:
            file.write(f"{folder} {number}\n" * (number + 1))
"""

DATABASE = r"""
CREATE EXTENSION citext;
CREATE EXTENSION hstore;
CREATE EXTENSION pg_trgm;
CREATE EXTENSION pgcrypto;
CREATE TYPE mood AS ENUM ('good', 'bad');
CREATE TABLE people (
    id bigserial PRIMARY KEY, name citext UNIQUE NOT NULL, mood mood, more hstore, token uuid DEFAULT gen_random_uuid(),
    hash bytea, noted timestamptz DEFAULT now());
INSERT INTO people (name, mood, more, hash)
    SELECT 'Person ' || i, (ARRAY['good', 'bad']::mood[])[i % 2 + 1], hstore('number', i::text), digest(i::text, 'sha256')
    FROM generate_series(1, 100000) AS i;
CREATE INDEX people_by_part ON people USING gin (name gin_trgm_ops);
CREATE VIEW good_people AS SELECT name FROM people WHERE mood = 'good';
CREATE FUNCTION person(bigint) RETURNS citext LANGUAGE sql AS 'SELECT name FROM people WHERE id = $1';
CREATE TABLE pictures (person bigint REFERENCES people, picture oid);
INSERT INTO pictures SELECT i, lo_from_bytea(0, decode(repeat(md5(i::text), 1000), 'hex')) FROM generate_series(1, 50) AS i;
COMMENT ON TABLE people IS 'not "quoted" ''right''';
"""


@dataclass
class Saved:
    """Three accounts as they were when they were backed up, and the backup's name."""

    site: object
    many: object
    data: object
    name: str
    entry: dict
    trees: dict
    dump: str


def tree(host, top):
    """Everything below a folder: path -> (type, mode, owner, size or target, checksum of a regular file)."""
    found = {}
    out = host.ok(["find", top, "-mindepth", "1", "-printf", r"%P\0%y\0%m\0%u:%g\0%s\0%l\0%T@\0"], timeout=300)
    fields = out.split("\0")
    for i in range(0, len(fields) - 1, 7):
        path, kind, mode, owner, size, target, changed = fields[i : i + 7]
        found[path] = [kind, int(mode, 8), owner, int(size) if kind == "f" else target, changed.split(".")[0] if kind == "f" else ""]
    sums = host.ok(["sh", "-c", 'cd "$1" && find . -type f -exec sha256sum -z {} +', "sh", top], timeout=300)
    for line in sums.split("\0")[:-1]:
        found[line[66:].removeprefix("./")].append(line[:64])
    return found


def as_restored(found, user):
    """What a tree becomes when its owner unpacks it: the account's own, without what was in its tmp."""
    return {
        path: [kind, mode if kind == "l" else mode & ~NOTHING_MORE_THAN_ITS_OWNER, f"{user}:{user}", *rest]
        for path, (kind, mode, _, *rest) in found.items()
        if path != "tmp" and not path.startswith("tmp/")
    }


def dump(host, name):
    """A database as SQL text; newer releases of pg_dump put a random word into two lines."""
    text = host.ok(["pg_dump", name], user="postgres", timeout=300)
    return re.sub(r"^\\(un)?restrict .*$", "", text, flags=re.M)


def fill_database(host, account, statements):
    done = host.run(["psql", "-qX", "-v", "ON_ERROR_STOP=1", "-h", "127.0.0.1", "-U", account.name, "-w", account.name],
                    input=statements, env={"PGPASSWORD": account.password}, timeout=300)
    assert (done.code, done.err) == (0, "")


def status(host):
    reply = host.request("backup.status")
    assert reply["ok"] is True
    return reply


def back_up(host):
    """A run on demand, to its end; returns its entry in the status."""
    known = {entry["name"] for entry in status(host)["backups"]}
    assert host.request("backup.start") == {"ok": True}
    found = lambda: [entry for entry in status(host)["backups"] if entry["name"] not in known]
    entry = host.wait_for(found, "a new backup", 300)[0]
    host.wait_for(lambda: not status(host)["running"], "the end of the run", 60)
    return entry


def restore(host, account, what, backup):
    return host.request("backup.restore", username=account.name, backup=backup, what=what, timeout=600)


def restored_tree(host, account, backup):
    return tree(host, f"{account.home}/restored-{backup}")


@pytest.fixture(scope="module")
def first(boot):
    host = boot()
    yield host
    host.stop()


@pytest.fixture(scope="module")
def saved(first):
    host = first
    site, many, data = host.account(), host.account(), host.account()
    host.ok(["sh", "-c", SITE], user=site.name, env={"HOME": site.home})
    host.ok(["python3", "-c", MANY_FILES], user=many.name, env={"USER": many.name}, timeout=300)
    fill_database(host, data, DATABASE)
    for part in ("challenges/a.example/acme", "staging/a.example/job.json", "tmp/account", "domains/challenges/md.json"):
        host.put(f"/{STORE}/{part}", "{}\n")

    # Held before its first step, so that the status has a run to see.
    host.put(HOLD_RUN, "[Service]\nExecStartPre=/bin/sh -c 'until [ -e /run/go ]; do sleep 0.05; done'\n")
    host.ok(["systemctl", "daemon-reload"])
    assert host.request("backup.start") == {"ok": True}
    host.wait_for(lambda: status(host)["running"], "the run being seen")
    assert host.request("backup.start") == {"ok": True}  # joins the run that goes on
    assert status(host)["backups"] == []
    host.put("/run/go", "")
    entry = host.wait_for(lambda: status(host)["backups"], "the backup", 300)[0]
    host.wait_for(lambda: not status(host)["running"], "the end of the run", 60)
    host.wait_for(lambda: host.exists(f"{DESTINATION}/{entry['name']}/accounts.state"), "what no archive holds, behind the run")
    entry = status(host)["backups"][0]
    host.ok(["rm", HOLD_RUN])
    host.ok(["systemctl", "daemon-reload"])
    trees = {account.name: tree(host, account.home) for account in (site, many, data)}
    return Saved(site, many, data, entry["name"], entry, trees, dump(host, data.name))


@pytest.fixture(scope="module")
def second(first, saved, boot):
    """A host that has never seen the accounts: made anew there, other user ids, and the backups copied over."""
    other = boot()
    other.ok(["useradd", "--create-home", "earlier"])
    give_backups(first, other)
    names = [saved.site.name, saved.many.name, saved.data.name]
    accounts = {}
    while len(accounts) < len(names):
        account = other.account()
        accounts[account.name] = account
    assert sorted(accounts) == sorted(names)
    assert other.ok(["id", "-u", names[0]]) != first.ok(["id", "-u", names[0]])
    yield other, accounts
    other.stop()


def give_backups(giver, taker):
    pack = giver.background(["tar", "-C", "/", "-cf", "-", DESTINATION[1:]], stdout=subprocess.PIPE)
    unpack = taker.background(["tar", "-C", "/", "-xpf", "-"], stdin=pack.stdout)
    pack.stdout.close()
    assert (unpack.wait(300), pack.wait(60)) == (0, 0)


@pytest.mark.core
def test_run_without_problems_on_a_fresh_server(first, saved):
    """The panel's own database is there too."""
    entry = saved.entry
    assert entry["errors"] == []
    assert [account["username"] for account in entry["accounts"]] == [saved.site.name, saved.many.name, saved.data.name]
    assert [account["domain"] for account in entry["accounts"]] == [saved.site.domain, saved.many.domain, saved.data.domain]
    assert entry["panelBytes"] > 0 and all(min(item["homeBytes"], item["dbBytes"]) > 0 for item in entry["accounts"])
    files = first.ok(["find", f"{DESTINATION}/{saved.name}", "-type", "f", "-printf", "%s %m %u:%g\\n"]).split("\n")[:-1]
    assert sum(int(line.split()[0]) for line in files) == entry["bytes"]
    assert {line.split(maxsplit=1)[1] for line in files} == {"600 root:root"}
    assert first.mode(DESTINATION) == "700 root root"
    assert first.ok(["pg_restore", "-l", f"{DESTINATION}/{saved.name}/panel.dump"]).count("dbname: corvane") == 1


@pytest.mark.core
def test_status_after_the_run(first, saved):
    reply = status(first)
    lines = reply["log"].splitlines()
    began = lines.index(f"backup {saved.name} -> {DESTINATION}")
    accounts = [f"  account {account.name}" for account in (saved.site, saved.many, saved.data)]
    assert lines[began + 1 : began + 4] == accounts
    assert re.fullmatch(r"done in \d+ s, \d+ MB, 0 problem\(s\)", lines[began + 4])
    assert re.match(r"[A-Z][a-z]{2} \d{4}-\d\d-\d\d 0[34]:\d\d:\d\d ", reply["next"])
    space = first.ok(["stat", "-f", "-c", "%a %b %S", DESTINATION]).split()
    assert reply["totalBytes"] == int(space[1]) * int(space[2])
    assert 0 < reply["freeBytes"] <= reply["totalBytes"]


@pytest.mark.core
def test_settings_of_the_panel_and_the_accounts_are_saved(first, saved):
    members = first.ok(["tar", "-tzf", f"{DESTINATION}/{saved.name}/config.tar.gz"]).splitlines()
    assert "etc/corvane/corvane.ini" in members
    for account in (saved.site, saved.many, saved.data):
        assert f"etc/apache2/sites-available/corv-{account.name}.conf" in members
        assert f"etc/php/{account.php}/fpm/pool.d/corv-{account.name}.conf" in members
    # Certificates, and nothing that comes and goes while Apache gets one: it would be gone before it is read.
    assert f"{STORE}/domains/challenges/md.json" in members
    assert not [name for name in members for part in ("challenges", "staging", "tmp") if name.startswith(f"{STORE}/{part}")]


@pytest.mark.core
@pytest.mark.parametrize("which", ["site", "many"])
def test_files_on_the_same_host(first, saved, which):
    account = getattr(saved, which)
    assert restore(first, account, "files", saved.name) == {
        "ok": True,
        "restoredTo": f"{account.home}/restored-{saved.name}",
    }
    assert restored_tree(first, account, saved.name) == as_restored(saved.trees[account.name], account.name)
    again = restore(first, account, "files", saved.name)
    assert again == {"ok": False, "error": f"restored-{saved.name} exists already in the home folder"}


@pytest.mark.core
def test_database_on_the_same_host_with_clients_connected(first, saved):
    host, account = first, saved.data
    fill_database(host, account, "DROP VIEW good_people; DELETE FROM pictures; SELECT lo_unlink(picture) FROM pictures;"
                                 "CREATE TABLE later (x int); UPDATE people SET name = name || '!';")
    assert dump(host, account.name) != saved.dump
    clients = [
        host.background(["env", f"PGPASSWORD={account.password}", "psql", "-qX", "-h", "127.0.0.1", "-U", account.name, "-w",
                         account.name, "-c", "BEGIN; LOCK TABLE people IN ACCESS EXCLUSIVE MODE; SELECT pg_sleep(3600)"],
                        stderr=subprocess.PIPE),
        host.background(["runuser", "-u", "postgres", "--", "psql", "-qX", account.name, "-c", "SELECT pg_sleep(3600)"],
                        stderr=subprocess.PIPE),
    ]
    count = f"SELECT count(*) FROM pg_stat_activity WHERE datname = '{account.name}'"
    host.wait_for(lambda: host.sql(count).out == "2\n", "the clients being connected")

    assert restore(host, account, "database", saved.name) == {"ok": True}

    for client in clients:
        assert b"terminating connection due to administrator command" in client.communicate(timeout=60)[1]
    assert dump(host, account.name) == saved.dump
    left = host.sql("SELECT datname FROM pg_database WHERE datname LIKE '%\\_\\_%'").out
    assert left == ""
    assert host.sql("SELECT count(*) FROM people", database=account.name, role=account.name,
                    password=account.password).out == "100000\n"
    stranger = saved.many
    refused = host.sql("SELECT 1", database=account.name, role=stranger.name, password=stranger.password)
    assert refused.code != 0 and "permission denied for database" in refused.err


@pytest.mark.parametrize("which", ["site", "many"])
def test_files_on_another_host(second, saved, which):
    host, accounts = second
    account = accounts[getattr(saved, which).name]
    assert [entry["name"] for entry in status(host)["backups"]][-1] == saved.name
    assert restore(host, account, "files", saved.name)["ok"] is True
    assert restored_tree(host, account, saved.name) == as_restored(saved.trees[account.name], account.name)


def test_site_works_again_once_its_files_are_in_place(second, saved):
    host, accounts = second
    account = accounts[saved.site.name]
    source = f"{account.home}/restored-{saved.name}"
    if not host.exists(source):
        assert restore(host, account, "files", saved.name)["ok"] is True
    host.ok(["sh", "-c", 'cp -dR --preserve=mode,timestamps "$1/restored-$2/public_html/." "$1/public_html/"', "sh",
             account.home, saved.name], user=account.name)
    assert host.fetch(account.domain, "/index.php").body == "restored site"


def test_database_on_another_host(second, saved):
    host, accounts = second
    account = accounts[saved.data.name]
    assert restore(host, account, "database", saved.name) == {"ok": True}
    assert dump(host, account.name) == saved.dump
    assert host.sql("SELECT person(77), count(*) FROM good_people", database=account.name, role=account.name,
                    password=account.password).out == "Person 77|50000\n"


def test_retention_by_the_real_unit(first, saved):
    host = first
    host.ok(["mkdir", "-p", f"{DESTINATION}/2001-01-01_000000/accounts", f"{DESTINATION}/.partial-2001-01-01_000000"])
    host.ok(["touch", "-d", "2001-01-01", f"{DESTINATION}/.partial-2001-01-01_000000"])
    host.ok(["ln", "-s", "/etc", f"{DESTINATION}/2001-01-02_000000"])
    entry = back_up(host)
    lines = status(host)["log"].splitlines()
    began = lines.index(f"backup {entry['name']} -> {DESTINATION}")
    assert sorted(line for line in lines[began:] if "removing" in line) == [
        "  removing old .partial-2001-01-01_000000",
        "  removing old 2001-01-01_000000",
    ]
    assert host.exists(f"{DESTINATION}/2001-01-02_000000") and host.exists("/etc/passwd")
    host.ok(["rm", f"{DESTINATION}/2001-01-02_000000"])


@pytest.mark.core
def test_run_with_a_problem_shows_in_unit_and_status(first, saved):
    host = first
    host.ok(["useradd", "--no-create-home", "--comment", "Corvane account,gone.example", "goneuser"])
    try:
        entry = back_up(host)
    finally:
        host.ok(["userdel", "goneuser"])
    assert len(entry["errors"]) == 2
    assert entry["errors"][0].startswith("goneuser files: tar failed: ")
    assert "tar: goneuser: Cannot stat: No such file or directory\n" in entry["errors"][0]
    assert entry["errors"][1].startswith("goneuser database: runuser failed: pg_dump: error: ")
    assert host.ok(["systemctl", "show", "-p", "Result", "--value", UNIT]) == "exit-code\n"
    host.ok(["systemctl", "reset-failed", UNIT])


@pytest.mark.core
def test_what_pg_restore_complains_of_stands_in_the_database_server_s_log(first, saved):
    """The dump grants something to a role that is no more: the rest is brought back, and the reply says nothing of it."""
    host = first
    account = host.account()
    host.sql("CREATE ROLE reporter")
    fill_database(host, account, "CREATE TABLE kept AS SELECT 1 AS x; GRANT SELECT ON kept TO reporter;")
    name = back_up(host)["name"]
    fill_database(host, account, "REVOKE ALL ON kept FROM reporter; DROP TABLE kept;")
    host.sql("DROP ROLE reporter")

    assert restore(host, account, "database", name) == {"ok": True}

    assert host.sql("SELECT x FROM kept", database=account.name, role=account.name, password=account.password).out == "1\n"
    log = host.ok(["sh", "-c", "cat /var/log/postgresql/postgresql-*-main.log"])
    assert f'{account.name}@{account.name}__restore ERROR:  role "reporter" does not exist' in log
