"""A Debian 12 server with accounts is upgraded in place to 13, out of Debian's own archive, while visitors come: some three minutes."""

import json
import os
import re
import subprocess
import threading
import time
from contextlib import contextmanager

import pytest
from booted import SUITE
from hostfloor import ADDRESS, OUTSIDE, ROOT, _die_with_parent

LIMIT = 3600

UPGRADE = {"DEBIAN_FRONTEND": "noninteractive", "APT_LISTCHANGES_FRONTEND": "none", "NEEDRESTART_MODE": "a"}
KEEP_SETTINGS = ["-o", "Dpkg::Options::=--force-confold", "-o", "Dpkg::Options::=--force-unsafe-io"]
# A page that is nothing without the account's database.
PAGE = """<?php
$rows = pg_query(pg_connect("host=localhost dbname=%(name)s user=%(name)s password=%(password)s"), 'SELECT sum(n) FROM numbers');
echo get_current_user(), ' has ', pg_fetch_result($rows, 0, 0);
"""
# Asks for the first page of these sites ten times a second, and tells of each whose answer has changed: when, which, how.
POLL = """
import http.client, sys, time
last = {}
while True:
    for name in sys.argv[2:]:
        try:
            connection = http.client.HTTPConnection(sys.argv[1], timeout=10)
            connection.request("GET", "/index.php", headers={"Host": name})
            answer = connection.getresponse().status
        except OSError as error:
            answer = type(error).__name__
        if last.get(name) != answer:
            print(time.time(), name, answer, flush=True)
            last[name] = answer
    time.sleep(0.1)
"""


def mirrors():
    """The archives that this machine's own apt uses, by what their indexes say of themselves."""
    done = subprocess.run(["apt-get", "indextargets", "--format", "$(LABEL) $(REPO_URI)", "Created-By: Packages"],
                          capture_output=True, text=True, check=True)
    found = dict(line.split(" ", 1) for line in done.stdout.splitlines())
    return found["Debian"].rstrip("/"), found["Debian-Security"].rstrip("/")


@contextmanager
def reaching_mirrors(host, addresses):
    """A block in which the host reaches these archives, and nothing else of the world."""
    names = {re.fullmatch(r"http://([a-z0-9.-]+)/.*", address)[1] for address in addresses}
    assert len(names) == 1, f"one server for all, by plain HTTP: {names}"
    name = names.pop()
    # This test is in the machine's own network.
    way = subprocess.Popen([*host._visiting(), "/usr/bin/python3", ROOT / "tests/host/forward.py", OUTSIDE, "80",
                            str(os.getpid()), name],
                           stdout=subprocess.PIPE, preexec_fn=_die_with_parent)
    try:
        assert way.stdout.read(1) == b"."
        host.ok(["sh", "-c", 'echo "$1 $2" >>/etc/hosts', "sh", OUTSIDE, name])
        yield
    finally:
        way.kill()
        way.wait()


@contextmanager
def watching(host, accounts):
    """A block in which the sites are visited; gives the changes, as POLL tells of them."""
    changes = []
    process = subprocess.Popen([*host._visiting(), "/usr/bin/python3", "-c", POLL, ADDRESS, *(a.domain for a in accounts)],
                               stdout=subprocess.PIPE, text=True)
    reader = threading.Thread(target=lambda: changes.extend(line.split() for line in process.stdout))
    reader.start()
    try:
        yield changes
    finally:
        process.kill()
        process.wait()
        reader.join()


def make_account(host):
    account = host.account()
    host.put(f"{account.home}/public_html/index.php", PAGE % vars(account), owner=account.name)
    host.put(f"{account.home}/public_html/plain.txt", account.name, owner=account.name)
    made = host.sql("CREATE TABLE numbers AS SELECT generate_series(1, 4) AS n", database=account.name, role=account.name,
                    password=account.password)
    assert made.code == 0, made.err
    return account


def seen(host, account):
    """What visitors get of a site."""
    return [(answer.status, answer.body) for answer in (host.fetch(account.domain, path) for path in ("/index.php", "/plain.txt"))]


def findings(host, level):
    report = json.loads(host.run(["corvctl", "--json", "doctor"]).out)
    return [finding for check in report["checks"] for finding in check["findings"] if finding["level"] == level]


def seconds_without(changes, domain):
    """For how long in all the pages of a site were not what they are."""
    total, since = 0, None
    for when, name, answer in changes:
        if name == domain and answer != "200":
            since = since or float(when)
        elif name == domain and since:
            total, since = total + float(when) - since, None
    assert since is None, "it fails still"
    return total


