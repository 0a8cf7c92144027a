"""corvctl on other servers, through an ssh that is a stand-in: it goes no further than this sandbox."""

import json
import os
import time

import pytest
from corvctl import corvctl, on_terminal
from terminal import FAKE_SOCKET, FakeAgent

PONG = '{"ok":true,"version":"0.1"}\n'
# What ssh does with its words: -T -- HOST COMMAND...
REMOTE = 'shift 3; exec "$@"'


@pytest.fixture
def ssh(sandbox):
    """A sandbox whose ssh runs the command here, whatever the host."""
    sandbox.answer("ssh", shell=REMOTE)
    sandbox.allows_loose_calls("ssh")
    sandbox.start()
    return sandbox


def status_replies(full):
    """Replies of a server that is well but for so many full disks."""
    disks = [{"mount": f"/{name}", "total": 1 << 20, "avail": 1 << 10} for name in "ab"[:full]]
    return {
        "system.info": {"os": "Debian", "kernel": "6", "cpus": 1, "uptimeSeconds": 1}, "system.disks": {"disks": disks},
        "services.status": {"services": [{"name": "apache2", "loaded": True, "active": True}]},
        "security.status": {"firewall": {"ok": True, "installed": True, "active": True, "rules": []},
                            "fail2ban": {"ok": True, "installed": True, "running": True, "jails": [{"name": "sshd", "banned": []}]}},
        "updates.status": {"updates": 0, "security": 0, "lastCheck": int(time.time()), "automatic": True},
        "backup.status": {"backups": [{"name": "x", "created": int(time.time()), "errors": [], "accounts": [], "bytes": 1}],
                          "next": "x"},
        "quota.status": {"enabled": False},
    }


def answer_status(connection, replies):
    """The first line names the host, which the stand-in for ssh has put before the requests."""
    stream = connection.makefile("rwb")
    host = stream.readline().decode().strip()
    for line in stream:
        stream.write(json.dumps({"ok": True, **replies[host][json.loads(line)["cmd"]]}).encode() + b"\n")
        stream.flush()


def test_runs_the_same_through_ssh(ssh):
    ssh.logs("agent: uid 0 ran ping -> ok")
    assert corvctl(ssh, "call", "ping", "-H", "admin@web1.example") == (0, PONG, "")
    assert ssh.argvs("ssh") == [["ssh", "-T", "--", "admin@web1.example", "corvctl", "proxy"]]


def test_a_domain_is_passed_on_as_it_was_typed(ssh):
    """Over there one "www." is taken off it, and only there."""
    ssh.answer("ssh", out="alice is at www.x.example now\n")
    assert corvctl(ssh, "account", "domain", "alice", "www.www.X.example", "-H", "web1") == (0, "alice is at www.x.example now\n", "")
    assert ssh.argvs("ssh") == [["ssh", "-T", "--", "web1", "corvctl", "account", "domain", "alice", "www.www.X.example"]]


def test_a_refusal_over_there_is_one_here(ssh):
    ssh.logs("agent: uid 0 ran quota.set -> failed")
    code, out, err = corvctl(ssh, "call", "quota.set", "-H", "web1")
    assert (code, out) == (1, "")
    assert err.startswith("corvctl: no Corvane account named ''\n")


@pytest.mark.parametrize("host", ["-oProxyCommand=x", "a@-x", "web 1", "web1\n", "web\t1", "web\x1b1", "web\u00a01", "web\u009b1",
                                  "root@", "$(x)", "a;b", "`x`"])
def test_refuses_what_is_no_name_of_a_host(ssh, host):
    code, out, err = corvctl(ssh, "call", "ping", f"--host={host}")
    assert (code, out) == (2, "")
    assert err.startswith("corvctl: a host")
    assert ssh.argvs("ssh") == []


