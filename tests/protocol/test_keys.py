"""hosting.getKeys and hosting.setKeys."""

import os
import socket

import pytest

from programs import wait_until
from sandbox import runuser

FOLDER = "/home/alice/.ssh"
FILE = FOLDER + "/authorized_keys"
KEY = "ssh-ed25519 " + "A" * 60
HEAD = runuser("alice", "head", "-c", "262144", FILE)
MKDIR = runuser("alice", "mkdir", "-p", FOLDER)
CHMOD_FOLDER = runuser("alice", "chmod", "700", FOLDER)
TEE = runuser("alice", "tee", FILE)
CHMOD_FILE = runuser("alice", "chmod", "600", FILE)
STEPS = [MKDIR, CHMOD_FOLDER, TEE, CHMOD_FILE]
NOT_A_FILE = {"ok": False, "error": "authorized_keys is not a regular file"}


def keys(count):
    return [f"ssh-ed25519 {'A' * 60} key{number}" for number in range(count)]


def failure(message):
    return {"ok": False, "error": message}


def bad_line(number):
    return failure(f"line {number} is not an SSH public key (ssh-ed25519 AAAA… comment)")


@pytest.fixture
def alice(sandbox):
    sandbox.add_account("alice")
    return sandbox


def get(sandbox, username="alice"):
    return sandbox.request("hosting.getKeys", username=username)


def put(sandbox, text, username="alice"):
    return sandbox.request("hosting.setKeys", username=username, keys=text)


# Reading


def test_gives_the_file_as_it_stands(alice):
    text = f"# mine\n\n{KEY} é\r\nnot a key\nlast line without an end"
    alice.write(FILE, text, mode=0o600, owner="alice:alice")
    assert get(alice) == {"ok": True, "keys": text}
    assert alice.argvs() == [HEAD]
    (call,) = alice.calls("head")
    assert call.uid == alice.uid("alice")


def test_keeps_a_byte_order_mark(alice):
    alice.write(FILE, f"\ufeff{KEY}\n", owner="alice:alice")
    assert get(alice) == {"ok": True, "keys": f"\ufeff{KEY}\n"}


def test_gives_nothing_and_runs_nothing_without_a_file(alice):
    assert get(alice) == {"ok": True, "keys": ""}
    alice.path(FOLDER).rmdir()
    assert get(alice) == {"ok": True, "keys": ""}
    alice.path("/home/alice").rename(alice.path("/home/gone"))
    assert get(alice) == {"ok": True, "keys": ""}
    assert alice.argvs() == []


def test_gives_at_most_262144_bytes(alice):
    alice.write(FILE, "x" * 262144 + "yz", owner="alice:alice")
    assert get(alice) == {"ok": True, "keys": "x" * 262144}


def test_gives_bytes_that_are_no_text_as_replacement_characters(alice):
    alice.write(FILE, b"a\xffb\n", owner="alice:alice")
    assert get(alice) == {"ok": True, "keys": "a\ufffdb\n"}


def test_an_unreadable_file_reads_as_empty(alice):
    alice.write(FILE, "roots own secret", mode=0o600)
    alice.secret("roots own secret")
    assert get(alice) == {"ok": True, "keys": ""}
    assert alice.argvs() == [HEAD]


@pytest.mark.parametrize("errors", ["", "head: error reading\n"])
def test_what_a_failing_head_wrote_is_given(alice, errors):
    alice.write(FILE, "text", owner="alice:alice")
    alice.answer("head", out="te", err=errors, exit=1)
    assert get(alice) == {"ok": True, "keys": "te"}


def test_without_runuser_nothing_is_read(alice):
    alice.write(FILE, "text", owner="alice:alice")
    alice.remove_standin("runuser")
    assert get(alice) == {"ok": True, "keys": ""}


def test_a_head_that_hangs_is_ended(impatient, alice):
    alice.write(FILE, "text", owner="alice:alice")
    alice.answer("head", out="te", hang=True)
    assert get(alice) == {"ok": True, "keys": ""}
    wait_until(lambda: alice.agent.others() == [], "the end of what the tool left")


# Writing


