"""backup.restore: what is refused, what is run, how the stream's ends read, and what an account's owner cannot do."""

import json
import os
import re
import subprocess
from pathlib import Path

import pytest

from programs import wait_until
from sandbox import PSQL, runuser

DESTINATION = "/var/backups/corvane/auto"
NAME = "2025-03-09_031500"
ACCOUNTS = f"{DESTINATION}/{NAME}/accounts"
ARCHIVE = f"{ACCOUNTS}/alice-home.tar.gz"
DUMP = f"{ACCOUNTS}/alice-db.dump"
TARGET = f"/home/alice/restored-{NAME}"
MEBIBYTE = 1 << 20

MKDIR = runuser("alice", "mkdir", TARGET)
UNPACK = runuser("alice", "tar", "-xzf", "-", "-C", TARGET, "--strip-components=1", "--no-same-owner")
LOAD = runuser("postgres", "pg_restore", "-d", "alice__restore")

HEAD = "\\set u 'alice'\n\\set tmp 'alice__restore'\n\\set old 'alice__old'\n"
DROP = HEAD + "SELECT format('DROP DATABASE IF EXISTS %I WITH (FORCE)', :'tmp') \\gexec\n"
PREPARE = (
    DROP
    + "SELECT format('CREATE DATABASE %I OWNER %I', :'tmp', :'u') \\gexec\n"
    + "SELECT format('REVOKE ALL ON DATABASE %I FROM PUBLIC', :'tmp') \\gexec\n"
)
SWAP = (
    HEAD
    + "SELECT format('DROP DATABASE IF EXISTS %I WITH (FORCE)', :'old') \\gexec\n"
    + "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = :'u';\n"
    + "SELECT format('ALTER DATABASE %I RENAME TO %I', :'u', :'old') \\gexec\n"
    + "SELECT format('ALTER DATABASE %I RENAME TO %I', :'tmp', :'u') \\gexec\n"
    + "SELECT format('DROP DATABASE %I WITH (FORCE)', :'old') \\gexec\n"
)

KEPT = "the restore failed, so the current database was left as it is: "
STOPPED = "unpacking stopped (over the disk limit?): "


@pytest.fixture
def alice(sandbox):
    """The sandbox with an account and a backup of it."""
    return prepared(sandbox)


@pytest.fixture
def hasty(impatient):
    """The same with short time-outs."""
    return prepared(impatient)


def prepared(sandbox):
    sandbox.add_account("alice")
    sandbox.write("/home/alice/public_html/index.html", "hello", mode=0o640, owner="alice:www-data")
    sandbox.write("/home/alice/public_html/run.sh", "#!/bin/sh\n", mode=0o755, owner="alice:alice")
    sandbox.symlink("/home/alice/outside", "/etc/passwd")
    sandbox.mkdir(ACCOUNTS)
    subprocess.run(["tar", "-czf", sandbox.path(ARCHIVE), "-C", sandbox.path("/home"), "alice"], check=True)
    sandbox.write(DUMP, b"PGDMP" + b"data" * 1000, mode=0o600)
    sandbox.path(ARCHIVE).chmod(0o600)
    sandbox.path(DESTINATION).chmod(0o700)
    return sandbox


def restore(sandbox, what, **more):
    return sandbox.request("backup.restore", {"username": "alice", "backup": NAME, "what": what, **more})


def error(sandbox, what, **more):
    reply = restore(sandbox, what, **more)
    assert set(reply) == {"ok", "error"} and reply["ok"] is False
    return reply["error"]


def refusal(sandbox, what, **more):
    """The error of a request that runs nothing."""
    message = error(sandbox, what, **more)
    assert sandbox.calls() == []
    return message


def nothing_is_left(sandbox, fds):
    assert sandbox.agent.children() == []
    wait_until(lambda: sandbox.agent.others() == [], "processes to vanish")
    wait_until(lambda: len(sandbox.agent.fds()) <= len(fds), "descriptors to be closed")


def started(sandbox):
    """The descriptors of the agent after a first request of each kind, for what it opens once and keeps."""
    sandbox.request("ping")
    return sandbox.agent.fds()


# What is refused


@pytest.mark.parametrize("user", ["", "bob", "root", "alice\n", "../alice", "carol", None, 5, ["alice"]])
def test_no_such_account(alice, user):
    alice.add_user("carol", "Carol")
    text = user if isinstance(user, str) else ""
    assert refusal(alice, "files", username=user) == f"no Corvane account named '{text}'"