@pytest.mark.parametrize("answer, words", [
    ({"exit": 255, "err": "ssh: Could not resolve hostname web1\r\n"}, "web1: ssh: Could not resolve hostname web1"),
    ({"exit": 127, "err": "bash: corvctl: command not found\n"}, "web1: corvctl is not installed there"),
    ({"exit": 3, "err": "corvctl: there is no \x1b[31msocket\n"}, r"web1: corvctl: there is no \x1b[31msocket"),
    ({"exit": 1}, "web1: ssh ended with exit code 1"),
    ({"out": "Welcome to web1!\n"}, "what answers there does not speak the agent's protocol"),
])
def test_says_why_a_host_gives_no_reply(ssh, answer, words):
    ssh.answer("ssh", ignore_input=True, **answer)
    code, out, err = corvctl(ssh, "call", "ping", "-H", "web1")
    assert (code, out) == (3, "")
    assert err.splitlines()[0] == f"corvctl: {words}"


def test_a_host_that_hangs_is_given_up(ssh):
    ssh.answer("ssh", hang=True)
    code, out, err = corvctl(ssh, "--timeout", "1", "call", "ping", "-H", "web1")
    assert (code, out) == (4, "")
    assert err.startswith("corvctl: no reply within 1 s\n")


def test_ssh_is_not_to_be_found(sandbox):
    sandbox.start()
    sandbox.path("/usr/bin/ssh").unlink(missing_ok=True)
    code, _, err = corvctl(sandbox, "call", "ping", "-H", "web1")
    assert code == 3
    assert err.startswith("corvctl: ssh: cannot start\n")


def test_a_flood_of_complaints_holds_nothing_up(ssh):
    ssh.logs("agent: uid 0 ran ping -> ok")
    ssh.answer("ssh", shell='shift 3; yes >&2 & "$@"; kill $!')
    assert corvctl(ssh, "call", "ping", "-H", "web1") == (0, PONG, "")


def test_several_hosts_each_with_its_name(ssh):
    hosts = [f"web{number}" for number in range(1, 7)]
    ssh.logs(*["agent: uid 0 ran ping -> ok"] * 6)
    code, out, err = corvctl(ssh, "call", "ping", *(word for host in hosts for word in ("-H", host)))
    assert (code, err) == (0, "6 hosts: 6 done\n")
    assert sorted(out.splitlines()) == [f"{host}: {PONG.strip()}" for host in hosts]


def test_the_summary_names_those_that_failed(ssh):
    ssh.logs("agent: uid 0 ran ping -> ok")
    ssh.answer("ssh", "-T", "--", "web2", ..., ignore_input=True, exit=255, err="ssh: no route\n")
    code, out, err = corvctl(ssh, "call", "ping", "-H", "web1", "-H", "web2")
    assert (code, out) == (3, f"web1: {PONG}")
    assert err == "web2: corvctl: web2: ssh: no route\n2 hosts: 1 done, 1 no connection (web2)\n"


def test_four_hosts_at_a_time(ssh):
    """The fifth begins when one of the first four has ended, and not before."""
    ssh.logs(*["agent: uid 0 ran ping -> ok"] * 5)
    ssh.answer("ssh", shell='trap "rmdir /tmp/$3" EXIT; trap exit TERM; mkdir /tmp/$3; ls -d /tmp/web* | wc -l >>/tmp/count; '
                            'echo >>/tmp/begun; while [ "$(wc -l </tmp/begun)" -lt 4 ]; do :; done; shift 3; "$@"')
    code, _, err = corvctl(ssh, "call", "ping", *(word for number in range(5) for word in ("-H", f"web{number}")))
    assert (code, err) == (0, "5 hosts: 5 done\n")
    assert max(int(line) for line in ssh.read("/tmp/count").split()) == 4


def test_hosts_ask_for_nothing(ssh):
    ssh.answer("ssh", shell="cat; (: </dev/tty) 2>/dev/null && echo terminal >&2; exit 255")
    code, out, err = corvctl(ssh, "call", "x", "-H", "web1", "-H", "web2", input="{}")
    assert "terminal" not in out + err
    assert code != 0


