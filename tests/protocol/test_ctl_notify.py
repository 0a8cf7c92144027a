"""corvctl notify: who is told of a failed backup, and what."""

import json
import os
import time

import pytest
from corvctl import corvctl

UNIT = "corv-backup.service"
KEPT = f"/var/lib/corvane/failures/{UNIT}"
PROGRAM = "/usr/local/sbin/page"
INVOCATION = "0123456789abcdef0123456789abcdef"
LOG = "backup 2026-01-05_031500 -> /mnt\n  ! alice files: tar failed: \x1b]0;x\x07\n.\nSubject: x\n"


@pytest.fixture
def server(sandbox):
    """A sandbox with a mailer and with a unit that failed."""
    sandbox.mkdir("/var/lib/corvane/failures")
    sandbox.answer("sendmail")
    sandbox.answer("systemctl", "show", "--value", "-p", "Result", "--", UNIT, out="exit-code\n")
    sandbox.answer("systemctl", "show", "--value", "-p", "InvocationID", "--", UNIT, out=f"{INVOCATION}\n")
    sandbox.answer("journalctl", "--quiet", "--no-pager", "--output=cat", "--lines=40", f"_SYSTEMD_INVOCATION_ID={INVOCATION}",
                   out=LOG)
    sandbox.write("/etc/group", sandbox.read("/etc/group") + "adm:x:4:\n")
    return sandbox


def program(sandbox, mode=0o755):
    """The program of the settings, a stand-in that is recorded."""
    sandbox.add_standin(PROGRAM)
    sandbox.path(PROGRAM).chmod(mode)
    return PROGRAM


def only(sandbox, name):
    (call,) = [call for call in sandbox.calls() if call.name == name]
    return call


def mailed(sandbox):
    return only(sandbox, "sendmail").stdin.decode()


def test_a_failed_unit_is_mailed_with_the_end_of_its_journal(server):
    server.settings(notify_mail="root, admin+web@mail.example.org")
    began = int(time.time()) // 60 * 60
    assert corvctl(server, "notify", "send", UNIT) == (
        0, "mail to root, admin+web@mail.example.org: handed over\n", "")
    assert only(server, "sendmail").argv == ["sendmail", "-i", "root", "admin+web@mail.example.org"]
    headers, _, body = mailed(server).partition("\n\n")
    assert headers.splitlines() == [
        "From: root", "To: root, admin+web@mail.example.org", f"Subject: sandbox: {UNIT} failed (exit-code)",
        "Auto-Submitted: auto-generated", "MIME-Version: 1.0", "Content-Type: text/plain; charset=utf-8",
        "Content-Transfer-Encoding: 8bit"]
    first, _, rest = body.partition("\n")
    assert first in [f"{UNIT} failed on sandbox at {time.strftime('%Y-%m-%d %H:%M', time.gmtime(began + minute * 60))} (exit-code)."
                     for minute in range(60)]
    assert rest == (
        "\nThe end of its journal:\n\n"
        "    backup 2026-01-05_031500 -> /mnt\n"
        "      ! alice files: tar failed: \\x1b]0;x\\x07\n"
        "    .\n"
        "    Subject: x\n"
        f'\nAs root on sandbox, "corvctl doctor" and "journalctl -u {UNIT}" tell more.\n')


def test_a_command_gets_the_message_and_the_facts(server):
    server.settings(f'[notify]\ncommand="{program(server)} --to \\"on call\\" a,b $HOME;x"\n')
    assert corvctl(server, "notify", "send", UNIT) == (0, f"command to {PROGRAM}: handed over\n", "")
    call = only(server, "page")
    assert call.argv[1:] == ["--to", "on call", "a,b", "$HOME;x"]
    assert call.stdin.decode().startswith(f"{UNIT} failed on sandbox at ")
    assert call.env["CORV_HOST"] == "sandbox"
    assert call.env["CORV_UNIT"] == UNIT
    assert call.env["CORV_RESULT"] == "exit-code"
    assert abs(int(call.env["CORV_TIME"]) - time.time()) < 3600
    assert call.env["CORV_SUBJECT"] == f"sandbox: {UNIT} failed (exit-code)"
    assert not [name for name in call.env if name.startswith(("PG", "LD_"))]


