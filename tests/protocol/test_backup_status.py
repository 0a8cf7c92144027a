"""backup.status and backup.start: what is listed, asked and passed on, and what no file in the destination can do."""

import json
import os

import pytest

DESTINATION = "/var/backups/corvane/auto"
STATE = ["systemctl", "show", "-p", "ActiveState", "--value", "corv-backup.service"]
NEXT = ["systemctl", "show", "-p", "NextElapseUSecRealtime", "--value", "corv-backup.timer"]
LOG = ["journalctl", "-u", "corv-backup.service", "-n", "30", "-o", "cat", "--no-pager"]
MEBIBYTE = 1 << 20


def backup(sandbox, name, manifest=None, destination=DESTINATION):
    path = sandbox.mkdir(f"{destination}/{name}")
    if manifest is not None:
        text = manifest if isinstance(manifest, (str, bytes)) else json.dumps(manifest)
        sandbox.write(f"{destination}/{name}/manifest.json", text)
    return path


def listed(sandbox):
    return sandbox.request("backup.status")["backups"]


def test_status_without_any_backup(sandbox):
    reply = sandbox.request("backup.status")
    assert reply == {
        "ok": True,
        "destination": DESTINATION,
        "keepDays": 14,
        "backups": [],
        "running": False,
        "next": "",
        "log": "",
        "freeBytes": -1,
        "totalBytes": -1,
    }
    assert sandbox.argvs() == [STATE, NEXT, LOG]
    assert not sandbox.exists(DESTINATION)


def test_status_in_full(sandbox):
    sandbox.settings(backup_destination="/srv/disk//auto/", backup_keep_days="30")
    sandbox.small_disk("/srv/disk", "1m")
    first = {"name": "x", "created": 1741490105, "seconds": 5, "accounts": [], "panelBytes": 7, "errors": ["a: b"]}
    backup(sandbox, "2025-03-09_031500", first, "/srv/disk/auto")
    path = backup(sandbox, "2025-03-10_031500", {"bytes": 1, "more": [None, 1.5, "ü"]}, "/srv/disk/auto")
    (path / "accounts").mkdir()
    (path / "accounts" / ".x").write_bytes(b"x" * 1000)
    backup(sandbox, ".partial-2025-03-11_031500", first, "/srv/disk/auto")
    backup(sandbox, "old", first, "/srv/disk/auto")
    sandbox.answer("systemctl", *STATE[1:], out="activating\n")
    sandbox.answer("systemctl", *NEXT[1:], out="Fri 2025-03-21 03:42:10 UTC\n")
    sandbox.answer("journalctl", out="backup x -> y\n  account ü\n")
    space = os.statvfs(sandbox.path("/srv/disk"))

    reply = sandbox.request("backup.status", anything=["is", "ignored"])

    tops = path, path.parent / "2025-03-09_031500"
    sizes = [sum(file.stat().st_size for file in top.rglob("*") if file.is_file()) for top in tops]
    assert reply == {
        "ok": True,
        "destination": "/srv/disk/auto",
        "keepDays": 30,
        "backups": [
            {"name": "2025-03-10_031500", "bytes": sizes[0], "more": [None, 1.5, "ü"]},
            {**first, "name": "2025-03-09_031500", "bytes": sizes[1]},
        ],
        "running": True,
        "next": "Fri 2025-03-21 03:42:10 UTC",
        "log": "backup x -> y\n  account ü\n",
        "freeBytes": space.f_bavail * space.f_frsize,
        "totalBytes": space.f_blocks * space.f_frsize,
    }
    assert sandbox.argvs() == [STATE, NEXT, LOG]


def test_manifest_of_a_real_run_is_passed_on(sandbox):
    sandbox.add_account("alice")
    sandbox.answer("pg_dump", out="data")
    sandbox.run_agent("--backup")
    (name,) = os.listdir(sandbox.path(DESTINATION))
    manifest = json.loads(sandbox.read(f"{DESTINATION}/{name}/manifest.json"))
    files = [file.stat().st_size for file in sandbox.path(f"{DESTINATION}/{name}").rglob("*") if file.is_file()]
    assert listed(sandbox) == [{**manifest, "bytes": sum(files)}]


def test_newest_comes_first_by_name_alone(sandbox):
    names = ["2025-03-09_031500", "2025-13-01_000000", "1999-12-31_235959", "2025-03-09_031501", "0000-00-00_000000"]
    for name in names:
        backup(sandbox, name)
    assert [entry["name"] for entry in listed(sandbox)] == sorted(names, reverse=True)


