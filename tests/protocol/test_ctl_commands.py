"""corvctl against the agent: what each command prints for people and for programs, and what it asks for."""

import json
import os
import re
import shlex
from pathlib import Path

import pytest

from corvctl import corvctl
from recorded import recorded

KEY = "ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIJx0m0nV1bqvfXzYv4hS2Yw3sLkqF5oYzZ8dQ2mWm1aB alice@home"
DISK = "/srv/disk/auto"
SECTION = re.compile(r"^\$ corvctl (.*?)  #(.*)\n", re.MULTILINE)
NOW = 1767610800  # 2026-01-05 11:00:00 UTC

SERVICES = """\
Id=apache2.service
LoadState=loaded
ActiveState=active
SubState=running
MemoryCurrent=52428800
ActiveEnterTimestamp=Mon 2026-01-05 10:00:00 UTC

Id=postgresql.service
LoadState=loaded
ActiveState=inactive
SubState=dead
MemoryCurrent=[not set]
ActiveEnterTimestamp=

Id=nosuch.service
LoadState=not-found
ActiveState=inactive
SubState=dead
MemoryCurrent=[not set]
ActiveEnterTimestamp=
"""
INSTALL_LOG = "== 2026-01-05T04:05:06 installing security updates\nReading package lists...\n== finished (exit 0)\n"


def backup(sandbox, name, manifest):
    sandbox.mkdir(f"{DISK}/{name}")
    sandbox.write(f"{DISK}/{name}/manifest.json", json.dumps(manifest))
    sandbox.write(f"{DISK}/{name}/accounts/alice-home.tar.gz", b"x" * 70000)


@pytest.fixture
def server(sandbox):
    """A server with two accounts and something of everything."""
    sandbox.settings("[health]\nservices=apache2,postgresql,nosuch\n[backup]\ndestination=/srv/disk/auto\n")
    sandbox.small_disk("/srv/disk", "4m")
    for name in ("carol", "alice"):
        sandbox.add_account(name, f"{name}.example.org")
    sandbox.write("/home/alice/.ssh/authorized_keys", f"# work\n{KEY}\nfrom=\"10.0.0.1\" {KEY}\n", 0o600, "alice:alice")
    sandbox.write("/home/alice/public_html/index.html", "<h1>hello</h1>\n", 0o644, "alice:www-data")
    sandbox.write("/home/alice/public_html/big.bin", b"\0" * 1500000, 0o600, "alice:alice")
    sandbox.write("/home/alice/public_html/\x1b[2J\u202egpj.exe", "x", 0o644, "alice:alice")
    sandbox.symlink("/home/alice/public_html/link", "index.html")
    for entry in sandbox.path("/home/alice/public_html").iterdir():
        os.utime(entry, (NOW, NOW), follow_symlinks=False)
    sandbox.answer("du", out="1500000\t/home/carol\n5000000000\t/home/alice\n")
    sandbox.answer("findmnt", out="/ ext4\n")
    sandbox.answer("systemctl", "show", "--no-pager", ..., out=SERVICES)
    sandbox.answer("systemctl", "is-active", ..., **recorded("bookworm", "systemctl-is-active-unknown"))
    sandbox.answer("sshd", "-T", **recorded("bookworm", "sshd"))
    sandbox.answer("dpkg-query", ..., **recorded("bookworm", "dpkg-installed"))
    sandbox.answer("ufw", "status", "numbered", **recorded("bookworm", "ufw-rules"))
    sandbox.answer("fail2ban-client", "status", **recorded("bookworm", "fail2ban-two-jails"))
    sandbox.answer("fail2ban-client", "status", "sshd", **recorded("bookworm", "fail2ban-jail-banned"))
    sandbox.answer("fail2ban-client", "status", "recidive", **recorded("bookworm", "fail2ban-jail-empty"))
    sandbox.answer("apt", "list", "--upgradable", **recorded("bookworm", "apt-upgradable"))
    sandbox.write("/var/log/corvane/upgrade.log", INSTALL_LOG)
    sandbox.write("/run/reboot-required.pkgs", "linux-image-amd64\nlibc6\n")
    sandbox.write("/run/reboot-required", "")
    stamp = sandbox.write("/var/lib/apt/periodic/update-success-stamp", "")
    os.utime(stamp, (NOW, NOW))
    saved = [{"username": "alice", "domain": "alice.example.org", "homeBytes": 70000, "dbBytes": 3000000}]
    sandbox.write(f"{DISK}/2026-01-04_031500.verified.json", json.dumps(
        {"backup": "2026-01-04_031500", "checked": 1767500000, "files": [
            {"file": "accounts/alice-home.tar.gz", "fault": ""},
            {"file": "accounts/alice-db.dump", "fault": "is damaged: \x1b[2J"}]}))
    backup(sandbox, "2026-01-04_031500", {"created": NOW - 90000, "seconds": 4000, "accounts": saved, "panelBytes": 0,
                                          "errors": []})
    backup(sandbox, "2026-01-05_031500", {"created": NOW, "seconds": 75, "accounts": saved, "panelBytes": 0,
                                          "errors": ["carol: tar failed: exit code 2"]})
    sandbox.mkdir(f"{DISK}/2026-01-03_031500")
    sandbox.answer("systemctl", "show", "-p", "NextElapseUSecRealtime", ..., out="Tue 2026-01-06 03:42:10 UTC\n")
    sandbox.answer("journalctl", out="backup 2026-01-05_031500 -> /srv/disk/auto\n  carol: \x1b[31mtar failed\x1b[0m\n")
    for name in ("env", "touch"):
        sandbox.add_standin(name)
    return sandbox


