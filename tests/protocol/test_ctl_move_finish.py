"""corvctl account move, once it is decided: what comes behind the switch, over an ssh that is a stand-in with a shell of its own.

The account was suspended on its old server, and comes suspended, so that nobody has to be led on."""

import json

import pytest
from corvctl import PATH, install
from test_ctl_forward import SUSPENDED
from test_ctl_move import HOST, SCRAM, STATE
from test_quota import turn_off, turn_on

MOVES = "/var/lib/corvane/moves"
DECIDED = ["created", "rehearsed", "switching", "placing", "decided"]
WEB = r"""
import http.server

class Web(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        self.send_error(503)

    def log_message(self, *words):
        pass

server = http.server.HTTPServer(("127.0.0.1", 80), Web)
open("/web.up", "w").close()
server.serve_forever()
"""
RUN = r"""
ip link set lo up
python3 /web.py & web=$!
until [ -e /web.up ]; do sleep 0.01; done
corvctl "$@"
code=$?
kill $web
exit $code
"""


class New:
    """The server that the account has come to."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        self.uid = sandbox.add_account("shop", "shop.example")

    def keeps(self, limit, is_back=False):
        """What the switch has left behind."""
        state = {**STATE, "suspended": True, "crontab": "MSAqICogKiAqIHgK", **({} if limit is None else {"limitMb": limit})}
        done = [*DECIDED, "returned"] if is_back else DECIDED
        self.sandbox.write(f"{MOVES}/shop.state", json.dumps(state) + "\n", mode=0o600)
        self.sandbox.write(f"{MOVES}/shop.json", json.dumps({
            "account": "shop", "host": HOST, "domain": "shop.example", "uid": self.uid, "begun": 1, "rehearsed": 0, "done": done,
            "back": is_back}))

    def goes_on(self, *words):
        """The exit code, what it says is not as it was, and how limits were set."""
        code, out, err = self.sandbox.run("unshare", "-n", "--wd=/", "sh", "-c", RUN, "sh", "account", "move", "shop", HOST, *words,
                                          env={"PATH": PATH, "HOME": "/root"})
        assert "Moved" in out and "503 Service Unavailable, since the account is suspended as it was" in " ".join(out.split()), out + err
        is_finished = json.loads(self.sandbox.read(f"{MOVES}/shop.json"))["done"][-1] == "finished"
        again = f"\n  corvctl account move {' '.join(['shop', HOST, *words])} tries again what was not put back\n"
        assert is_finished == (code == 0) == (again not in err), err
        lost = [line for line in err.splitlines() if "not as it was" in line]
        return code, lost, self.sandbox.argvs("setquota")

    def crontabs(self):
        """How the crontab was put back."""
        return [argv for argv in self.sandbox.argvs("crontab") if argv[-1] == "-"]


@pytest.fixture
def new(sandbox):
    install(sandbox)
    sandbox.php("8.2")
    sandbox.secret(SCRAM)
    sandbox.allows_loose_calls("ssh")
    sandbox.answer("ssh", exit=255, err="ssh: not expected\n", ignore_input=True)
    sandbox.answer("ssh", "-T", "--", HOST, "exec", "sh", shell="exec sh")
    sandbox.answer("findmnt", out="/ ext4\n")
    sandbox.answer("crontab", ..., ignore_input=True)
    server = New(sandbox)
    sandbox.write("/web.py", WEB)
    sandbox.write("/etc/apache2/sites-available/corv-shop.conf", SUSPENDED.format("shop", "shop.example"))
    sandbox.symlink("/etc/apache2/sites-enabled/corv-shop.conf", "../sites-available/corv-shop.conf")
    sandbox.start()
    return server


def limit(mebibytes):
    return ["setquota", "-u", "shop", str(mebibytes * 9216 // 10), str(mebibytes * 1024), "0", "0", "/"]


def test_the_limit_comes_along(new):
    turn_on(new.sandbox)
    new.keeps(1500)
    assert new.goes_on() == (0, [], [limit(1500)])
    new.sandbox.logs("agent: uid 0 ran quota.set -> ok")


def test_a_limit_that_cannot_be_set_is_told_of(new):
    turn_off(new.sandbox)
    new.keeps(1500)
    told = ["corvctl: not as it was: the limit of 1500 MiB: hard quotas are off"]
    assert new.goes_on() == (1, told, [])
    assert len(new.crontabs()) == 1
    # What is lost still is no success of the next attempt; what was put back by then may have been changed since.
    assert new.goes_on() == (1, told, [])
    turn_on(new.sandbox)
    assert new.goes_on() == (0, [], [limit(1500)])
    assert new.goes_on() == (0, [], [limit(1500)])
    assert len(new.crontabs()) == 1
    new.sandbox.logs("agent: uid 0 ran quota.set -> failed", "agent: uid 0 ran quota.set -> failed", "agent: uid 0 ran quota.set -> ok")


@pytest.mark.parametrize("limit", [None, 0])
def test_who_has_no_limit_there_gets_none(new, limit):
    turn_on(new.sandbox)
    new.keeps(limit)
    assert new.goes_on() == (0, [], [])


def test_a_limit_that_was_lifted_there_is_lifted_where_it_comes_back_to(new):
    turn_on(new.sandbox)
    new.keeps(0, is_back=True)
    assert new.goes_on("--back") == (0, [], [limit(0)])
    new.sandbox.logs("agent: uid 0 ran quota.set -> ok")


def test_who_comes_back_without_a_limit_needs_no_quotas(new):
    turn_off(new.sandbox)
    new.keeps(0, is_back=True)
    assert new.goes_on("--back") == (0, [], [])