def test_stores_the_keys_of_a_list_with_comments_and_blank_lines(alice):
    assert put(alice, f"# mine\n\n  {KEY} one\t\n{KEY} two\r\n   \n #end") == {"ok": True, "count": 2}
    assert alice.argvs() == STEPS
    assert alice.read(FILE) == f"{KEY} one\n{KEY} two\n"
    assert alice.entry(FILE) == "0600 alice:alice"
    assert alice.entry(FOLDER) == "0700 alice:alice"
    assert {call.uid for call in alice.calls("mkdir", "chmod", "tee")} == {alice.uid("alice")}


def test_a_list_without_keys_empties_the_file(alice):
    alice.write(FILE, KEY, mode=0o600, owner="alice:alice")
    for text in ("", "\n\n", "# none", None, 5, [KEY]):
        assert put(alice, text) == {"ok": True, "count": 0}
        assert alice.read(FILE) == "\n"
    assert alice.request("hosting.setKeys", username="alice") == {"ok": True, "count": 0}


def test_replaces_a_longer_list(alice):
    put(alice, "\n".join(keys(3)))
    assert put(alice, KEY) == {"ok": True, "count": 1}
    assert alice.read(FILE) == KEY + "\n"


def test_makes_folder_and_file_where_they_are_missing(alice):
    alice.path(FOLDER).rmdir()
    # A home belongs to its user and lets them make folders.
    assert put(alice, KEY) == {"ok": True, "count": 1}
    assert alice.entry(FOLDER) == "0700 alice:alice"
    assert alice.entry(FILE) == "0600 alice:alice"


def test_tightens_a_folder_that_is_open(alice):
    alice.path(FOLDER).chmod(0o777)
    alice.write(FILE, "", mode=0o666, owner="alice:alice")
    assert put(alice, KEY) == {"ok": True, "count": 1}
    assert alice.entry(FOLDER) == "0700 alice:alice"
    assert alice.entry(FILE) == "0600 alice:alice"


def test_opens_a_folder_that_the_user_has_shut(alice):
    alice.path(FOLDER).chmod(0)
    assert put(alice, KEY) == {"ok": True, "count": 1}
    assert alice.read(FILE) == KEY + "\n"


@pytest.mark.parametrize("text, number", [
    ("no key", 1),
    ("\n\nno key", 3),
    (f"# one\n{KEY}\n\nno key\nno key", 4),
    (f"{KEY} {'c' * 201}", 1),
    (f"command=\"sh\" {KEY}", 1),
    (f"{KEY}\r{KEY}", 1),
    (f"{KEY}\u2028{KEY}", 1),
    (f"{KEY} \0", 1),
    (f"ssh-ed25519 {'A' * 39}", 1),
    ("\n".join(keys(51)) + "\nno key", 52),
])
def test_a_line_that_is_no_key_is_told_and_nothing_written(alice, text, number):
    alice.write(FILE, "as before", owner="alice:alice")
    assert put(alice, text) == bad_line(number)
    assert alice.argvs() == []
    assert alice.read(FILE) == "as before"


@pytest.mark.parametrize("count", [50, 51])
def test_takes_50_keys_at_most(alice, count):
    reply = put(alice, "# all of them\n\n" + "\n".join(keys(count)))
    if count == 50:
        assert reply == {"ok": True, "count": 50}
        assert alice.read(FILE) == "\n".join(keys(50)) + "\n"
    else:
        assert reply == failure("at most 50 keys")
        assert alice.argvs() == []


def test_takes_a_comment_of_200_characters(alice):
    line = f"{KEY} {'c' * 200}"
    assert put(alice, line) == {"ok": True, "count": 1}
    assert alice.read(FILE) == line + "\n"


@pytest.mark.parametrize("tool, rule, done", [
    ("mkdir", [...], 1),
    ("chmod", ["700", ...], 2),
    ("tee", [...], 3),
    ("chmod", ["600", ...], 4),
])
@pytest.mark.parametrize("errors", ["", "Disk quota exceeded\n"])
def test_a_failing_step_is_the_last(alice, tool, rule, done, errors):
    alice.answer(tool, *rule, err=errors, exit=1)
    assert put(alice, KEY) == failure("runuser failed: " + (errors.strip() or "exit code 1"))
    assert alice.argvs() == STEPS[:done]


def test_without_runuser_nothing_is_written(alice):
    alice.remove_standin("runuser")
    assert put(alice, KEY) == failure("runuser: cannot start")