def test_refuses_a_bad_host_among_good_ones_before_anything_is_done(ssh):
    code, out, err = corvctl(ssh, "call", "ping", "-H", "web1", "--host=-x")
    assert (code, out, err) == (2, "", "corvctl: a host's name does not begin with a dash\n")
    assert ssh.argvs("ssh") == []


HOSTS = "# ours\n\n[web]\nroot@web1.example.org  # the old one\nweb2\n[db]\nweb2\ndb-1\n[none]\n"


@pytest.mark.parametrize("named, hosts", [
    (["@web"], ["root@web1.example.org", "web2"]), (["@db"], ["web2", "db-1"]),
    (["@all"], ["root@web1.example.org", "web2", "db-1"]), (["@db", "web9", "@web"], ["web2", "db-1", "web9", "root@web1.example.org"]),
])
def test_a_group_is_its_hosts(ssh, named, hosts):
    ssh.write("/etc/corvane/hosts", HOSTS)
    ssh.logs(*["agent: uid 0 ran ping -> ok"] * len(hosts))
    code, out, err = corvctl(ssh, "call", "ping", *(word for name in named for word in ("-H", name)))
    assert (code, err) == (0, f"{len(hosts)} hosts: {len(hosts)} done\n")
    assert sorted(out.splitlines()) == sorted(f"{host}: {PONG.strip()}" for host in hosts)


@pytest.mark.parametrize("text, group, complaint", [
    (HOSTS, "@wbe", "/etc/corvane/hosts has no group 'wbe'; did you mean '@web'?"),
    (HOSTS, "@", "/etc/corvane/hosts has no group ''"),
    (HOSTS, "@none", "the group 'none' of /etc/corvane/hosts is empty"),
    ("[web]\nweb1\n-oProxyCommand=x\n", "@web", "/etc/corvane/hosts, line 3: a host's name does not begin with a dash"),
    ("[web]\nweb1 web2\n", "@web", "/etc/corvane/hosts, line 2: a host's name holds no blanks, quotes or control characters"),
    ("[web]\n$(x)\n", "@web", "/etc/corvane/hosts, line 2: a host's name holds no blanks, quotes or control characters"),
    ("[web]\n@db\n", "@web", "/etc/corvane/hosts, line 2: a host is given as HOST, USER@HOST or @GROUP"),
    ("[-x]\nweb1\n", "@web",
     "/etc/corvane/hosts, line 1: a group is given as [NAME], of letters, digits, dots, dashes and underscores"),
    ("[all]\nweb1\n", "@all", "/etc/corvane/hosts, line 1: the group 'all' is every host of the file"),
])
def test_a_group_that_cannot_be_had(ssh, text, group, complaint):
    ssh.write("/etc/corvane/hosts", text)
    assert corvctl(ssh, "call", "ping", "-H", group) == (2, "", f"corvctl: {complaint}\n")
    assert ssh.argvs("ssh") == []


def test_a_hosts_file_that_is_none(ssh):
    assert corvctl(ssh, "call", "ping", "-H", "@web") == (
        2, "", "corvctl: cannot read /etc/corvane/hosts: No such file or directory\n")
    os.mkfifo(ssh.path("/etc/corvane/hosts"))
    assert corvctl(ssh, "call", "ping", "-H", "@web") == (2, "", "corvctl: /etc/corvane/hosts is no file of hosts\n")


def test_json_of_several_hosts_is_one_object_a_line(ssh):
    ssh.logs("agent: uid 0 ran ping -> ok")
    ssh.answer("ssh", "-T", "--", "web2", ..., ignore_input=True, exit=255, err="ssh: no route\n")
    code, out, err = corvctl(ssh, "--json", "call", "ping", "-H", "web1", "-H", "web2")
    assert (code, err) == (3, "2 hosts: 1 done, 1 no connection (web2)\n")
    assert out == f'{{"host":"web1","reply":{PONG.strip()}}}\n{{"error":"web2: ssh: no route","exit":3,"host":"web2"}}\n'