def test_what_is_no_finished_backup_is_not_listed(sandbox):
    for name in ("2025-03-09_03150", "2025-03-09_0315000", "x2025-03-09_031500", "2025-03-09_031500\n", "٢025-03-09_031500"):
        backup(sandbox, name, {})
    sandbox.write(f"{DESTINATION}/2025-03-10_031500", "a file")
    sandbox.symlink(f"{DESTINATION}/2025-03-11_031500", "2025-03-09_03150")
    sandbox.symlink(f"{DESTINATION}/2025-03-12_031500", "nowhere")
    os.mkdir(bytes(sandbox.path(DESTINATION)) + b"/\xff\xfe")
    assert listed(sandbox) == []


# Manifests


@pytest.mark.parametrize(
    "text",
    [
        "",
        "{",
        '{"seconds": 5',
        '{"seconds": 5} x',
        "[]",
        '[{"seconds": 5}]',
        "null",
        "5",
        '"text"',
        b"\x7fELF\0\0",
        b'{"a": "\xff\xfe"}',
        "[" * 100_000,
        '{"a":' * 100_000,
        "{'a': 1}",
    ],
)
def test_manifest_without_an_object(sandbox, text):
    backup(sandbox, "2025-03-09_031500", text)
    assert listed(sandbox) == [{"name": "2025-03-09_031500", "bytes": len(text)}]


def test_manifest_that_is_missing(sandbox):
    backup(sandbox, "2025-03-09_031500")
    assert listed(sandbox) == [{"name": "2025-03-09_031500", "bytes": 0}]


@pytest.mark.parametrize("kind", ["fifo", "folder", "link", "dangling link", "loop", "device"])
def test_manifest_that_is_no_file(sandbox, kind):
    path = backup(sandbox, "2025-03-09_031500") / "manifest.json"
    sandbox.write("/srv/secret", '{"secret": 1}')
    if kind == "fifo":
        os.mkfifo(path)
    elif kind == "folder":
        path.mkdir()
    elif kind == "device":
        path.symlink_to("/dev/zero")
    else:
        path.symlink_to({"link": "/srv/secret", "dangling link": "nowhere", "loop": "manifest.json"}[kind])
    assert listed(sandbox) == [{"name": "2025-03-09_031500", "bytes": 0}]


def test_manifest_cannot_pose_as_something_else(sandbox):
    hostile = {"name": "../../etc", "bytes": -1, "ok": False, "backups": [1], "": "", "\0": {"name": "\n"}}
    backup(sandbox, "2025-03-09_031500", hostile)
    reply = sandbox.request("backup.status")
    size = len(json.dumps(hostile))
    assert reply["ok"] is True
    assert reply["backups"] == [{**hostile, "name": "2025-03-09_031500", "bytes": size}]


def test_large_manifest_is_passed_on(sandbox):
    accounts = [{"username": f"u{i}", "domain": "example.org", "homeBytes": i, "dbBytes": i} for i in range(20_000)]
    manifest = {"name": "2025-03-09_031500", "accounts": accounts, "errors": ["x" * 400] * 1000}
    backup(sandbox, "2025-03-09_031500", manifest)
    assert listed(sandbox) == [{**manifest, "bytes": len(json.dumps(manifest))}]


def test_huge_manifest_counts_as_none(sandbox):
    path = backup(sandbox, "2025-03-10_031500", '{"seconds": 5}')
    backup(sandbox, "2025-03-09_031500", '{"seconds": 5}')
    os.truncate(path / "manifest.json", 1 << 40)
    sandbox.start()
    before = sandbox.agent.memory("VmHWM")
    assert listed(sandbox) == [
        {"name": "2025-03-10_031500", "bytes": 1 << 40},
        {"name": "2025-03-09_031500", "bytes": 14, "seconds": 5},
    ]
    assert sandbox.sanitized or sandbox.agent.memory("VmHWM") - before < 32 * MEBIBYTE


def test_manifests_together_do_not_fill_the_memory(sandbox):
    manifest = json.dumps({"pad": "x" * (30 * MEBIBYTE)})
    for day in range(1, 6):
        backup(sandbox, f"2025-03-0{day}_031500", manifest)
    size = len(manifest)
    entries = listed(sandbox)
    # The newest ones come first, for as long as there is room.
    assert [(entry["name"], entry["bytes"], "pad" in entry) for entry in entries] == [
        ("2025-03-05_031500", size, True),
        ("2025-03-04_031500", size, True),
        ("2025-03-03_031500", size, False),
        ("2025-03-02_031500", size, False),
        ("2025-03-01_031500", size, False),
    ]