@pytest.mark.parametrize(
    "backup",
    [
        "",
        "../x",
        f"../auto/{NAME}",
        f"{NAME}\n",
        f"{NAME}\0",
        f" {NAME}",
        f"{NAME}/",
        f".partial-{NAME}",
        "2025-03-09_03150",
        "2025-03-09_0315000",
        "2025-03-09T031500",
        "٢025-03-09_031500",
        None,
        20250309,
        [NAME],
        {},
    ],
)
def test_no_such_backup(alice, backup):
    assert refusal(alice, "files", backup=backup) == "no such backup"


@pytest.mark.parametrize(
    "what", ["", "Files", "file", "databases", "files\n", "files ", "both", None, 1, True, ["files"], {"files": 1}]
)
def test_what_else(alice, what):
    assert refusal(alice, what) == "what: files or database"


def test_missing_arguments_in_order(alice):
    assert alice.request("backup.restore")["error"] == "no Corvane account named ''"
    assert alice.request("backup.restore", username="alice")["error"] == "no such backup"
    assert alice.request("backup.restore", username="alice", backup=NAME)["error"] == "what: files or database"
    assert alice.calls() == []


NO_FILE = {"files": "that backup has no files for alice", "database": "that backup has no database for alice"}


@pytest.mark.parametrize("what", NO_FILE)
@pytest.mark.parametrize("kind", ["missing", "folder", "fifo", "link", "dangling link", "device"])
def test_saved_file_that_is_no_file(alice, what, kind):
    path = alice.path(ARCHIVE if what == "files" else DUMP)
    path.rename(path.with_name("other"))
    if kind == "folder":
        path.mkdir()
    elif kind == "fifo":
        os.mkfifo(path)
    elif kind != "missing":
        path.symlink_to({"link": "other", "dangling link": "nowhere", "device": "/dev/zero"}[kind])
    assert refusal(alice, what) == NO_FILE[what]


@pytest.mark.parametrize("what", NO_FILE)
def test_backup_that_does_not_exist(alice, what):
    assert refusal(alice, what, backup="2025-03-09_031501") == NO_FILE[what]


@pytest.mark.parametrize("what", NO_FILE)
@pytest.mark.parametrize("part", [f"{DESTINATION}/{NAME}", ACCOUNTS])
def test_link_to_a_folder_is_no_backup(alice, what, part):
    path = alice.path(part)
    path.rename(alice.path("/var/backups/elsewhere"))
    path.symlink_to("/var/backups/elsewhere")
    assert refusal(alice, what) == NO_FILE[what]


@pytest.mark.parametrize("value", ["", "srv", "/srv/a,b"])
def test_destination_that_is_no_absolute_path(alice, value):
    alice.settings(backup_destination=value)
    assert refusal(alice, "files") == NO_FILE["files"]


# Files


def test_files(alice):
    assert restore(alice, "files") == {"ok": True, "restoredTo": TARGET}
    assert alice.argvs() == [MKDIR, ["cat", ARCHIVE], UNPACK] or alice.argvs() == [MKDIR, UNPACK, ["cat", ARCHIVE]]
    found = alice.tree(TARGET)
    assert found.pop("public_html/index.html") == "0640 alice:alice hello"
    assert found.pop("public_html/run.sh") == "0755 alice:alice #!/bin/sh\n"
    assert found.pop("outside") == "link -> /etc/passwd"
    assert set(found) == {"public_html", "logs", "tmp", ".ssh"}
    assert all(text.endswith("alice:alice") for text in found.values())
    assert alice.entry(TARGET).endswith("alice:alice")
    assert alice.read("/home/alice/public_html/index.html") == "hello"


def test_processes_of_a_restore(alice):
    restore(alice, "files")
    reader = alice.calls("cat")[0]
    unpack = alice.calls("tar")[0]
    assert reader.uid == 0 and unpack.uid == alice.uid("alice")
    assert reader.sid != unpack.sid
    assert reader.stdin is None and reader.fds[0] == "/dev/null"
    assert reader.fds[1] == unpack.fds[0] and reader.fds[1].startswith("pipe:")


