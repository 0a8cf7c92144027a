"""The files command: its checks, what it runs and replies, and the transfer directory, which is hostile ground."""

import json
import os
import re
import stat
import threading

import pytest

from files import DONE, MEBIBYTE, NO_ANSWER, NO_UPLOAD, OUTSIDE, PANEL, TRANSFER, Files, error, vector
from programs import wait_until
from sandbox import CHECKER

NAME = "abcdefgh-_ABCD09"
LIMIT = 256 * MEBIBYTE


@pytest.fixture
def files(sandbox):
    return Files(sandbox)


@pytest.fixture
def hasty(impatient):
    return Files(impatient)


# What is checked


@pytest.mark.parametrize(
    ("username", "shown"),
    [
        ("nobody1", "nobody1"),
        ("root", "root"),
        ("stranger", "stranger"),
        ("", ""),
        ("Alice", "Alice"),
        (" alice", " alice"),
        ("alice\n", "alice\n"),
        ("../alice", "../alice"),
        ("a" * 40, "a" * 32),
        (7, ""),
        (None, ""),
        (["alice"], ""),
    ],
)
def test_account_that_there_is_not(files, username, shown):
    files.sandbox.add_user("stranger")
    assert files.ask("list", username=username) == error(f"no Corvane account named '{shown}'")
    assert files.sandbox.argvs() == []


@pytest.mark.parametrize("op", ["", "LIST", "List", "list ", "list\n", "list\0", "--files", "chmod", 1, None, ["list"], {}])
def test_operation_that_there_is_not(files, op):
    assert files.ask(op) == error("unknown file operation")
    assert files.sandbox.argvs() == []


def test_account_is_checked_before_the_operation(files):
    assert files.ask("x", username="nobody1") == error("no Corvane account named 'nobody1'")


@pytest.mark.parametrize("op", ["list", "read", "write", "mkdir", "rename", "delete", "upload", "download"])
@pytest.mark.parametrize("path", ["a\0b", "\0", "a\0", "\ud800", "a\udfffb"])
def test_path_that_cannot_be_passed_on(files, op, path):
    files.upload(NAME, b"stays")
    assert files.ask(op, path, to="b", transfer=NAME) == OUTSIDE
    assert files.sandbox.argvs() == []
    assert files.transfers() == [NAME]


def test_new_path_that_cannot_be_passed_on(files):
    assert files.ask("rename", "a", to="b\0c") == OUTSIDE
    files.pretend(out='{"ok":true}')
    assert files.ask("delete", "a", to="b\0c") == DONE
    assert files.sandbox.argvs() == [vector("delete", "a")]


# What is run


@pytest.mark.parametrize(
    ("args", "argv", "stdin"),
    [
        ({"op": "list", "path": "a"}, vector("list", "a"), b""),
        ({"op": "list"}, vector("list", ""), b""),
        ({"op": "list", "path": 5, "to": "x", "content": "x"}, vector("list", ""), b""),
        ({"op": "read", "path": "/ä b"}, vector("read", "/ä b"), b""),
        ({"op": "read", "path": "-rf", "transfer": "!"}, vector("read", "-rf"), b""),
        ({"op": "read", "path": "../../etc/passwd"}, vector("read", "../../etc/passwd"), b""),
        ({"op": "read", "path": "a\n'\"$(x)"}, vector("read", "a\n'\"$(x)"), b""),
        ({"op": "write", "path": "a", "content": "zwölf\0\n"}, vector("write", "a"), "zwölf\0\n".encode()),
        ({"op": "write", "path": "a", "content": "\ufeffx"}, vector("write", "a"), "\ufeffx".encode()),
        ({"op": "write", "path": "a", "content": ["x"]}, vector("write", "a"), b""),
        ({"op": "write", "path": "a"}, vector("write", "a"), b""),
        ({"op": "mkdir", "path": "a"}, vector("mkdir", "a"), b""),
        ({"op": "rename", "path": "a", "to": "b"}, vector("rename", "a", "b"), b""),
        ({"op": "rename", "path": "a"}, vector("rename", "a", ""), b""),
        ({"op": "rename", "path": "a", "to": 3}, vector("rename", "a", ""), b""),
        ({"op": "delete", "path": "a"}, vector("delete", "a"), b""),
    ],
)
def test_helper_is_run(files, args, argv, stdin):
    files.pretend(out='{"ok":true}')
    assert files.sandbox.request("files", username="alice", **args) == DONE
    assert files.sandbox.argvs() == [argv]
    assert files.sandbox.calls()[0].stdin == stdin


