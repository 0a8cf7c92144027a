"""The file helper, run directly as the account's user: every operation, every message, and what it leaves."""

import json
import os
import shlex
import stat

import pytest

from files import DONE, MEBIBYTE, OUTSIDE, Files, error
from sandbox import AGENT_PATH

EDITOR_LIMIT = 2 * MEBIBYTE
DOWNLOAD_LIMIT = 256 * MEBIBYTE


@pytest.fixture
def files(sandbox):
    return Files(sandbox)


def entry(name, folder=False, link=False, size=0, mtime=0, mode="644"):
    return {"name": name, "dir": folder, "link": link, "size": size, "mtime": mtime, "mode": mode}


# How it is called


def traced(*options):
    """What a shell does so that strace watches the helper, or lets its system calls fail."""
    return f'exec strace -qq {" ".join(options)} "$@"'


def test_settings_are_not_touched(files):
    files.sandbox.start()
    files.sandbox.path("/etc/corvane/corvane.ini").unlink()
    assert files.direct("list", "logs") == {"ok": True, "entries": [], "truncated": False}


@pytest.mark.parametrize("args", [[], ["list"], ["list", ""], ["list", "", "x"], ["", ""], ["nothing"]])
def test_arguments_that_are_missing(files, args):
    code, out, err = files.helper(*args)
    assert (code, json.loads(out), err) == (0, OUTSIDE, "")


@pytest.mark.parametrize("op", ["", "LIST", "list ", "nothing", "-h", "--backup"])
def test_operation_that_there_is_not(files, op):
    assert files.direct(op, "x") == error("unknown file operation")


def test_path_is_judged_before_the_operation(files):
    assert files.direct("nothing", "..") == OUTSIDE


@pytest.mark.parametrize("home", ["/srv/x", "/home", "/home/", "", "/", "home/alice", "/homes/alice", "/HOME/alice", "/home/alice/", "/home/./alice"])
@pytest.mark.parametrize("op", ["list", "read", "write", "mkdir", "rename", "delete", "upload", "nothing"])
def test_home_that_is_no_home(files, home, op):
    assert files.direct(op, "x", "y", home=home) == OUTSIDE


def test_download_of_a_path_outside_is_no_file(files):
    text = "that path is outside the account's home\n"
    assert files.helper("download", "/home/alice", "../bob/x") == (1, "", text)
    assert files.helper("download", "/srv/x", "x") == (1, "", text)
    assert files.helper("download") == (1, "", text)


def test_standard_output_that_is_closed(files):
    target = files.write("own.txt", "text")
    assert files.helper("list", "/home/alice", "", shell="exec >&-") == (1, "", "")
    assert files.helper("write", "/home/alice", "own.txt", input=b"x", shell="exec >&-") == (1, "", "")
    assert files.helper("download", "/home/alice", "own.txt", shell="exec >&-") == (1, "", "cannot read it\n")
    assert target.read_text() == "text"


def test_standard_input_and_error_that_are_closed(files):
    assert files.direct("write", "a", shell="exec <&- 2>&-") == {"ok": True, "size": 0}
    assert files.path("a").read_bytes() == b""


def test_standard_output_that_is_full(files):
    code, out, err = files.helper("mkdir", "/home/alice", "x", shell="exec >/dev/full")
    assert (code, out, err) == (0, "", "")


def test_other_processes_of_the_user_cannot_trace_it(files):
    shell = f"""
        mkfifo /home/alice/fifo
        {AGENT_PATH} --files upload /home/alice x </home/alice/fifo >/home/alice/answer &
        exec 3>/home/alice/fifo
        until [ "$(stat -c %U /proc/$!/status)" = root ] && [ "$(cut -d' ' -f3 /proc/$!/stat)" = S ]; do :; done
        cat /proc/$!/environ /proc/$!/mem 2>&1 | tr ' ' '\\n' | grep -c denied
        ls /proc/$!/fd >/dev/null 2>&1 && echo seen
        exec 3>&-
        wait $!
        cat /home/alice/answer
        exit
    """
    code, out, _ = files.helper(shell=shell)
    assert (code, out) == (0, '2\n{"ok":true,"size":0}\n')


# list


