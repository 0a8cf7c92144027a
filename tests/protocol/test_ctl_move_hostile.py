"""corvctl account move, where the old server has been taken over: whatever it answers, nothing is made of it but a plan that fails."""

import json

import pytest
from corvctl import corvctl
from test_ctl_move import HOST, MEASURED, SCRAM, SHOWN, STATE, Old, old  # noqa: F401 (pytest finds the fixture here)

LONG = "a" * 5_000


def in_the_way(server, *words):
    """The exit code, what is in the way, and all that was printed."""
    code, out, err = corvctl(server.sandbox, "--plain", "account", "move", "shop", HOST, "--dry-run", *words)
    return code, [line.split("\t")[0] for line in out.splitlines() if line.split("\t")[1] == "in the way"], out + err


@pytest.mark.parametrize("domain", ["shop.example\n</VirtualHost>\nInclude /etc/shadow", "shop.example ServerAlias *", "../../etc",
                                    "shop.example\u202e", "-shop.example", "", "a" * 250 + ".example", "*.example"])
def test_a_domain_that_would_be_a_line_of_apaches(old, domain):  # noqa: F811
    old.writes_down(domain=domain)
    code, wrong, _ = in_the_way(old)
    assert (code, wrong) == (1, ["Domain"])


@pytest.mark.parametrize("more", [
    {"uid": -1}, {"uid": "0"}, {"suspended": "no"}, {"role": 5}, {"role": LONG}, {"shell": ["/bin/sh"]}, {"shadow": "!\0root"},
    {"crontab": "no base64 !"}, {"limitMb": -5}, {"settings": [{"scope": "role", "name": "a = 1; DROP ROLE postgres; --", "value": ""}]},
    {"settings": [{"scope": "cluster", "name": "a", "value": ""}]}, {"settings": "none"}, {"jobs": [{"time": 1, "queue": "../../x"}]},
    {"jobs": [None]}, {"database": {"encoding": LONG}}, {"database": "UTF8"}, {"username": "root"}, {"username": "shop\n"},
], ids=lambda more: json.dumps(more)[:60])
def test_a_state_that_no_server_of_ours_writes(old, more):  # noqa: F811
    old.writes_down(**more)
    code, out, err = corvctl(old.sandbox, "--plain", "account", "move", "shop", HOST, "--dry-run")
    assert (code, out, err) == (1, "", f"corvctl: {HOST}: the state of shop could not be written down there\n")


@pytest.mark.parametrize("about, measured", [
    ("bytes", "9223372036854775807"), ("entries", "9223372036854775807"), ("bytes", "-1"), ("entries", "1e3"), ("bytes", "0x10"),
    ("bytes", "99999999999999999999"), ("postgres", "-150013"), ("postgres", "15; reboot"),
])
def test_a_number_that_is_too_large_or_none_is_in_the_way(old, about, measured):  # noqa: F811
    lines = [f"{about} {measured}" if line.split()[0] == about else line for line in MEASURED.splitlines()]
    old.measures("\n".join(lines) + "\n")
    code, wrong, _ = in_the_way(old)
    assert (code, wrong) == (1, ["PostgreSQL" if about == "postgres" else "Room"])


@pytest.mark.parametrize("size", [(1 << 62), (1 << 63) - 1, -(1 << 62)])
def test_a_database_of_an_impossible_size_is_in_the_way(old, size):  # noqa: F811
    old.shows(database={"name": "shop", "bytes": size, "readOnly": False})
    code, wrong, _ = in_the_way(old)
    assert (code, wrong) == (1, ["Room"])


@pytest.mark.parametrize("limit", [1 << 43, (1 << 63) - 1])
def test_a_limit_of_an_impossible_size_is_in_the_way(old, limit):  # noqa: F811
    old.writes_down(limitMb=limit)
    code, wrong, _ = in_the_way(old)
    assert (code, wrong) == (1, ["Limit"])


def test_nothing_that_it_says_steers_the_terminal(old):  # noqa: F811
    old.shows(sitesBeside=["x\x1b[2J", "y\x9b31m", "z\u202e"])
    old.writes_down(shell="/bin/\x1b]0;x\x07", php="8.2 \x1b[2J", leftOut="crontab\x1b[2J")
    code, _, said = in_the_way(old)
    assert not {"\x1b", "\x9b", "\x07", "\u202e"} & set(said)
    assert code == 0 and "\\x1b[2J" in said
    old.shows(exit=1, err="corvctl: \x1b[2J\x1b]52;c;eA==\x07\n")
    code, _, said = in_the_way(old)
    assert code == 1 and not {"\x1b", "\x07"} & set(said)


def test_a_flood_in_the_place_of_the_state_ends_and_holds_nothing_up(old):  # noqa: F811
    old.sandbox.answer("ssh", "-T", "--", HOST, "corvctl", "account", "state", ..., ignore_input=True, flood_out=600_000_000)
    code, out, err = corvctl(old.sandbox, "--plain", "account", "move", "shop", HOST, "--dry-run")
    assert code != 0 and out == "" and len(err) < 2_000


def test_no_secret_of_the_account_is_in_an_argument(old):  # noqa: F811
    assert in_the_way(old)[0] == 0
    assert SHOWN["username"] == STATE["username"]
    assert not [word for argv in old.sandbox.argvs() for word in argv if SCRAM in word]


def test_nothing_is_left_here_whatever_it_said(old):  # noqa: F811
    before = old.sandbox.tree("/home"), old.sandbox.tree("/var/lib/corvane"), old.sandbox.tree("/etc/apache2"), old.sandbox.read("/etc/passwd")
    for more in ({"domain": "a\nb"}, {"uid": 0, "shell": "/bin/sh;reboot"}, {"jobs": [{"time": -1}]}):
        old.writes_down(**more)
        in_the_way(old)
    assert (old.sandbox.tree("/home"), old.sandbox.tree("/var/lib/corvane"), old.sandbox.tree("/etc/apache2"),
            old.sandbox.read("/etc/passwd")) == before