def sections():
    text = (Path(__file__).parent / "corvctl.txt").read_text()
    found = list(SECTION.finditer(text))
    ends = [section.start() for section in found[1:]] + [len(text)]
    return [(section[1], section[2].split(), text[section.end() : end]) for section, end in zip(found, ends)]


def written(sandbox, line, environment=None):
    """What a command prints, in the form of corvctl.txt."""
    code, out, err = corvctl(sandbox, *shlex.split(line), env={"COLUMNS": "80", **(environment or {})}, input=f"{KEY}\n")
    for password in re.findall(r"(?<![\w-])[\w-]{24}$", out, re.MULTILINE):
        if "password" in line or "create" in line:
            sandbox.secret(password)
            out = out.replace(password, "PASSWORD")
    out = re.sub(r"\b20\d{6}-\d{6}\b", "DATE", out)
    text = out + "".join(f"! {part}\n" for part in err.splitlines())
    return text + (f"= {code}\n" if code else "")


def declare(sandbox, requests):
    """Declares the lines of the agent's log for requests: names, with a minus behind those that it refused."""
    for request in requests:
        unknown = {"ok": False, "error": "unknown command"} if request == "nosuch-" else None
        sandbox.took(request.rstrip("-"), unknown or {"ok": not request.endswith("-")})


@pytest.mark.parametrize("line, requests, expected", sections(), ids=[line for line, _, _ in sections()])
def test_prints(server, line, requests, expected):
    assert written(server, line) == expected
    declare(server, requests)


def test_no_line_of_a_table_is_wider_than_80_columns():
    for line, _, expected in sections():
        if not {"--plain", "--json", "-n", "--text"} & set(line.split()):
            for part in expected.splitlines():
                assert len(part) <= 80 or part.startswith("! "), part


READING = ["system.info", "system.disks", "services.status", "quota.status", "firewall.status", "fail2ban.status",
           "updates.status", "backup.status", "hosting.usage"]
COMMANDS = {
    "host info": "system.info", "host disks": "system.disks", "service list": "services.status", "quota status": "quota.status",
    "firewall status": "firewall.status", "firewall list": "firewall.status", "ban list": "fail2ban.status",
    "ban jails": "fail2ban.status", "update status": "updates.status", "update list": "updates.status",
    "update log": "updates.status", "backup status": "backup.status",
    "backup log": "backup.status", "backup show 2026-01-05_031500": "backup.status", "account usage": "hosting.usage",
    "call services.status": "services.status",
}


@pytest.mark.parametrize("line, command", COMMANDS.items(), ids=COMMANDS)
def test_json_is_the_reply_line_unchanged(server, line, command):
    code, out, err = corvctl(server, "--json", *line.split())
    with server.connect() as client:
        client.send(json.dumps({"cmd": command}).encode() + b"\n")
        reply = client.line().decode()
    if command == "system.info":  # its age may have grown meanwhile
        out, reply = (re.sub(r'"uptimeSeconds":\d+', "", text) for text in (out, reply))
    assert (code, out, err) == (0, reply, "")
    declare(server, [command, command])


def test_information_on_the_host(server):
    code, out, err = corvctl(server, "host", "info")
    kernel = os.uname().release
    assert re.fullmatch(rf"Name         sandbox\nSystem       Debian GNU/Linux 12 \(bookworm\)\nKernel       {kernel}\n"
                        rf"Processors   \d+\nRunning for  [\dhdmins ]+\n", out), out
    assert (code, err) == (0, "")
    declare(server, ["system.info"])


def test_a_file_travels_there_and_back(server):
    content = os.urandom(3_000_000)
    server.write("/root/picture.png", content)
    assert written(server, "file put alice /root/picture.png public_html/") == "public_html/picture.png: 2.9 MiB\n"
    assert server.path("/home/alice/public_html/picture.png").read_bytes() == content
    assert written(server, "file get alice public_html/picture.png /root/back") == "/root/back: 2.9 MiB\n"
    assert server.path("/root/back").read_bytes() == content
    assert os.listdir(server.path("/var/lib/corvane/transfer")) == []
    assert sorted(os.listdir(server.path("/root"))) == ["back", "picture.png"]
    declare(server, ["files", "files"])


def test_a_file_comes_and_goes_by_the_standard_streams(server):
    code, out, err = corvctl(server, "file", "put", "alice", "-", "a.txt", input="from a pipe\n")
    assert (code, out, err) == (0, "a.txt: 12 B\n", "")
    assert corvctl(server, "file", "get", "alice", "a.txt", "-") == (0, "from a pipe\n", "")
    assert written(server, "file put alice -") == "! corvctl: standard input has no name: give a PATH\n= 2\n"
    declare(server, ["files", "files"])


