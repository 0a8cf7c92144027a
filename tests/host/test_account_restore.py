"""An account that is gone is back with one command: from the archives of its deletion, from a backup, from an export."""

import json
import signal
import subprocess

import pytest
from shops import LOGIN_HASH, archives, everything, make_shop, page, restore

LIMIT = 600
AUTO = "/var/backups/corvane/auto"
DELETIONS = "/var/backups/corvane"
RESTORES = "/var/lib/corvane/restores"


@pytest.fixture
def shop(host):
    account = make_shop(host)
    assert page(host, account) == (200, "2000 orders, \n")
    yield account
    host.run(["sh", "-c", f"rm -rf {DELETIONS}/{account.name}-* {RESTORES}/* /root/saved"])


def delete(host, account):
    host.ok(["corvctl", "account", "delete", account.name, "--confirm", account.name])
    return archives(host, account)


def is_as_it_was(host, account, before):
    assert everything(host, account.name) == before
    assert page(host, account) == (200, "2000 orders, \n")
    assert page(host, account, "/order/7") == (200, "2000 orders, open\n")
    # Nothing of the work is left.
    assert host.run(["ls", "-A", RESTORES]).out == ""
    assert "0000" not in host.run(["ls", "-A", AUTO]).out


def test_a_deleted_account_is_back_with_one_command(host, shop):
    before = everything(host, shop.name)
    base = delete(host, shop)
    assert host.mode(f"{DELETIONS}/{base}-accounts.state") == "600 root root"
    mark = host.mark()
    reply = restore(host, shop, "--from", base)
    assert reply == {"ok": True, "account": shop.name, "domain": shop.domain, "from": base, "entries": reply["entries"],
                     "tables": 2, "lost": [], "seen": f"http://{shop.domain}/ answers: status 200", "seconds": reply["seconds"]}
    is_as_it_was(host, shop, before)
    # The application's own password opens the database, and no hash is in a log.
    assert host.sql("SELECT 1", database=shop.name, role=shop.name, password=shop.password).out == "1\n"
    assert "SCRAM-SHA-256" not in host.journal(since=mark) and LOGIN_HASH not in host.journal(since=mark)
    assert host.run(["grep", "-rl", "SCRAM-SHA-256", "/var/log"]).out == ""


def test_the_states_are_listed_without_what_is_in_them(host, shop):
    host.ok(["corvctl", "account", "state", "--write"])
    shown = json.loads(host.ok(["corvctl", "--json", "account", "state"]))
    assert [account.keys() for account in shown["accounts"] if account["username"] == shop.name] == [{"username", "taken"}]
    assert host.mode("/var/lib/corvane/accounts.state") == "600 root root"
    assert "SCRAM" not in host.ok(["corvctl", "account", "state"])


def test_one_that_the_panel_deleted_is_back_too(host, shop):
    before = everything(host, shop.name)
    assert host.request("hosting.delete", username=shop.name, confirm=shop.name)["ok"] is True
    base = archives(host, shop)
    host.wait_for(lambda: host.exists(f"{DELETIONS}/{base}-accounts.state"), "the state beside the archives")
    restore(host, shop, "--from", base)
    is_as_it_was(host, shop, before)


@pytest.mark.each
def test_one_is_back_from_a_backup(host, shop):
    before = everything(host, shop.name)
    host.ok(["corvctl", "backup", "start", "--wait"])
    backup = host.request("backup.status")["backups"][0]["name"]
    assert host.mode(f"{AUTO}/{backup}/accounts.state") == "600 root root"
    assert host.sql("INSERT INTO public.orders (what) VALUES ('later')", database=shop.name).code == 0
    base = delete(host, shop)
    listed = json.loads(host.ok(["corvctl", "--json", "account", "restore", shop.name]))
    assert [(source["from"], source["kind"], source["state"]) for source in listed["sources"]] == [
        (base, "deletion", True), (backup, "backup", True)]
    restore(host, shop, "--from", backup)
    is_as_it_was(host, shop, before)
    host.run(["rm", "-rf", f"{AUTO}/{backup}"])