def test_json_of_a_refusal_has_its_host(ssh):
    ssh.logs("agent: uid 0 ran quota.set -> failed")
    ssh.write("/etc/corvane/hosts", "[one]\nweb1\n")
    code, out, err = corvctl(ssh, "--json", "call", "quota.set", "-H", "@one")
    assert (code, err) == (1, "1 hosts: 1 refused or at fault (web1)\n")
    line = json.loads(out)
    assert (line["host"], line["reply"]["ok"]) == ("web1", False)


def test_status_of_several_hosts_is_a_line_each_with_the_worst_first(ssh):
    replies = {host: status_replies(count) for host, count in (("web1", 0), ("web2", 1), ("web3", 2), ("web5", 0))}
    told = json.dumps({"here": {"services": [], "sites": [], "suspended": [], "lines": []}})
    with FakeAgent(ssh, lambda connection: answer_status(connection, replies)):
        ssh.answer("ssh", shell='host=$3; shift 3; [ "$2" = account ] && { echo \'{"ok":true,"accounts":[]}\'; exit; }; '
                                '[ "$host $2" = "web5 status" ] && exit 1; '
                                f'[ "$2" = status ] && {{ echo \'{told}\'; exit; }}; '
                                f'{{ echo "$host"; cat; }} | "$@" --socket {FAKE_SOCKET}')
        ssh.answer("ssh", "-T", "--", "web4", ..., ignore_input=True, exit=255, err="ssh: no route\n")
        code, out, err = corvctl(ssh, "status", *(word for number in range(1, 6) for word in ("-H", f"web{number}")))
    assert (code, err) == (3, "5 hosts: 4 done, 1 no connection (web4)\n")
    assert out == """\
HOST  STATE          WHAT
web4  no connection  web4: ssh: no route
web3  2 places       disks: /a: 1.0 KiB of 1.0 MiB free; disks: /b: 1.0 KiB of 1.0 MiB free
web2  1 place        disks: /a: 1.0 KiB of 1.0 MiB free
web5  not all told   sites: what their visitors see is known on the server alone; not told: automatic updates, verified \
backups, off-site copies, certificates, failed services: known on the server alone
web1  well           
"""


# The other end


def test_the_proxy_passes_everything_on(sandbox):
    sandbox.start()
    sandbox.logs("agent: uid 0 ran ping -> ok", "agent: uid 0 sent unknown command 'x'")
    request = '{"cmd":"ping"}\n{"cmd":"x"}\n'
    assert corvctl(sandbox, "proxy", input=request) == (0, PONG + '{"error":"unknown command","ok":false}\n', "")


def test_the_proxy_passes_much_on(sandbox):
    sandbox.start()
    sandbox.logs(*["agent: uid 0 ran ping -> ok"] * 3)
    request = json.dumps({"cmd": "ping", "args": {"x": "y" * 3_000_000}}) + "\n"
    assert corvctl(sandbox, "proxy", input=request * 3) == (0, PONG * 3, "")


def test_the_proxy_says_why_it_cannot_connect(sandbox):
    code, out, err = corvctl(sandbox, "proxy", start=False, input="")
    assert (code, out) == (3, "")
    assert err.startswith("corvctl: there is no socket /run/corvane/agent.sock\n")


def test_the_proxy_takes_no_host(sandbox):
    assert corvctl(sandbox, "proxy", "-H", "web1")[0] == 2


# What is not of the socket


def test_the_doctor_works_over_there(ssh):
    report = {"ok": False, "host": "web1", "faults": 1, "notes": 0, "checks": [
        {"check": "agent", "seen": "answers", "findings": []},
        {"check": "apt", "seen": "\x1b", "findings": [{"level": "fault", "problem": "a\tb", "mend": "c"}]}]}
    ssh.answer("ssh", out=json.dumps(report) + "\n", exit=1)
    assert corvctl(ssh, "doctor", "-H", "web1") == (1, """\
ok      agent       answers
        apt         \\x1b
FAULT   a\\tb
        # c

web1: 1 fault, 0 notes
""", "")
    assert ssh.argvs("ssh") == [["ssh", "-T", "--", "web1", "corvctl", "doctor", "--json"]]