def test_a_file_that_is_fetched_takes_no_device_away(server):
    server.write("/home/alice/a.txt", "hello\n", 0o644, "alice:alice")
    assert written(server, "file get alice a.txt /dev/null") == "/dev/null: 6 B\n"
    assert server.entry("/dev/null") == "0666 root:root"
    assert server.path("/dev/null").is_char_device()
    declare(server, ["files"])


def test_a_file_that_cannot_be_fetched_leaves_nothing(server):
    server.write("/root/old", "old")
    assert written(server, "file get alice nosuch /root/old").startswith("! corvctl: ")
    assert server.read("/root/old") == "old"
    assert written(server, "file get alice public_html/index.html /nosuch/x") == \
        "! corvctl: /nosuch/x: cannot write: No such file or directory\n= 1\n"
    assert os.listdir(server.path("/var/lib/corvane/transfer")) == []
    declare(server, ["files-", "files"])


def test_a_reader_that_goes_leaves_nothing_in_the_transfer_directory(server):
    server.write("/home/alice/large", b"x" * 3_000_000, 0o644, "alice:alice")
    corvctl(server, "--version")
    server.allows_loose_calls("head")
    shell = "corvctl file get alice large - 2>/tmp/err | head -c 1"
    assert server.run("/bin/sh", "-c", shell, env={"PATH": "/standins/bin:/usr/bin:/bin"})[1] == "x"
    assert "Broken pipe" in server.read("/tmp/err")
    assert os.listdir(server.path("/var/lib/corvane/transfer")) == []
    declare(server, ["files"])


def test_an_upload_that_is_interrupted_leaves_nothing(server):
    corvctl(server, "--version")
    shell = ("mkfifo /tmp/fifo; exec 3<>/tmp/fifo; echo some >&3; corvctl file put alice /tmp/fifo x & "
             'until [ "$(/usr/bin/cat /var/lib/corvane/transfer/* 2>/dev/null)" ]; do :; done; kill $!; wait $!')
    code, out, err = server.run("/bin/sh", "-c", shell, env={"PATH": "/standins/bin:/usr/bin:/bin"})
    assert (code, out) == (1, "")
    assert err.endswith("corvctl: /tmp/fifo: interrupted\n")
    assert os.listdir(server.path("/var/lib/corvane/transfer")) == []


def test_a_file_that_is_too_large_is_not_sent(server):
    server.start()
    with server.write("/root/huge").open("wb") as file:
        file.truncate(268_435_457)
    assert written(server, "file put alice /root/huge") == "! corvctl: /root/huge: over 256 MiB; use SFTP for big files\n= 1\n"
    assert os.listdir(server.path("/var/lib/corvane/transfer")) == []


def test_an_upload_that_is_refused_leaves_nothing(server):
    server.write("/root/a", "x")
    assert written(server, "file put alice /root/a public_html") == "! corvctl: a folder has that name\n= 1\n"
    assert os.listdir(server.path("/var/lib/corvane/transfer")) == []
    declare(server, ["files-"])


def test_a_key_comes_from_a_file_or_standard_input(server):
    server.write("/root/key.pub", KEY + "\n")
    assert written(server, "account keys carol --set -") == "carol has 1 key(s) now\n"
    assert written(server, "account keys carol --set /root/key.pub") == "carol has 1 key(s) now\n"
    assert server.read("/home/carol/.ssh/authorized_keys") == KEY + "\n"
    assert written(server, "account keys carol --set /root/nosuch") == \
        "! corvctl: cannot read /root/nosuch: No such file or directory\n= 2\n"
    declare(server, ["hosting.setKeys", "hosting.setKeys"])


def test_the_printed_request_is_what_is_sent(server):
    server.start()
    for line in ("firewall allow 8080 --from 10.0.0.0/8", "update automatic on", "account limit alice 2G"):
        request = json.loads(written(server, f"-n {line}"))
        written(server, line)
        with server.connect() as client:
            client.send(json.dumps(request).encode() + b"\n")
            reply = client.reply()
        declare(server, [request["cmd"] + "-" * (not reply["ok"])] * 2)


# Confirmation


@pytest.mark.parametrize("line", ["account delete alice", "file rm alice public_html", "host restart",
                                  "backup restore alice 2026-01-05_031500 database"])
def test_a_dangerous_step_is_not_taken_without_a_confirmation(server, line):
    server.start()
    for more in ("", " -n", " --plain"):
        assert written(server, line + more) == \
            "! corvctl: this has to be confirmed\n!   give --confirm NAME where nobody can be asked\n= 2\n"
    assert server.has_user("alice")
    assert server.argvs() == []


@pytest.mark.parametrize("line, complaint", [
    ("account delete alice", "that is not the account's name, so nothing was deleted"),
    ("file rm alice public_html", "that is not the name, so nothing was deleted"),
    ("backup restore alice 2026-01-05_031500 database", "that is not the account's name, so nothing was restored"),
])
def test_a_wrong_name_confirms_nothing(server, line, complaint):
    server.start()
    for name in ("carol", "ALICE", "''", "'alice '"):
        assert written(server, f"{line} --confirm {name}") == f"! corvctl: {complaint}\n= 2\n"
    assert server.argvs() == []


