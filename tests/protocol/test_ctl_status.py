"""corvctl status: one screen that answers whether the server is well."""

import contextlib
import json
import os
import socket
import threading
import time

import pytest
from corvctl import corvctl, on_terminal
from recorded import recorded

COMMANDS = ("system.info", "services.status", "system.disks", "security.status", "updates.status", "backup.status",
            "quota.status")
BACKUPS = "/var/backups/corvane/auto"


@pytest.fixture
def server(sandbox):
    """A sandbox whose stand-ins tell of a server that is well, with one account."""
    block = "LoadState=loaded\nActiveState=active\nSubState=running\n"
    sandbox.answer("systemctl", "show", "--no-pager", ..., out=f"{block}\n{block}")
    sandbox.answer("systemctl", "show", "-p", "NextElapseUSecRealtime", ..., out="Mon 2026-01-05 03:30:00 UTC\n")
    sandbox.answer("systemctl", "is-active", ..., exit=3)
    sandbox.answer("dpkg-query", out="install ok installed")
    sandbox.answer("ufw", "status", "numbered", **recorded("bookworm", "ufw-rules"))
    sandbox.answer("sshd", "-T", out="port 22\n")
    sandbox.answer("fail2ban-client", "status", **recorded("bookworm", "fail2ban-one-jail"))
    sandbox.answer("fail2ban-client", "status", "sshd", **recorded("bookworm", "fail2ban-jail-banned"))
    sandbox.answer("apt", **recorded("bookworm", "apt-none"))
    sandbox.answer("findmnt", out="/home xfs\n")
    sandbox.write("/var/lib/apt/periodic/update-success-stamp")
    sandbox.write("/etc/apt/apt.conf.d/20auto-upgrades", 'APT::Periodic::Unattended-Upgrade "1";\n')
    sandbox.add_account("alice")
    back_up(sandbox)
    sandbox.start()
    return sandbox


def back_up(sandbox, **manifest):
    began = time.time() - 7200
    name = time.strftime("%Y-%m-%d_%H%M%S", time.gmtime(began))
    content = {"name": name, "created": int(began), "seconds": 5, "accounts": [{"username": "alice"}], "errors": [], **manifest}
    sandbox.write(f"{BACKUPS}/{name}/manifest.json", json.dumps(content))


def status(sandbox, *args, commands=COMMANDS):
    """Its tab-separated lines as a dictionary: topic -> list of (state, text)."""
    sandbox.logs(*(f"agent: uid 0 ran {command} -> ok" for command in commands))
    code, out, err = corvctl(sandbox, "status", "--plain", *args)
    assert (code, err) == (0, "")
    found = {}
    for line in out.splitlines():
        topic, state, text = line.split("\t")
        found.setdefault(topic, []).append((state, text))
    return found


def test_tells_of_a_server_that_is_well(server):
    found = status(server)
    assert {topic: {state for state, _ in lines} for topic, lines in found.items()} == dict.fromkeys(
        ("server", "services", "disks", "accounts", "sites", "firewall", "bans", "updates", "backup"), {"ok"})
    assert found["services"] == [("ok", "apache2, postgresql, php8.2-fpm running")]
    assert found["accounts"] == [("ok", "1")]
    assert found["sites"] == [("ok", "none")]
    assert found["updates"] == [("ok", "none, automatic")]
    assert found["backup"][0][1].startswith("2 h 0 min ago, 1 account, ")
    assert found["backup"][0][1].endswith(", no errors")


def test_fits_a_terminal(server):
    server.logs(*(f"agent: uid 0 ran {command} -> ok" for command in COMMANDS))
    code, text = on_terminal(server, "status")
    assert code == 0
    assert text.startswith("sandbox is well\n\n  Server    Debian GNU/Linux 12 (bookworm), kernel ")
    assert max(len(line) for line in text.splitlines()) <= 80


def test_says_what_needs_attention(server):
    dead = "LoadState=loaded\nActiveState=failed\nSubState=failed\n"
    server.answer("systemctl", "show", "--no-pager", ..., out=f"{dead}\nLoadState=not-found\nActiveState=inactive\n")
    server.answer("systemctl", "show", "-p", "NextElapseUSecRealtime", ..., out="\n")
    server.answer("ufw", "status", "numbered", out="Status: inactive\n")
    server.answer("fail2ban-client", exit=255)
    server.answer("apt", **recorded("bookworm", "apt-upgradable"))
    server.write("/run/reboot-required")
    back_up(server, errors=["alice files: \x1b]0;x\x07"])
    found = status(server)
    assert found["services"] == [("attention", "php8.2-fpm is failed; apache2 is failed; postgresql is not installed")]
    assert found["firewall"] == [("attention", "off: corvctl firewall enable")]
    assert found["bans"] == [("attention", "fail2ban does not run: corvctl ban enable")]
    assert found["updates"] == [("attention", "3, 2 of them for security, a restart is due, automatic")]
    assert [state for state, _ in found["backup"]] == ["attention"] * 3
    assert [text for _, text in found["backup"][1:]] == [
        r"alice files: \x1b]0;x\x07", "no next one is planned: systemctl enable --now corv-backup.timer"]


