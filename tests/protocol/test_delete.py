"""hosting.delete: two copies first, then everything goes."""

import os
import re
import stat

import pytest

from sandbox import PSQL, runuser

FOLDER = "/var/backups/corvane"
SITE = "/etc/apache2/sites-available/corv-alice.conf"
POOL = "/etc/php/8.2/fpm/pool.d/corv-alice.conf"
DROP = """\
\\set u 'alice'
SELECT format('DROP DATABASE IF EXISTS %I WITH (FORCE)', :'u') \\gexec
SELECT format('DROP ROLE IF EXISTS %I', :'u') \\gexec
"""

FIND_HOME = ["findmnt", "-n", "-o", "TARGET,FSTYPE", "-T", "/home"]
QUOTAON = ["quotaon", "-p", "-u", "/"]
KILL = ["pkill", "-u", "alice"]
DISSITE = ["a2dissite", "-q", "corv-alice"]
CONFIGTEST = ["apache2ctl", "configtest"]
RELOAD_APACHE = ["systemctl", "reload", "apache2"]
RELOAD_PHP = ["systemctl", "reload", "php8.2-fpm"]
USERDEL = ["userdel", "--remove", "alice"]
DUMP = runuser("postgres", "pg_dump", "-Fc", "alice")


def tar(base):
    return ["tar", "-czf", base + "-home.tar.gz", "-C", "/home", "alice"]


def failure(message, base=None):
    reply = {"ok": False, "error": message}
    return {**reply, "archive": base + "-*"} if base else reply


def outcome(errors):
    """Two ways to fail, and what the runner makes of each."""
    return {"err": errors, "exit": 3}, errors.strip() or "exit code 3"


@pytest.fixture
def alice(sandbox):
    """An account with a site, a pool and a page, on a host that tells where /home lies and whose pg_dump writes."""
    sandbox.add_account("alice")
    sandbox.write("/home/alice/public_html/page", "text", owner="alice:www-data")
    sandbox.write(SITE, "site")
    sandbox.write(POOL, "pool")
    sandbox.answer("findmnt", out="/ ext4\n")
    sandbox.answer("pg_dump", out="the dump")
    return sandbox


def delete(sandbox, confirm="alice"):
    return sandbox.request("hosting.delete", username="alice", confirm=confirm)


def base_of(sandbox):
    """The archives' base name, from the one call of tar."""
    (call,) = sandbox.calls("tar")
    assert re.fullmatch(FOLDER + r"/alice-[0-9]{8}-[0-9]{6}-home\.tar\.gz", call.args[1])
    return call.args[1].removesuffix("-home.tar.gz")


def everything(base, *, quota=()):
    copies, lookup = [KILL, tar(base), DUMP], [FIND_HOME, QUOTAON]
    return [*copies, *lookup, *quota, DISSITE, CONFIGTEST, RELOAD_APACHE, RELOAD_PHP, PSQL, USERDEL]


def untouched(sandbox):
    """Whether the account is as it was."""
    return (sandbox.has_user("alice") and sandbox.read("/home/alice/public_html/page") == "text"
            and sandbox.read(SITE) == "site" and sandbox.read(POOL) == "pool")


def test_deletes_an_account_after_copying_it(alice):
    reply = delete(alice)
    base = base_of(alice)
    assert reply == {"ok": True, "archive": base + "-*"}
    assert alice.argvs() == everything(base)
    assert alice.scripts() == [DROP]
    assert not alice.has_user("alice")
    assert [alice.entry(path) for path in ("/home/alice", SITE, POOL)] == ["missing"] * 3
    assert alice.entry(FOLDER) == "0700 root:root"
    assert alice.entry(base + "-home.tar.gz") == "0600 root:root"
    assert alice.entry(base + "-db.dump") == "0600 root:root"
    assert alice.read(base + "-db.dump") == "the dump"
    code, listing, _ = alice.run("tar", "-tzf", base + "-home.tar.gz")
    assert code == 0
    assert sorted(listing.splitlines()) == [
        "alice/", "alice/.ssh/", "alice/logs/", "alice/public_html/", "alice/public_html/page", "alice/tmp/"]
    _, page, _ = alice.run("tar", "-xzOf", base + "-home.tar.gz", "alice/public_html/page")
    assert page == "text"


def test_names_the_copies_by_local_time(alice):
    alice.answer("tar", shell="date +%Y%m%d-%H%M%S >/tmp/now; touch \"$2\"")
    alice.start(env={"TZ": "Asia/Tokyo"})
    _, before, _ = alice.run("date", "+%Y%m%d-%H%M%S", env={"TZ": "Asia/Tokyo"})
    delete(alice)
    named = base_of(alice).rpartition("alice-")[2]
    assert before.strip() <= named <= alice.read("/tmp/now").strip()


def test_the_copies_are_never_open_to_others(alice):
    alice.mkdir(FOLDER, mode=0o755)
    alice.answer("tar", shell=f"stat -c %a {FOLDER} >/tmp/mode; touch \"$2\"")
    delete(alice)
    assert alice.read("/tmp/mode") == "700\n"
    assert alice.entry(FOLDER) == "0700 root:root"