def test_a_byte_order_mark_that_is_not_escaped_is_part_of_the_content(files):
    files.pretend(out='{"ok":true}')
    with files.sandbox.connect() as client:
        client.send('{"cmd":"files","args":{"username":"alice","op":"write","path":"\ufeffa","content":"\ufeffx"}}\n'.encode())
        assert files.sandbox.took("files", client.reply()) == DONE
    assert files.sandbox.argvs() == [vector("write", "\ufeffa")]
    assert files.sandbox.calls()[0].stdin == "\ufeffx".encode()


def test_home_is_that_of_the_user_database(files):
    path = files.sandbox.path("/etc/passwd")
    path.write_text(path.read_text().replace(":/home/alice:", ":/home/elsewhere/al:"))
    files.pretend(out='{"ok":true}')
    assert files.ask("list") == DONE
    assert files.sandbox.argvs()[0][-2:] == ["/home/elsewhere/al", ""]


@pytest.mark.parametrize("home", ["/srv/alice", "/home", "/home/", "/", "home/alice", "/home/../srv/alice", "/home/alice/"])
def test_home_that_is_no_home(files, home):
    path = files.sandbox.path("/etc/passwd")
    path.write_text(path.read_text().replace(":/home/alice:", f":{home}:"))
    files.sandbox.mkdir("/srv/alice", 0o777)
    for op in ("list", "read", "write", "mkdir", "rename", "delete", "download"):
        assert files.ask(op, "x", to="y") == OUTSIDE
    assert files.transfers() == [] and os.listdir(files.sandbox.path("/srv/alice")) == []


# What is replied


@pytest.mark.parametrize(
    "answer",
    [
        {"ok": True},
        {"ok": True, "entries": [], "truncated": False},
        {"ok": False, "error": "not a folder"},
        {"anything": [1, {"a": None}]},
        {"ok": 1},
        {"ok": True, "content": "\ufeffmark\u2028\x7f\u0001é𝄞"},
    ],
)
def test_answer_is_passed_on_as_it_stands(files, answer):
    for escaped in (True, False):
        files.pretend(out=json.dumps(answer, ensure_ascii=escaped) + "\n")
        assert files.ask("read", "a") == answer


@pytest.mark.parametrize("out", ["", "\n", "garbage", "{}", "[]", '[{"ok":true}]', '"ok"', "null", '{"ok":true', "\0\1", "{}" * 9])
def test_answer_that_is_none(files, out):
    files.sandbox.answer("runuser", out=out)
    assert files.ask("list") == NO_ANSWER


@pytest.mark.parametrize("size", [100 * MEBIBYTE, -1])
def test_answer_without_an_end(files, size):
    files.sandbox.answer("runuser", flood_out=size)
    files.sandbox.start()
    before = files.sandbox.agent.memory("VmHWM")
    assert files.ask("list") == NO_ANSWER
    assert files.sandbox.sanitized or files.sandbox.agent.memory("VmHWM") - before < 40 * MEBIBYTE
    wait_until(lambda: files.sandbox.agent.others() == [], "the helper to be gone")


def test_answer_of_the_longest_text(files):
    content = "\x01" * (2 * MEBIBYTE)
    files.sandbox.write("/tmp/answer", json.dumps({"ok": True, "content": content}))
    files.sandbox.answer("runuser", shell="exec /usr/bin/cat /tmp/answer")
    assert files.ask("read", "a") == {"ok": True, "content": content}


def test_helper_that_fails(files):
    files.sandbox.answer("runuser", exit=3)
    assert files.ask("list") == error("runuser failed: exit code 3")
    files.sandbox.answer("runuser", exit=1, err="runuser: user alice: no way\n", out='{"ok":true}')
    assert files.ask("list") == error("runuser failed: runuser: user alice: no way")