# The firewall and the administrator's own way in


@pytest.mark.parametrize("connection, goes_on", [
    ("192.0.2.1 50000 192.0.2.2 22", True),
    ("2001:db8::1 50000 2001:db8::2 22", True),
    ("192.0.2.1 50000 192.0.2.2 2222", False),
    ("192.0.2.1 50000 192.0.2.2 2", False),
    ("", True),
])
def test_the_firewall_is_not_switched_on_in_front_of_ones_own_connection(server, connection, goes_on):
    shown = written(server, "firewall enable", {"SSH_CONNECTION": connection})
    if goes_on:
        assert shown == "the firewall is on; open: 22/tcp, 80/tcp, 443/tcp\n"
        declare(server, ["firewall.status"] * bool(connection) + ["firewall.enable"])
        return
    port = connection.split()[3]
    assert shown == (
        f"! corvctl: you are logged in by SSH on port {port}, but the agent sees sshd on port 22 only: the firewall would lock you "
        f"out, so it was not switched on\n!   name the port in sshd's settings (sshd -T shows what holds), or log in on port 22\n= 1\n")
    assert ["ufw", "--force", "enable"] not in server.argvs()
    declare(server, ["firewall.status"])


def test_ones_own_connection_is_known_behind_sudo(server):
    corvctl(server, "--version")
    shell = "SSH_CONNECTION='1.2.3.4 5 6.7.8.9 2222' sh -c '/usr/bin/env -u SSH_CONNECTION corvctl firewall enable; echo $?'"
    code, out, err = server.run("/usr/bin/env", "--chdir=/", "sh", "-c", shell, env={"PATH": "/standins/bin:/usr/bin:/bin"})
    assert (code, out) == (0, "1\n")
    assert err.startswith("corvctl: you are logged in by SSH on port 2222, but the agent sees sshd on port 22 only")
    declare(server, ["firewall.status"])


# Work that goes on behind the reply


def running(server, *states):
    """Lets updates be installed, and the installation be seen running in these looks, one after the other."""
    for number, state in enumerate(states, 1):
        server.answer("systemctl", "is-active", "--quiet", "corv-upgrade", call=number, exit=0 if state else 3)


@pytest.mark.parametrize("code, status, last", [
    (0, 0, "the updates are installed\n"),
    (100, 1, "! corvctl: the installation failed with exit code 100\n!   /var/log/corvane/upgrade.log holds what it printed\n= 1\n"),
])
def test_an_installation_is_followed_to_its_end(server, code, status, last):
    running(server, False, False, True, False)
    server.answer("systemd-run", shell="echo Unpacking >>/var/log/corvane/upgrade.log; "
                  f"echo '== finished (exit {code})' >>/var/log/corvane/upgrade.log")
    shown = written(server, "update install all --wait")
    head, _, rest = shown.partition("\n")
    assert re.fullmatch(r"== \S+ installing all updates", head)
    assert rest == f"Unpacking\n== finished (exit {code})\n" + last
    declare(server, ["updates.status", "updates.install", "updates.status", "updates.status"])


def test_an_installation_that_is_cut_off_is_no_success(server):
    running(server, False, False, False)
    assert written(server, "update install security --wait").endswith(
        "! corvctl: the installation ended without telling how\n!   /var/log/corvane/upgrade.log holds what it printed\n= 1\n")
    declare(server, ["updates.status", "updates.install", "updates.status"])


def test_an_installation_that_is_refused_is_not_waited_for(server):
    running(server, False, True)
    assert written(server, "update install all --wait") == \
        "! corvctl: an update is already running\n!   corvctl update status shows how far it is\n= 1\n"
    declare(server, ["updates.status", "updates.install-"])


@pytest.mark.parametrize("errors, last", [
    ([], "the backup 2026-01-06_120000 was made\n"),
    (["a: b"], "! corvctl: the backup 2026-01-06_120000 was made with 1 error(s)\n"
               "!   corvctl backup show 2026-01-06_120000 tells them\n= 1\n"),
])
def test_a_backup_is_followed_to_its_end(server, errors, last):
    state = ["systemctl", "show", "-p", "ActiveState", "--value", "corv-backup.service"]
    for number, text in enumerate(("inactive", "activating", "activating", "inactive"), 1):
        server.answer(*state, call=number, out=text + "\n")
    server.answer("journalctl", call=1, out="old\n")
    server.answer("journalctl", call=2, out="old\nbackup begins\n")
    server.answer("journalctl", call=3, out="old\nbackup begins\nalice\n")
    server.answer("journalctl", call=4, out="backup begins\nalice\ndone\n")
    server.answer("systemctl", "start", ..., shell=f"mkdir -p {DISK}/2026-01-06_120000; printf '%s' '{json.dumps({'errors': errors})}' "
                        f">{DISK}/2026-01-06_120000/manifest.json")
    assert written(server, "backup start --wait") == "backup begins\nalice\ndone\n" + last
    declare(server, ["backup.status", "backup.start"] + ["backup.status"] * 3)