def test_files_twice_from_one_backup(alice):
    assert restore(alice, "files")["ok"] is True
    alice.forget_calls()
    assert refusal(alice, "files") == f"restored-{NAME} exists already in the home folder"


@pytest.mark.parametrize("kind", ["file", "folder", "fifo", "link", "dangling link", "loop"])
def test_anything_in_the_target_s_place(alice, kind):
    path = alice.path(TARGET)
    if kind == "file":
        path.touch()
    elif kind == "folder":
        path.mkdir()
    elif kind == "fifo":
        os.mkfifo(path)
    else:
        path.symlink_to({"link": "/etc", "dangling link": "/etc/nowhere", "loop": path.name}[kind])
    before = alice.tree("/etc")
    assert refusal(alice, "files") == f"restored-{NAME} exists already in the home folder"
    assert alice.tree("/etc") == before


@pytest.mark.parametrize("target", ["/etc", "/etc/nowhere", "/root"])
def test_link_planted_after_the_check_gains_nothing(alice, target):
    # In the moment between the check and the folder's making.
    alice.answer("mkdir", shell=f'ln -s {target} {TARGET}; exec mkdir "$@"')
    before = alice.tree("/etc"), alice.tree("/root")
    assert error(alice, "files") == (
        f"runuser failed: mkdir: cannot create directory \u2018{TARGET}\u2019: File exists"
    )
    assert (alice.tree("/etc"), alice.tree("/root")) == before
    assert alice.calls("cat") == []


@pytest.mark.parametrize("target", ["/etc", "/root"])
def test_link_planted_after_the_folder_was_made_gains_nothing(alice, target):
    alice.answer("mkdir", shell=f'mkdir "$@" && rmdir "$@" && ln -s {target} {TARGET}')
    before = alice.tree("/etc"), alice.tree("/root")
    message = error(alice, "files")
    assert message.startswith(STOPPED)
    assert (alice.tree("/etc"), alice.tree("/root")) == before


def test_archive_cannot_leave_the_target(alice):
    """An account owner decides what is in the home, and so in the archive."""
    evil = alice.path("/tmp/evil")
    (evil / "alice" / "sub").mkdir(parents=True)
    (evil / "alice" / "sub" / "file").write_text("x")
    (evil / "alice" / "way").symlink_to("/etc")
    archive = alice.path(ARCHIVE)
    subprocess.run(
        ["tar", "-czPf", archive, "-C", evil, "--transform", "s,^alice/sub/file$,alice/../../../etc/evil,", "alice"],
        check=True,
        capture_output=True,
    )
    before = alice.tree("/etc")
    restore(alice, "files")
    assert alice.tree("/etc") == before


def test_home_without_room(alice):
    alice.write(ARCHIVE, b"")
    big = alice.path("/srv/big/alice")
    big.mkdir(parents=True)
    (big / "noise").write_bytes(os.urandom(4 * MEBIBYTE))
    subprocess.run(["tar", "-czf", alice.path(ARCHIVE), "-C", big.parent, "alice"], check=True)
    fds = started(alice)
    alice.small_disk("/home/alice", "1m")
    os.chown(alice.path("/home/alice"), *alice.ids("alice:www-data"))
    # The pipe breaks when the reader has not written all by then.
    assert re.fullmatch(
        re.escape(STOPPED) + r"(cannot read the backup file|tar: noise: (Cannot write: No space left on device|Wrote only"
        r" \d+ of \d+ bytes)\ntar: Exiting with failure status due to previous errors)",
        error(alice, "files"),
    )
    assert alice.exists(f"{TARGET}/noise")
    assert error(alice, "files") == f"restored-{NAME} exists already in the home folder"
    nothing_is_left(alice, fds)


def test_folder_that_cannot_be_made(alice):
    alice.answer("mkdir", exit=1, err="mkdir: no\n")
    assert error(alice, "files") == "runuser failed: mkdir: no"
    assert alice.argvs() == [MKDIR]


def test_archive_that_is_damaged(alice):
    alice.write(ARCHIVE, b"no archive")
    assert error(alice, "files") == STOPPED + (
        "gzip: stdin: not in gzip format\n"
        "tar: Child returned status 1\n"
        "tar: Error is not recoverable: exiting now"
    )


TRAILING = ("gzip: stdin: decompression OK, trailing garbage ignored\ntar: Child returned status 2\n"
            "tar: Error is not recoverable: exiting now")