def test_helper_that_is_killed(files):
    files.sandbox.answer("runuser", signal=9, out='{"ok":true}')
    reply = files.ask("list")
    assert reply["ok"] is False and re.fullmatch(r"runuser failed: exit code \d+", reply["error"])


def test_helper_that_cannot_be_started(files):
    files.sandbox.remove_standin("runuser")
    assert files.ask("list") == error("runuser: cannot start")
    assert files.ask("download", "a") == error("cannot start")
    assert files.transfers() == []


def test_helper_that_never_ends(hasty):
    hasty.sandbox.answer("runuser", hang=True)
    assert hasty.ask("list") == error("runuser: took too long")
    assert hasty.ask("download", "a") == error("took too long")
    assert hasty.transfers() == []


@pytest.mark.skipif(bool(CHECKER), reason="valgrind ends a process whose execve() fails")
def test_path_that_no_program_can_be_given(files):
    assert files.ask("list", "a/" * 100_000) == error("runuser: cannot start")


# Uploads


@pytest.mark.parametrize(
    "name",
    ["", "a" * 15, "a" * 65, "abcdefgh.ABCD09", "../../../etc/shadow", "abcdefgh/ABCD0912", "abcdefghABCD091 ", "abcdefghABCD0912\n",
     "abcdefghABCD0912\0", "äbcdefghABCD0912", 1234567890123456, None, ["abcdefghABCD0912"]],
)
def test_transfer_name_that_is_none(files, name):
    assert files.ask("upload", "a", transfer=name) == error("bad transfer name")
    assert files.sandbox.argvs() == []


@pytest.mark.parametrize("name", ["a" * 16, "-_AZaz09" * 8, "-" * 16])
def test_upload(files, name):
    content = bytes(range(256)) * 5000
    files.upload(name, content)
    assert files.ask("upload", "public_html/a.bin", transfer=name) == {"ok": True, "size": len(content)}
    assert files.path("public_html/a.bin").read_bytes() == content
    assert files.sandbox.entry("/home/alice/public_html/a.bin") == "0644 alice:www-data"
    assert files.sandbox.argvs() == [vector("upload", "public_html/a.bin")]
    assert files.transfers() == []


def test_upload_of_nothing(files):
    files.upload(NAME)
    assert files.ask("upload", "a", transfer=NAME) == {"ok": True, "size": 0}
    assert files.path("a").read_bytes() == b""


def test_upload_is_gone_before_the_helper_runs(files):
    files.upload(NAME, b"content")
    files.pretend(shell=f'echo "{{\\"left\\":\\"$(/usr/bin/ls -A {TRANSFER})\\"}}"; /usr/bin/cat >/tmp/in')
    assert files.ask("upload", "a", transfer=NAME) == {"left": ""}
    assert files.sandbox.read("/tmp/in") == "content"


def test_upload_is_lost_when_it_cannot_be_written(files):
    for path, reply in (("public_html", error("a folder has that name")), ("../x", OUTSIDE)):
        files.upload(NAME, b"x" * MEBIBYTE)
        assert files.ask("upload", path, transfer=NAME) == reply
        assert files.transfers() == []


def test_upload_that_is_missing(files):
    assert files.ask("upload", "a", transfer=NAME) == NO_UPLOAD
    assert files.sandbox.argvs() == []


def test_upload_without_a_transfer_directory(files):
    os.rmdir(files.sandbox.path(TRANSFER))
    assert files.ask("upload", "a", transfer=NAME) == NO_UPLOAD
    assert not files.sandbox.exists(TRANSFER)


@pytest.mark.parametrize("kind", ["link", "dangling link", "link to a folder", "folder", "fifo", "device", "blocking device", "socket"])
def test_upload_that_is_no_file(files, kind):
    victim = files.sandbox.write("/etc/victim", "root's own", 0o600)
    path = files.sandbox.path(f"{TRANSFER}/{NAME}")
    {
        "link": lambda: path.symlink_to("/etc/victim"),
        "dangling link": lambda: path.symlink_to("/nowhere"),
        "link to a folder": lambda: path.symlink_to("/etc"),
        "folder": path.mkdir,
        "fifo": lambda: os.mkfifo(path),
        "device": lambda: os.mknod(path, stat.S_IFCHR | 0o666, os.makedev(1, 5)),
        "blocking device": lambda: os.mknod(path, stat.S_IFCHR | 0o666, os.makedev(5, 1)),
        "socket": lambda: os.mknod(path, stat.S_IFSOCK | 0o666),
    }[kind]()
    assert files.ask("upload", "a", transfer=NAME) == NO_UPLOAD
    assert files.transfers() == [NAME] and victim.read_text() == "root's own"
    assert files.sandbox.argvs() == []


