"""An account is moved from one server to another, over real ssh: the plan."""

import json

import pytest
from hostfloor import OUTSIDE
from moves import new, old  # noqa: F401 (pytest finds them here)
from shops import everything, make_shop

LIMIT = 300


@pytest.fixture
def shop(old):
    return make_shop(old)


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
    assert (done.code, done.out) == (3, "")
    assert done.err.startswith(f"corvctl: root@{OUTSIDE}: corvctl: no Corvane account named '{shop.name}'")