@pytest.mark.parametrize("data, told", [
    (None, ""), (b"garbage\n", TRAILING), (b"bad", TRAILING), (b"\x00\x28\x00\x00", ""), (b"", TRAILING)], ids=str)
def test_bytes_behind_an_archive_are_told_of_where_a_compressor_is_silent(alice, data, told):
    """One of ours, which the tools' folder in the search path leads to."""
    alice.start(env={"PATH": "/usr/libexec/corvane/tools:/standins/bin"})
    if data is not None:
        alice.write(ARCHIVE, data)
        alice.answer("tar")
    assert restore(alice, "files") == ({"ok": False, "error": STOPPED + told} if told else {"ok": True, "restoredTo": TARGET})


def test_unpacker_that_fails_after_reading_all(alice):
    alice.answer("tar", err="  tar: something\n is wrong \n", exit=2)
    assert error(alice, "files") == STOPPED + "tar: something\n is wrong"


def test_long_complaint_is_cut_to_its_end(alice):
    alice.answer("tar", err="a" * 300 + "é" * 500 + "\n", exit=2)
    assert error(alice, "files") == STOPPED + "é" * 500


def test_complaint_of_501_characters(alice):
    alice.answer("tar", err="a" + "b" * 500, exit=2)
    assert error(alice, "files") == STOPPED + "b" * 500


def test_unpacker_that_fails_without_a_word(alice):
    alice.answer("tar", out="not here", exit=2)
    assert restore(alice, "files") == {"ok": True, "restoredTo": TARGET}


def test_complaints_of_an_unpacker_that_succeeds(alice):
    alice.answer("tar", err="tar: a warning\n")
    assert restore(alice, "files") == {"ok": True, "restoredTo": TARGET}


def test_unpacker_receives_the_file_byte_for_byte(alice):
    data = os.urandom(5 * MEBIBYTE)
    alice.write(ARCHIVE, data)
    alice.answer("tar")
    assert restore(alice, "files")["ok"] is True
    assert alice.calls("tar")[0].stdin == data


def test_empty_file(alice):
    alice.write(ARCHIVE, b"")
    alice.answer("tar")
    assert restore(alice, "files")["ok"] is True
    assert alice.calls("tar")[0].stdin == b""


# The ends of the stream, which both kinds share


KINDS = [("files", "tar", STOPPED), ("database", "pg_restore", KEPT)]


def kinds(test):
    return pytest.mark.parametrize(("what", "consumer", "prefix"), KINDS)(test)


@kinds
def test_reader_that_fails(alice, what, consumer, prefix):
    alice.answer(consumer, exit=2, err="unexpected end\n")
    alice.answer("cat", exit=1, err="cat: Input/output error\n")
    fds = started(alice)
    assert error(alice, what) == prefix + "cannot read the backup file"
    nothing_is_left(alice, fds)


@kinds
def test_reader_that_fails_counts_before_the_consumer(alice, what, consumer, prefix):
    alice.answer(consumer)
    alice.answer("cat", out="part", exit=1)
    assert error(alice, what) == prefix + "cannot read the backup file"


@kinds
def test_reader_that_a_signal_ends(alice, what, consumer, prefix):
    alice.answer(consumer)
    alice.answer("cat", signal=9)
    assert error(alice, what) == prefix + "cannot read the backup file"


@kinds
@pytest.mark.parametrize("code", [0, 1])
def test_reader_that_the_pipe_breaks(alice, what, consumer, prefix, code):
    alice.write(ARCHIVE, b"x" * MEBIBYTE)
    alice.write(DUMP, b"x" * MEBIBYTE)
    alice.answer(consumer, unread=True, exit=code)
    fds = started(alice)
    assert error(alice, what) == prefix + "cannot read the backup file"
    nothing_is_left(alice, fds)


@kinds
def test_reader_that_is_missing(alice, what, consumer, prefix):
    alice.remove_standin("cat")
    alice.answer(consumer)
    fds = started(alice)
    assert error(alice, what) == prefix + "took too long"
    nothing_is_left(alice, fds)


@kinds
def test_reader_that_cannot_start(alice, what, consumer, prefix):
    alice.remove_standin("cat")
    alice.write("/standins/bin/cat", b"\0\1\2", mode=0o755)
    alice.answer(consumer)
    alice.request("ping")
    assert error(alice, what) == prefix + "took too long"
    assert alice.agent.children() == []
    wait_until(lambda: alice.agent.others() == [], "processes to vanish")