@pytest.mark.parametrize("command", ["getKeys", "setKeys"])
@pytest.mark.parametrize("username", ["root", "bob", "carol", "Alice", "alice/..", "", None, 3])
def test_knows_accounts_alone(alice, command, username):
    alice.add_user("bob", "Robert")
    name = username if isinstance(username, str) else ""
    reply = alice.request("hosting." + command, username=username, keys="not a key")
    assert reply == failure(f"no Corvane account named '{name}'")
    assert alice.argvs() == []


# What the account's user may have put in the way.


def make_fifo(path):
    os.mkfifo(path)


def make_folder(path):
    path.mkdir()


def make_socket(path):
    folder = os.open(path.parent, os.O_PATH)
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(f"/proc/self/fd/{folder}/{path.name}")
    os.close(folder)


def make_link_to_fifo(path):
    os.mkfifo(path.with_name("pipe"))
    path.symlink_to("pipe")


def make_link_to_folder(path):
    path.symlink_to("/srv")


def make_link_to_device(path):
    path.symlink_to("/dev/null")


@pytest.mark.parametrize("make", [make_fifo, make_folder, make_socket, make_link_to_fifo, make_link_to_folder,
                                  make_link_to_device])
def test_what_is_no_file_is_neither_read_nor_written(alice, make):
    make(alice.path(FILE))
    assert get(alice) == {"ok": True, "keys": ""}
    assert put(alice, KEY) == NOT_A_FILE
    assert alice.argvs() == []


@pytest.mark.parametrize("target", ["keys", "/home/alice/elsewhere/keys", "../elsewhere/keys", "first"])
def test_a_file_behind_links_is_read_and_written_as_sshd_reads_it(alice, target):
    alice.mkdir("/home/alice/elsewhere", owner="alice:alice")
    for place in (FOLDER + "/keys", "/home/alice/elsewhere/keys"):
        alice.write(place, KEY, mode=0o600, owner="alice:alice")
    alice.symlink(FOLDER + "/first", "second")
    alice.symlink(FOLDER + "/second", "keys")
    alice.symlink(FILE, target)
    assert get(alice) == {"ok": True, "keys": KEY}
    assert put(alice, KEY + " new") == {"ok": True, "count": 1}
    assert get(alice) == {"ok": True, "keys": KEY + " new\n"}
    assert alice.argvs() == [HEAD, *STEPS, HEAD]
    assert alice.entry(FILE) == f"link -> {target}"


def test_a_folder_behind_a_link_is_read_and_written(alice):
    alice.path(FOLDER).rmdir()
    alice.mkdir("/home/alice/dotfiles", owner="alice:alice")
    alice.write("/home/alice/dotfiles/authorized_keys", KEY, mode=0o600, owner="alice:alice")
    alice.symlink(FOLDER, "dotfiles")
    assert get(alice) == {"ok": True, "keys": KEY}
    assert put(alice, KEY + " new") == {"ok": True, "count": 1}
    assert alice.argvs() == [HEAD, *STEPS]
    assert alice.read("/home/alice/dotfiles/authorized_keys") == KEY + " new\n"


def test_a_link_that_leads_nowhere_is_a_file_that_is_not_there_yet(alice):
    alice.symlink(FILE, "/home/alice/logs/keys")
    alice.mkdir("/home/alice/logs", owner="alice:alice")
    assert get(alice) == {"ok": True, "keys": ""}
    assert alice.argvs() == []
    assert put(alice, KEY) == {"ok": True, "count": 1}
    assert alice.read("/home/alice/logs/keys") == KEY + "\n"
    assert alice.argvs() == STEPS


def test_behind_a_link_the_user_has_no_more_rights_than_his_own(alice):
    alice.write("/root/keys", "roots own keys", mode=0o600)
    alice.path("/root").chmod(0o755)
    alice.symlink(FILE, "/root/keys")
    alice.secret("roots own keys")
    assert get(alice) == {"ok": True, "keys": ""}
    reply = put(alice, KEY)
    assert reply["error"].startswith("runuser failed: tee: ") and "Permission denied" in reply["error"]
    assert alice.read("/root/keys") == "roots own keys"
    assert alice.argvs() == [HEAD, MKDIR, CHMOD_FOLDER, TEE]


def test_links_in_a_circle_are_told_by_tee(alice):
    alice.symlink(FILE, "other")
    alice.symlink(FOLDER + "/other", "authorized_keys")
    assert get(alice) == {"ok": True, "keys": ""}
    reply = put(alice, KEY)
    assert reply["error"].startswith("runuser failed: tee: ") and "symbolic links" in reply["error"]
    assert alice.argvs() == [HEAD, MKDIR, CHMOD_FOLDER, TEE]