def test_upload_of_the_most_bytes(files):
    # Whoever copies it looks for more at its end, which is no reason to be killed.
    files.pretend(shell="/usr/bin/cat >/tmp/copy && echo '{\"ok\":true}'")
    os.truncate(files.upload(NAME), LIMIT)
    assert files.ask("upload", "a", transfer=NAME) == DONE
    assert files.sandbox.path("/tmp/copy").stat().st_size == LIMIT
    assert files.transfers() == []


def test_upload_of_one_byte_too_many(files):
    os.truncate(files.upload(NAME), LIMIT + 1)
    assert files.ask("upload", "a", transfer=NAME) == NO_UPLOAD
    assert files.transfers() == [NAME]


def test_upload_gives_its_memory_back(files):
    files.sandbox.start()
    before = files.sandbox.agent.memory()
    os.truncate(files.upload(NAME), LIMIT)
    files.pretend(out='{"ok":true}')
    assert files.ask("upload", "a", transfer=NAME) == DONE
    assert files.sandbox.sanitized or files.sandbox.agent.memory("VmHWM") < 300 * MEBIBYTE
    assert files.sandbox.sanitized or files.sandbox.agent.memory() - before < 8 * MEBIBYTE


def test_upload_that_grows_after_it_has_been_judged(files):
    """The panel's user may still have it open."""
    upload = files.upload(NAME)
    os.truncate(upload, LIMIT)
    files.sandbox.answer("runuser", shell=': >/tmp/judged; until [ -e /tmp/go ]; do :; done; exec /usr/sbin/runuser "$@"')
    request = {"cmd": "files", "args": {"username": "alice", "op": "upload", "path": "a", "transfer": NAME}}
    with files.sandbox.connect() as client, upload.open("r+b") as file:
        client.send(json.dumps(request).encode() + b"\n")
        wait_until(lambda: files.sandbox.exists("/tmp/judged"), "the upload to be judged")
        file.truncate(300 * MEBIBYTE)
        files.sandbox.write("/tmp/go")
        assert files.sandbox.took("files", client.reply()) == error("File too large")
    assert files.names() == [".ssh", "logs", "public_html", "tmp"]


def test_upload_of_a_file_that_belongs_to_somebody_else_under_another_name(files):
    """Where the system does not forbid it, the panel's user can give any file a second name."""
    secret = files.sandbox.write("/var/lib/secret", "root's own", 0o600)
    os.link(secret, files.sandbox.path(f"{TRANSFER}/{NAME}"))
    assert files.ask("upload", "a", transfer=NAME) == NO_UPLOAD
    assert secret.read_text() == "root's own" and files.transfers() == [NAME]


def test_upload_that_the_panel_links_itself(files):
    os.link(files.upload(NAME, b"text"), files.sandbox.path(f"{TRANSFER}/other"))
    assert files.ask("upload", "a", transfer=NAME) == {"ok": True, "size": 4}
    assert files.transfers() == ["other"]


def test_transfer_directory_that_is_a_link(files):
    """The folder above it may be the panel's too, who could point root elsewhere."""
    files.sandbox.write(f"/srv/{NAME}", "root's own", 0o600)
    os.rmdir(files.sandbox.path(TRANSFER))
    files.sandbox.symlink(TRANSFER, "/srv")
    files.write("b", "x")
    assert files.ask("upload", "a", transfer=NAME) == NO_UPLOAD
    assert files.ask("download", "b") == error("cannot start")
    assert os.listdir(files.sandbox.path("/srv")) == [NAME]