def test_a_failure_is_kept_for_the_login_of_root_and_nobody_else(server):
    assert corvctl(server, "notify", "send", UNIT) == (
        0, "nobody is told of failures: neither mail nor command is set\n", "")
    assert server.read(KEPT) == f"sandbox: {UNIT} failed (exit-code); corvctl doctor and journalctl -u {UNIT} tell more\n"
    status = server.path(KEPT).stat()
    assert (status.st_mode & 0o7777, status.st_uid, status.st_gid) == (0o640, 0, 4)


def test_a_mailer_that_fails_keeps_nobody_else_from_being_told(server):
    server.settings(f"[notify]\nmail=root\ncommand={program(server)}\n")
    server.answer("sendmail", exit=75, err="queue is full\n")
    assert corvctl(server, "notify", "send", UNIT) == (
        1, f"command to {PROGRAM}: handed over\n", "corvctl: mail to root: sendmail failed: queue is full\n")
    assert server.exists(KEPT)


@pytest.mark.parametrize("unit", ["../../etc/passwd", "corv-backup", "a/b.service", "a b.service",
                                  ".service", "x.service\n", "x" * 200 + ".service"])
def test_what_is_no_unit_is_refused(server, unit):
    code, out, err = corvctl(server, "notify", "send", unit)
    assert (code, out) == (2, "")
    assert err.endswith("is no name of a service\n")
    assert os.listdir(server.path("/var/lib/corvane/failures")) == []


@pytest.mark.parametrize("mail", ["-oQ/tmp", "a@b\\nBcc: c@d", "a b@c@d", "root|id", "$(id)@x", "a@-b", "a@b.", "@x", "x" * 65])
def test_no_mail_goes_to_what_is_no_address(server, mail):
    server.settings(f"[notify]\nmail=\"{mail}\"\n")
    code, _, err = corvctl(server, "notify", "test")
    assert code == 1
    assert "which is no user and no address" in err
    for call in server.calls("sendmail"):
        assert set(call.argv[2:]) <= {"a", "a@b", "c@d"}
        assert len(call.stdin.decode().partition("\n\n")[0].splitlines()) == 7


def test_a_program_that_others_may_write_to_is_not_run(server):
    server.settings(f"[notify]\ncommand={program(server, 0o775)}\n")
    assert corvctl(server, "notify", "test") == (
        1, "", f"corvctl: the setting command is of no use: {PROGRAM} can be changed by others than root\n")
    assert server.calls("page") == []


@pytest.mark.parametrize("way, folder", [("{}/page", "{}"), ("{}/inner/page", "{}"), ("{}/link", "{}"),
                                         ("/usr/local/sbin/link", "{}"), ("/usr/local/sbin/through", "{}")])
def test_a_program_in_whose_place_others_may_put_another_is_not_run(server, way, folder):
    server.add_account("alice")
    home = "/home/alice"
    for path in (f"{home}/page", f"{home}/inner/page"):
        server.mkdir(os.path.dirname(path)) if "inner" in path else None
        server.add_standin(path)
        server.path(path).chmod(0o755)
    server.symlink(f"{home}/link", program(server))
    server.symlink("/usr/local/sbin/link", f"{home}/page")
    server.symlink("/usr/local/sbin/through", f"{home}/link")  # and from there to a program of root's
    command = way.format(home)
    server.settings(f"[notify]\ncommand={command}\n")
    assert corvctl(server, "notify", "test") == (
        1, "", f"corvctl: the setting command is of no use: {command} can be put elsewhere by others than root, "
               f"who may write to {folder.format(home)}\n")
    assert server.calls("page") == []


@pytest.mark.parametrize("command, problem", [
    ("page", "'page' is no absolute path"), ("/usr/sbin/nosuch x", "there is no /usr/sbin/nosuch"), ("/etc", "/etc is no program"),
    ("/etc/passwd", "/etc/passwd is no program")])