def test_a_doctor_that_is_not_there(ssh):
    ssh.answer("ssh", exit=127, err="bash: corvctl: command not found\n")
    assert corvctl(ssh, "doctor", "-H", "web1") == (3, "", "corvctl: web1: corvctl is not installed there\n")


ACCOUNTS = {"ok": True, "accounts": [{"username": "alice", "domain": "alice.example.org", "home": "/home/alice", "uid": 1000},
                                     {"username": "b\x1b", "domain": "", "home": "/home/b", "uid": 1001}]}


def test_the_accounts_over_there(ssh):
    ssh.answer("ssh", out=json.dumps(ACCOUNTS) + "\n")
    assert corvctl(ssh, "account", "list", "-H", "web1") == (0, """\
ACCOUNT  DOMAIN             STATE  USED  HOME          UID
alice    alice.example.org         -     /home/alice  1000
b\\x1b                              -     /home/b      1001
""", "")
    code, out, err = corvctl(ssh, "account", "list", "--json", "-H", "web1")
    assert (code, json.loads(out), err) == (0, ACCOUNTS, "")
    assert ssh.argvs("ssh") == [["ssh", "-T", "--", "web1", "corvctl", "account", "list", "--json"]] * 2


@pytest.mark.parametrize("answer, code, words", [
    ({"exit": 127, "err": "bash: corvctl: command not found\n"}, 3, "web1: corvctl is not installed there"),
    ({"exit": 255, "err": "ssh: no route\n"}, 3, "web1: ssh: no route"),
    ({"out": "Welcome!\n"}, 3, "what answers there is no list of accounts"),
    ({"hang": True}, 4, "web1: no answer within 1 s"),
])
def test_accounts_that_are_not_told(ssh, answer, code, words):
    ssh.answer("ssh", **answer)
    assert corvctl(ssh, "account", "list", "-H", "web1", "--timeout", "1") == (code, "", f"corvctl: {words}\n")


def test_the_firewall_over_there_leaves_the_connection_to_it_open(ssh):
    """What counts is the port that ssh came in by there, not how the administrator came to this machine."""
    ssh.logs("agent: uid 0 ran firewall.status -> ok")
    ssh.allows_loose_calls("dpkg-query", "sshd")
    ssh.answer("ssh", "-T", "--", "web1", "printenv", ..., out="192.0.2.1 50000 192.0.2.2 2222\n")
    code, out, err = corvctl(ssh, "firewall", "enable", "-H", "web1", env={"SSH_CONNECTION": "192.0.2.9 1 192.0.2.8 22"})
    assert (code, out) == (1, "")
    assert err.startswith("corvctl: you are logged in by SSH on port 2222, but the agent sees sshd on port 22 only")
    assert ssh.argvs("ssh")[0] == ["ssh", "-T", "--", "web1", "printenv", "SSH_CONNECTION"]


@pytest.mark.parametrize("answer, words", [
    ({"out": "\n"}, "the port of the SSH connection is not told there"),
    ({"exit": 255, "err": "ssh: no route\n"}, "web1: ssh: no route"),
])
def test_a_firewall_is_not_switched_on_blindly(ssh, answer, words):
    ssh.answer("ssh", **answer)
    assert corvctl(ssh, "firewall", "enable", "-H", "web1") == (3, "", f"corvctl: {words}\n")


def files_of(sandbox, folder):
    return sorted(os.listdir(sandbox.path(folder)))