def test_one_that_was_made_while_the_clock_was_ahead_does_not_hide_the_next_backup(server):
    server.mkdir(f"{DISK}/2099-01-01_000000")
    server.answer("journalctl", call=1, out="old\n")
    server.answer("journalctl", calls=(2, 99), out="old\ndone\n")
    server.answer("systemctl", "start", ..., shell=f"mkdir -p {DISK}/2026-01-06_120000; echo '{{\"errors\": []}}' "
                        f">{DISK}/2026-01-06_120000/manifest.json")
    assert written(server, "backup start --wait") == "done\nthe backup 2026-01-06_120000 was made\n"
    declare(server, ["backup.status", "backup.start", "backup.status"])


def test_a_backup_without_a_manifest_is_no_success(server):
    server.answer("journalctl", call=1, out="old\n")
    server.answer("journalctl", calls=(2, 99), out="old\ndone\n")
    server.answer("systemctl", "start", ..., shell=f"mkdir -p {DISK}/2026-01-06_120000; : >{DISK}/2026-01-06_120000/manifest.json")
    assert written(server, "backup start --wait") == \
        "done\n! corvctl: the backup 2026-01-06_120000 was made without a list of what is in it\n" \
        "!   journalctl -u corv-backup tells why\n= 1\n"
    declare(server, ["backup.status", "backup.start", "backup.status"])


def test_a_backup_that_leaves_nothing_is_no_success(server):
    server.answer("journalctl", call=1, out="old\n")
    server.answer("journalctl", calls=(2, 99), out="old\nno space\n")
    assert written(server, "backup start --wait") == \
        "no space\n! corvctl: no backup was made\n!   journalctl -u corv-backup tells why\n= 1\n"
    declare(server, ["backup.status", "backup.start", "backup.status", "backup.status"])


def test_a_backup_that_ends_while_the_agent_looks_is_seen_at_the_next_look(server):
    state = ["systemctl", "show", "-p", "ActiveState", "--value", "corv-backup.service"]
    server.answer(*state, call=2, out="inactive\n",
                  shell=f"mkdir -p {DISK}/2026-01-06_120000; echo '{{\"errors\":[]}}' >{DISK}/2026-01-06_120000/manifest.json")
    server.answer("journalctl", call=1, out="old\n")
    server.answer("journalctl", calls=(2, 99), out="old\ndone\n")
    assert written(server, "backup start --wait") == "done\nthe backup 2026-01-06_120000 was made\n"
    declare(server, ["backup.status", "backup.start", "backup.status", "backup.status"])


STATE = ["systemctl", "show", "-p", "ActiveState", "--value", "corv-backup.service"]


def test_a_backup_has_begun_when_it_runs(server):
    for number, text in enumerate(("inactive", "inactive", "activating"), 1):
        server.answer(*STATE, call=number, out=text + "\n")
    assert written(server, "backup start") == "the backup has begun; corvctl backup log shows how far it is\n"
    declare(server, ["backup.status", "backup.start", "backup.status", "backup.status"])


@pytest.mark.parametrize("wait", ["", " --wait"])
def test_a_second_backup_is_told_of_the_first(server, wait):
    server.answer(*STATE, out="activating\n")
    assert written(server, "backup start" + wait) == \
        "! corvctl: a backup is being made already\n!   corvctl backup log shows how far it is\n= 1\n"
    declare(server, ["backup.status"])


def jails(server, *looks):
    """Lets fail2ban answer with these jails and their addresses, look by look; None where it does not run."""
    for number, found in enumerate(looks, 1):
        if found is None:
            server.answer("fail2ban-client", "status", call=number, exit=255)
            continue
        server.answer("fail2ban-client", "status", call=number,
                      out=f"Status\n|- Number of jail:\t{len(found)}\n`- Jail list:\t{', '.join(found)}\n")


def test_bans_are_on_when_fail2ban_answers(server):
    jails(server, None, [], ["sshd", "recidive"])
    assert written(server, "ban enable") == "fail2ban is on, with these jails: sshd, recidive\n"
    declare(server, ["fail2ban.enable"] + ["fail2ban.status"] * 3)


def test_an_address_is_banned_once_fail2ban_shows_it(server):
    server.answer("fail2ban-client", "set", "sshd", "banip", "198.51.100.9", out="1\n",
                  rest=False)
    server.answer("fail2ban-client", "get", "sshd", "bantime", out="600\n")
    shown = recorded("bookworm", "fail2ban-jail-banned")
    server.answer("fail2ban-client", "status", "sshd", call=2,
                  **{**shown, "out": shown["out"].replace(b"203.0.113.7" if isinstance(shown["out"], bytes) else "203.0.113.7",
                                                          b"198.51.100.9" if isinstance(shown["out"], bytes) else "198.51.100.9")})
    assert written(server, "ban add ::ffff:198.51.100.9") == "198.51.100.9 is banned by the jail sshd for 10 min\n"
    assert ["fail2ban-client", "set", "sshd", "banip", "198.51.100.9"] in server.argvs("fail2ban-client")
    declare(server, ["fail2ban.status", "fail2ban.status"])