def test_upload_that_is_swapped_for_a_link_meanwhile(files):
    files.pretend(shell="/usr/bin/cat >>/tmp/in; echo '{\"ok\":true}'")
    files.sandbox.start()
    files.sandbox.write("/etc/victim", "S" * 40, 0o600)
    folder = files.sandbox.path(TRANSFER)
    stop = threading.Event()

    def swap():
        while not stop.is_set():
            (folder / "file").write_bytes(b"U" * 40)
            os.rename(folder / "file", folder / NAME)
            (folder / "link").symlink_to("/etc/victim")
            os.rename(folder / "link", folder / NAME)

    swapper = threading.Thread(target=swap)
    swapper.start()
    try:
        replies = [files.ask("upload", "a", transfer=NAME) for _ in range(300)]
    finally:
        stop.set()
        swapper.join()
    assert all(reply in (DONE, NO_UPLOAD) for reply in replies)
    assert set(files.sandbox.read("/tmp/in")) <= {"U"} if files.sandbox.exists("/tmp/in") else DONE not in replies
    assert files.sandbox.read("/etc/victim") == "S" * 40


# Downloads


def test_download(files):
    content = bytes(range(256)) * 9000
    files.write("a.bin", content, 0o600)
    reply = files.ask("download", "a.bin")
    assert set(reply) == {"ok", "transfer", "size"} and reply["ok"] is True and reply["size"] == len(content)
    assert re.fullmatch("[A-Za-z0-9_-]{32}", reply["transfer"])
    assert files.transfers() == [reply["transfer"]]
    path = f"{TRANSFER}/{reply['transfer']}"
    assert files.sandbox.entry(path) == "0600 corv-web:corv-web"
    assert files.sandbox.path(path).read_bytes() == content
    assert files.sandbox.argvs() == [vector("download", "a.bin")]


def test_downloads_have_names_of_their_own(files):
    files.write("a")
    names = [files.ask("download", "a")["transfer"] for _ in range(20)]
    assert len(set(names)) == 20 and files.transfers() == sorted(names)


def test_download_is_roots_alone_until_it_is_handed_over(files):
    files.sandbox.answer("runuser", shell=f'/usr/bin/stat -L -c "%F %a %u:%g %h" /dev/fd/1; /usr/bin/ls -A {TRANSFER}')
    reply = files.ask("download", "a")
    content = files.sandbox.read(f"{TRANSFER}/{reply['transfer']}")
    assert content == f"regular empty file 600 0:0 1\n{reply['transfer']}\n"
    assert reply["size"] == len(content)


@pytest.mark.parametrize(
    ("path", "text"),
    [
        ("", "not a file"),
        ("public_html", "not a file"),
        ("missing", "not a file"),
        ("dangling", "not a file"),
        ("fifo", "not a file"),
        ("sparse", "over 256 MB; use SFTP for big files"),
        ("closed", "cannot read it"),
        ("../bob/secret", "that path is outside the account's home"),
    ],
)
def test_download_that_fails(files, path, text):
    files.link("dangling", "nowhere")
    files.write("closed", "x", 0)
    os.mkfifo(files.path("fifo"))
    os.truncate(files.write("sparse"), LIMIT + 1)
    assert files.ask("download", path) == error(text)
    assert files.transfers() == []


def test_download_of_the_most_bytes(files):
    os.truncate(files.write("sparse"), LIMIT)
    reply = files.ask("download", "sparse")
    assert reply["size"] == LIMIT
    assert files.sandbox.path(f"{TRANSFER}/{reply['transfer']}").stat().st_size == LIMIT


@pytest.mark.parametrize(
    ("err", "text"),
    [("not a file\n", "not a file"), ("a: b: c", "c"), ("a:b", "a:b"), ("x: ", "x:"), ("", "exit code 1"), ("é: ü", "ü")],
)
def test_last_part_of_a_failed_downloads_text(files, err, text):
    files.sandbox.answer("runuser", exit=1, err=err, out="half of it")
    assert files.ask("download", "a") == error(text)
    assert files.transfers() == []


def test_download_without_a_transfer_directory(files):
    os.rmdir(files.sandbox.path(TRANSFER))
    files.write("a", "x")
    assert files.ask("download", "a") == error("cannot start")
    assert files.sandbox.argvs() == []
    assert not files.sandbox.exists(TRANSFER)


def test_download_that_does_not_end(files):
    """The account could answer in the helper's place, and would fill the server's disk."""
    files.sandbox.answer("runuser", shell="/usr/bin/head -c 300M /dev/zero")
    reply = files.ask("download", "a")
    assert reply["ok"] is False
    assert files.transfers() == []


