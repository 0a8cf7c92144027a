"""hosting.usage."""

import os

import pytest

FIND_HOME = ["findmnt", "-n", "-o", "TARGET,FSTYPE", "-T", "/home"]
QUOTAON = ["quotaon", "-p", "-u", "/"]
REPQUOTA = ["repquota", "-u", "-n", "/"]


def du(*homes):
    return ["du", "-sb", *homes]


@pytest.fixture
def host(sandbox):
    sandbox.answer("findmnt", out="/ ext4\n")
    return sandbox


def usage(sandbox, **args):
    return sandbox.request("hosting.usage", **args)


def add_line(sandbox, line):
    with sandbox.path("/etc/passwd").open("ab") as file:
        file.write(line if isinstance(line, bytes) else line.encode())


def test_measures_every_account_in_the_databases_order(host):
    for name in ("carol", "alice", "bob"):
        host.add_account(name, f"{name}.example")
        host.write(f"/home/{name}/public_html/data", "x" * 1000 * len(name), owner=f"{name}:{name}")
    sizes = {name: int(host.run("du", "-sb", f"/home/{name}")[1].split()[0]) for name in ("alice", "bob", "carol")}
    assert usage(host, username="nobody reads this") == {"ok": True, "usage": sizes}
    assert host.argvs() == [FIND_HOME, QUOTAON, du("/home/carol", "/home/alice", "/home/bob")]


def test_runs_nothing_without_accounts(host):
    host.add_user("dave", "David")
    assert usage(host) == {"ok": True, "usage": {}}
    assert host.argvs() == [FIND_HOME, QUOTAON]


def test_reads_a_user_database_that_was_replaced_meanwhile(host):
    """useradd and its kin put a new file in the place of the old one."""
    host.add_account("alice")
    host.answer("du", out="7\t/home/alice\n8\t/home/bob\n")
    assert usage(host) == {"ok": True, "usage": {"alice": 7, "bob": 8}}
    assert host.argvs("du") == [du("/home/alice")]
    host.write("/etc/passwd.new", host.read("/etc/passwd") + "bob:x:2000:2000:Corvane account,bob.example:/home/bob:/bin/sh\n")
    host.path("/etc/passwd.new").rename(host.path("/etc/passwd"))
    usage(host)
    assert host.argvs("du")[1:] == [du("/home/alice", "/home/bob")]


@pytest.mark.parametrize("comment, measured", [
    ("Corvane account", True),
    ("Corvane account,example.org,more", True),
    ("Corvane accounts", True),
    ("corvane account,example.org", False),
    (" Corvane account,example.org", False),
    ("David,Corvane account", False),
])
def test_the_marker_alone_tells_who_is_measured(host, comment, measured):
    host.add_user("dave", comment)
    host.answer("du", out="7\t/home/dave\n")
    assert usage(host) == {"ok": True, "usage": {"dave": 7} if measured else {}}


def test_measures_whatever_name_has_the_marker(host):
    host.add_user("Dave_2", "Corvane account,example.org")
    host.answer("du", out="7\t/home/Dave_2\n")
    assert usage(host) == {"ok": True, "usage": {"Dave_2": 7}}


def test_homes_are_where_the_database_says(host):
    add_line(host, "erin:x:2000:100:Corvane account,erin.example:/srv/web/erins:/bin/bash\n")
    host.write("/srv/web/erins/data", "x" * 5000)
    size = int(host.run("du", "-sb", "/srv/web/erins")[1].split()[0])
    assert usage(host) == {"ok": True, "usage": {"erins": size}}
    assert host.argvs("du") == [du("/srv/web/erins")]


def test_a_missing_home_hides_no_other(host):
    host.add_account("alice")
    host.add_user("bob", "Corvane account,bob.example", home=False)
    host.add_account("carol")
    reply = usage(host)
    assert reply["ok"] is True and set(reply["usage"]) == {"alice", "carol"}
    assert host.argvs("du") == [du("/home/alice", "/home/bob", "/home/carol")]


@pytest.mark.parametrize("output, sizes", [
    ("", {}),
    ("100\t/home/alice\n200\t/srv/alice\n", {"alice": 200}),
    ("100\t/home/alice\n5\t/home/b\tc\nnoise\n\n6\n", {"alice": 100}),
    ("much\t/home/alice\n", {"alice": 0}),
    ("9007199254740993\t/home/alice\n", {"alice": 9007199254740993}),
    ("100\t/home/alice", {"alice": 100}),
])
@pytest.mark.parametrize("errors", ["", "du: cannot access\n"])
def test_takes_what_du_wrote_whether_it_failed_or_not(host, output, sizes, errors):
    host.add_account("alice")
    host.answer("du", out=output, err=errors, exit=1)
    assert usage(host) == {"ok": True, "usage": sizes}


def test_measures_nothing_without_du(host):
    host.add_account("alice")
    host.remove_standin("du")
    assert usage(host) == {"ok": True, "usage": {}}


def test_measures_nothing_when_du_takes_too_long(impatient, host):
    host.add_account("alice")
    host.answer("du", out="100\t/home/alice\n", hang=True)
    assert usage(host) == {"ok": True, "usage": {}}


def test_measures_no_more_than_the_home(host):
    host.add_account("alice")
    before = usage(host)["usage"]["alice"]
    host.write("/srv/other/file", "x" * 100000)
    host.symlink("/home/alice/link", "/srv/other")
    os.mkfifo(host.path("/home/alice/pipe"))
    assert before <= usage(host)["usage"]["alice"] < before + 50000


def test_asks_the_quotas_where_they_are_on(host):
    number = host.add_account("alice")
    host.answer("quotaon", out="user quota on / (/dev/vda1) is on\n", exit=1)
    host.answer("repquota", out=f"#{number} -- 12 0 0 3 0 0\n#0 -- 500 0 0 9 0 0\n")
    assert usage(host) == {"ok": True, "usage": {"alice": 12288}}
    assert host.argvs() == [FIND_HOME, QUOTAON, FIND_HOME, REPQUOTA]


@pytest.mark.parametrize("errors, detail", [("", "exit code 1"), ("no quota\n", "no quota")])
def test_tells_how_the_quotas_fail(host, errors, detail):
    host.add_account("alice")
    host.answer("quotaon", out="is on")
    host.answer("repquota", err=errors, exit=1)
    assert usage(host) == {"ok": False, "error": "repquota failed: " + detail}


@pytest.mark.parametrize("tool", ["findmnt", "quotaon"])
def test_without_the_quota_tools_du_measures(host, tool):
    host.add_account("alice")
    host.remove_standin(tool)
    host.answer("du", out="7\t/home/alice\n")
    assert usage(host) == {"ok": True, "usage": {"alice": 7}}