@pytest.mark.parametrize("address, complaint", [
    ("127.0.0.1", "127.0.0.1 is no address that anybody comes from"),
    ("0.0.0.0", "0.0.0.0 is no address that anybody comes from"),
    ("224.0.0.1", "224.0.0.1 is no address that anybody comes from"),
    ("::1", "::1 is no address that anybody comes from"),
    ("ff02::1", "ff02::1 is no address that anybody comes from"),
    ("192.0.2.55", "192.0.2.55 is the address that you are logged in from: the ban would lock you out"),
    ("::ffff:192.0.2.55", "::ffff:192.0.2.55 is the address that you are logged in from: the ban would lock you out"),
    ("192.0.2.0/24", "'192.0.2.0/24' is no IPv4 or IPv6 address; networks and names are not banned"),
    ("--help", None),
    ("web.example", "'web.example' is no IPv4 or IPv6 address; networks and names are not banned"),
    ("1.2.3.4\n", "'1.2.3.4\\n' is no IPv4 or IPv6 address; networks and names are not banned"),
])
def test_an_address_that_nobody_should_ban_is_refused(server, address, complaint):
    code, out, err = corvctl(server, "ban", "add", address, env={"SSH_CONNECTION": "192.0.2.55 51000 192.0.2.1 22"})
    assert server.argvs("fail2ban-client") == []
    if complaint is not None:
        assert (code, out, err) == (1, "", f"corvctl: {complaint}\n")


def reach(box):
    """The box by an ssh that goes no further."""
    box.answer("ssh", shell='shift 3; exec "$@"')
    box.allows_loose_calls("ssh")


def test_what_the_ban_over_there_comes_to_is_told_here(server):
    reach(server)
    banned = json.loads(corvctl(server, "--json", "-H", "web1", "ban", "add", "203.0.113.7")[1])
    assert (banned["ok"], banned["running"]) == (True, True)
    server.write("/etc/corvane/hosts", "[web]\nweb1\n")
    code, out, err = corvctl(server, "--json", "-H", "@web", "ban", "add", "203.0.113.7")
    assert (code, json.loads(out), err) == (0, {"host": "web1", "reply": banned}, "1 hosts: 1 done\n")
    assert corvctl(server, "-H", "web1", "ban", "add", "203.0.113.7") == (
        0, "203.0.113.7 is banned by the jail sshd already\n", "")
    declare(server, ["fail2ban.status"] * 3)


def test_a_ban_that_is_refused_over_there_is_refused_here(server):
    reach(server)
    complaint = "fail2ban has no jail nosuch"
    for host in ([], ["-H", "web1"]):
        code, out, err = corvctl(server, *host, "ban", "add", "203.0.113.7", "--jail", "nosuch")
        assert (code, out, complaint in err) == (1, "", True)
        code, out, err = corvctl(server, "--json", *host, "ban", "add", "203.0.113.7", "--jail", "nosuch")
        assert (code, json.loads(out)) == (1, {"ok": False, "error": complaint})
    server.write("/etc/corvane/hosts", "[web]\nweb1\n")
    code, out, err = corvctl(server, "--json", "-H", "@web", "ban", "add", "203.0.113.7", "--jail", "nosuch")
    assert (code, json.loads(out), err) == (
        1, {"host": "web1", "reply": {"ok": False, "error": complaint}}, "1 hosts: 1 refused or at fault (web1)\n")
    declare(server, ["fail2ban.status"] * 5)


# Accounts that are gone


def test_the_accounts_that_are_gone_are_listed_with_the_newest_of_each(server):
    listing = corvctl(server, "account", "restore", start=False)
    assert listing == (0, "", "corvctl: no account is gone of which there is a backup or an archive\n")
    for path in (f"{DISK}/2026-01-04_031500/accounts/erin-home.tar.gz", f"{DISK}/2026-01-05_031500/accounts/erin-db.dump",
                 f"{DISK}/2026-01-05_031500/accounts/-rf-home.tar.gz", "/var/backups/corvane/zoe-20260102-120000-home.tar.gz"):
        server.write(path, b"x" * 2048)
        os.utime(server.path(path), (NOW, NOW))
    code, out, err = corvctl(server, "account", "restore", env={"COLUMNS": "80"}, start=False)
    assert (code, err) == (0, "")
    assert out == """\
ACCOUNT  FROM                   FILES  DATABASE  STATE  VERIFIED
erin     2026-01-05_031500          -   2.0 KiB  no     no
zoe      zoe-20260102-120000  2.0 KiB         -  no     no

To bring one back:
  corvctl account restore ACCOUNT --from FROM
"""
    code, out, err = corvctl(server, "--json", "account", "restore", start=False)
    assert (code, err) == (0, "")
    first, second = ({"state": False, "checked": 0, "fault": "", "homeBytes": 0, "dbBytes": 0, **one} for one in (
        {"from": "2026-01-05_031500", "kind": "backup", "made": 1767582900, "dbBytes": 2048},
        {"from": "2026-01-04_031500", "kind": "backup", "made": 1767496500, "homeBytes": 2048}))
    archived = {**second, "from": "zoe-20260102-120000", "kind": "deletion", "made": 1767355200}
    assert json.loads(out) == {"ok": True, "accounts": [{"username": "erin", "domain": "", "sources": [first, second]},
                                                        {"username": "zoe", "domain": "", "sources": [archived]}]}
    plain = corvctl(server, "--plain", "account", "restore", start=False)[1]
    assert plain == "erin\t2026-01-05_031500\t\t2048\tno\tno\nzoe\tzoe-20260102-120000\t2048\t\tno\tno\n"