@pytest.mark.skipif("not config.getoption('--long')", reason="takes minutes and Debian's archive: --long")
@pytest.mark.skipif(SUITE != "bookworm", reason="begins on Debian 12")
def test_sites_are_the_same_after_an_upgrade_of_debian(boot):
    host = boot()
    accounts = [make_account(host) for _ in range(3)]
    suspended = accounts[2]
    old = suspended.php
    assert host.request("hosting.suspend", username=suspended.name) == {"ok": True}
    host.wait_for(lambda: seen(host, suspended)[0][0] == 503, "the suspension")
    host.ok(["corvctl", "backup", "start", "--wait"], timeout=300)
    assert findings(host, "fault") == []
    before = {account.name: seen(host, account) for account in accounts}
    assert before[accounts[0].name] == [(200, f"{accounts[0].name} has 10"), (200, accounts[0].name)]
    listed = host.request("hosting.list")

    debian, security = mirrors()
    host.put("/etc/apt/sources.list", f"deb {debian} trixie main\ndeb {debian} trixie-updates main\n"
                                      f"deb {security} trixie-security main\n")
    mark = host.mark()
    with reaching_mirrors(host, (debian, security)), watching(host, accounts[:2]) as changes:
        began = time.monotonic()
        host.ok(["apt-get", "-q", "update"], env=UPGRADE, timeout=LIMIT)
        host.ok(["sh", "-c", 'apt-get -q -y "$@" full-upgrade >/root/upgrade.log 2>&1', "sh", *KEEP_SETTINGS], env=UPGRADE,
                timeout=LIMIT)
        took = time.monotonic() - began
        new = host.ok(["sh", "-c", "ls /etc/php | sort -V | tail -n 1"]).strip()
        assert new != old
        for account in accounts[:2]:
            host.wait_for(lambda account=account: seen(host, account) == before[account.name], "the site", timeout=60)
    print(f"upgraded in {took:.0f} s; without PHP for", *(f"{seconds_without(changes, a.domain):.1f} s" for a in accounts[:2]))
    print(*(f"{float(when) - float(changes[0][0]):7.1f} {name} {answer}" for when, name, answer in changes), sep="\n")

    assert not host.exists(f"/usr/sbin/php-fpm{old}")
    assert f"moving 3 accounts from PHP {old} to {new}" in host.journal("corv-php", mark)
    status = json.loads(host.ok(["corvctl", "--json", "php", "status"]))
    assert status["next"] == ""
    assert {account.name: seen(host, account) for account in accounts} == before
    assert host.request("hosting.list") == listed

    # The databases are where they were.
    clusters = host.ok(["pg_lsclusters", "-h"])
    assert re.search(r"^15 +main +5432 +online ", clusters, re.MULTILINE)
    assert findings(host, "fault") == []
    told = "the databases are with PostgreSQL 15, and PostgreSQL 17 is installed beside it"
    assert told in [finding["problem"] for finding in findings(host, "note")]

    # What comes after is as on any server.
    assert host.request("hosting.resume", username=suspended.name) == {"ok": True}
    host.wait_for(lambda: seen(host, suspended)[0] == (200, f"{suspended.name} has 10"), "the resumed site")
    fresh = make_account(host)
    assert fresh.php == new
    host.wait_for(lambda: seen(host, fresh)[0] == (200, f"{fresh.name} has 10"), "the new site")
    assert host.request("hosting.delete", username=fresh.name, confirm=fresh.name)["ok"] is True

    # The databases go on to the new version as the page says.
    if re.search(r"^17 +main ", clusters, re.MULTILINE):
        host.ok(["pg_dropcluster", "--stop", "17", "main"])
    host.ok(["pg_upgradecluster", "15", "main"], timeout=600)
    host.wait_for(lambda: seen(host, accounts[0]) == before[accounts[0].name], "the site with its database", timeout=60)
    assert host.sql("SHOW server_version").out.startswith("17.")
    # What a new cluster lets every role do is taken away by the commands that the doctor names.
    for finding in findings(host, "fault"):
        host.ok(["sh", "-c", finding["mend"]])
    host.ok(["corvctl", "backup", "start", "--wait"], timeout=300)
    host.ok(["pg_dropcluster", "15", "main"])
    assert findings(host, "fault") == []
    assert told not in [finding["problem"] for finding in findings(host, "note")]
    assert seen(host, accounts[0]) == before[accounts[0].name]