def test_a_refusal_is_part_of_the_picture(server):
    server.answer("ufw", exit=1, err="ERROR: problem running\n")
    assert status(server)["firewall"] == [("attention", "ufw failed: ERROR: problem running")]


def test_sums_up_the_homes_where_quotas_tell_their_sizes(server):
    server.answer("quotaon", out="user quota on /home (/dev/sda1) is on\n")
    server.answer("repquota", out=f"#{server.uid('alice')} -- 2048 0 0 1 0 0\n")
    assert status(server, commands=(*COMMANDS, "hosting.usage"))["accounts"] == [("ok", "1, 2.0 MiB together")]


def test_gives_all_replies_as_they_are(server):
    server.logs(*(f"agent: uid 0 ran {command} -> ok" for command in COMMANDS))
    code, out, _ = corvctl(server, "status", "--json")
    assert code == 0
    assert out.count("\n") == 1
    replies = json.loads(out)
    assert replies.pop("here") == {
        "services": [{"active": True, "name": "php8.2-fpm", "state": "running"}], "sites": [], "suspended": [], "lines": []}
    assert sorted(replies) == sorted(COMMANDS)
    assert replies["services.status"] == server.request("services.status")


def test_prints_its_requests(server):
    assert corvctl(server, "status", "-n") == (0, "".join(f'{{"cmd":"{command}"}}\n' for command in COMMANDS), "")


def test_says_why_there_is_no_picture(sandbox):
    code, out, err = corvctl(sandbox, "status", start=False)
    assert (code, out) == (3, "")
    assert err == ("corvctl: there is no socket /run/corvane/agent.sock\n"
                   "  is corv-agent installed and running? systemctl status corv-agent\n")


def write_site(box, port):
    """An account of its own whose site is on a port of this test's server."""
    box.write("/etc/apache2/sites-enabled/corv-alice.conf",
              f"<VirtualHost 127.0.0.1:{port}>\nServerName example.org\nDocumentRoot /home/alice/public_html\n</VirtualHost>\n")


@contextlib.contextmanager
def web(answer, closes=True):
    """A server that gives each visitor the same bytes: its port."""
    with socket.create_server(("127.0.0.1", 0)) as server:
        kept = []

        def serve():
            while True:
                try:
                    visitor, _ = server.accept()
                except OSError:  # the server is closed
                    return
                visitor.recv(65536)
                visitor.sendall(answer)
                if closes:
                    visitor.close()
                kept.append(visitor)

        thread = threading.Thread(target=serve)
        thread.start()
        yield server.getsockname()[1]
        server.shutdown(socket.SHUT_RDWR)
        thread.join()
        for visitor in kept:
            visitor.close()


APACHES = (b"HTTP/1.1 503 Service Unavailable\r\nConnection: close\r\n\r\n"
           b'<!DOCTYPE HTML PUBLIC "-//IETF//DTD HTML 2.0//EN">\n<html><head>\n<title>503 Service Unavailable</title>\n')


@pytest.mark.parametrize("answer, line", [
    (b"HTTP/1.1 200 OK\r\n\r\n", ("ok", "1 answer as they should")),
    (b"HTTP/1.1 302 Found\r\nLocation: /login\r\n\r\n", ("ok", "1 answer as they should")),
    (b"HTTP/1.1 403 Forbidden\r\n\r\n", ("ok", "1 answer as they should")),
    (b"HTTP/1.1 503 x\r\n\r\nBack in an hour", ("ok", "1 answer as they should")),
    (APACHES, ("attention", "503 Service Unavailable: example.org (1 asked)")),
    (b"HTTP/1.1 502 Bad Gateway\r\n\r\n", ("attention", "502 Bad Gateway: example.org (1 asked)")),
    (b"HTTP/1.1 500 x\r\n\r\n", ("attention", "500 Internal Server Error: example.org (1 asked)")),
    (b"\x1b[2Jwhatever\r\n", ("attention", "no answer of HTTP: example.org (1 asked)")),
])
def test_sees_what_visitors_see(server, answer, line):
    with web(answer) as port:
        write_site(server, port)
        assert status(server)["sites"] == [line]


def test_does_not_wait_for_a_site_that_is_silent(server):
    with web(b"", closes=False) as port:
        write_site(server, port)
        assert status(server)["sites"] == [("attention", "no answer within 1 s: example.org (1 asked)")]


