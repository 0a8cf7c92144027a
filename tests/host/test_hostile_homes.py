"""What an account's user does to the home while root works on it harms nothing outside."""

import pytest

VICTIM = "/srv/victim"
LOOK = f"cd {VICTIM} && find . -printf '%p %y %m %u:%g %s %T@\\n' | sort && cat file"
# Goes on through the polite signal, and writes as fast as it can.
STUBBORN_WRITER = 'trap "" TERM; while :; do head -c 100000 /dev/zero >>public_html/growing; done'
WRITER = "while :; do date >>public_html/growing; done"
# Swaps folders for links to what is not the account's, and back.
SWAPPER = f"""trap "" TERM
mkdir -p a/b; : >a/b/file; ln -s {VICTIM} link
while :; do mv a away; mv link a; mv a link; mv away a; done"""


@pytest.fixture
def victim(host):
    """A folder outside that everybody may write to; gives a function that looks at all of it."""
    host.ok(["sh", "-c", f"mkdir -m 777 {VICTIM} && echo theirs >{VICTIM}/file && chmod 666 {VICTIM}/file"])
    host.ok(["sh", "-c", f"cp {VICTIM}/file {VICTIM}/authorized_keys"])
    yield lambda: host.ok(["sh", "-c", LOOK])
    host.ok(["rm", "-r", VICTIM])


def leave_running(host, account, script):
    """Leaves a process of the account behind, as a log-in that has ended does; returns once it has written."""
    host.ssh(account, "cat >run.sh", input=f"cd\n: >started\n{script}\n")
    host.ssh(account, "setsid sh run.sh >/dev/null 2>&1 </dev/null &")
    host.wait_for(lambda: host.exists(f"{account.home}/started"), "the account's process running")


def delete(host, account):
    return host.request("hosting.delete", username=account.name, confirm=account.name)


def kill(host, account):
    host.run(["pkill", "-KILL", "-u", account.name])
    host.wait_for(lambda: host.run(["pgrep", "-u", account.name]).code == 1, "the end of the account's processes")


def everything(host, account):
    """All that root does to an account, up to its deletion; the replies."""
    name = account.name
    asked = [("getKeys", {}), ("setKeys", {"keys": account.key.with_suffix(".pub").read_text()}), ("usage", {}),
             ("suspend", {}), ("resume", {}), ("delete", {"confirm": name})]
    return {command: host.request(f"hosting.{command}", username=name, **args) for command, args in asked}


@pytest.mark.parametrize("folder", ["public_html", "logs", "tmp", ".ssh"])
def test_a_link_in_a_folders_place(host, account, victim, folder):
    before = victim()
    assert host.ssh(account, f"mv {folder} {folder}.old && ln -s {VICTIM} {folder}").code == 0
    replies = everything(host, account)
    if folder == ".ssh":  # followed, as sshd follows it, with the account's own rights
        assert replies["getKeys"] == {"ok": True, "keys": "theirs\n"}
        assert replies["setKeys"]["error"].startswith("runuser failed: chmod: ")
    assert replies["delete"]["ok"] is True
    assert victim() == before
    assert not host.exists(account.home)


def test_an_authorized_keys_that_leads_to_what_is_not_the_accounts(host, account, victim):
    before = victim()
    assert host.ssh(account, f"ln -sf {VICTIM}/authorized_keys .ssh/authorized_keys").code == 0
    replies = everything(host, account)
    assert replies["getKeys"] == {"ok": True, "keys": "theirs\n"}
    assert replies["setKeys"]["error"].startswith("runuser failed: tee: ")
    assert replies["delete"]["ok"] is True
    assert victim() == before


def test_keys_behind_a_link_let_their_owner_in(host, account):
    assert host.ssh(account, "mkdir keys && mv .ssh/authorized_keys keys/ && ln -s ../keys/authorized_keys .ssh/").code == 0
    key = account.key.with_suffix(".pub").read_text()
    assert host.request("hosting.getKeys", username=account.name)["keys"].strip() == key.strip()
    assert host.request("hosting.setKeys", username=account.name, keys=key) == {"ok": True, "count": 1}
    assert host.ssh(account, "readlink .ssh/authorized_keys").out == "../keys/authorized_keys\n"


@pytest.mark.parametrize("make", ["mkfifo", "mkdir", "ln -s /dev/zero", "ln -s ../public_html"])
def test_an_authorized_keys_that_is_no_file(host, account, victim, make):
    before = victim()
    assert host.ssh(account, f"rm .ssh/authorized_keys && {make} .ssh/authorized_keys").code == 0
    replies = everything(host, account)
    assert replies["getKeys"] == {"ok": True, "keys": ""}
    assert replies["setKeys"] == {"ok": False, "error": "authorized_keys is not a regular file"}
    assert replies["delete"]["ok"] is True
    assert victim() == before


def test_only_root_can_replace_a_home(host, account):
    home = account.home
    for attempt in (f"mv {home} {home}.old", f"rmdir {home}", f"ln -sfnT / {home}", f"ln -s / {home}.new"):
        assert host.ssh(account, f"cd / && {attempt}").code == 1
    assert host.mode(home) == f"710 {account.name} www-data"


def test_a_home_that_is_a_link(host, account, victim):
    # Whoever may write there may do so through the account as well.
    host.ok(["chmod", "-R", "go-w", VICTIM])
    before = victim()
    host.ok(["mv", account.home, f"{account.home}.old"])
    host.ok(["ln", "-s", VICTIM, account.home])
    everything(host, account)
    assert victim() == before
    host.ok(["rm", "-rf", account.home, f"{account.home}.old"])


def test_a_process_that_writes_is_ended_first(host, account, victim):
    before = victim()
    leave_running(host, account, WRITER)
    reply = delete(host, account)
    assert reply["ok"] is True
    assert not host.exists(account.home)
    assert victim() == before


@pytest.mark.parametrize("script", [STUBBORN_WRITER, SWAPPER], ids=["writer", "swapper"])
def test_a_process_that_does_not_end(host, account, victim, script):
    before = victim()
    leave_running(host, account, script)
    reply = delete(host, account)
    # Either the copy of a changing home fails and nothing is deleted, or the user cannot be removed while in use.
    assert reply["ok"] is False
    if "archive" in reply:
        assert reply["error"].startswith("userdel failed: ") and "currently used by process" in reply["error"]
    else:
        assert reply["error"].startswith("could not archive the files, so nothing was deleted: tar failed: ")
        assert host.fetch(account.domain).status == 200
    assert host.exists(account.home)
    assert victim() == before
    copied = host.run(["sh", "-c", f"tar -tzf /var/backups/corvane/{account.name}-*-home.tar.gz"]).out.splitlines()
    assert f"{account.name}/" in copied
    assert not [path for path in copied if path in (f"{account.name}/a/file", f"{account.name}/link/file")]

    kill(host, account)
    if "archive" not in reply:
        assert delete(host, account)["ok"] is True
        assert not host.exists(account.home)
    assert victim() == before