def test_a_source_without_an_account_is_refused(server):
    assert corvctl(server, "account", "restore", "--from", "2026-01-05_031500", start=False) == (
        2, "", "corvctl: whose account is it? Name the one that is to be brought back\n")


@pytest.mark.parametrize("words", [["--confirm", "erin"], ["--as", "other"], ["--domain", "other.example"], ["--no-jobs"]])
def test_an_account_without_a_source_is_refused_where_more_than_the_list_is_asked_for(server, words):
    assert corvctl(server, "account", "restore", "erin", *words, start=False) == (
        2, "", "corvctl: restored from what? Name it by --from; without it, what there is is listed\n")


# The domain of an account


@pytest.fixture
def tenant(sandbox):
    """A server with one account that creation made."""
    assert sandbox.request("hosting.create", username="alice", domain="old.example")["ok"] is True
    sandbox.path("/etc/apache2/sites-enabled").mkdir(exist_ok=True)
    sandbox.symlink("/etc/apache2/sites-enabled/corv-alice.conf", "../sites-available/corv-alice.conf")
    return sandbox


SITE = "/etc/apache2/sites-available/corv-alice.conf"


def comment(box):
    return next(line.split(":")[4] for line in box.read("/etc/passwd").splitlines() if line.startswith("alice:"))


@pytest.mark.parametrize("command", ["hosting.resume", "hosting.suspend"])
def test_a_new_domain_is_in_the_user_database_and_the_site(tenant, command):
    if command == "hosting.suspend":
        assert tenant.request("hosting.suspend", username="alice") == {"ok": True}
    before = tenant.read(SITE)
    code, out, err = corvctl(tenant, "account", "domain", "alice", "WWW.New.example")
    assert (code, out) == (0, "alice is at new.example now\n")
    assert err == "corvctl: the logs of old.example stay where they are: /var/log/apache2/old.example-*.log\n"
    assert comment(tenant) == "Corvane account,new.example"
    assert tenant.read(SITE) == before.replace("old.example", "new.example")
    declare(tenant, ["ping", command])


def test_a_domain_that_apache_does_not_take_is_undone(tenant):
    before = tenant.read(SITE)
    tenant.answer("apache2ctl", "configtest", call=1, exit=1, err="Syntax error\n")
    code, out, err = corvctl(tenant, "account", "domain", "alice", "new.example")
    assert (code, out) == (1, "")
    assert err == "corvctl: alice has its old domain, old.example, again\ncorvctl: apache2ctl failed: Syntax error\n"
    assert comment(tenant) == "Corvane account,old.example"
    assert tenant.read(SITE) == before
    declare(tenant, ["ping", "hosting.resume-", "hosting.resume"])


def test_a_domain_that_the_user_database_does_not_take_changes_nothing(tenant):
    before = tenant.read(SITE)
    tenant.answer("usermod", exit=1, err="usermod: no\n")
    assert corvctl(tenant, "account", "domain", "alice", "new.example") == (1, "", "corvctl: usermod failed: usermod: no\n")
    assert (comment(tenant), tenant.read(SITE)) == ("Corvane account,old.example", before)
    declare(tenant, ["ping"])


@pytest.mark.parametrize("domain, complaint", [
    ("old.example", "alice has that domain already"),
    ("taken.example", "the site by-hand already answers to taken.example or www.taken.example on this server, and Apache would "
                      "serve only one of the two\n  choose another domain"),
    ("-x.example", None),
    ("x.example\n.evil", "that is not a valid domain name"),
])
def test_a_domain_that_cannot_be_had_changes_nothing(tenant, domain, complaint):
    tenant.write("/etc/apache2/sites-enabled/by-hand.conf", "<VirtualHost *:80>\nServerAlias www.taken.example\n</VirtualHost>\n")
    before = tenant.read(SITE)
    code, out, err = corvctl(tenant, "account", "domain", "alice", domain)
    assert (code != 0, out) == (True, "")
    if complaint is not None:
        assert err == f"corvctl: {complaint}\n"
    assert (comment(tenant), tenant.read(SITE)) == ("Corvane account,old.example", before)


def test_a_domain_that_cannot_be_had_over_there_is_refused_here(tenant):
    reach(tenant)
    tenant.write("/etc/apache2/sites-enabled/by-hand.conf", "<VirtualHost *:80>\nServerAlias www.taken.example\n</VirtualHost>\n")
    complaint = "by-hand already answers to taken.example"
    code, out, err = corvctl(tenant, "-H", "web1", "account", "domain", "alice", "taken.example", start=False)
    assert (code, out, complaint in err) == (1, "", True)
    code, out, err = corvctl(tenant, "--json", "-H", "web1", "account", "domain", "alice", "taken.example", start=False)
    assert (code, json.loads(out)["ok"], complaint in json.loads(out)["error"]) == (1, False, True)
    tenant.write("/etc/corvane/hosts", "[web]\nweb1\n")
    code, out, err = corvctl(tenant, "-H", "@web", "account", "domain", "alice", "taken.example", start=False)
    assert (code, err.splitlines()[-1]) == (1, "1 hosts: 1 refused or at fault (web1)")