def test_a_program_that_cannot_be_run_is_told(server, command, problem):
    server.settings(f"[notify]\ncommand={command}\n")
    assert corvctl(server, "notify", "test") == (1, "", f"corvctl: the setting command is of no use: {problem}\n")


def test_a_test_tries_every_way(server):
    server.settings(f"[notify]\nmail=root\ncommand={program(server)}\n")
    assert corvctl(server, "notify", "test") == (
        0, f"WAY      TO                    OUTCOME\nmail     root                  handed over\n"
           f"command  {PROGRAM}  handed over\n", "")
    assert "Subject: sandbox: a test of corvctl notify\n" in mailed(server)
    assert only(server, "page").env["CORV_UNIT"] == ""
    assert not server.exists(KEPT)


def test_a_test_says_what_failed(server):
    server.settings(notify_mail="root")
    server.answer("sendmail", exit=67, err="no such user\n")
    assert corvctl(server, "--plain", "notify", "test") == (1, "mail\troot\tsendmail failed: no such user\n", "")
    code, out, err = corvctl(server, "--json", "notify", "test")
    assert (code, err) == (1, "")
    assert json.loads(out) == {"ok": False, "problems": [],
                               "told": [{"way": "mail", "to": "root", "problem": "sendmail failed: no such user"}]}


def test_a_test_without_any_way_says_how_to_set_one(server):
    assert corvctl(server, "notify", "test") == (
        1, "", "corvctl: nobody is told of failures: neither mail nor command is set\n"
               "  man corvane.ini tells how, under [notify]\n")


def test_a_test_can_be_looked_at_without_sending_it(server):
    server.settings(notify_mail="root")
    code, out, err = corvctl(server, "-n", "notify", "test")
    assert (code, err) == (0, "")
    assert out.startswith("From: root\nTo: root\nSubject: sandbox: a test of corvctl notify\n")
    assert server.calls("sendmail") == []


@pytest.mark.parametrize("command", [["test"], ["send", UNIT]])
def test_needs_root(server, command):
    corvctl(server, "notify", "test")
    code, out, err = server.run("setpriv", "--reuid=33", "--clear-groups", "corvctl", "notify", *command)
    assert (code, out, err) == (3, "", "corvctl: only root may have the messages sent\n  run it as root\n")


def test_the_agent_does_not_care_who_is_told(sandbox):
    """Its settings are its own: what else stands in the file changes neither its start nor its log."""
    sandbox.settings('[notify]\nmail=a,b\ncommand=/bin/x @y;z\nkeep_days=3\n[backup]\nkeep_days=5\n')
    assert sandbox.request("backup.status")["keepDays"] == 5


def test_a_backup_is_made_whoever_is_told(sandbox):
    sandbox.settings('[notify]\nmail=a,b\n[backup]\ndestination=/srv/auto\n')
    assert sandbox.run_agent("--backup")[0] == 0


def test_another_server_tries_its_own_ways(server):
    outcome = {"ok": False, "problems": ["a\x1b"], "told": [{"way": "mail", "to": "root", "problem": "x\ny"}]}
    server.answer("ssh", out=json.dumps(outcome) + "\n", exit=1)
    assert corvctl(server, "-H", "web1", "--plain", "notify", "test") == (1, "mail\troot\tx y\n", "corvctl: a\\x1b\n")
    assert server.argvs("ssh") == [["ssh", "-T", "--", "web1", "corvctl", "notify", "test", "--json"]]
    assert server.calls("sendmail") == []


@pytest.mark.parametrize("answer, complaint", [
    ({"exit": 127, "err": "bash: corvctl: command not found\n"}, "web1: corvctl is not installed there"),
    ({"out": "Welcome!\n"}, "what answers there is no corvctl of this kind")])
def test_another_server_that_cannot_tell_is_said(server, answer, complaint):
    server.answer("ssh", **answer)
    assert corvctl(server, "-H", "web1", "notify", "test") == (3, "", f"corvctl: {complaint}\n")


def test_a_failure_is_told_on_its_own_server_alone(server):
    assert corvctl(server, "-H", "web1", "notify", "send", UNIT) == (
        2, "", "corvctl: this works on the server itself, and asks its agent for nothing\n")
