"""An account is moved from one server to another, over real ssh: the plan, and which of the two has it where things go wrong."""

import json
import subprocess
from contextlib import contextmanager

import pytest
from hostfloor import OUTSIDE
from moves import (  # noqa: F401 (pytest finds three of them here)
    HOST,
    MOVES,
    is_settled,
    is_suspended,
    move,
    new,
    old,
    record,
    shop,
    words,
)
from shops import everything, page

LIMIT = 300
WELL = (200, "2000 orders, \n")


def plan(new, name):
    done = new.run(["corvctl", "--json", "account", "move", name, f"root@{OUTSIDE}", "--dry-run"])
    reply = json.loads(done.out)
    return done, reply, [(check["level"], check["about"], check["text"]) for check in reply["checks"] if check["level"] != "well"]


def test_the_plan_of_a_shop_tells_what_it_has_and_changes_nothing(old, new, shop):
    before = everything(old, shop.name)
    users = new.get("/etc/passwd")
    done, reply, found = plan(new, shop.name)
    assert (done.code, done.err, found) == (0, "", [])
    walk = old.ok(["sh", "-c", f"find {shop.home} -path {shop.home}/tmp -prune -o -print0 | tr -dc '\\0' | wc -c"])
    assert reply == {"ok": True, "account": shop.name, "host": f"root@{OUTSIDE}", "domain": shop.domain,
                     "homeBytes": reply["homeBytes"], "homeEntries": reply["homeEntries"],
                     "databaseBytes": int(old.sql(f"SELECT pg_database_size('{shop.name}')").out), "checks": reply["checks"]}
    # A file with two names is one inode; what its owner has shut to himself cannot hold anything here.
    assert int(walk) - 2 <= reply["homeEntries"] <= int(walk)
    assert 40 * 20000 < reply["homeBytes"] < 3 * 40 * 20000
    assert everything(old, shop.name) == before
    assert new.get("/etc/passwd") == users and not new.exists(shop.home)


def test_what_is_taken_on_the_new_server_is_in_the_way(old, new, shop):
    uid = int(old.ok(["id", "-u", shop.name]))
    new.ok(["useradd", "-u", str(uid), "-M", "holder"])
    new.ok(["useradd", "-M", shop.name])
    new.ok(["corvctl", "account", "create", "other", shop.domain])
    try:
        done, _, found = plan(new, shop.name)
        assert done.code == 1 and found == [
            ("in the way", "Account", f"there is a user {shop.name} here"),
            ("in the way", "Domain", f"the site corv-other here answers to {shop.domain} already"),
            ("note", "User id", f"{uid} there, which is that of holder here: it gets another one")]
    finally:
        new.ok(["corvctl", "account", "delete", "other", "--confirm", "other"])
        new.ok(["userdel", shop.name])
        new.ok(["userdel", "holder"])


def test_a_suspended_account_and_one_without_a_role(old, new, shop):
    old.ok(["corvctl", "account", "suspend", shop.name])
    done, reply, found = plan(new, shop.name)
    assert (done.code, found) == (0, [])
    assert {"about": "State", "level": "well", "text": "suspended, and so it stays"} in reply["checks"]


def test_an_account_that_is_gone_is_not_taken_from_what_was_written_down(old, new, shop):
    old.ok(["corvctl", "account", "state", "--write"])
    old.ok(["corvctl", "account", "delete", shop.name, "--confirm", shop.name])
    assert shop.name in old.get("/var/lib/corvane/accounts.state")
    done = new.run(["corvctl", "account", "move", shop.name, f"root@{OUTSIDE}", "--dry-run"])
    assert (done.code, done.out) == (1, "")
    assert done.err.startswith(f"corvctl: root@{OUTSIDE}: corvctl: no Corvane account named '{shop.name}'")


# The verdict


# Waits at its first call with these words until it is let go, but not for ever.
WAITS = """#!/bin/sh
if [ "$*" = "{words}" ] && [ ! -e /run/waits ]; then
    : >/run/waits
    timeout 60 sh -c 'until [ -e /run/go ]; do sleep 0.05; done'
fi
exec /usr/bin/{tool} "$@"
"""