@kinds
def test_reader_that_ends_long_before_the_consumer(alice, what, consumer, prefix):
    alice.answer(consumer, shell="cat >/dev/null; sleep 0.5")
    assert restore(alice, what)["ok"] is True


@kinds
def test_consumer_that_hangs(hasty, what, consumer, prefix):
    hasty.answer(consumer, hang=True)
    fds = started(hasty)
    assert error(hasty, what) == prefix + "took too long"
    nothing_is_left(hasty, fds)


@kinds
def test_consumer_that_reads_nothing_and_hangs(hasty, what, consumer, prefix):
    hasty.write(ARCHIVE, b"x" * MEBIBYTE)
    hasty.write(DUMP, b"x" * MEBIBYTE)
    hasty.answer(consumer, ignore_input=True, hang=True)
    fds = started(hasty)
    assert error(hasty, what) == prefix + "took too long"
    nothing_is_left(hasty, fds)


@kinds
def test_reader_that_hangs_after_the_consumer(hasty, what, consumer, prefix):
    hasty.answer(consumer, unread=True)
    hasty.answer("cat", hang=True)
    fds = started(hasty)
    assert error(hasty, what) == prefix + "took too long"
    nothing_is_left(hasty, fds)


@kinds
def test_reader_that_hangs_before_the_consumer_has_all(hasty, what, consumer, prefix):
    hasty.answer("cat", out="part", hang=True)
    fds = started(hasty)
    assert error(hasty, what) == prefix + "took too long"
    nothing_is_left(hasty, fds)


@kinds
@pytest.mark.parametrize("stream", ["flood_out", "flood_err"])
def test_consumer_that_floods_its_outputs(alice, what, consumer, prefix, stream):
    alice.answer(consumer, **{stream: 300 * MEBIBYTE})
    fds = started(alice)
    before = alice.agent.memory("VmHWM")
    assert restore(alice, what)["ok"] is True
    assert alice.sanitized or alice.agent.memory("VmHWM") - before < 16 * MEBIBYTE
    nothing_is_left(alice, fds)


@kinds
def test_consumer_that_leaves_a_child_with_its_outputs(alice, what, consumer, prefix):
    alice.answer(consumer, session_child="/tmp/go")
    assert restore(alice, what)["ok"] is True
    alice.write("/tmp/go")


@kinds
def test_child_that_keeps_the_stream_open_unread(hasty, what, consumer, prefix):
    hasty.write(ARCHIVE, b"x" * MEBIBYTE)
    hasty.write(DUMP, b"x" * MEBIBYTE)
    hasty.answer(consumer, ignore_input=True, session_child="/tmp/go")
    assert error(hasty, what) == prefix + "took too long"
    assert hasty.agent.children() == []
    hasty.write("/tmp/go")


@kinds
def test_child_of_the_consumer_that_keeps_the_stream_open_is_killed(hasty, what, consumer, prefix):
    hasty.write(ARCHIVE, b"x" * MEBIBYTE)
    hasty.write(DUMP, b"x" * MEBIBYTE)
    hasty.answer(consumer, shell="exec 3<&0; sleep 1000 <&3 & exit 0")
    fds = started(hasty)
    assert error(hasty, what) == prefix + "took too long"
    nothing_is_left(hasty, fds)


def own_io(process):
    """The bytes that a process has read and written itself; its own file would count its ended children's too."""
    lines = Path(f"/proc/{process.pid}/task/{process.pid}/io").read_text().splitlines()
    found = dict(line.split(": ") for line in lines)
    return int(found["rchar"]), int(found["wchar"])


@kinds
def test_stream_does_not_pass_through_the_agent(alice, what, consumer, prefix):
    with alice.path(ARCHIVE).open("wb") as archive, alice.path(DUMP).open("wb") as dump:
        archive.truncate(200 * MEBIBYTE)
        dump.truncate(200 * MEBIBYTE)
    alice.answer(consumer, shell="cat >/dev/null")
    alice.request("ping")
    before = own_io(alice.agent)
    assert restore(alice, what)["ok"] is True
    read, written = own_io(alice.agent)
    assert read - before[0] < MEBIBYTE and written - before[1] < MEBIBYTE