def test_links_in_a_backup_count_nothing(sandbox):
    path = backup(sandbox, "2025-03-09_031500")
    sandbox.write("/srv/large", b"x" * 100_000)
    (path / "link").symlink_to("/srv/large")
    (path / "folder").symlink_to("/srv")
    (path / "loop").symlink_to(".")
    (path / "file").write_bytes(b"x" * 10)
    os.mkdir(bytes(path) + b"/\xff")
    with open(bytes(path) + b"/\xff/\xfe", "w") as file:
        file.write("x" * 200)
    assert listed(sandbox) == [{"name": "2025-03-09_031500", "bytes": 210}]


# What the tools say


@pytest.mark.parametrize(
    ("state", "running"),
    [
        ("active\n", True),
        ("activating", True),
        (" \tactivating \n", True),
        ("inactive\n", False),
        ("failed\n", False),
        ("deactivating\n", False),
        ("Active\n", False),
        ("active\nactive\n", False),
        ("", False),
        ("active (running)\n", False),
    ],
)
def test_running(sandbox, state, running):
    sandbox.answer("systemctl", *STATE[1:], out=state)
    assert sandbox.request("backup.status")["running"] is running


def test_failing_tools_are_not_reported_and_their_output_counts(sandbox):
    sandbox.answer("systemctl", *STATE[1:], out="active\n", err="bad", exit=1)
    sandbox.answer("systemctl", *NEXT[1:], out="\n soon \n", exit=4)
    sandbox.answer("journalctl", out=b"\xff line\n\n", exit=1)
    reply = sandbox.request("backup.status")
    assert reply["ok"] is True
    assert (reply["running"], reply["next"], reply["log"]) == (True, "soon", "\ufffd line\n\n")


def test_missing_tools(sandbox):
    sandbox.remove_standin("systemctl")
    sandbox.remove_standin("journalctl")
    reply = sandbox.request("backup.status")
    assert (reply["ok"], reply["running"], reply["next"], reply["log"]) == (True, False, "", "")


def test_hanging_tool(impatient):
    impatient.answer("systemctl", *STATE[1:], out="active\n", hang=True)
    impatient.answer("journalctl", out="line\n")
    reply = impatient.request("backup.status")
    assert (reply["ok"], reply["running"], reply["log"]) == (True, False, "line\n")


@pytest.mark.parametrize("value", ["", "backup", "/srv/a,b"])
def test_destination_that_is_no_absolute_path(sandbox, value):
    sandbox.settings(backup_destination=value)
    backup(sandbox, "2025-03-09_031500", {}, "/")
    reply = sandbox.request("backup.status")
    assert reply["ok"] is True
    assert reply["destination"] == ("" if "," in value else value)
    assert (reply["backups"], reply["freeBytes"], reply["totalBytes"]) == ([], -1, -1)


def test_settings_are_read_once(sandbox):
    sandbox.start()
    sandbox.settings(backup_destination="/srv/elsewhere", backup_keep_days="5")
    reply = sandbox.request("backup.status")
    assert (reply["destination"], reply["keepDays"]) == (DESTINATION, 14)


@pytest.mark.parametrize(
    ("value", "days"),
    [("0", 1), ("-7", 1), ("abc", 1), ("", 1), ("365", 365), ("1,2", 1), ("2.5", 1), ("4294967310", 2147483647)],
)
def test_days_to_keep(sandbox, value, days):
    sandbox.settings(backup_keep_days=value)
    assert sandbox.request("backup.status")["keepDays"] == days


# backup.start


def test_start(sandbox):
    assert sandbox.request("backup.start", what="ever") == {"ok": True}
    assert sandbox.argvs() == [["systemctl", "start", "--no-block", "corv-backup.service"]]
    assert not sandbox.exists("/var/backups/corvane")


def test_start_that_fails(sandbox):
    sandbox.answer("systemctl", exit=5, err="Failed to start corv-backup.service: Unit corv-backup.service not found.\n")
    assert sandbox.request("backup.start") == {
        "ok": False,
        "error": "systemctl failed: Failed to start corv-backup.service: Unit corv-backup.service not found.",
    }


def test_start_without_systemctl(sandbox):
    sandbox.remove_standin("systemctl")
    assert sandbox.request("backup.start") == {"ok": False, "error": "systemctl: cannot start"}
