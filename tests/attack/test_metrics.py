"""Whoever may log in writes what he likes into the journal, and owns folders that root writes figures into: he counts for nothing, and
nothing of root's is overwritten."""

import re
import shlex

import pytest

FORGED = "agent: uid 0 ran hosting.delete -> ok"
# A message in the journal's own protocol, with fields that are the journal's to set.
NATIVE = r"""
import socket
fields = {"MESSAGE": "%s", "_SYSTEMD_UNIT": "corv-agent.service", "_UID": "0", "_EXE": "/usr/libexec/corvane/corv-agent",
          "SYSLOG_IDENTIFIER": "corv-agent"}
socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM).sendto(
    "".join(f"{key}={value}\n" for key, value in fields.items()).encode(), "/run/systemd/journal/socket")
"""
ATTEMPTS = {
    "the system's log": f"logger -t corv-agent {shlex.quote(FORGED)}",
    "a stream of its own": f"echo {shlex.quote(FORGED)} | systemd-cat -t corv-agent",
    "a program of that name": f'cp /usr/bin/logger ~/corv-agent && ~/corv-agent -t corv-agent {shlex.quote(FORGED)}',
    "the journal's own protocol": f"python3 -c {shlex.quote(NATIVE % FORGED)}",
    # The agent's own executable, under the account's user: it says what it was given.
    "the agent itself": f"systemd-cat -t corv-agent /usr/libexec/corvane/corv-agent -c {shlex.quote(FORGED)} || true",
    "lines in one": f"printf 'x\\n%s\\n' {shlex.quote(FORGED)} | systemd-cat -t corv-agent",
}


def deletions(host):
    """How many the metrics count."""
    host.ok(["journalctl", "--sync"])
    text = host.ok(["corvctl", "metrics"])
    return int(re.search(r'^corvane_agent_requests_total{command="hosting.delete",result="ok"} (\d+)$', text, re.MULTILINE)[1])


@pytest.mark.parametrize("attempt", ATTEMPTS)
def test_a_forged_line_counts_for_nothing(host, attempt):
    account = host.account()
    before = deletions(host)
    # What stands in the journal, as anybody reads it who goes by the program's name or the text.
    seen = host.ok(["journalctl", "-q", "-o", "cat"]).count(FORGED)
    host.ok(["sh", "-c", ATTEMPTS[attempt]], user=account.name, env={"HOME": account.home})
    host.wait_for(lambda: host.ok(["journalctl", "-q", "-o", "cat"]).count(FORGED) > seen, "the forged line in the journal")
    assert deletions(host) == before


def test_a_real_line_counts(host):
    """Without this the attempts would prove nothing."""
    name = host.free_name()
    before = deletions(host)
    assert host.request("hosting.create", username=name, domain=f"{name}.example")["ok"]
    assert host.request("hosting.delete", username=name, confirm=name)["ok"]
    assert deletions(host) == before + 1


@pytest.fixture
def foreign(host):
    """A folder on the way to the file that belongs to somebody else, as /var/lib/prometheus does."""
    account = host.account()
    way = f"/var/lib/way-{account.name}"
    host.ok(["install", "-d", "-o", account.name, way])
    yield account, way
    host.ok(["rm", "-rf", way, "/etc/victim"])


def write(host, path):
    return host.run(["corvctl", "metrics", "--textfile", path])


def test_a_link_in_the_files_place_is_replaced_itself(host, foreign):
    account, way = foreign
    host.put("/etc/victim", "root's\n")
    host.ok(["sh", "-c", f"mkdir {way}/in && ln -s /etc/victim {way}/in/a.prom && ln -s /etc/victim {way}/in/.a.prom.new"],
            user=account.name)
    assert write(host, f"{way}/in/a.prom").code == 0
    assert host.get("/etc/victim") == "root's\n"
    assert "corvane_agent_up 1" in host.get(f"{way}/in/a.prom")


def test_a_link_in_the_folders_place_leads_nowhere(host, foreign):
    account, way = foreign
    host.ok(["ln", "-s", "/etc/cron.d", f"{way}/in"], user=account.name)
    done = write(host, f"{way}/in/victim")
    assert done.code == 1
    assert f"there is a link or a file on the way to {way}/in" in done.err
    assert not host.exists("/etc/cron.d/victim")


def test_a_pipe_or_a_folder_in_the_files_place_holds_up_nothing(host, foreign):
    account, way = foreign
    host.ok(["sh", "-c", f"mkdir {way}/in {way}/in/b.prom && mkfifo {way}/in/a.prom {way}/in/.a.prom.new"], user=account.name)
    assert write(host, f"{way}/in/a.prom").code == 0
    assert "corvane_agent_up 1" in host.get(f"{way}/in/a.prom")
    done = write(host, f"{way}/in/b.prom")
    assert (done.code, "Is a directory" in done.err) == (1, True)


def test_an_account_cannot_name_a_series(host):
    """What a user may change of himself is in no label."""
    account = host.account()
    host.ok(["sh", "-c", "chsh -s /bin/sh; chfn -r 'x\"} 1' || true"], user=account.name)
    host.ok(["usermod", "--comment", 'Corvane account,x"} 1', account.name])
    text = host.ok(["corvctl", "metrics", "--fresh"])
    assert 'x"}' not in text and 'x\\"}' not in text
    assert all(re.fullmatch(r'(# (HELP|TYPE) .*|corvane_\w+(\{(\w+="[^"\\]*",?)+\})? [0-9.e+-]+)', line) for line in text.splitlines())