def test_a_suspended_one_is_back_suspended(host, shop):
    before = everything(host, shop.name)
    assert host.request("hosting.suspend", username=shop.name) == {"ok": True}
    base = delete(host, shop)
    reply = restore(host, shop, "--from", base)
    assert reply["seen"] == (f"http://{shop.domain}/ answers: 503 Service Unavailable, "
                             "since the account is suspended as it was")
    assert host.fetch(shop.domain).status == 503
    assert host.sql(f"SELECT rolcanlogin FROM pg_roles WHERE rolname = '{shop.name}'").out == "f\n"
    assert host.request("hosting.resume", username=shop.name) == {"ok": True}
    host.wait_for(lambda: page(host, shop)[0] == 200, "the site being served again")
    is_as_it_was(host, shop, before)


def jobs(host, account):
    """When the account's jobs of at run, and what they do."""
    listed = sorted(host.ok(["atq"], user=account.name).splitlines())
    bodies = [host.ok(["at", "-c", line.split()[0]], user=account.name).rstrip().splitlines()[-1] for line in listed]
    return [" ".join(line.split()[1:6]) for line in listed], bodies


def test_jobs_for_once_and_services_without_a_login_come_back(host, shop):
    host.ok(["apt-get", "install", "-yq", "at"], env={"DEBIAN_FRONTEND": "noninteractive"})
    host.ok(["at", "now + 2 days"], input="echo later >>ran\n", user=shop.name)
    host.ok(["at", "-q", "m", "now + 9 days"], input="echo 'later $HOME' still\n", user=shop.name)
    host.ok(["loginctl", "enable-linger", shop.name])
    before, kept = everything(host, shop.name), jobs(host, shop)
    assert kept[1] == ["echo later >>ran", "echo 'later $HOME' still"]
    base = delete(host, shop)
    assert not host.exists(f"/var/lib/systemd/linger/{shop.name}")
    assert host.ok(["atq"]) == ""
    restore(host, shop, "--from", base)
    is_as_it_was(host, shop, before)
    assert jobs(host, shop) == kept
    assert host.exists(f"/var/lib/systemd/linger/{shop.name}")


def test_an_export_is_taken_under_another_name_beside_the_live_one(host, shop):
    before = everything(host, shop.name)
    host.ok(["corvctl", "account", "export", shop.name, "/root/saved"])
    assert host.ok(["find", "/root/saved", "-type", "f", "!", "-perm", "600"]) == ""
    assert host.run(["corvctl", "account", "export", shop.name, "/root/saved"]).err == (
        f"corvctl: {shop.name} is not saved: /root/saved cannot be made: File exists\n")
    other = host.free_name()
    reply = restore(host, shop, "--from", "/root/saved", "--as", other, "--domain", f"{other}.example", confirm=other)
    assert (reply["account"], reply["lost"], reply["tables"]) == (other, [], 2)
    # The page still asks for the old name's database, with the old name's password.
    answer = host.fetch(f"{other}.example")
    assert (answer.status, answer.body) == (200, "2000 orders, \n")
    assert host.sql("SELECT count(*) FROM public.orders", database=other, role=other, password=shop.password).out == "2000\n"
    assert host.ok(["sh", "-c", f"find /home/{other} ! -user {other} -o ! -group {other} ! -group www-data"]) == ""
    is_as_it_was(host, shop, before)


@pytest.fixture
def unwatched(host):
    """Nobody puts a state beside archives that have none."""
    host.ok(["systemctl", "stop", "corv-state.path", "corv-state.service"])
    yield
    host.ok(["systemctl", "start", "corv-state.path"])


def test_without_a_state_it_has_a_new_password_and_says_what_is_lost(host, shop, unwatched):
    base = delete(host, shop)
    host.ok(["sh", "-c", f"rm {DELETIONS}/{base}-accounts.state"])
    done = host.run(["corvctl", "--json", "account", "restore", shop.name, "--from", base, "--confirm", shop.name])
    assert "nothing tells which domain" in done.err and done.code == 1
    done = host.run(["corvctl", "--json", "account", "restore", shop.name, "--from", base, "--domain", shop.domain, "--confirm",
                     shop.name])
    reply = json.loads(done.out)
    # The application has the old one.
    assert (done.code, reply["seen"]) == (1, f"http://{shop.domain}/ answers: 500 Internal Server Error")
    assert host.sql("SELECT 1", database=shop.name, role=shop.name, password=reply["dbPassword"]).out == "1\n"
    assert host.run(["crontab", "-l", "-u", shop.name]).out == ""