@pytest.mark.parametrize("username", ["root", "postgres", "bob", "carol", "Alice", "alice\n", "", None, 7, ["alice"]])
def test_knows_accounts_alone(alice, username):
    alice.add_user("bob", "Robert")
    name = username if isinstance(username, str) else ""
    reply = alice.request("hosting.delete", username=username, confirm=username)
    assert reply == failure(f"no Corvane account named '{name}'")
    assert alice.argvs() == []
    assert not alice.exists(FOLDER)


def test_the_account_is_looked_up_before_the_confirmation(alice):
    assert alice.request("hosting.delete", username="x" * 40) == failure(f"no Corvane account named '{'x' * 32}'")


@pytest.mark.parametrize("confirm", ["", "Alice", " alice", "alice\n", "bob", None, True, ["alice"]])
def test_wants_the_name_typed_again(alice, confirm):
    assert delete(alice, confirm) == failure("type the account name to confirm")
    assert alice.request("hosting.delete", username="alice") == failure("type the account name to confirm")
    assert alice.argvs() == []
    assert untouched(alice)
    assert not alice.exists(FOLDER)


@pytest.mark.parametrize("errors", ["", "No space left on device\n"])
def test_deletes_nothing_without_a_copy_of_the_files(alice, errors):
    how, detail = outcome(errors)
    alice.answer("tar", **how)
    assert delete(alice) == failure("could not archive the files, so nothing was deleted: tar failed: " + detail)
    assert alice.argvs() == [KILL, tar(base_of(alice))]
    assert untouched(alice)


@pytest.mark.parametrize("errors", ["", "connection to server failed\n"])
def test_deletes_nothing_without_a_copy_of_the_database(alice, errors):
    how, detail = outcome(errors)
    alice.answer("pg_dump", **how)
    assert delete(alice) == failure("could not dump the database, so nothing was deleted: runuser failed: " + detail)
    base = base_of(alice)
    assert alice.argvs() == [KILL, tar(base), DUMP]
    assert alice.exists(base + "-home.tar.gz")
    assert untouched(alice)


@pytest.mark.parametrize("tool, message", [
    ("tar", "could not archive the files, so nothing was deleted: tar: cannot start"),
    ("runuser", "could not dump the database, so nothing was deleted: runuser: cannot start"),
])
def test_deletes_nothing_without_the_tool_that_copies(alice, tool, message):
    alice.remove_standin(tool)
    assert delete(alice) == failure(message)
    assert untouched(alice)


def test_deletes_nothing_when_the_copy_takes_too_long(impatient, alice):
    alice.answer("tar", hang=True)
    assert delete(alice) == failure("could not archive the files, so nothing was deleted: tar: took too long")
    assert untouched(alice)


def test_deletes_nothing_when_there_is_no_folder_for_the_copies(alice):
    alice.write(FOLDER, "a file")
    reply = delete(alice)
    assert reply["error"].startswith("could not archive the files, so nothing was deleted: tar failed: ")
    assert set(reply) == {"ok", "error"}
    assert untouched(alice)


@pytest.mark.parametrize("tool", ["pkill", "findmnt", "quotaon", "a2dissite"])
@pytest.mark.parametrize("errors", ["", "no\n"])
def test_what_may_fail_changes_nothing(alice, tool, errors):
    if tool == "findmnt":
        alice.answer(tool, out="/ ext4\n", err=errors, exit=1)
    else:
        alice.answer(tool, err=errors, exit=1)
    reply = delete(alice)
    base = base_of(alice)
    assert reply == {"ok": True, "archive": base + "-*"}
    assert alice.argvs() == everything(base)
    assert not alice.has_user("alice")


def test_lifts_the_disk_limit_where_quotas_are_on(alice):
    alice.answer("quotaon", out="user quota on / (/dev/vda1) is on\n", exit=1)
    assert delete(alice)["ok"] is True
    limit = [FIND_HOME, QUOTAON, FIND_HOME, ["setquota", "-u", "alice", "0", "0", "0", "0", "/"]]
    assert alice.argvs() == everything(base_of(alice), quota=limit)


def test_a_limit_that_stays_stops_nothing(alice):
    alice.answer("quotaon", out="is on")
    alice.answer("setquota", err="no", exit=1)
    assert delete(alice)["ok"] is True
    assert not alice.has_user("alice")


STEPS = {
    "apache2ctl": ("apache2ctl failed: ", [RELOAD_APACHE, RELOAD_PHP]),
    "systemctl": ("systemctl failed: ", [RELOAD_PHP]),
    "psql": ("runuser failed: ", []),
    "userdel": ("userdel failed: ", []),
}


@pytest.mark.parametrize("tool", STEPS)
@pytest.mark.parametrize("errors", ["", "went wrong\n"])
def test_a_failing_removal_stops_no_other(alice, tool, errors):
    how, detail = outcome(errors)
    alice.answer(tool, **how)
    prefix, left_out = STEPS[tool]
    reply = delete(alice)
    base = base_of(alice)
    assert reply == failure(prefix + detail, base)
    assert alice.argvs() == [call for call in everything(base) if call not in left_out]
    assert not alice.exists(SITE)
    assert alice.has_user("alice") == (tool == "userdel")