def test_list_of_an_entry_of_every_kind(files):
    top = files.mkdir("d")
    (top / "file").write_text("12345")
    (top / "folder").mkdir()
    (top / "folder/x").write_text("x")
    (top / ".hidden").write_text("")
    os.mkfifo(top / "fifo")
    os.mknod(top / "socket", stat.S_IFSOCK)
    for name, target in (("to file", "file"), ("to folder", "folder"), ("to nothing", "gone"), ("to itself", "to itself")):
        (top / name).symlink_to(target)
    for path, mode in (("file", 0o7755), ("folder", 0o1777), (".hidden", 0), ("fifo", 0o600), ("socket", 0o666)):
        (top / path).chmod(mode)
        os.utime(top / path, (5, 1_234_567_890.9))
    assert files.direct("list", "d") == {
        "ok": True,
        "entries": [
            entry("folder", True, mtime=1234567890, mode="777"),
            entry("to folder", True, True, mtime=1234567890, mode="777"),
            entry(".hidden", mtime=1234567890, mode="0"),
            entry("fifo", mtime=1234567890, mode="600"),
            entry("file", size=5, mtime=1234567890, mode="755"),
            entry("socket", mtime=1234567890, mode="666"),
            entry("to file", link=True, size=5, mtime=1234567890, mode="755"),
            entry("to itself", link=True, mode="0"),
            entry("to nothing", link=True, mode="0"),
        ],
        "truncated": False,
    }


@pytest.mark.parametrize("mode", [0o644, 0o755, 0o600, 0o000, 0o777, 0o001, 0o010, 0o100, 0o002, 0o040, 0o4711, 0o2070, 0o1123])
def test_mode_is_nine_bits(files, mode):
    files.write("logs/a", mode=mode)
    assert files.direct("list", "logs")["entries"][0]["mode"] == f"{mode & 0o777:o}"


@pytest.mark.parametrize("when", [0, 1, -1, 2**31, 2**32 + 5, 10_000_000_000])
def test_time_is_in_whole_seconds(files, when):
    path = files.write("logs/a")
    try:
        os.utime(path, (0, when))
    except OverflowError:
        pytest.skip("this Python's own times have 32 bits, and cannot be set to that")
    assert files.direct("list", "logs")["entries"][0]["mtime"] == when


def test_size_of_a_big_file(files):
    os.truncate(files.write("logs/a"), 5 * 10**9)
    assert files.direct("list", "logs")["entries"][0]["size"] == 5 * 10**9


def test_order_ignores_letter_case(files):
    names = "b A B a _x Zeta alpha Äpfel äpfel 10 9 -dash .dot zeta ALPHA".split()
    for name in names:
        files.write(f"logs/{name}")
    for name in ("M", "n", "L"):
        files.mkdir(f"logs/{name}")
    expected = sorted(["M", "n", "L"], key=str.lower) + sorted(names, key=lambda name: (name.lower(), name))
    assert files.entries("logs") == expected


@pytest.mark.parametrize("path", ["", "/", ".", "./", "//", "logs/..", "../alice"])
def test_list_of_the_home(files, path):
    assert files.entries(path) == [".ssh", "logs", "public_html", "tmp"]


def test_list_through_a_link(files):
    files.write("logs/a")
    files.link("link", "logs")
    assert files.entries("link") == ["a"]


def test_list_of_what_is_no_folder(files):
    files.write("file")
    files.link("nowhere", "gone")
    files.link("to_file", "file")
    os.mkfifo(files.path("fifo"))
    for path in ("file", "missing", "nowhere", "to_file", "fifo", "file/x", "missing/x", "n" * 256, "n/" * 2500):
        assert files.direct("list", path) == error("not a folder")


def test_list_of_a_folder_that_may_not_be_read(files):
    files.mkdir("closed", 0o300)
    assert files.direct("list", "closed") == error("Permission denied")


def test_list_of_a_folder_that_may_not_be_searched(files):
    files.mkdir("closed")
    files.write("closed/file", "12345")
    files.mkdir("closed/folder")
    files.path("closed").chmod(0o400)
    assert files.direct("list", "closed")["entries"] == [entry("folder", True, mode="0"), entry("file", mode="0")]


@pytest.mark.parametrize(("count", "truncated"), [(4999, False), (5000, False), (5001, True), (12_000, True)])
def test_list_of_many(files, count, truncated):
    folder = files.mkdir("many")
    names = [f"{'fF'[number % 2]}{number * 7919 % 100_003:06d}" for number in range(count - 2)]
    for name in names:
        os.close(os.open(folder / name, os.O_CREAT, 0o644))
    (folder / "z folder").mkdir()
    (folder / "z link").symlink_to("z folder")
    reply = files.direct("list", "many")
    assert reply["truncated"] is truncated
    expected = ["z folder", "z link"] + sorted(names, key=str.lower)
    assert [entry["name"] for entry in reply["entries"]] == expected[:5000]