@pytest.mark.parametrize("harm, message", [
    ("truncate -s 30000 {0}-home.tar.gz", "{0}-home.tar.gz"),
    ("printf x | dd of={0}-db.dump bs=1 seek=9000 conv=notrunc status=none; truncate -s -9 {0}-db.dump", "{0}-db.dump"),
    ("chown nobody {0}-home.tar.gz", "{0}-home.tar.gz could have been written by others than root"),
    ("chmod 666 {0}-accounts.state", "{0}-accounts.state could have been written by others than root"),
])
def test_nothing_is_made_of_what_is_damaged_or_not_roots(host, shop, harm, message):
    base = f"{DELETIONS}/{delete(host, shop)}"
    host.ok(["sh", "-c", harm.format(base)])
    done = host.run(["corvctl", "account", "restore", shop.name, "--from", base, "--confirm", shop.name])
    assert done.code == 1 and message.format(base) in done.err, done.err
    assert host.run(["id", shop.name]).code == 1 and not host.exists(shop.home)
    assert host.run(["ls", "-A", RESTORES]).out == ""


HOSTILE = r"""
import io, sys, tarfile
name, path, more = sys.argv[1:4]
with tarfile.open(path, "w:gz", format=tarfile.GNU_FORMAT) as tar:
    def add(member, data=b"evil", kind=tarfile.REGTYPE, link="", mode=0o644, owner="root", group="root"):
        info = tarfile.TarInfo(f"{name}/{member}")
        info.type, info.linkname, info.mode, info.uname, info.gname, info.size = kind, link, mode, owner, group, 0
        if kind == tarfile.CHRTYPE:
            info.devmajor, info.devminor = 1, 3
        if kind == tarfile.REGTYPE:
            info.size = len(data)
        tar.addfile(info, io.BytesIO(data))
    add("", kind=tarfile.DIRTYPE, mode=0o6777)
    add("public_html/", kind=tarfile.DIRTYPE, mode=0o7777, group="www-data")
    add("public_html/index.html", b"page", group="www-data")
    add("suid", mode=0o6755)
    add("groups", mode=0o2664, owner="postgres", group="shadow")
    add("out", kind=tarfile.SYMTYPE, link="/etc/cron.d")
    add("a -> b", kind=tarfile.SYMTYPE, link="x")
    add("c link to d", b"first")
    add("second link to e", kind=tarfile.LNKTYPE, link=f"{name}/c link to d")
    add("\x1b[31mred\n", b"")
    if more == "through a link":
        add("out/evil", b"* * * * * root id >/evil\n")
    elif more == "above":
        add("../../etc/cron.d/evil", b"* * * * * root id >/evil\n")
    elif more == "device":
        add("null", kind=tarfile.CHRTYPE, mode=0o666)
    elif more == "hard link":
        add("shadow", kind=tarfile.LNKTYPE, link="/etc/shadow")
"""


def restored_from(host, shop, more):
    """What a restore says of an archive that the account's owner made, with one member more."""
    base = f"{DELETIONS}/{delete(host, shop)}"
    host.ok(["python3", "-c", HOSTILE, shop.name, f"{base}-home.tar.gz", more])
    shadow = host.mode("/etc/shadow")
    done = host.run(["corvctl", "account", "restore", shop.name, "--from", base, "--confirm", shop.name])
    assert host.mode("/etc/shadow") == shadow and not host.exists("/etc/cron.d/evil")
    assert host.ok(["sh", "-c", f"find {shop.home} -type f -perm /6000; find {shop.home} -type d -perm /4000; "
                                f"find {shop.home} -type c -o -type b"]) == ""
    assert host.ok(["sh", "-c", f"find {shop.home} ! -user {shop.name} -o ! -group {shop.name} ! -group www-data"]) == ""
    assert host.ok(["sh", "-c", f"ls -A {shop.home} | grep ^.corv- || :"]) == ""
    return done


def test_an_archive_that_its_owner_made_gives_him_nothing(host, shop):
    done = restored_from(host, shop, "nothing")
    assert done.code == 0, done.err
    assert host.mode(f"{shop.home}/suid") == f"755 {shop.name} {shop.name}"
    assert host.mode(f"{shop.home}/groups") == f"664 {shop.name} {shop.name}"
    assert host.ok(["readlink", f"{shop.home}/a -> b", f"{shop.home}/out"]) == "x\n/etc/cron.d\n"
    assert host.ok(["cat", f"{shop.home}/second link to e"]) == "first"