def test_knows_a_suspended_site_by_its_word(server):
    server.answer("a2ensite", real=False)
    server.add_account("bobby", "bobby.example")
    server.request("hosting.suspend", username="bobby")
    found = status(server)
    assert found["accounts"] == [("ok", "2, 1 suspended (bobby)")]


# What the server itself knows, told to whoever asks from elsewhere

# What ssh does with its words: -T -- HOST COMMAND...
SSH = 'shift 3; exec "$@"'
TROUBLE = {
    "updates": [("ok", "none, automatic"),
                ("attention", "automatic security updates are on, but nothing installs them: there is no package "
                              "unattended-upgrades: apt-get install -y unattended-upgrades")],
    "off-site": [("attention", "nothing has been copied off-site yet")],
    "failed": [("attention", "corv-offsite.service failed 2 d 0 h ago and has not succeeded since; "
                             "journalctl -u corv-offsite.service says why"),
               ("attention", "corv-prove.service failed 2 d 0 h ago and has not succeeded since; "
                             "journalctl -u corv-prove.service says why")],
}


@pytest.fixture
def over_there(server):
    """The server, reached by an ssh that goes no further: what is asked of it twice is logged twice."""
    server.answer("ssh", shell=SSH)
    server.allows_loose_calls("ssh")
    return server


def make_trouble(server):
    """What no request tells of: switched on and dead, not copied, not whole, failed."""
    server.answer("dpkg-query", "-W", "*", "unattended-upgrades", exit=1, err="dpkg-query: no packages found\n")
    server.settings("[offsite]\nrepository=/srv/place\n")
    for unit in ("corv-offsite", "corv-prove"):
        server.write(f"/var/lib/corvane/failures/{unit}.service", "failed\n")
        os.utime(server.path(f"/var/lib/corvane/failures/{unit}.service"), (time.time() - 2 * 86_400 - 60,) * 2)
    name = os.listdir(server.path(BACKUPS))[0]
    verdict = {"backup": name, "checked": int(time.time()),
               "files": [{"file": "panel.dump", "bytes": 1, "checked": int(time.time()), "fault": "is empty\x1b"}]}
    server.write(f"{BACKUPS}/{name}.verified.json", json.dumps(verdict))


@pytest.mark.parametrize("host", [[], ["-H", "web1"]])
def test_what_the_server_alone_knows_is_told_there_and_from_elsewhere(over_there, host):
    make_trouble(over_there)
    found = status(over_there, *host, commands=COMMANDS * (2 if host else 1))
    assert {topic: found.get(topic) for topic in TROUBLE} == TROUBLE
    assert [state for state, _ in found["backup"]] == ["attention"] * 2
    assert found["backup"][0][1].endswith(", no errors, not whole")
    assert found["backup"][1][1] == r"panel.dump is empty\x1b"
    assert "not told" not in found


def test_a_verified_backup_is_called_so_from_elsewhere_too(over_there):
    name = os.listdir(over_there.path(BACKUPS))[0]
    over_there.write(f"{BACKUPS}/{name}.verified.json", json.dumps({"backup": name, "checked": 1, "files": []}))
    (state, text), = status(over_there, "-H", "web1", commands=COMMANDS * 2)["backup"]
    assert (state, text.endswith(", no errors, verified")) == ("ok", True)


def test_a_group_is_told_of_it_in_a_line(over_there):
    make_trouble(over_there)
    over_there.logs(*(f"agent: uid 0 ran {command} -> ok" for command in COMMANDS * 2))
    over_there.write("/etc/corvane/hosts", "[web]\nweb1\n")
    code, out, err = corvctl(over_there, "-H", "@web", "--plain", "status")
    assert (code, err) == (0, "1 hosts: 1 done\n")
    host, state, what = out.rstrip("\n").split("\t")
    assert (host, state) == ("web1", "6 places")
    for topic, lines in TROUBLE.items():
        for line in lines:
            assert (f"{topic}: {line[1]}" in what) == (line[0] == "attention")


@pytest.mark.parametrize("told, why", [
    ({"services": [], "sites": [], "suspended": []}, "the corvctl there is older"), (None, "known on the server alone")])
def test_what_is_not_told_from_there_is_not_called_well(over_there, told, why):
    """One that is older, and a key that is good for the agent alone."""
    said = json.dumps({"here": told}) if told else ""
    over_there.answer("ssh", "-T", "--", "web1", "corvctl", "status", "--json", ignore_input=True, out=said)
    found = status(over_there, "-H", "web1")
    assert found["not told"] == [(
        "unknown", f"automatic updates, verified backups, off-site copies, certificates, failed services: {why}")]
    assert ("sites" in found and found["sites"][0][0] == "unknown") == (told is None)
    over_there.logs(*(f"agent: uid 0 ran {command} -> ok" for command in COMMANDS))
    assert corvctl(over_there, "-H", "web1", "status")[1].startswith("sandbox is well as far as it tells\n")