def test_many_links_are_folders_first(files):
    folder = files.mkdir("many")
    (folder / "z").mkdir()
    for number in range(6000):
        (folder / f"{number:05d}").symlink_to("gone" if number < 5500 else "z")
    names = files.entries("many")
    assert names == [f"{number:05d}" for number in range(5500, 6000)] + ["z"] + [f"{number:05d}" for number in range(4499)]


# Names


ODD_NAMES = ["-rf", "--", "a b", " ", "a\nb", "\n", "'", '"', "\\", "a\\b", "*", "$x", "\x01", "\x7f", "ü", "日本", "𝄞", "\ufeff", "\ufeffx", "..."]


@pytest.mark.parametrize("name", ODD_NAMES)
def test_odd_name(files, name):
    assert files.direct("mkdir", name) == DONE
    assert files.direct("delete", name) == DONE
    assert files.direct("write", name, input=b"text") == {"ok": True, "size": 4}
    assert name in files.entries()
    assert files.direct("read", name) == {"ok": True, "content": "text"}
    assert files.helper("download", "/home/alice", name) == (0, "text", "")
    assert files.direct("rename", name, name + "2") == DONE
    assert files.direct("rename", name + "2", name) == DONE
    assert files.direct("delete", name) == DONE
    assert files.names() == [".ssh", "logs", "public_html", "tmp"]


def test_name_that_is_not_utf8_can_be_used_as_it_is_shown(files):
    folder = os.fsencode(files.mkdir("logs/d"))
    with open(folder + b"/caf\xe9.html", "wb") as file:
        file.write(b"text")
    os.mkdir(folder + b"/\xff\xfe")
    for name in (b"/caf\xe9.html", b"/\xff\xfe"):
        os.chown(folder + name, *files.sandbox.ids("alice:alice"))
    assert files.entries("logs/d") == ["\ufffd\ufffd", "caf\ufffd.html"]
    assert files.direct("read", "logs/d/caf\ufffd.html") == {"ok": True, "content": "text"}
    assert files.helper("download", "/home/alice", b"logs/d/caf\xe9.html") == (0, "text", "")
    assert files.direct("write", "logs/d/\ufffd\ufffd/new", input=b"x") == {"ok": True, "size": 1}
    assert files.direct("rename", "logs/d/caf\ufffd.html", "logs/d/café.html") == DONE
    assert files.direct("delete", "logs/d/\ufffd\ufffd") == DONE
    assert files.entries("logs/d") == ["café.html"]


def test_names_that_look_alike_are_left_alone(files):
    folder = os.fsencode(files.mkdir("logs/d"))
    for name in (b"/a\xe9", b"/a\xe8"):
        os.close(os.open(folder + name, os.O_CREAT))
    assert files.entries("logs/d") == ["a\ufffd", "a\ufffd"]
    assert files.direct("delete", "logs/d/a\ufffd") == error("could not delete (all of) it")
    assert files.direct("read", "logs/d/a\ufffd") == error("not a file")
    assert files.direct("delete", "logs/d") == DONE


def test_path_of_5000_characters(files):
    for path in ("n" * 5000, "n/" * 2500, "../" * 1666 + "ab"):
        for op in ("list", "read", "write", "mkdir", "rename", "delete"):
            reply = files.direct(op, path, "y")
            assert reply["ok"] is False
            assert files.direct("rename", "logs", path)["ok"] is False
    assert files.names() == [".ssh", "logs", "public_html", "tmp"]


# read


@pytest.mark.parametrize(
    "content",
    [b"", b"text\n", "äöü €𝄞".encode(), b"\xef\xbb\xbfmark", b"\xef\xbb\xbf", b"\xef\xbb\xbf\xef\xbb\xbf", b"a\r\nb\rc", b"\x01\x1b\x7f", b"\"\\/", "\ufffe\uffff\ufffd\u2028".encode()],
)
def test_text(files, content):
    files.write("a", content)
    assert files.direct("read", "a") == {"ok": True, "content": content.decode()}


@pytest.mark.parametrize("content", [b"\0", b"a\0b", b"text\0", b"\xff", b"caf\xe9", b"\xc3", b"\xed\xa0\x80", b"\xc0\xaf", b"\xf4\x90\x80\x80", b"\xff\xfea\0"])
def test_what_is_no_text(files, content):
    files.write("a", content)
    assert files.direct("read", "a") == error("not a text file; download it instead")