@pytest.mark.parametrize("more", ["through a link", "above", "device", "hard link"])
def test_an_archive_that_reaches_out_of_the_home_is_not_taken(host, shop, more):
    done = restored_from(host, shop, more)
    assert done.code == 1 and "tar: " in done.err, done.err


STEPS = ["reading the archives", "making the account", "loading the database", "putting back", "unpacking the files",
         "looking at the site"]


@pytest.mark.parametrize("number", [pytest.param(signal.SIGINT, marks=pytest.mark.long), signal.SIGKILL])
def test_a_restore_that_is_ended_at_any_step_can_be_done_again(host, shop, number):
    before = everything(host, shop.name)
    for step in STEPS:
        base = delete(host, shop)
        words = ["corvctl", "account", "restore", shop.name, "--from", base, "--confirm", shop.name]
        # Through a name of its own, since the host's process is no child of this one.
        with host.background(["sh", "-c", 'echo $$ >&2; exec "$@"', "sh", *words], stdout=subprocess.DEVNULL,
                             stderr=subprocess.PIPE, text=True) as process:
            inner = process.stderr.readline().strip()
            for line in process.stderr:
                if step in line:
                    break
            else:
                pytest.fail(f"{step} was not said")
            host.ok(["kill", f"-{int(number)}", inner])
            rest = process.stderr.read()
        if number == signal.SIGINT and process.returncode != 0:
            # Between two requests, before one has left, or after the agent has taken it.
            ends = ("it was interrupted", "was sent: it is not carried out", "the agent goes on with")
            assert process.returncode == 130 and any(end in rest for end in ends), rest
        if process.returncode != 0:
            restore(host, shop, "--from", base)
        is_as_it_was(host, shop, before)
        host.run(["sh", "-c", f"rm -f {DELETIONS}/{shop.name}-*"])


def test_what_was_changed_since_one_was_cut_off_is_kept(host, shop):
    base = delete(host, shop)
    words = ["corvctl", "account", "restore", shop.name, "--from", base, "--confirm", shop.name]
    with host.background(["sh", "-c", 'echo $$ >&2; exec "$@"', "sh", *words], stdout=subprocess.DEVNULL,
                         stderr=subprocess.PIPE, text=True) as process:
        inner = process.stderr.readline().strip()
        next(line for line in process.stderr if "loading the database" in line)
        host.ok(["kill", "-KILL", inner])
        process.stderr.read()
    host.ok(["sleep", "1.1"])  # times of files are told in seconds
    host.put(f"{shop.home}/public_html/by-hand", "mended", owner=f"{shop.name}:www-data")
    listed = host.run(["corvctl", "account", "restore", shop.name])
    assert f"corvctl account restore {shop.name} --from {base}" in listed.err
    reply = restore(host, shop, "--from", base)
    assert host.get(f"{shop.home}/{reply['aside']}/public_html/by-hand") == "mended"
    assert page(host, shop) == (200, "2000 orders, \n")


def test_one_beside_the_live_one_runs_no_jobs_where_that_is_asked_for(host, shop):
    host.ok(["corvctl", "account", "export", shop.name, "/root/saved"])
    other = host.free_name()
    reply = restore(host, shop, "--from", "/root/saved", "--as", other, "--domain", f"{other}.example", "--no-jobs", confirm=other)
    assert reply["leftOut"] == "crontab"
    assert host.run(["crontab", "-l", "-u", other]).out == ""
    assert not host.exists(f"/var/lib/systemd/linger/{other}")
    assert host.ok(["crontab", "-l", "-u", shop.name]) != ""


def test_one_that_is_there_is_not_touched(host, shop):
    host.ok(["corvctl", "account", "export", shop.name, "/root/saved"])
    before = everything(host, shop.name)
    done = host.run(["corvctl", "account", "restore", shop.name, "--from", "/root/saved", "--confirm", shop.name])
    assert (done.code, done.out, done.err) == (
        1, "", f"corvctl: there is a user {shop.name} on this server\n"
        "  --as NAME brings it back under another name; corvctl backup restore brings back files or a database\n")
    assert everything(host, shop.name) == before