def test_lines_are_checked_before_the_file(alice):
    make_fifo(alice.path(FILE))
    assert put(alice, "no key") == bad_line(1)
    assert put(alice, "\n".join(keys(51))) == failure("at most 50 keys")


def test_a_folder_behind_a_link_that_leads_nowhere_is_told_by_mkdir(alice):
    alice.path(FOLDER).rmdir()
    alice.symlink(FOLDER, "/srv/none")
    assert get(alice) == {"ok": True, "keys": ""}
    reply = put(alice, KEY)
    assert reply["error"].startswith("runuser failed: mkdir: ") and "File exists" in reply["error"]
    assert alice.argvs() == [MKDIR]


@pytest.mark.parametrize("target", ["/root", "/proc/1/root/root"])
def test_a_folder_behind_a_link_to_what_is_not_the_users_is_left_alone(alice, target):
    alice.write("/root/authorized_keys", "theirs", mode=0o600)
    alice.path(FOLDER).rmdir()
    alice.symlink(FOLDER, target)
    alice.secret("theirs")
    assert get(alice) == {"ok": True, "keys": ""}
    assert put(alice, KEY)["error"].startswith("runuser failed: ")
    assert alice.read("/root/authorized_keys") == "theirs"
    assert alice.entry("/root") == "0700 root:root"


def test_a_folder_that_is_a_file_is_told_by_mkdir(alice):
    alice.path(FOLDER).rmdir()
    alice.write(FOLDER, "a file", owner="alice:alice")
    assert get(alice) == {"ok": True, "keys": ""}
    assert alice.argvs() == []
    reply = put(alice, KEY)
    assert reply["error"].startswith("runuser failed: ") and "File exists" in reply["error"]
    assert alice.argvs() == [MKDIR]


def test_a_home_that_root_has_moved_is_followed(alice):
    alice.write(FILE, KEY, mode=0o600, owner="alice:alice")
    alice.run("cp", "-a", "/home/alice", "/srv/alice")
    alice.path("/home/alice").rename(alice.path("/home/old"))
    alice.symlink("/home/alice", "/srv/alice")
    assert get(alice) == {"ok": True, "keys": KEY}
    assert put(alice, KEY + " new") == {"ok": True, "count": 1}
    assert alice.read("/srv/alice/.ssh/authorized_keys") == KEY + " new\n"


def test_a_home_that_leads_elsewhere_gives_no_more_than_its_user_may(alice):
    alice.write("/root/.ssh/authorized_keys", "roots own keys", mode=0o600)
    alice.path("/root/.ssh").chmod(0o755)
    alice.path("/home/alice").rename(alice.path("/home/old"))
    alice.symlink("/home/alice", "/root")
    alice.secret("roots own keys")
    assert get(alice) == {"ok": True, "keys": ""}
    assert put(alice, KEY)["ok"] is False
    assert alice.read("/root/.ssh/authorized_keys") == "roots own keys"
    assert alice.entry("/root/.ssh") == "0755 root:root"


@pytest.mark.parametrize("hold", ["exec", "sleep 1000 >{0} &\nexec"])
def test_a_tool_that_waits_at_a_pipe_is_ended(alice, hold):
    alice.write(FILE, KEY, owner="alice:alice")
    script = f'rm {FILE}; mkfifo {FILE}; chown alice {FILE}; {hold.format(FILE)} /usr/sbin/runuser "$@"'
    alice.answer("runuser", shell=script)
    # A client waits a minute for its reply here, and the tool would have ten seconds.
    assert get(alice) == {"ok": True, "keys": ""}
    wait_until(lambda: alice.agent.others() == [], "the end of what the tool left")


def test_a_file_replaced_by_a_pipe_while_it_is_read_holds_up_until_the_time_is_over(impatient, alice):
    alice.write(FILE, KEY, owner="alice:alice")
    alice.answer("runuser", shell=f'rm {FILE}; mkfifo {FILE}; chown alice {FILE}; exec /usr/sbin/runuser "$@"')
    assert get(alice) == {"ok": True, "keys": ""}
    wait_until(lambda: alice.agent.others() == [], "the end of what the tool left")