def test_text_of_the_most_bytes(files):
    content = "é\n" * (EDITOR_LIMIT // 3) + "xx"
    assert len(content.encode()) == EDITOR_LIMIT
    files.write("a", content)
    assert files.direct("read", "a") == {"ok": True, "content": content}


def test_text_of_one_byte_too_many(files):
    files.write("a", b"x" * (EDITOR_LIMIT + 1))
    assert files.direct("read", "a") == error("too big for the editor (over 2 MB); download it instead")
    os.truncate(files.path("a"), 10**12)
    assert files.direct("read", "a") == error("too big for the editor (over 2 MB); download it instead")


def test_read_of_what_is_no_file(files):
    files.link("nowhere", "gone")
    files.link("to_folder", "logs")
    files.link("circle", "circle")
    files.link("zero", "/dev/zero")
    os.mkfifo(files.path("fifo"))
    os.mknod(files.path("socket"), stat.S_IFSOCK | 0o666)
    for path in ("", "logs", "missing", "nowhere", "to_folder", "circle", "zero", "fifo", "socket", "logs/x", "missing/x"):
        assert files.direct("read", path) == error("not a file")
        assert files.helper("download", "/home/alice", path) == (1, "", "not a file\n")


def test_read_through_a_link(files):
    files.write("logs/a", "text")
    files.link("link", "logs/a")
    assert files.direct("read", "link") == {"ok": True, "content": "text"}


def test_read_of_a_file_that_may_not_be_read(files):
    files.write("a", "text", 0o200)
    assert files.direct("read", "a") == error("Permission denied")
    assert files.helper("download", "/home/alice", "a") == (1, "", "cannot read it\n")


# write


@pytest.mark.parametrize("op", ["write", "upload"])
@pytest.mark.parametrize("content", [b"", b"text\n", bytes(range(256)), b"\0" * 5_000_000])
def test_write_of_a_new_file(files, op, content):
    assert files.direct(op, "logs/a", input=content) == {"ok": True, "size": len(content)}
    assert files.path("logs/a").read_bytes() == content
    assert files.sandbox.entry("/home/alice/logs/a") == "0644 alice:alice"
    assert files.names("logs") == ["a"]


def test_mode_of_a_new_file_is_as_the_mask_gives_it(files):
    assert files.direct("write", "a", shell="umask 027") == {"ok": True, "size": 0}
    assert files.sandbox.entry("/home/alice/a") == "0640 alice:alice"


@pytest.mark.parametrize("mode", [0o600, 0o640, 0o644, 0o664, 0o755, 0o200, 0o777])
def test_written_file_keeps_its_mode(files, mode):
    files.write("a", "old and longer", mode)
    assert files.direct("write", "a", input=b"new") == {"ok": True, "size": 3}
    assert files.sandbox.entry("/home/alice/a") == f"{mode:04o} alice:alice"
    assert files.path("a").read_bytes() == b"new"
    assert files.names() == [".ssh", "a", "logs", "public_html", "tmp"]


def test_page_stays_readable_to_the_web_server(files):
    for mode in (0o640, 0o644, 0o440 | 0o200):
        page = files.write("public_html/index.html", "old", mode, "alice:www-data")
        assert files.direct("write", "public_html/index.html", input=b"new") == {"ok": True, "size": 3}
        assert files.sandbox.entry("/home/alice/public_html/index.html") == f"{mode:04o} alice:www-data"
        assert page.read_text() == "new"


def test_written_file_takes_the_place_of_the_old_one(files):
    """Whoever still reads the old one, or has another name for it, keeps it whole."""
    old = files.write("a", "old")
    os.link(old, files.path("second"))
    with old.open() as reader:
        assert files.direct("write", "a", input=b"new") == {"ok": True, "size": 3}
        assert reader.read() == "old"
    assert files.path("second").read_text() == "old" and old.read_text() == "new"


def test_write_where_a_folder_is(files):
    files.link("link", "logs")
    for path in ("", "logs", "link", "logs/", "."):
        for op in ("write", "upload"):
            assert files.direct(op, path, input=b"x" * 200_000) == error("a folder has that name")


def test_write_into_a_folder_that_is_not_there(files):
    files.write("file")
    files.link("nowhere", "gone/x")
    assert files.direct("write", "missing/x", input=b"x") == error("No such file or directory")
    assert files.direct("write", "nowhere", input=b"x") == error("No such file or directory")
    assert files.direct("write", "file/x", input=b"x") == error("Not a directory")
    assert files.direct("write", "n" * 256, input=b"x") == error("File name too long")
    assert files.direct("write", "n/" * 2500, input=b"x") == error("File name too long")
    assert files.names() == [".ssh", "file", "logs", "nowhere", "public_html", "tmp"]


def test_write_without_the_right_to(files):
    files.write("protected", "old", 0o444)
    files.mkdir("closed", 0o555)
    files.write("closed/a", "old")
    for path in ("protected", "closed/a", "closed/new"):
        assert files.direct("write", path, input=b"new") == error("Permission denied")
    assert files.path("protected").read_text() == files.path("closed/a").read_text() == "old"
    assert files.names("closed") == ["a"]


def test_write_into_a_folder_that_may_not_be_read(files):
    files.mkdir("drop", 0o300)
    for content in (b"new", b"newer"):
        assert files.direct("write", "drop/a", input=content) == {"ok": True, "size": len(content)}
    assert files.path("drop/a").read_bytes() == b"newer"
    assert files.names("drop") == ["a"]


def test_write_where_there_is_no_proc(files):
    if files.sandbox.sanitized:
        pytest.skip("a sanitizer needs /proc itself")
    files.write("a", "old", 0o640)
    assert files.direct("read", "a") == {"ok": True, "content": "old"}
    write = f"/usr/sbin/runuser -u alice -- {AGENT_PATH} --files write /home/alice a"
    code, out, _ = files.sandbox.run(
        "/usr/bin/unshare", "-m", "/bin/sh", "-c", f"/usr/bin/mount -t tmpfs none /proc && echo new | {write}")
    assert (code, out) == (0, '{"ok":true,"size":4}\n')
    assert files.path("a").read_text() == "new\n"
    assert files.sandbox.entry("/home/alice/a") == "0640 alice:alice"
    assert "a" in files.names() and not [name for name in files.names() if name.startswith(".corv")]


def test_write_through_a_link(files):
    files.write("logs/a", "old", 0o640)
    files.link("link", "logs/a")
    files.link("chain", "/home/alice/link")
    assert files.direct("write", "chain", input=b"new") == {"ok": True, "size": 3}
    assert files.path("logs/a").read_text() == "new"
    assert files.sandbox.entry("/home/alice/logs/a") == "0640 alice:alice"
    assert files.sandbox.entry("/home/alice/link") == "link -> logs/a"


def test_write_through_a_link_to_what_is_not_there_yet(files):
    files.link("link", "logs/new")
    assert files.direct("write", "link", input=b"new") == {"ok": True, "size": 3}
    assert files.path("logs/new").read_text() == "new"
    assert files.sandbox.entry("/home/alice/link") == "link -> logs/new"


def test_write_through_links_in_a_circle(files):
    files.link("a", "b")
    files.link("b", "a")
    assert files.direct("write", "a", input=b"new") == error("Too many levels of symbolic links")


def test_write_to_a_full_disk(files):
    files.sandbox.small_disk("/home/alice/small", "64k")
    os.chown(files.path("small"), *files.sandbox.ids("alice:alice"))
    files.write("small/a", "old")
    for path in ("small/a", "small/new"):
        assert files.direct("write", path, input=b"x" * 200_000) == error("No space left on device")
    assert files.path("small/a").read_text() == "old"
    assert files.names("small") == ["a"]


def test_write_beyond_the_users_limit(files):
    files.write("a", "old")
    assert files.direct("write", "a", input=b"x" * 200_000, shell="ulimit -f 100") == error("File too large")
    assert files.path("a").read_text() == "old"
    assert files.names() == [".ssh", "a", "logs", "public_html", "tmp"]


@pytest.mark.parametrize("number", ["KILL", "TERM", "HUP"])
def test_write_that_is_ended_half_way(files, number):
    files.write("logs/a", "old")
    shell = f"""
        mkfifo /home/alice/fifo
        {AGENT_PATH} --files upload /home/alice logs/a </home/alice/fifo &
        exec 3>/home/alice/fifo
        head -c 100000 /dev/zero >&3
        until [ "$(stat -c %U /proc/$!/status)" = root ] && [ "$(cut -d' ' -f3 /proc/$!/stat)" = S ]; do :; done
        kill -{number} $!
        wait $!
        exit
    """
    code, out, _ = files.helper(shell=shell)
    assert code > 128 and out == ""
    assert files.path("logs/a").read_text() == "old"
    assert files.names("logs") == ["a"]


def test_write_where_files_without_a_name_are_not_possible(files):
    """/proc is what gives such a file its name; without it nothing is lost, and nothing stays."""
    if files.sandbox.sanitized:
        pytest.skip("a sanitizer needs /proc itself")
    files.write("logs/a", "old")
    uid, gid = files.sandbox.ids("alice:alice")
    files.sandbox.start()
    script = f"umount -l /proc; exec setpriv --reuid={uid} --regid={gid} --clear-groups {AGENT_PATH} --files write /home/alice logs/a"
    code, out, err = files.sandbox.run("env", "--chdir=/", "unshare", "--mount", "sh", "-c", script, input=b"new")
    assert (code, err) == (0, "") and json.loads(out) in (error("No such file or directory"), {"ok": True, "size": 3})
    assert files.names("logs") == ["a"]


def test_write_over_a_fifo_and_a_socket(files):
    os.mkfifo(files.path("fifo"))
    os.mknod(files.path("socket"), stat.S_IFSOCK | 0o666)
    for name in ("fifo", "socket"):
        os.chown(files.path(name), *files.sandbox.ids("alice:alice"))
        assert files.direct("write", name, input=b"x") == {"ok": True, "size": 1}
        assert files.path(name).read_bytes() == b"x"


@pytest.mark.parametrize("problem, reply", [
    *((problem, {"ok": True, "size": 3}) for problem in ("EOPNOTSUPP", "EISDIR", "ENOENT", "EINVAL")),
    ("ENOSPC", error("No space left on device")),
])
def test_write_where_the_file_system_knows_no_files_without_a_name(files, problem, reply):
    if files.sandbox.sanitized:
        pytest.skip("a sanitizer cannot be traced")
    files.write("logs/a", "old")
    assert files.direct("write", "logs/a", input=b"one", shell=traced("-o", "/home/alice/calls", "-e", "trace=openat")) == {
        "ok": True, "size": 3
    }
    calls = files.path("calls").read_text().splitlines()
    number = next(i for i, call in enumerate(calls, 1) if "O_TMPFILE" in call)
    shell = traced("-o", "/dev/null", "-e", f"inject=openat:error={problem}:when={number}")
    assert files.direct("write", "logs/a", input=b"two", shell=shell) == reply
    assert files.path("logs/a").read_text() == ("two" if reply["ok"] else "one")
    assert files.names("logs") == ["a"]


# mkdir


def test_folder_is_made(files):
    assert files.direct("mkdir", "new") == DONE
    assert files.sandbox.entry("/home/alice/new") == "0755 alice:alice"
    assert files.direct("mkdir", "new/below/") == DONE
    assert files.names("new") == ["below"]


def test_folder_where_something_is(files):
    files.write("file")
    files.link("nowhere", "gone")
    files.link("circle", "circle")
    os.mkfifo(files.path("fifo"))
    for path in ("", "/", ".", "logs", "file", "nowhere", "circle", "fifo", "logs/../file", "../alice"):
        assert files.direct("mkdir", path) == error("something with that name exists")
    assert not files.path("gone").exists()


def test_folder_that_cannot_be_made(files):
    files.write("file")
    files.link("nowhere", "gone")
    files.mkdir("closed", 0o555)
    for path in ("a/b", "file/b", "nowhere/b", "closed/b", "n" * 256, "n/" * 2500):
        assert files.direct("mkdir", path) == error("could not create the folder")


# rename


def test_rename_of_every_kind(files):
    files.write("file", "text")
    files.mkdir("folder")
    files.write("folder/x", "text")
    files.link("link", "file")
    files.link("nowhere", "gone")
    os.mkfifo(files.path("fifo"))
    for name in ("file", "folder", "link", "nowhere", "fifo"):
        assert files.direct("rename", name, f"/logs//{name}.new/") == DONE
    assert files.names("logs") == ["fifo.new", "file.new", "folder.new", "link.new", "nowhere.new"]
    assert files.sandbox.entry("/home/alice/logs/link.new") == "link -> file"
    assert files.sandbox.entry("/home/alice/logs/nowhere.new") == "link -> gone"
    assert files.path("logs/folder.new/x").read_text() == "text"


@pytest.mark.parametrize(
    ("source", "target"),
    [("", "x"), ("/", "x"), (".", "x"), ("logs/..", "x"), ("a", ""), ("a", "/"), ("a", "."), ("a", ".."), ("a", "../bob/x"), ("a", "../alice2"),
     ("a", "logs/.."), ("a", "/../../etc/x"), ("", ""), ("missing", "../x"), ("", "logs")],
)
def test_rename_that_is_none(files, source, target):
    files.write("a")
    assert files.direct("rename", source, target) == error("cannot rename that")
    assert "a" in files.names()


def test_rename_without_a_new_path(files):
    files.write("a")
    assert files.direct("rename", "a") == error("cannot rename that")


def test_rename_onto_what_is_there(files):
    files.write("a", "a")
    files.write("file", "kept")
    files.mkdir("empty")
    files.link("nowhere", "gone")
    files.link("to_file", "file")
    os.mkfifo(files.path("fifo"))
    for target in ("file", "empty", "nowhere", "to_file", "fifo", "a"):
        for source in ("a", "logs", "missing"):
            assert files.direct("rename", source, target) == error("something with the new name exists")
    assert files.path("file").read_text() == "kept" and files.path("a").read_text() == "a"
    assert files.sandbox.entry("/home/alice/nowhere") == "link -> gone"


def test_rename_that_fails(files):
    files.mkdir("folder")
    files.mkdir("closed", 0o555)
    files.write("file")
    for source, target in (
        ("missing", "x"),
        ("file", "missing/x"),
        ("file", "file/x"),
        ("file", "closed/x"),
        ("folder", "folder/x"),
        ("file", "n" * 256),
        ("n" * 256, "x"),
    ):
        assert files.direct("rename", source, target) == error("could not rename")
    assert files.names() == [".ssh", "closed", "file", "folder", "logs", "public_html", "tmp"]


@pytest.mark.parametrize("problem", ["EINVAL", "ENOSYS"])
def test_rename_where_the_file_system_cannot_keep_from_replacing(files, problem):
    if files.sandbox.sanitized:
        pytest.skip("a sanitizer cannot be traced")
    files.write("file", "text")
    files.mkdir("folder")
    files.write("folder/a")
    files.link("link", "nowhere")
    shell = traced("-o", "/dev/null", "-e", f"inject=renameat2:error={problem}")
    for name in ("file", "folder", "link"):
        assert files.direct("rename", name, f"new-{name}", shell=shell) == DONE
    assert files.names("new-folder") == ["a"]
    assert files.path("new-file").read_text() == "text"
    assert os.readlink(files.path("new-link")) == "nowhere"
    assert not {"file", "folder", "link"} & set(files.names())


def test_rename_that_the_file_system_refuses(files):
    if files.sandbox.sanitized:
        pytest.skip("a sanitizer cannot be traced")
    files.write("file", "text")
    shell = traced("-o", "/dev/null", "-e", "inject=renameat2:error=EPERM")
    assert files.direct("rename", "file", "other", shell=shell) == error("could not rename")
    assert "file" in files.names() and "other" not in files.names()


def test_rename_never_replaces_what_appears_at_the_last_moment(files):
    """Of two renames to one name at a time, one is refused, and neither's file is lost."""
    shell = f"""
        for round in $(seq 40); do
            mkdir logs/$round; cd logs/$round; echo a >a; echo b >b
            for name in a b; do {AGENT_PATH} --files rename /home/alice logs/$round/$name logs/$round/c >../$name.$round & done
            wait; cd ../..
            cat logs/a.$round logs/b.$round | sort -r | tr '\\n' ' '; cat logs/$round/* | sort | tr '\\n' ' '; echo
        done
        exit
    """
    _, out, _ = files.helper(shell="cd /home/alice;" + shell)
    taken = '{"error":"something with the new name exists","ok":false}'
    assert out.splitlines() == [f'{{"ok":true}} {taken} a b '] * 40


# delete


def test_delete_of_every_kind(files):
    files.mkdir("keep")
    files.write("keep/x", "kept")
    files.write("file")
    files.link("link", "keep/x")
    files.link("to_folder", "keep")
    files.link("nowhere", "gone")
    os.mkfifo(files.path("fifo"))
    files.mkdir("empty")
    for name in ("file", "link", "to_folder", "nowhere", "fifo", "empty", "tmp", "logs/", ".ssh"):
        assert files.direct("delete", name) == DONE
    assert files.names() == ["keep", "public_html"]
    assert files.path("keep/x").read_text() == "kept"


def test_delete_of_a_tree(files):
    for folder in ("t", "t/a", "t/a/b", "t/.c"):
        files.mkdir(folder)
        for name in ("x", ".y", "-rf", "a\nb"):
            files.write(f"{folder}/{name}")
        files.link(f"{folder}/out", "/home/alice/logs")
    files.write("logs/kept")
    top = os.fsencode(files.path("t"))
    os.close(os.open(top + b"/caf\xe9", os.O_CREAT))
    assert files.direct("delete", "t") == DONE
    assert files.names() == [".ssh", "logs", "public_html", "tmp"] and files.names("logs") == ["kept"]


def test_delete_of_a_deep_tree(files):
    script = "import os\nos.chdir('/home/alice')\nfor _ in range(3000): os.mkdir('d'*40); os.chdir('d'*40)"
    _, _, err = files.helper(shell=f"/usr/bin/python3 -c {shlex.quote(script)}; exit")
    assert err == ""
    assert files.direct("delete", "d" * 40) == DONE
    assert "d" * 40 not in files.names()


@pytest.mark.parametrize("path", ["", "/", ".", "//", "logs/..", "../alice", "../alice/"])
def test_delete_of_the_home(files, path):
    assert files.direct("delete", path) == error("cannot delete the home folder")
    assert files.names() == [".ssh", "logs", "public_html", "tmp"]


@pytest.mark.parametrize("mode", [0o000, 0o300, 0o400])
def test_delete_of_an_empty_folder_that_may_not_be_read(files, mode):
    files.mkdir("t")
    for path in ("closed", "t/closed"):
        files.mkdir(path, mode)
    for path in ("closed", "t"):
        assert files.direct("delete", path) == DONE
    files.mkdir("full")
    files.write("full/a")
    files.path("full").chmod(0o300)
    assert files.direct("delete", "full") == error("could not delete (all of) it")
    assert files.names("full") == ["a"]


def test_delete_that_fails(files):
    files.write("file")
    files.mkdir("closed")
    files.write("closed/x")
    files.path("closed").chmod(0o555)
    for path in ("missing", "missing/x", "file/x", "closed/x", "n" * 256, "n/" * 2500):
        assert files.direct("delete", path) == error("could not delete (all of) it")


def test_delete_of_as_much_as_can_be(files):
    for folder in ("t", "t/a", "t/closed", "t/z"):
        files.mkdir(folder)
        files.write(f"{folder}/x")
    files.path("t/closed").chmod(0o555)
    assert files.direct("delete", "t") == error("could not delete (all of) it")
    assert files.names("t") == ["closed"] and files.names("t/closed") == ["x"]


def test_delete_is_not_led_astray_by_links_that_are_swapped_in(files):
    files.mkdir("victim")
    for number in range(100):
        files.write(f"victim/{number}")
    script = """
import os
os.chdir('/home/alice')
os.symlink('/home/alice/victim', 'link')
open('ready', 'w').close()
while os.path.exists('link') or os.path.exists('aside'):
    for one, two in (('t/d', 'aside'), ('link', 't/d'), ('t/d', 'link'), ('aside', 't/d')):
        try: os.rename(one, two)
        except OSError: pass
"""
    files.sandbox.write("/tmp/swap.py", script)
    shell = f"""
        cd /home/alice
        /usr/bin/python3 /tmp/swap.py & swapper=$!
        until [ -e ready ]; do :; done
        for round in $(seq 100); do
            mkdir -p t/d/e; touch t/d/x t/d/e/x
            {AGENT_PATH} --files delete /home/alice t >>answers
        done
        kill $swapper; wait; sort -u answers; exit
    """
    _, out, _ = files.helper(shell=shell)
    assert set(out.splitlines()) <= {'{"ok":true}', '{"error":"could not delete (all of) it","ok":false}'}
    assert {str(number) for number in range(100)} <= set(files.names("victim"))


# download


@pytest.mark.parametrize("content", [b"", b"text", b"\xef\xbb\xbf\0\xff", bytes(range(256)) * 20_000])
def test_download(files, content):
    files.write("a", content)
    code, out, err = files.helper("download", "/home/alice", "a")
    assert (code, out.encode("utf-8", "surrogateescape"), err) == (0, content, "")


def test_download_of_one_byte_too_many(files):
    os.truncate(files.write("a"), DOWNLOAD_LIMIT + 1)
    assert files.helper("download", "/home/alice", "a") == (1, "", "over 256 MB; use SFTP for big files\n")


def test_download_of_the_most_bytes(files):
    os.truncate(files.write("a"), DOWNLOAD_LIMIT)
    code, out, err = files.helper(shell=f"{AGENT_PATH} --files download /home/alice a | wc -c; exit")
    assert (code, out, err) == (0, f"{DOWNLOAD_LIMIT}\n", "")


def test_download_that_cannot_be_stored(files):
    files.write("a", b"x" * 200_000)
    code, out, err = files.helper("download", "/home/alice", "a", shell="exec >/dev/full")
    assert (code, out, err) == (1, "", "No space left on device\n")