def test_a_new_domain_over_there_is_told_as_a_reply(tenant):
    reach(tenant)
    assert corvctl(tenant, "--json", "-H", "web1", "account", "domain", "alice", "new.example") == (0, '{"ok":true}\n', "")
    assert comment(tenant) == "Corvane account,new.example"
    declare(tenant, ["ping", "hosting.resume"])


@pytest.mark.parametrize("ended, status", [(1, 1), (2, 2), (4, 4), (3, 3), (127, 3), (255, 3), (137, 3)])
def test_a_command_over_there_ends_here_as_there_where_it_was_reached(tenant, ended, status):
    tenant.answer("ssh", ignore_input=True, exit=ended, err="words\n")
    for command in (["account", "domain", "alice", "new.example"], ["ban", "add", "203.0.113.7"], ["account", "list"],
                    ["account", "show", "alice"], ["notify", "test"], ["backup", "verify"], ["doctor"]):
        assert corvctl(tenant, "-H", "web1", *command, start=False)[:2] == (status, ""), command


def test_a_domain_too_long_for_the_names_of_logs_is_given_to_nobody(tenant):
    """The agent would take it: only Apache's logs are not rotated any more."""
    longest = ".".join(["a" * 63, "b" * 63, "c" * 63, "d" * 38, "example"])
    assert len(longest) == 238
    refusal = ("corvctl: that domain has 239 characters, too many for the names of its logs: none of Apache's logs would be "
               "rotated any more\n  choose one of at most 238 characters\n")
    for command in (["create", "bobby", f"www.{longest}e"], ["create", "bobby", f"{longest}e", "--force"],
                    ["domain", "alice", f"{longest}e"]):
        assert corvctl(tenant, "account", *command) == (1, "", refusal)
    assert corvctl(tenant, "account", "domain", "alice", longest)[0] == 0
    assert comment(tenant) == f"Corvane account,{longest}"
    declare(tenant, ["ping", "hosting.resume"])


def test_a_domain_that_is_taken_is_not_given_to_a_new_account(tenant):
    code, out, err = corvctl(tenant, "account", "create", "bobby", "www.old.example")
    assert (code, out, err) == (1, "", "corvctl: the site corv-alice already answers to old.example or www.old.example on this "
                                       "server, and Apache would serve only one of the two\n"
                                       "  choose another domain; --force takes it all the same\n")
    code, out, _ = corvctl(tenant, "--json", "account", "create", "bobby", "old.example")
    assert (code, json.loads(out)) == (1, {"ok": False, "error": err.partition("\n")[0].removeprefix("corvctl: ")})
    code, out, err = corvctl(tenant, "--plain", "account", "create", "bobby", "old.example", "--force")
    assert (code, err) == (0, "corvctl: the site corv-alice already answers to old.example or www.old.example on this server\n")
    tenant.secret(out.splitlines()[-1].split("\t")[1])
    declare(tenant, ["hosting.create"])


@pytest.mark.parametrize("command, requests", [(["suspend", "alice"], ["hosting.suspend"]),
                                               (["delete", "alice", "--confirm", "alice"], ["hosting.delete"])])
def test_sites_that_are_not_reached_are_named_before_and_after(tenant, command, requests):
    tenant.write("/etc/apache2/sites-enabled/corv-alice-le-ssl.conf",
                 "<VirtualHost *:443>\nServerName old.example\nDocumentRoot /home/alice/public_html\n</VirtualHost>\n")
    code, _, err = corvctl(tenant, "account", *command)
    assert (code, err) == (0, "corvctl: the site corv-alice-le-ssl serves alice too, and stays on line\n"
                              "corvctl: still on line: corv-alice-le-ssl; to take it off: a2dissite -q corv-alice-le-ssl && "
                              "systemctl reload apache2\n")
    declare(tenant, requests)


def test_the_list_tells_who_is_suspended(tenant):
    assert tenant.request("hosting.suspend", username="alice") == {"ok": True}
    code, out, _ = corvctl(tenant, "--json", "account", "list")
    assert (code, [(one["username"], one["state"]) for one in json.loads(out)["accounts"]]) == (0, [("alice", "suspended")])
    assert json.loads(corvctl(tenant, "--json", "account", "show", "alice")[1])["state"] == "suspended"
    declare(tenant, ["hosting.getKeys", "backup.status"])


def test_the_list_tells_what_each_uses_of_its_limit_where_quotas_do(tenant):
    tenant.answer("findmnt", out="/home /dev/sda1 ext4\n")
    tenant.answer("quotaon", out="user quota on /home (/dev/sda1) is on\n")
    tenant.answer("repquota", out=f"#{tenant.uid('alice')} -- 2048 0 4096 1 0 0\n")
    listed = json.loads(corvctl(tenant, "--json", "account", "list")[1])
    assert listed["usedFrom"] == "quotas"
    assert [(one["usedBytes"], one["limitBytes"]) for one in listed["accounts"]] == [(2048 << 10, 4096 << 10)]