def test_stop_waits_for_the_restore(alice):
    alice.answer("tar", wait="/tmp/go")
    with alice.connect() as client:
        arguments = {"username": "alice", "backup": NAME, "what": "files"}
        client.send(json.dumps({"cmd": "backup.restore", "args": arguments}).encode() + b"\n")
        alice.wait_for_call("tar")
        alice.agent.signal(15)
        assert alice.agent.running()
        alice.write("/tmp/go")
        assert alice.took("backup.restore", client.reply()) == {"ok": True, "restoredTo": TARGET}
    assert alice.agent.wait() == 0


# The database


def test_database(alice):
    assert restore(alice, "database") == {"ok": True}
    calls = alice.argvs()
    assert calls[0] == PSQL and calls[-1] == PSQL and len(calls) == 4
    assert sorted(calls[1:3]) == [["cat", DUMP], LOAD]
    assert alice.scripts() == [PREPARE, SWAP]
    assert alice.calls("pg_restore")[0].stdin == alice.path(DUMP).read_bytes()
    assert alice.calls("pg_restore")[0].uid == alice.uid("postgres")


def test_home_is_not_needed_for_the_database(alice):
    alice.path(ARCHIVE).unlink()
    assert restore(alice, "database") == {"ok": True}


def test_scratch_database_that_cannot_be_made(alice):
    alice.answer("psql", call=1, exit=3, err='ERROR:  role "alice" does not exist\n')
    assert error(alice, "database") == 'runuser failed: ERROR:  role "alice" does not exist'
    assert alice.scripts() == [PREPARE]
    assert alice.calls("cat", "pg_restore") == []


@pytest.mark.parametrize("text", ["", "pg_restore: warning: errors ignored on restore: 3\n", "pg_restore: error: no\n"])
@pytest.mark.parametrize("how", [{"exit": 1}, {"exit": 127}, {"signal": 11}])
def test_loader_that_fails_is_swapped_in_all_the_same(alice, text, how):
    alice.answer("pg_restore", out="x", err=text, **how)
    assert restore(alice, "database") == {"ok": True}
    assert alice.scripts() == [PREPARE, SWAP]


def test_loader_that_is_missing_is_swapped_in_all_the_same(alice):
    alice.remove_standin("pg_restore")
    alice.answer("cat")  # writes nothing, and so ends well also when nobody reads any more
    assert restore(alice, "database") == {"ok": True}
    assert alice.scripts() == [PREPARE, SWAP]


def test_failed_stream_drops_the_scratch_database(alice):
    alice.answer("cat", exit=1)
    assert error(alice, "database") == KEPT + "cannot read the backup file"
    assert alice.scripts() == [PREPARE, DROP]


def test_drop_that_fails_is_not_reported(alice):
    alice.answer("cat", exit=1)
    alice.answer("psql", call=2, exit=3, err="ERROR")
    assert error(alice, "database") == KEPT + "cannot read the backup file"
    assert alice.scripts() == [PREPARE, DROP]


def test_swap_that_fails(alice):
    alice.answer("psql", call=2, exit=3, err='ERROR:  database "alice" is being accessed by other users\n')
    assert error(alice, "database") == (
        'restored, but swapping it in failed: runuser failed: ERROR:  database "alice" is being accessed by other users'
    )
    assert alice.scripts() == [PREPARE, SWAP]


def test_swap_that_takes_too_long(hasty):
    hasty.answer("psql", call=2, hang=True)
    assert error(hasty, "database") == "restored, but swapping it in failed: runuser: took too long"
    assert hasty.scripts() == [PREPARE, SWAP]


def test_database_twice_from_one_backup(alice):
    assert restore(alice, "database") == {"ok": True}
    assert restore(alice, "database") == {"ok": True}
    assert alice.scripts() == [PREPARE, SWAP] * 2


def test_restore_changes_nothing_in_the_backup(alice):
    before = {path: text for path, text in alice.tree(DESTINATION).items()}
    restore(alice, "files")
    restore(alice, "database")
    assert alice.tree(DESTINATION) == before


def test_many_restores_leave_no_descriptor(alice):
    fds = started(alice)
    for _ in range(5):
        assert restore(alice, "database") == {"ok": True}
    nothing_is_left(alice, fds)