def test_a_file_travels_to_another_server_and_back(ssh):
    ssh.add_account("alice", "alice.example.org")
    ssh.logs(*["agent: uid 0 ran files -> ok"] * 3)
    content = os.urandom(3_000_000)
    ssh.write("/root/picture.png", content)
    assert corvctl(ssh, "file", "put", "alice", "/root/picture.png", "-H", "web1") == (0, "picture.png: 2.9 MiB\n", "")
    assert ssh.path("/home/alice/picture.png").read_bytes() == content
    assert corvctl(ssh, "file", "get", "alice", "picture.png", "/root/back", "-H", "web1") == (0, "/root/back: 2.9 MiB\n", "")
    assert ssh.path("/root/back").read_bytes() == content
    ssh.write("/home/alice/a.txt", "hello\n", 0o644, "alice:alice")
    assert corvctl(ssh, "file", "get", "alice", "a.txt", "-", "-H", "web1") == (0, "hello\n", "")
    assert files_of(ssh, "/var/lib/corvane/transfer") == []
    assert files_of(ssh, "/root") == ["back", "picture.png"]
    words = [argv[4:] for argv in ssh.argvs("ssh")]
    assert [" ".join(argv).partition("=")[0] for argv in words] == [
        "corvctl proxy --put", "corvctl proxy", "corvctl proxy", "corvctl proxy --take", "corvctl proxy", "corvctl proxy --take"]


def test_an_upload_that_is_refused_leaves_nothing_on_the_other_server(ssh):
    ssh.add_account("alice", "alice.example.org")
    ssh.logs("agent: uid 0 ran files -> failed")
    ssh.write("/root/a", "x")
    assert corvctl(ssh, "file", "put", "alice", "/root/a", "../x", "-H", "web1")[:2] == (1, "")
    assert files_of(ssh, "/var/lib/corvane/transfer") == []
    assert ssh.argvs("ssh")[-1][4:6] == ["corvctl", "proxy"]


def test_an_upload_that_is_cut_off_on_its_way_is_not_used(ssh):
    ssh.write("/root/a", b"x" * 1_000_000)
    ssh.answer("ssh", ignore_input=True, exit=255, err="ssh: cut off\n")
    assert corvctl(ssh, "file", "put", "alice", "/root/a", "-H", "web1") == (3, "", "corvctl: /root/a: web1: ssh: cut off\n")
    assert len(ssh.argvs("ssh")) == 1


@pytest.mark.parametrize("size", [100, 1_000_000])
def test_half_an_upload_is_not_kept_on_the_other_server(ssh, size):
    ssh.write("/root/a", b"x" * size)
    ssh.answer("ssh", shell='shift 3; head -c 90 | "$@"; exit 255')
    code, out, err = corvctl(ssh, "file", "put", "alice", "/root/a", "-H", "web1")
    assert (code, out) == (3, "")
    assert "the file was cut off on its way" in err
    assert files_of(ssh, "/var/lib/corvane/transfer") == []


@pytest.mark.parametrize("words", [["put", "alice", "/root/small"], ["put", "alice", "/root/large"]])
def test_a_server_that_hangs_in_an_upload_is_given_up(ssh, words):
    ssh.write("/root/small", b"x")
    ssh.write("/root/large", b"x" * 3_000_000)
    ssh.answer("ssh", hang=True)
    assert corvctl(ssh, "--timeout", "1", "-H", "web1", "file", *words) == \
        (4, "", f"corvctl: {words[-1]}: web1: no answer within 1 s\n")


def test_a_server_that_hangs_in_a_download_is_given_up(ssh):
    ssh.add_account("alice", "alice.example.org")
    ssh.logs("agent: uid 0 ran files -> ok")
    ssh.write("/home/alice/a.txt", "hello\n", 0o644, "alice:alice")
    ssh.answer("ssh", shell='shift 3; case "$*" in *--take*) exec sleep 1000 ;; *) exec "$@" ;; esac')
    assert corvctl(ssh, "--timeout", "2", "-H", "web1", "file", "get", "alice", "a.txt", "/root/a") == \
        (4, "", "corvctl: /root/a: web1: no answer within 2 s\n")
    assert files_of(ssh, "/root") == []
    assert files_of(ssh, "/var/lib/corvane/transfer") == []


