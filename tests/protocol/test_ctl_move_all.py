"""corvctl account move --all: each account of another server by a move of its own, and what became of them."""

import json

import pytest
from corvctl import corvctl, on_terminal
from test_ctl_move import HOST, MEASURED, SCRAM, SHOWN, STATE, answers_https

NAMES = ["blog", "shop", "wiki"]


@pytest.fixture
def old(sandbox):
    """The other server, with the accounts blog, shop and wiki; nothing is in the way of any."""
    sandbox.allows_loose_calls("ssh")
    sandbox.php("8.2")
    sandbox.secret(SCRAM)
    sandbox.answer("psql", ..., holds=b"", out="")
    sandbox.answer("psql", "-qtAX", "-v", "ON_ERROR_STOP=1", "-c", "SHOW server_version_num", ...,
                   out="150013\nUTF8 C.UTF-8 C.UTF-8\n/home\n")
    sandbox.add_standin("rsync")
    sandbox.answer("ssh", exit=255, err="ssh: not expected\n", ignore_input=True)
    sandbox.answer("ssh", "-T", "--", HOST, "echo", ..., ignore_input=True, out=MEASURED)
    answers_https(sandbox)
    lists(sandbox, NAMES)
    states = "".join(json.dumps({**STATE, "username": name, "domain": f"{name}.example"}) + "\n" for name in NAMES)
    sandbox.answer("ssh", "-T", "--", HOST, "corvctl", "account", "state", ..., ignore_input=True, out=states)
    for name in NAMES:
        sandbox.answer("ssh", "-T", "--", HOST, "corvctl", "account", "show", name, ..., ignore_input=True,
                       out=json.dumps({**SHOWN, "username": name}) + "\n")
    return sandbox


def lists(sandbox, names):
    accounts = [{"username": name, "domain": f"{name}.example"} for name in names]
    sandbox.answer("ssh", "-T", "--", HOST, "corvctl", "account", "list", "--json", ignore_input=True,
                   out=json.dumps({"ok": True, "accounts": accounts}) + "\n")


def all_of(sandbox, *words, how=("--plain",)):
    return corvctl(sandbox, *how, "account", "move", "--all", HOST, *words)


def test_the_plans_of_all_accounts(old):
    assert all_of(old, "--dry-run") == (0, "".join(f"{name}\tcan be moved\t\t\n" for name in NAMES), "")
    assert len(old.argvs("ssh")) == 1 + 4 * len(NAMES)


def test_one_that_is_in_the_way_keeps_none_of_the_others(old):
    old.add_user("shop", "Shop of the office", uid=4711)
    code, out, err = all_of(old, "--dry-run", "--parallel", "1")
    assert (code, out) == (1, "blog\tcan be moved\t\t\nshop\tin the way\t\tshop cannot be moved here yet: Account\nwiki\tcan be moved\t\t\n")
    assert err == (f"corvctl: shop: corvctl account move shop {HOST}\ncorvctl: 1 of 3 accounts are not moved\n"
                   "  the same command goes on with those\n")


def test_what_it_tells_programs(old):
    old.add_user("shop", "Shop of the office", uid=4711)
    code, out, _ = all_of(old, "--dry-run", how=("--json",))
    told = json.loads(out)
    replies = [account.pop("reply") for account in told["accounts"]]
    assert code == 1 and told == {"ok": False, "host": HOST, "accounts": [
        {"account": "blog", "state": "can be moved", "exit": 0, "next": ""},
        {"account": "shop", "state": "in the way", "exit": 1, "next": f"corvctl account move shop {HOST}",
         "error": "shop cannot be moved here yet: Account"},
        {"account": "wiki", "state": "can be moved", "exit": 0, "next": ""}]}
    assert [(reply["account"], reply["ok"]) for reply in replies] == [("blog", True), ("shop", False), ("wiki", True)]


def test_one_that_is_here_is_not_moved_again(old):
    old.add_account("shop", "shop.example")
    code, out, err = all_of(old, "--dry-run")
    assert (code, out, err) == (0, "blog\tcan be moved\t\t\nshop\there already\t\t\nwiki\tcan be moved\t\t\n", "")
    # A move that is kept in mind is asked what there is left to do.
    old.mkdir("/var/lib/corvane/moves")
    old.write("/var/lib/corvane/moves/shop.json", "{}")
    assert "here already" not in all_of(old, "--dry-run")[1]


def test_names_that_are_none_are_left_out(old):
    lists(old, ["blog", "shop;reboot", "--dry-run", "../wiki"])
    code, out, err = all_of(old, "--dry-run")
    assert (code, out) == (0, "blog\tcan be moved\t\t\n")
    assert err.splitlines() == [f"corvctl: {name} is no name of an account, and is left out" for name in ("shop;reboot", "--dry-run", "../wiki")]


def test_it_asks_for_the_server_before_it_moves_anything(old):
    assert all_of(old)[0] == 2
    assert all_of(old, "--confirm", "web2")[2] == "corvctl: that is not the server's name, so nothing was moved\n"
    assert len(old.argvs("ssh")) == 2


def test_a_person_reads_it_at_80_columns(old):
    old.add_user("shop", "Shop of the office", uid=4711)
    old.start()
    code, out = on_terminal(old, "account", "move", "--all", HOST, "--dry-run")
    assert code == 1 and max(len(line) for line in out.splitlines()) <= 80
    assert sorted(line for line in out.splitlines() if line.endswith(" has ended")) == [f"corvctl: {name} has ended" for name in NAMES]


@pytest.mark.parametrize("answer", [{"exit": 255, "err": "ssh: connect to host web1.example port 22: No route to host\n"},
                                    {"out": "hello\n"}])
def test_a_server_that_tells_no_accounts(old, answer):
    old.answer("ssh", "-T", "--", HOST, "corvctl", "account", "list", "--json", ignore_input=True, **answer)
    assert all_of(old, "--dry-run")[:2] == (3, "")


@pytest.mark.parametrize("words, end", [
    (["--all", HOST, "--parallel", "0"], "--parallel takes a number from 1 to 16"),
    (["--all", HOST, "--parallel", "17"], "--parallel takes a number from 1 to 16"),
    (["--all", HOST, "--parallel", "2x"], "--parallel takes a number from 1 to 16"),
    (["--all", "shop", HOST], "with --all the server alone is named: corvctl account move --all HOST"),
    (["--all", "web$(reboot)"], "a host's name holds no blanks, quotes or control characters"),
    (["shop", "--dry-run"], "HOST is required: the server that it is to come from"),
    (["-H", "web2", "--all", HOST], "that is done on the server itself, not from here\n  ssh web2 corvctl account move ..."),
])
def test_what_is_no_move_of_all_is_refused_before_anything_is_asked(old, words, end):
    assert corvctl(old, "account", "move", *words) == (2, "", f"corvctl: {end}\n")
    assert old.calls("ssh") == []
