"""An account moves from Debian 12 to Debian 13, as those of a server do that is given up for a newer one."""

import json
import re

import pytest
from booted import SUITE
from moves import HOST, Watch, is_suspended, move, reaching, record
from shops import but_for_logs, everything, make_shop, page

LIMIT = 400
pytestmark = [pytest.mark.core, pytest.mark.skipif(SUITE == "bookworm", reason="it takes hosts of both releases: once is enough")]
WELL = (200, "2000 orders, \n")


@pytest.fixture(scope="module")
def old(boot):
    """The server that has the accounts, with PostgreSQL 15 and PHP 8.2."""
    return boot(suite="bookworm")


@pytest.fixture(scope="module")
def new(boot, old):
    """The one that they come to, with PostgreSQL 17 and PHP 8.4. Each reaches the other."""
    host = boot(suite="trixie")
    with reaching(host, old), reaching(old, host):
        yield host


@pytest.fixture
def account(old, new):
    """A shop on each of the servers goes away with the test."""
    yield
    new.remove_accounts()
    old.remove_accounts()


def all_but_the_dumps_manners(host, shop):
    """As everything, without what a newer pg_dump says of itself and of the session that will load it, or says otherwise."""
    lines = [re.sub("^ALTER (SEQUENCE|VIEW) ", "ALTER TABLE ", line).replace(" orders.", " ")
             for line in but_for_logs(everything(host, shop.name))]
    return [line for line in lines if line and not re.match("--|SET [a-z_]+ = |SELECT pg_catalog.set_config", line)]


def plan(host, name, *options):
    said = json.loads(host.run(["corvctl", "--json", "account", "move", name, HOST, "--dry-run", *options]).out)
    return {check["about"]: (check["level"], check["text"]) for check in said["checks"]}


def test_a_shop_is_the_same_on_a_newer_release(old, new, account):
    shop = make_shop(old)
    new._accounts.append((shop.name, shop.domain))
    told = plan(new, shop.name)
    assert told["PostgreSQL"] == ("note", "15 there, 17 here") and told["PHP"] == ("note", "8.2 there, 8.4 here"), told
    before = all_but_the_dumps_manners(old, shop)
    with Watch([old, new], shop.domain) as watch:
        done = move(new, shop.name)
    assert (done.code, re.findall("not as it was.*", done.err)) == (0, []), done
    assert all_but_the_dumps_manners(new, shop) == before
    assert page(new, shop) == WELL and page(new, shop, "/order/7") == (200, "2000 orders, open\n")
    assert is_suspended(old, shop.name) and page(old, shop) == WELL, "the old address leads to the new server"
    assert watch.served(1)[0] > watch.stopped(), "both served it at a time"
    assert record(new, shop.name)[-1] == "finished"

    # Its database has become one of a newer PostgreSQL: there is no way back, which is said before anything is done.
    level, text = plan(old, shop.name, "--back")["PostgreSQL"]
    assert (level, text) == ("in the way", "17 there, 15 here: a dump does not load into an older one")
    assert move(old, shop.name, "--back").code != 0
    assert page(new, shop) == WELL and is_suspended(old, shop.name) and not is_suspended(new, shop.name)


def test_a_newer_database_does_not_move_to_an_older_release(old, new, account):
    shop = make_shop(new)
    assert plan(old, shop.name)["PostgreSQL"][0] == "in the way"
    assert move(old, shop.name).code != 0
    assert page(new, shop) == WELL and old.run(["id", shop.name]).code == 1