def test_complaints_do_not_hold_an_upload_up(ssh):
    ssh.add_account("alice", "alice.example.org")
    ssh.logs("agent: uid 0 ran files -> ok")
    ssh.write("/root/a", b"x" * 3_000_000)
    ssh.answer("ssh", shell='head -c 300000 /dev/zero >&2; shift 3; exec "$@"')
    assert corvctl(ssh, "file", "put", "alice", "/root/a", "-H", "web1") == (0, "a: 2.9 MiB\n", "")


def test_a_download_that_is_cut_off_on_its_way_leaves_the_old_file(ssh):
    ssh.add_account("alice", "alice.example.org")
    ssh.logs("agent: uid 0 ran files -> ok")
    ssh.write("/home/alice/a.txt", "hello\n", 0o644, "alice:alice")
    ssh.write("/root/old", "old")
    ssh.answer("ssh", shell='shift 3; case "$*" in *--take*) echo he; echo lost >&2; exit 255 ;; *) exec "$@" ;; esac')
    code, out, err = corvctl(ssh, "file", "get", "alice", "a.txt", "/root/old", "-H", "web1")
    assert (code, out) == (3, "")
    assert err.startswith("corvctl: /root/old: web1: ")
    assert "lost" in err
    assert files_of(ssh, "/var/lib/corvane/transfer") == []
    assert ssh.read("/root/old") == "old"
    assert files_of(ssh, "/root") == ["old"]


@pytest.mark.parametrize("line, complaint", [
    ("file put alice - x", "standard input cannot go to several servers: name a FILE"),
    ("file get alice x", "files of several servers cannot have one name: name one server"),
    ("file write alice x", "standard input cannot go to several servers: name a file"),
    ("account keys alice --set -", "standard input cannot go to several servers: name a file"),
    ("account create alice a.example.org --key-file -", "standard input cannot go to several servers: name a file"),
    ("call ping -", "standard input cannot go to several servers: name a file"),
])
def test_what_has_one_end_does_not_go_to_several_servers(ssh, line, complaint):
    code, out, err = corvctl(ssh, *line.split(), "-H", "web1", "-H", "web2", input="{}")
    assert (code, out) == (2, "")
    assert sorted(err.splitlines()) == [
        "2 hosts: 2 wrong usage (web1 web2)", f"web1: corvctl: {complaint}", f"web2: corvctl: {complaint}"]
    assert ssh.argvs("ssh") == []


def test_what_comes_from_several_servers_cannot_steer_the_terminal(ssh):
    ssh.add_account("alice", "alice.example.org")
    ssh.logs(*["agent: uid 0 ran files -> ok"] * 4)
    ssh.write("/home/alice/a.txt", "a\x1b]0;b\x07\u202ec\n", 0o644, "alice:alice")
    hosts = ["-H", "web1", "-H", "web2"]
    code, shown = on_terminal(ssh, *hosts, "file", "cat", "alice", "a.txt")
    assert code == 0
    assert sorted(shown.splitlines()[:-1]) == [rf"{host}: a\x1b]0;b\x07\u202ec" for host in ("web1", "web2")]
    code, shown = on_terminal(ssh, *hosts, "--json", "file", "cat", "alice", "a.txt")
    assert code == 0
    assert r"\u202e" in shown and "\u202e" not in shown


@pytest.mark.parametrize("action", ["--put", "--take"])
@pytest.mark.parametrize("name", ["../../etc/passwd", "a/b", "a b", "."])
def test_the_proxy_stays_in_the_transfer_directory(sandbox, action, name):
    code, out, err = corvctl(sandbox, "proxy", f"{action}={name}", input="x")
    assert (code, out) == (1, "")
    assert err.startswith("corvctl: ")
    assert files_of(sandbox, "/var/lib/corvane/transfer") == []