@pytest.mark.parametrize("errors", ["", "not loaded\n"])
def test_a_failing_reload_of_php_is_told(alice, errors):
    how, detail = outcome(errors)
    alice.answer("systemctl", "reload", "php8.2-fpm", **how)
    reply = delete(alice)
    base = base_of(alice)
    assert reply == failure("systemctl failed: " + detail, base)
    assert alice.argvs() == everything(base)


def test_all_failures_are_told_together(alice):
    alice.answer("apache2ctl", err="broken", exit=1)
    alice.answer("psql", err="is being accessed", exit=3)
    alice.answer("userdel", err="currently used", exit=8)
    assert delete(alice) == failure(
        "apache2ctl failed: broken; runuser failed: is being accessed; userdel failed: currently used", base_of(alice))


def test_only_failures_are_joined(alice):
    alice.answer("apache2ctl", err="broken", exit=1)
    alice.remove_standin("userdel")
    assert delete(alice) == failure("apache2ctl failed: broken; userdel: cannot start", base_of(alice))


def test_deletes_a_suspended_account(alice):
    alice.path(POOL).rename(alice.path(POOL + ".suspended"))
    assert delete(alice)["ok"] is True
    assert alice.tree("/etc/php/8.2/fpm/pool.d") == {}


def test_deletes_the_pools_of_every_version(alice):
    alice.php("8.2", "8.10")
    for version in ("8.2", "8.10"):
        for end in ("", ".suspended"):
            alice.write(f"/etc/php/{version}/fpm/pool.d/corv-alice.conf{end}", "pool")
    alice.write("/etc/php/8.2/fpm/pool.d/corv-bob.conf", "pool")
    assert delete(alice)["ok"] is True
    assert alice.tree("/etc/php/8.10/fpm/pool.d") == {}
    assert list(alice.tree("/etc/php/8.2/fpm/pool.d")) == ["corv-bob.conf"]
    assert alice.argvs("systemctl") == [RELOAD_APACHE, ["systemctl", "reload", "php8.10-fpm"]]


def test_deletes_without_php(alice):
    alice.php()
    reply = delete(alice)
    assert reply == {"ok": True, "archive": base_of(alice) + "-*"}
    assert alice.argvs() == [call for call in everything(base_of(alice)) if call != RELOAD_PHP]


def test_what_is_missing_already_stops_nothing(alice):
    alice.path(SITE).unlink()
    alice.path(POOL).unlink()
    assert delete(alice)["ok"] is True


# What the account's user may have put into the home.


def test_links_are_copied_and_removed_as_links(alice):
    outside = alice.write("/srv/other/file", "theirs", mode=0o644)
    alice.symlink("/home/alice/public_html/link", "/srv/other")
    alice.path("/home/alice/logs").rmdir()
    alice.symlink("/home/alice/logs", "/srv/other")
    assert delete(alice)["ok"] is True
    base = base_of(alice)
    _, listing, _ = alice.run("tar", "-tvzf", base + "-home.tar.gz")
    assert "alice/logs -> /srv/other" in listing
    assert "alice/public_html/link -> /srv/other" in listing
    assert "file" not in listing
    assert outside.read_text() == "theirs"
    assert alice.entry("/srv/other/file") == "0644 root:root"


def test_a_fifo_holds_nothing_up(alice):
    os.mkfifo(alice.path("/home/alice/pipe"))
    assert delete(alice)["ok"] is True
    assert not alice.exists("/home/alice")


def test_a_home_that_is_a_link_loses_nothing_behind_it(alice):
    alice.write("/srv/other/file", "theirs")
    alice.path("/home/alice").rename(alice.path("/home/moved"))
    alice.symlink("/home/alice", "/srv/other")
    reply = delete(alice)
    _, listing, _ = alice.run("tar", "-tvzf", base_of(alice) + "-home.tar.gz")
    assert listing.strip().endswith("alice -> /srv/other")
    assert len(listing.splitlines()) == 1
    assert alice.read("/srv/other/file") == "theirs"
    assert reply["archive"] == base_of(alice) + "-*"


def test_names_that_are_no_text_are_copied_and_removed(alice):
    name = alice.path("/home/alice/public_html").__fspath__().encode() + b"/\xff\n--x"
    with open(name, "wb") as file:
        file.write(b"content")
    assert delete(alice)["ok"] is True
    assert not alice.exists("/home/alice")
    archive = base_of(alice) + "-home.tar.gz"
    code, content, _ = alice.run("tar", "-xzOf", archive, "--wildcards", "alice/public_html/*--x")
    assert (code, content) == (0, "content")


def test_a_second_account_of_the_same_second_has_copies_of_its_own(alice):
    alice.add_account("bob", "bob.example")
    delete(alice)
    first = base_of(alice)
    alice.forget_calls()
    assert alice.request("hosting.delete", username="bob", confirm="bob")["ok"] is True
    assert len(alice.tree(FOLDER)) == 4
    assert stat.S_IMODE(alice.path(first + "-db.dump").stat().st_mode) == 0o600