TAKEN = "cannot hand the file over"


@pytest.mark.parametrize(
    ("shell", "left"),
    [
        ("/usr/bin/ln -sf /etc/victim ./*", []),
        ("/usr/bin/rm ./*; /usr/bin/ln /etc/victim2 $n", []),
        ("/usr/bin/ln ./* second", ["second"]),
        ("/usr/bin/mv ./* away", ["away"]),
        ("/usr/bin/rm ./*", []),
        ("/usr/bin/rm ./*; /usr/bin/mkdir $n", None),
        ("/usr/bin/rm ./*; /usr/bin/mkfifo $n", []),
    ],
)
def test_download_that_is_swapped_meanwhile(files, shell, left):
    # The random name may begin with a dash, hence the "./".
    for name in ("victim", "victim2"):
        files.sandbox.write(f"/etc/{name}", "root's own", 0o600)
    files.sandbox.answer("runuser", shell=f"cd {TRANSFER}; n=$(echo ./*); echo content; {shell}")
    assert files.ask("download", "a") == error(TAKEN)
    for name in ("victim", "victim2"):
        assert files.sandbox.read(f"/etc/{name}") == "root's own"
        assert files.sandbox.entry(f"/etc/{name}") == "0600 root:root"
    if left is not None:
        assert files.transfers() == left


def test_transfer_directory_of_root(files):
    os.chown(files.sandbox.path(TRANSFER), 0, 0)
    files.write("a", "x")
    reply = files.ask("download", "a")
    assert files.sandbox.entry(f"{TRANSFER}/{reply['transfer']}") == "0600 root:root"


# The whole way, as another user


def test_operations_are_done_by_the_accounts_user(files):
    assert files.ask("mkdir", "public_html/new") == DONE
    assert files.ask("write", "public_html/new/a.html", content="<p>ä</p>\n") == {"ok": True, "size": 10}
    assert files.sandbox.entry("/home/alice/public_html/new") == "2755 alice:www-data"
    assert files.sandbox.entry("/home/alice/public_html/new/a.html") == "0644 alice:www-data"
    assert files.ask("read", "public_html/new/a.html") == {"ok": True, "content": "<p>ä</p>\n"}
    assert files.ask("rename", "public_html/new/a.html", to="b.html") == DONE
    assert files.ask("list", "public_html/new") == {"ok": True, "entries": [], "truncated": False}
    assert files.ask("delete", "public_html/new") == DONE
    assert files.names("public_html") == []
    assert files.path("b.html").read_text() == "<p>ä</p>\n"


def test_text_of_two_mebibytes_there_and_back(files):
    content = "\ufeff" + "é\n" * ((2 * MEBIBYTE - 3) // 3)
    request = {"cmd": "files", "args": {"username": "alice", "op": "write", "path": "a", "content": content}}
    with files.sandbox.connect() as client:
        # Escaped, it would not fit into a request.
        client.send(json.dumps(request, ensure_ascii=False).encode() + b"\n")
        assert files.sandbox.took("files", client.reply()) == {"ok": True, "size": len(content.encode())}
    assert files.path("a").read_bytes() == content.encode()
    assert files.ask("read", "a") == {"ok": True, "content": content}


def test_text_of_nothing_but_control_characters(files):
    content = "\x01\x1b" * MEBIBYTE
    files.write("a", content)
    assert files.ask("read", "a") == {"ok": True, "content": content}


def test_folder_of_the_longest_names(files):
    names = sorted(f"{number:04d}" + "\x01" * 251 for number in range(5001))
    folder = files.mkdir("many")
    for name in names:
        os.close(os.open(os.path.join(folder, name), os.O_CREAT, 0o644))
    reply = files.ask("list", "many")
    assert reply["truncated"] is True
    assert [entry["name"] for entry in reply["entries"]] == names[:5000]


def test_helper_runs_in_the_users_own_rights(files):
    files.sandbox.write("/etc/roots", "root's own", 0o600)
    files.link("link", "/etc/roots")
    assert files.ask("read", "link") == error("Permission denied")
    assert files.ask("download", "link") == error("cannot read it")
