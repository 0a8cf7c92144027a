"""Two servers of which one moves accounts from the other, and who serves an account meanwhile."""

import json
import subprocess
import threading
import time
from contextlib import contextmanager

import pytest
from hostfloor import ADDRESS, OUTSIDE
from shops import make_shop

KEY = "/root/.ssh/id_ed25519"
HOST = f"root@{OUTSIDE}"
MOVES = "/var/lib/corvane/moves"

# What a move says when its switch begins.
SWITCHES = "bringing the database once more"

# Says the time, then the status that each of two addresses gives, again and again.
POLL = 'while :; do printf "%s %s\\n" "$(date +%s.%N)" "$(curl -q -so /dev/null -m 5 -w "%{http_code}" -H "Host: $1" "$2")"; done'


@contextmanager
def reaching(new, old):
    """A block in which root of the new server may log in as root of the old one, which reaches the new one's sites."""
    if not new.exists(KEY):
        new.ok(["sh", "-ec", f"mkdir -pm 700 /root/.ssh; ssh-keygen -qt ed25519 -N '' -f {KEY}"])
    old.ok(["mkdir", "-pm", "700", "/root/.ssh"])
    old.put("/root/.ssh/authorized_keys", new.get(f"{KEY}.pub"), mode="600")
    with new.reaching(old, 22), old.reaching(new, 80):
        new.put("/root/.ssh/known_hosts", new.ok(["ssh-keyscan", "-T", "20", OUTSIDE]))
        yield


@pytest.fixture(scope="module")
def old(boot):
    """The server that has the accounts."""
    return boot()


@pytest.fixture(scope="module")
def new(boot, old):
    """The one that they come to."""
    host = boot()
    with reaching(host, old):
        yield host


@pytest.fixture(scope="module", name="new")
def new_both_ways(boot, old):
    """As new, where each of the two reaches the other: for accounts that go back."""
    host = boot()
    with reaching(host, old), reaching(old, host):
        yield host


@pytest.fixture
def shop(old, new):
    """An account of the old server, which may move; on both nothing is left of it after the test."""
    account = make_shop(old)
    new._accounts.append((account.name, account.domain))
    yield account
    new.ok(["sh", "-c", f"rm -f {MOVES}/{account.name}.*"])
    for host in (old, new):
        host.run(["systemctl", "stop", f"corv-move-{account.name}.timer", f"corv-moving-{account.name}.timer", f"corv-moving-{account.name}.service"])
    old.ok(["sh", "-c", f"rm -f {MOVES}/{account.name}.*"])
    new.remove_accounts()
    old.remove_accounts()


def make_certificates(folder, domain):
    """An authority, and a certificate for the domain and its www name from it."""
    def openssl(*words):
        subprocess.run(["openssl", *words], cwd=folder, check=True, capture_output=True)

    key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes"]
    openssl("req", "-x509", *key, "-keyout", "authority.key", "-out", "authority.pem", "-days", "9", "-subj", "/CN=Test authority")
    openssl("req", *key, "-keyout", "site.key", "-out", "site.csr", "-subj", f"/CN={domain}")
    (folder / "names").write_text(f"subjectAltName=DNS:{domain},DNS:www.{domain}\n")
    openssl("x509", "-req", "-in", "site.csr", "-CA", "authority.pem", "-CAkey", "authority.key", "-CAcreateserial", "-days", "5",
            "-extfile", "names", "-out", "site.pem")


def words(name, *options):
    return ["corvctl", "account", "move", name, HOST, "--confirm", name, *options]


def move(new, name, *options, timeout=240):
    return new.run(words(name, *options), timeout=timeout)


def killed_when(host, shop, condition, what, *options):
    """Starts a move and kills it within the switch, once the condition holds."""
    with host.background(["setsid", "sh", "-c", 'echo $$ >&2; exec "$@"', "sh", *words(shop.name, *options)], stdout=subprocess.DEVNULL,
                         stderr=subprocess.PIPE, text=True) as process:
        inner = process.stderr.readline().strip()
        for line in process.stderr:
            if SWITCHES in line:
                break
        host.wait_for(condition, what)
        host.run(["kill", "-KILL", inner])


def record(new, name):
    """What the new server keeps of the move, less the times."""
    kept = json.loads(new.get(f"{MOVES}/{name}.json"))
    return kept["done"]


def is_suspended(host, name):
    return host.ok(["getent", "shadow", name]).split(":")[7] == "1"


def is_settled(old, name):
    """Whether the old server knows where the account is, and what was done to it for the switch is undone."""
    return old.run(["sh", "-c", f"ls {MOVES}/{name}.undecided {MOVES}/{name}.frozen {MOVES}/{name}.stays"]).out == ""


class Watch:
    """Who served a page, from outside of both servers, for as long as the block lasts."""

    def __init__(self, hosts, domain, path="/order/7"):
        self._seen = [[] for _ in hosts]
        self._polls = [subprocess.Popen([*host._visiting(), "sh", "-c", POLL, "sh", domain, f"http://{ADDRESS}{path}"],
                                        stdout=subprocess.PIPE, text=True, start_new_session=True) for host in hosts]
        self._readers = [threading.Thread(target=self._read, args=(poll, seen)) for poll, seen in zip(self._polls, self._seen)]

    @staticmethod
    def _read(poll, seen):
        for line in poll.stdout:
            at, status = line.split()
            seen.append((float(at), status))

    def __enter__(self):
        for reader in self._readers:
            reader.start()
        while not all(self._seen):
            time.sleep(0.05)
        return self

    def __exit__(self, *_):
        time.sleep(0.2)
        for poll in self._polls:
            subprocess.run(["kill", "-KILL", "--", f"-{poll.pid}"], check=False)
            poll.wait()
        for reader in self._readers:
            reader.join()

    def served(self, index):
        """The times of the polls that one of the hosts answered with 200."""
        return [at for at, status in self._seen[index] if status == "200"]

    def statuses(self, index):
        return {status for _, status in self._seen[index]}

    def stopped(self):
        """The time of the last page of the first host before it had none for the first time."""
        first = next(at for at, status in self._seen[0] if status != "200")
        return max(at for at in self.served(0) if at < first)

    def gap(self):
        """Seconds between that and the first page of the second host."""
        return self.served(1)[0] - self.stopped()

    def gap_at_the_old_address(self):
        """Seconds between that and the next page of the first host, which leads to the second by then."""
        return next(at for at in self.served(0) if at > self.stopped()) - self.stopped()
