"""corvctl account move --all between two booted hosts: a server is given up."""

import json

from hostfloor import OUTSIDE
from moves import HOST, new, old  # noqa: F401 (pytest finds them here)

LIMIT = 500


def test_a_server_is_given_up(old, new):
    accounts = [old.account() for _ in range(3)]
    for account in accounts:
        old.put(f"{account.home}/public_html/index.html", f"<p>{account.name}", owner=f"{account.name}:www-data")
    first, second, third = accounts
    # One cannot come yet: somebody here has its name.
    new.ok(["useradd", "-M", second.name])
    words = ["corvctl", "--json", "account", "move", "--all", HOST, "--parallel", "2", "--confirm", HOST]
    done = new.run(words, timeout=400)
    told = json.loads(done.out)
    assert [(one["account"], one["state"]) for one in told["accounts"]] == [
        (first.name, "moved"), (second.name, "not moved"), (third.name, "moved")], done
    assert done.code == 1 and told["accounts"][1]["error"] == f"{second.name} cannot be moved here yet: Account"
    for account in (first, third):
        for host in (old, new):
            assert host.fetch(account.domain).body == f"<p>{account.name}"
    assert old.fetch(second.domain).body == f"<p>{second.name}"

    # The same command goes on with what is left.
    new.ok(["userdel", second.name])
    done = new.run(words, timeout=400)
    assert done.code == 0 and {one["state"] for one in json.loads(done.out)["accounts"]} == {"moved"}, done
    assert old.fetch(second.domain).body == f"<p>{second.name}"
    assert [one["address"] for one in json.loads(old.ok(["corvctl", "--json", "account", "forward"]))["forwards"]] == [OUTSIDE] * 3