# The same, once the call is done.
WAITS_AFTER = """#!/bin/sh
/usr/bin/{tool} "$@"
code=$?
if [ "$*" = "{words}" ] && [ ! -e /run/waits ]; then
    : >/run/waits
    timeout 60 sh -c 'until [ -e /run/go ]; do sleep 0.05; done'
fi
exit $code
"""


@contextmanager
def stand_in(host, tool, script):
    """A block in which a script is found in the place of a program of the server's."""
    host.put(f"/usr/local/bin/{tool}", script, mode="0755")
    try:
        yield
    finally:
        host.ok(["rm", "-f", f"/usr/local/bin/{tool}", "/run/waits", "/run/go"])


def moving(new, shop):
    """A move that is at work, in a group of its own as at a terminal; its number there is what it says first."""
    return new.background(["setsid", "--wait", "sh", "-c", 'echo $$ >&2; exec "$@"', "sh", *words(shop.name)], stdout=subprocess.DEVNULL,
                          stderr=subprocess.PIPE, text=True)


def goes_on_by_itself(new, name):
    """Whether the new server will go on with the move of the account without anybody."""
    return any(new.run(["systemctl", "is-active", f"corv-moving-{name}.{kind}"]).out.strip() in ("active", "activating")
               for kind in ("timer", "service"))


def test_another_account_of_that_name_that_left_once_is_no_verdict(old, new, shop):
    before = everything(old, shop.name)
    for host in (old, new):
        host.ok(["sh", "-ec", f"mkdir -pm 700 {MOVES}; : >{MOVES}/{shop.name}.left"])
    # The last moment before the old server is told of the switch.
    with stand_in(new, "systemd-run", "#!/bin/sh\nkill -KILL $PPID\n"):
        assert move(new, shop.name).code == -9 and record(new, shop.name)[-1] == "switching"
    assert page(old, shop) == WELL and not is_suspended(old, shop.name)
    done = move(new, shop.name)
    assert done.code == 0, done
    assert everything(new, shop.name) == before and page(new, shop) == page(old, shop) == WELL
    assert not new.exists(f"{MOVES}/{shop.name}.left")


def test_a_decision_that_cannot_be_written_down_here_is_gone_on_with(old, new, shop):
    # It is decided when its timer is stopped.
    script = WAITS.format(tool="systemctl", words=f"stop corv-move-{shop.name}.timer")
    with stand_in(old, "systemctl", script), moving(new, shop) as process:
        old.wait_for(lambda: old.exists("/run/waits"), "the decision")
        new.ok(["sh", "-ec", f"mount --bind {MOVES} {MOVES}; mount -o remount,bind,ro {MOVES}"])
        try:
            old.put("/run/go", "")
            said = process.stderr.read()
        finally:
            new.ok(["umount", MOVES])
    assert process.returncode == 1
    assert said.splitlines()[-2:] == [f"corvctl: {shop.name} is this server's now, but not all is done: nothing can be kept in {MOVES}",
                                      f"  corvctl account move {shop.name} {HOST} goes on with it"]
    assert goes_on_by_itself(new, shop.name)
    new.wait_for(lambda: record(new, shop.name)[-1] == "finished", "the rest of the move")
    assert page(new, shop) == page(old, shop) == WELL and is_suspended(old, shop.name)


@pytest.mark.long
def test_an_interrupt_within_the_switch_gives_the_account_back_at_once(old, new, shop):
    before = everything(old, shop.name)
    script = WAITS_AFTER.format(tool="corvctl", words=f"account suspend {shop.name}")
    with stand_in(old, "corvctl", script), moving(new, shop) as process:
        group = process.stderr.readline().strip()
        old.wait_for(lambda: old.exists("/run/waits"), "the suspension")
        assert is_suspended(old, shop.name)
        # All of them have it, as from a terminal: also what has the connections.
        new.ok(["kill", "-INT", "--", f"-{group}"])
        said = " ".join(process.stderr.read().split())
    assert process.returncode == 130
    assert f"corvctl: {shop.name} is not moved: it was interrupted {HOST} still has it" in said, said
    assert page(old, shop) == WELL and not is_suspended(old, shop.name) and everything(old, shop.name) == before
    assert is_settled(old, shop.name) and not old.exists(f"{MOVES}/{shop.name}.left")
    assert record(new, shop.name)[-1] == "rehearsed" and not goes_on_by_itself(new, shop.name)
