"""The backup run: its lines, tools, files and modes, what each failure leads to, and which old backups it deletes."""

import json
import os
import re
import sysconfig
import tarfile
import time

import pytest

from programs import wait_until
from sandbox import runuser

DESTINATION = "/var/backups/corvane/auto"
STAMP = r"\d{4}-\d\d-\d\d_\d{6}"
# Of the package faketime.
FAKETIME = "/usr/lib/%s/faketime/libfaketime.so.1" % sysconfig.get_config_var("MULTIARCH")


def run(sandbox, **how):
    """A run with what belongs to it: (exit code, lines, the stamp of the first line or None)."""
    code, output = sandbox.run_agent("--backup", **how)
    lines = output.split("\n")
    assert lines.pop() == ""
    stamp = re.fullmatch(rf"backup ({STAMP}) -> .*", lines[0])
    return code, lines, stamp and stamp[1]


def at(moment, zone="UTC"):
    """The environment in which the agent finds that local time."""
    # A sanitizer's runtime insists on being the first library otherwise.
    sanitizer = os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
    return {"LD_PRELOAD": FAKETIME, "FAKETIME": "@" + moment, "TZ": zone, "ASAN_OPTIONS": sanitizer}


def manifest(sandbox, stamp, destination=DESTINATION):
    return json.loads(sandbox.read(f"{destination}/{stamp}/manifest.json"))


def dump(name):
    return runuser("postgres", "pg_dump", "-Fc", name)


def tar_home(stamp, user, destination=DESTINATION):
    archive = f"{destination}/.partial-{stamp}/accounts/{user}-home.tar.gz"
    return ["tar", "-czf", archive, f"--exclude={user}/tmp", "-C", "/home", user]


def tar_settings(stamp, *members, destination=DESTINATION):
    return ["tar", "-czf", f"{destination}/.partial-{stamp}/config.tar.gz", "-C", "/", *members]


def folder(sandbox, name, age_days=0, destination=DESTINATION):
    """A folder in the destination, last changed so many days ago."""
    path = sandbox.mkdir(f"{destination}/{name}")
    sandbox.write(f"{destination}/{name}/file", "x")
    moment = time.time() - age_days * 86400
    os.utime(path, (moment, moment))
    return path


def names(sandbox, destination=DESTINATION):
    return sorted(os.listdir(sandbox.path(destination)))


def done(line):
    """What the last line says: (megabytes, problems)."""
    match = re.fullmatch(r"done in \d+ s, (\d+) MB, (\d+) problem\(s\)", line)
    assert match, line
    return int(match[1]), int(match[2])


# A clean run


def test_run_over_two_accounts(sandbox):
    sandbox.add_account("alice", "example.org")
    sandbox.add_user("carol", "Carol,room 1")
    sandbox.add_user("bob", "Corvane account")
    sandbox.write("/home/alice/public_html/index.html", "hello", owner="alice:www-data")
    sandbox.write("/home/alice/tmp/session", "gone")
    sandbox.answer("pg_dump", "-Fc", "corvane", out="panel")
    sandbox.answer("pg_dump", "-Fc", "alice", out="data of alice")
    before = int(time.time())

    code, lines, stamp = run(sandbox)

    assert code == 0
    assert lines[:-1] == [f"backup {stamp} -> {DESTINATION}", "  account alice", "  account bob"]
    assert done(lines[-1]) == (0, 0)
    assert sandbox.argvs() == [
        dump("corvane"),
        tar_settings(stamp, "etc/corvane"),
        tar_home(stamp, "alice"),
        dump("alice"),
        tar_home(stamp, "bob"),
        dump("bob"),
    ]
    assert names(sandbox) == [stamp]
    found = sandbox.tree(f"{DESTINATION}/{stamp}")
    assert {path: text.split(" ")[0] for path, text in found.items()} == {
        "accounts": "0755",
        "accounts/alice-db.dump": "0600",
        "accounts/alice-home.tar.gz": "0600",
        "accounts/bob-db.dump": "0600",
        "accounts/bob-home.tar.gz": "0600",
        "config.tar.gz": "0600",
        "manifest.json": "0600",
        "panel.dump": "0600",
    }
    assert sandbox.entry(DESTINATION) == "0700 root:root"
    assert sandbox.entry("/var/backups/corvane") == "0755 root:root"
    size = lambda name: sandbox.path(f"{DESTINATION}/{stamp}/accounts/{name}").stat().st_size
    found = manifest(sandbox, stamp)
    assert before <= found.pop("created") <= time.time()
    assert 0 <= found.pop("seconds") <= time.time() - before + 1
    assert found == {
        "name": stamp,
        "accounts": [
            {"username": "alice", "domain": "example.org", "homeBytes": size("alice-home.tar.gz"), "dbBytes": 13},
            {"username": "bob", "domain": "", "homeBytes": size("bob-home.tar.gz"), "dbBytes": 0},
        ],
        "panelBytes": 5,
        "errors": [],
    }
    with tarfile.open(sandbox.path(f"{DESTINATION}/{stamp}/accounts/alice-home.tar.gz")) as archive:
        inside = archive.getnames()
    assert inside[0] == "alice" and "alice/public_html/index.html" in inside
    assert not any(name.startswith("alice/tmp") for name in inside)


def test_manifest_is_written_one_member_a_line(sandbox):
    _, _, stamp = run(sandbox)
    text = sandbox.read(f"{DESTINATION}/{stamp}/manifest.json")
    assert re.fullmatch(
        r'\{\n    "accounts": \[\n    \],\n    "created": \d+,\n    "errors": \[\n    \],\n    "name": "%s",\n'
        r'    "panelBytes": 0,\n    "seconds": \d+\n\}\n' % stamp,
        text,
    )


def test_run_without_accounts(sandbox):
    code, lines, stamp = run(sandbox)
    assert code == 0
    assert len(lines) == 2 and done(lines[1]) == (0, 0)
    assert sandbox.tree(f"{DESTINATION}/{stamp}").keys() == {"accounts", "config.tar.gz", "manifest.json", "panel.dump"}
    assert manifest(sandbox, stamp)["accounts"] == []


def test_stamp_is_the_local_time_of_the_start(sandbox):
    _, lines, stamp = run(sandbox, env=at("2025-03-09 03:15:00", "Pacific/Auckland"))
    assert stamp.startswith("2025-03-09_0315")
    assert manifest(sandbox, stamp)["name"] == stamp


def test_created_is_the_moment_of_the_end(sandbox):
    sandbox.answer("pg_dump", shell="sleep 1.2")
    start = time.monotonic()
    _, lines, stamp = run(sandbox)
    longest = time.monotonic() - start
    found = manifest(sandbox, stamp)
    assert 1 <= found["seconds"] <= longest
    began = time.mktime(time.strptime(stamp + " UTC", "%Y-%m-%d_%H%M%S %Z")) - time.timezone
    assert 1 <= found["created"] - began <= longest + 1  # both are cut to whole seconds
    whole = int(re.match(r"done in (\d+) s, ", lines[-1])[1])
    assert found["seconds"] <= whole <= longest


def test_sizes_are_in_whole_megabytes(sandbox):
    sandbox.answer("pg_dump", flood_out=3 * 1048576 - 1000)
    assert done(run(sandbox)[1][-1]) == (2, 0)
    sandbox.answer("pg_dump", flood_out=3 * 1048576)
    assert done(run(sandbox, env=at("2040-01-01 00:00:00"))[1][-1]) == (3, 0)


def test_lines_come_while_the_run_goes_on(sandbox):
    sandbox.add_account("alice")
    sandbox.answer("tar", "-czf", "*-home.tar.gz", ..., wait="/tmp/go")
    sandbox.launch("--backup")
    sandbox.wait_for_call("tar", count=2)
    lines = (sandbox.top / "stdout").read_text().split("\n")
    assert [re.sub(STAMP, "STAMP", line) for line in lines] == [f"backup STAMP -> {DESTINATION}", "  account alice", ""]
    assert [name[:9] for name in names(sandbox)] == [".partial-"]
    sandbox.write("/tmp/go")
    assert sandbox.agent.wait() == 0


def test_memory_of_tar_has_an_end(sandbox):
    """What tar keeps of folders in each other grows with the square of their depth: to 5 GB at forty thousand."""
    sandbox.add_account("alice")
    sandbox.answer("tar", "-czf", "*-home.tar.gz", ..., shell="{ ulimit -v; ulimit -s; } >/tmp/limits")
    run(sandbox)
    assert sandbox.read("/tmp/limits").split() == ["2097152", "1048576"]


def test_name_of_an_account_is_no_option_or_path(sandbox):
    sandbox.add_user("-dash", "Corvane account,example.org", home=False)
    _, _, stamp = run(sandbox)
    assert tar_home(stamp, "-dash") in sandbox.argvs()


@pytest.mark.parametrize(
    ("gecos", "domain"),
    [
        ("Corvane account,example.org", "example.org"),
        ("Corvane account", ""),
        ("Corvane account,", ""),
        ("Corvane account,a.org,b.org", "a.org"),
        ("Corvane accountant,a.org", "a.org"),
    ],
)
def test_account_by_its_marker(sandbox, gecos, domain):
    sandbox.add_user("alice", gecos)
    _, _, stamp = run(sandbox)
    assert [(entry["username"], entry["domain"]) for entry in manifest(sandbox, stamp)["accounts"]] == [("alice", domain)]


@pytest.mark.parametrize("gecos", ["", "corvane account,a.org", " Corvane account,a.org", "Corvane,account"])
def test_no_account_without_the_marker(sandbox, gecos):
    sandbox.add_user("alice", gecos)
    _, _, stamp = run(sandbox)
    assert manifest(sandbox, stamp)["accounts"] == []


# The settings files


def test_settings_that_exist_are_saved_in_order(sandbox):
    for path in (
        "fail2ban/filter.d/corv-web.conf",
        "fail2ban/jail.d/corvane.local",
        "powerdns/pdns.d/corvane.conf",
        "apache2/conf-available/corv-logformat.conf",
        "apache2/sites-available/corvane.conf",
    ):
        sandbox.write(f"/etc/{path}", "x")
    sandbox.write("/etc/apache2/sites-available/corv-alice.conf", "x")
    sandbox.write("/etc/php/8.2/fpm/pool.d/corv-alice.conf", "x")

    _, _, stamp = run(sandbox)

    members = [
        "etc/corvane",
        "etc/apache2/sites-available/corvane.conf",
        "etc/apache2/conf-available/corv-logformat.conf",
        "etc/powerdns/pdns.d/corvane.conf",
        "etc/fail2ban/jail.d/corvane.local",
        "etc/fail2ban/filter.d/corv-web.conf",
        "etc/apache2/sites-available/corv-alice.conf",
        "etc/php/8.2/fpm/pool.d/corv-alice.conf",
    ]
    assert sandbox.argvs("tar") == [tar_settings(stamp, *members)]
    with tarfile.open(sandbox.path(f"{DESTINATION}/{stamp}/config.tar.gz")) as archive:
        assert archive.getnames() == [members[0], "etc/corvane/corvane.ini", *members[1:]]


def test_sites_and_pools_by_their_names(sandbox):
    sites, pools = "/etc/apache2/sites-available/", "/etc/php/%s/fpm/pool.d/"
    for name in ("corv-b.conf", "corv-a.conf", "Corv-c.conf", "corv-d.CONF", "corv-e.conf.bak", "xcorv-f.conf"):
        sandbox.write(sites + name, "x")
    sandbox.mkdir(sites + "corv-folder.conf")
    sandbox.symlink(sites + "corv-link.conf", "corv-a.conf")
    sandbox.symlink(sites + "corv-dangling.conf", "nowhere")
    sandbox.php("8.2", "8.4", ".hidden")
    for version in ("8.2", "8.4", ".hidden"):
        for name in ("corv-a.conf", "corv-x", "Corv-b.conf", "www.conf", ".corv-c.conf"):
            sandbox.write(pools % version + name, "x")
    sandbox.write("/etc/php/notes", "x")

    _, _, stamp = run(sandbox)

    call = sandbox.argvs("tar")[0]
    assert call[:6] == [*tar_settings(stamp), "etc/corvane"]
    at = lambda path, *found: sorted(path + name for name in found)
    sites_found = [path for path in call[6:] if path.startswith("etc/apache2")]
    assert sorted(sites_found) == at("etc/apache2/sites-available/", "corv-a.conf", "corv-b.conf", "corv-link.conf")
    rest = call[6 + len(sites_found) :]
    assert call[6:] == sites_found + rest
    assert sorted(rest) == sorted(
        at("etc/php/8.2/fpm/pool.d/", "corv-a.conf", "corv-x") + at("etc/php/8.4/fpm/pool.d/", "corv-a.conf", "corv-x")
    )
    # Directory order, whatever that is: each version's pools stand together.
    assert len({path.split("/")[2] for path in rest[:2]}) == 1


def test_settings_that_are_missing_are_left_out(sandbox):
    sandbox.symlink("/etc/apache2/sites-available/corvane.conf", "nowhere")
    sandbox.write("/srv/corvane.ini", "")
    env = {"CORV_CONFIG": "/srv/corvane.ini"}
    sandbox.path("/etc/corvane/corvane.ini").unlink()
    sandbox.path("/etc/corvane").rmdir()
    _, lines, stamp = run(sandbox, env=env)
    # tar refuses to make an empty archive: one problem, and the run goes on.
    assert sandbox.argvs("tar") == [tar_settings(stamp)]
    assert lines[1].startswith("  ! settings: tar failed: ")


# Failures


TOOLS = [
    (("pg_dump", "-Fc", "corvane"), "panel database", "runuser"),
    (("tar", "-czf", "*/config.tar.gz", ...), "settings", "tar"),
    (("tar", "-czf", "*/alice-home.tar.gz", ...), "alice files", "tar"),
    (("pg_dump", "-Fc", "alice"), "alice database", "runuser"),
    (("tar", "-czf", "*/bob-home.tar.gz", ...), "bob files", "tar"),
    (("pg_dump", "-Fc", "bob"), "bob database", "runuser"),
]


@pytest.mark.parametrize("failing", range(len(TOOLS)))
def test_each_tool_failing(sandbox, failing):
    sandbox.add_account("alice")
    sandbox.add_account("bob")
    call, what, program = TOOLS[failing]
    sandbox.answer(*call, exit=3, err="no\nsuch luck\n")

    code, lines, stamp = run(sandbox)

    problem = f"{what}: {program} failed: no\nsuch luck"
    expected = [f"backup {stamp} -> {DESTINATION}", "  account alice", "  account bob"]
    before = {"panel database": 1, "settings": 1, "alice files": 2, "alice database": 2}.get(what, 3)
    expected[before:before] = f"  ! {problem}".split("\n")
    assert code == 1
    assert lines[:-1] == expected
    assert done(lines[-1]) == (0, 1)
    assert manifest(sandbox, stamp)["errors"] == [problem]
    assert [entry["username"] for entry in manifest(sandbox, stamp)["accounts"]] == ["alice", "bob"]
    assert len(sandbox.argvs()) == len(TOOLS)
    assert names(sandbox) == [stamp]


def test_every_tool_failing(sandbox):
    sandbox.add_account("alice")
    for call, _, _ in TOOLS:
        sandbox.answer(*call, exit=4)
    code, lines, stamp = run(sandbox)
    assert code == 1
    assert lines[:-1] == [
        f"backup {stamp} -> {DESTINATION}",
        "  ! panel database: runuser failed: exit code 4",
        "  ! settings: tar failed: exit code 4",
        "  account alice",
        "  ! alice files: tar failed: exit code 4",
        "  ! alice database: runuser failed: exit code 4",
    ]
    assert manifest(sandbox, stamp)["errors"] == [line[4:] for line in lines if line.startswith("  ! ")]
    assert manifest(sandbox, stamp)["accounts"][0]["homeBytes"] == 0


@pytest.mark.parametrize("program", ["tar", "runuser"])
def test_tool_that_is_missing(sandbox, program):
    sandbox.add_account("alice")
    sandbox.remove_standin(program)
    code, lines, stamp = run(sandbox)
    whats = ["settings", "alice files"] if program == "tar" else ["panel database", "alice database"]
    assert code == 1
    assert manifest(sandbox, stamp)["errors"] == [f"{what}: {program}: cannot start" for what in whats]


def test_tool_that_takes_too_long(impatient):
    impatient.add_account("alice")
    impatient.answer("pg_dump", "-Fc", "alice", hang=True)
    code, lines, stamp = run(impatient)
    assert code == 1
    assert manifest(impatient, stamp)["errors"] == ["alice database: runuser: took too long"]


def test_home_that_is_gone(sandbox):
    sandbox.add_user("alice", "Corvane account,example.org", home=False)
    sandbox.answer("pg_dump", "-Fc", "alice", out="data")
    code, lines, stamp = run(sandbox)
    assert code == 1
    assert done(lines[-1])[1] == 1
    found = manifest(sandbox, stamp)
    assert found["accounts"][0]["dbBytes"] == 4
    assert [error.split(":")[0] for error in found["errors"]] == ["alice files"]


def test_half_written_files_stay_and_count(sandbox):
    sandbox.add_account("alice")
    sandbox.answer("pg_dump", "-Fc", "alice", out="half", exit=1)
    _, _, stamp = run(sandbox)
    assert sandbox.read(f"{DESTINATION}/{stamp}/accounts/alice-db.dump") == "half"
    assert manifest(sandbox, stamp)["accounts"][0]["dbBytes"] == 4


def test_destination_that_is_full(sandbox):
    sandbox.settings(backup_destination="/srv/small")
    sandbox.small_disk("/srv/small", "64k")
    sandbox.answer("pg_dump", shell="head -c 100000 /dev/zero || { echo disk is full >&2; exit 1; }")
    code, lines, stamp = run(sandbox)
    assert code == 1
    assert lines[0] == f"backup {stamp} -> /srv/small"
    # The last line comes and the name is final, though there was no room for the manifest.
    assert done(lines[-1])[1] >= 1
    assert names(sandbox, "/srv/small") == [stamp]


def test_manifest_that_cannot_be_written_is_no_problem(sandbox):
    sandbox.answer("pg_dump", shell="exit 0")
    sandbox.answer("tar", "-czf", "*/config.tar.gz", ..., shell='mkdir "$(dirname "$2")/manifest.json"')
    code, lines, stamp = run(sandbox)
    assert code == 0
    assert len(lines) == 2 and done(lines[1]) == (0, 0)
    assert sandbox.path(f"{DESTINATION}/{stamp}/manifest.json").is_dir()


@pytest.mark.parametrize("value", ["", "backup", "./x", "/srv/a,b", "/"])
def test_destination_that_would_fill_the_wrong_folder(sandbox, value):
    sandbox.settings(backup_destination=value)
    before = sandbox.entry("/"), names(sandbox, "/")
    code, output = sandbox.run_agent("--backup")
    where = {"./x": "x", "/srv/a,b": ""}.get(value, value)
    assert code == 1
    assert re.fullmatch(rf"cannot create {where}/\.partial-{STAMP}\n", output)
    assert (sandbox.entry("/"), names(sandbox, "/")) == before
    assert sandbox.argvs() == []


@pytest.mark.parametrize("obstacle", ["file", "dangling link", "read-only"])
def test_destination_that_cannot_be_made(sandbox, obstacle):
    sandbox.settings(backup_destination="/srv/backup/auto")
    if obstacle == "file":
        sandbox.write("/srv/backup", "x")
    elif obstacle == "dangling link":
        sandbox.symlink("/srv/backup", "nowhere")
    else:
        sandbox.small_disk("/srv/backup")
        sandbox.run("mount", "-o", "remount,ro", "/srv/backup")
    code, output = sandbox.run_agent("--backup")
    assert code == 1
    assert re.fullmatch(rf"cannot create /srv/backup/auto/\.partial-{STAMP}\n", output)
    assert sandbox.argvs() == []


def test_destination_may_be_a_link_to_a_folder(sandbox):
    sandbox.mkdir("/srv/disk", mode=0o755)
    sandbox.symlink("/srv/backup", "disk")
    sandbox.settings(backup_destination="/srv/backup")
    assert run(sandbox)[0] == 0
    assert sandbox.entry("/srv/disk") == "0700 root:root"
    assert sandbox.entry("/srv/backup") == "link -> disk"


# What a run does where the destination is a network file system, which does not know how to rename without replacing.
ON_NETWORK = ("/usr/bin/strace", "-qq", "-o", "/dev/null", "-e", "inject=renameat2:error=EINVAL")


@pytest.mark.parametrize("wrapper", [(), ON_NETWORK], ids=["here", "network"])
@pytest.mark.parametrize("kind", ["empty folder", "folder", "file", "dangling link", "link to a folder"])
def test_finished_name_that_exists_is_never_written_into(sandbox, kind, wrapper):
    if wrapper and sandbox.sanitized:
        pytest.skip("a sanitizer cannot be traced")
    old = folder(sandbox, "1999-01-01_000000")
    name = "$(basename \"$(dirname \"$2\")\" | sed 's/.partial-//')"
    make = {
        "empty folder": f'mkdir "/var/backups/corvane/auto/{name}"',
        "folder": f'mkdir -p "/var/backups/corvane/auto/{name}/x"',
        "file": f'echo x >"/var/backups/corvane/auto/{name}"',
        "dangling link": f'ln -s nowhere "/var/backups/corvane/auto/{name}"',
        "link to a folder": f'ln -s ../../../../srv "/var/backups/corvane/auto/{name}"',
    }
    sandbox.answer("tar", "-czf", "*/config.tar.gz", ..., shell=make[kind])
    code, lines, stamp = run(sandbox, wrapper=wrapper)
    assert code == 1
    assert lines == [f"backup {stamp} -> {DESTINATION}", f"cannot rename {DESTINATION}/.partial-{stamp}"]
    assert names(sandbox) == [f".partial-{stamp}", "1999-01-01_000000", stamp]
    assert sandbox.entry(f"{DESTINATION}/.partial-{stamp}/manifest.json") == "0600 root:root"
    assert old.exists()
    inside = {"folder": (stamp, ["x"]), "empty folder": (stamp, []), "link to a folder": ("/srv", [])}
    if kind in inside:
        place, held = inside[kind]
        assert names(sandbox, os.path.join(DESTINATION, place)) == held


@pytest.mark.parametrize("problem, code", [("EINVAL", 0), ("EIO", 1)])
def test_rename_that_fails(sandbox, problem, code):
    if sandbox.sanitized:
        pytest.skip("a sanitizer cannot be traced")
    wrapper = [word.replace("EINVAL", problem) for word in ON_NETWORK]
    found, lines, stamp = run(sandbox, wrapper=wrapper)
    assert found == code
    assert names(sandbox) == [stamp if code == 0 else f".partial-{stamp}"]
    assert code == 0 or lines[-1] == f"cannot rename {DESTINATION}/.partial-{stamp}"


# Retention


def removed(lines):
    return sorted(line.removeprefix("  removing old ") for line in lines if line.startswith("  removing old "))


def test_retention_at_its_edges(sandbox):
    for name in (
        "2025-03-05_230000",
        "2025-03-05_235959",
        "2025-03-06_000000",
        "2025-03-06_000001",
        "2025-03-19_120000",
        "2026-01-01_000000",
        "1999-12-31_235959",
        "2024-02-29_000000",
        "2023-02-29_000000",
        "2025-13-01_000000",
        "2024-01-01_246000",
        "2024-01-01_00000",
        "2024-01-01_000000x",
        "x2024-01-01_000000",
        "old",
    ):
        folder(sandbox, name, age_days=5000)
    sandbox.write(f"{DESTINATION}/2001-01-01_000000", "a file")
    code, lines, stamp = run(sandbox, env=at("2025-03-20 03:15:00"))
    gone = ["1999-12-31_235959", "2024-02-29_000000", "2025-03-05_230000", "2025-03-05_235959"]
    assert code == 0
    assert removed(lines) == gone
    assert lines[0].startswith("backup ") and lines[-1].startswith("done in ") and len(lines) == 2 + len(gone)
    assert names(sandbox) == sorted(
        [
            "2001-01-01_000000",
            "2023-02-29_000000",
            "2024-01-01_00000",
            "2024-01-01_000000x",
            "2024-01-01_246000",
            "2025-03-06_000000",
            "2025-03-06_000001",
            "2025-03-19_120000",
            "2025-13-01_000000",
            "2026-01-01_000000",
            "old",
            "x2024-01-01_000000",
            stamp,
        ]
    )


@pytest.mark.parametrize(("days", "gone"), [("1", ["2025-03-18_235959"]), ("0", ["2025-03-18_235959"]), ("2", [])])
def test_days_to_keep(sandbox, days, gone):
    sandbox.settings(backup_keep_days=days)
    for name in ("2025-03-18_235959", "2025-03-19_000000"):
        folder(sandbox, name)
    _, lines, _ = run(sandbox, env=at("2025-03-20 00:01:00"))
    assert removed(lines) == gone


def test_days_are_those_of_local_time(sandbox):
    # It is still the 19th in Universal Time.
    sandbox.settings(backup_keep_days="1")
    for name in ("2025-03-18_235959", "2025-03-19_000000"):
        folder(sandbox, name)
    _, lines, stamp = run(sandbox, env=at("2025-03-20 00:30:00", "Pacific/Auckland"))
    assert stamp.startswith("2025-03-20_0030")
    assert removed(lines) == ["2025-03-18_235959"]


@pytest.mark.parametrize(
    ("now", "gone"),
    [("2025-03-31 00:00:10", ["2025-03-29_235959"]), ("2025-04-01 00:00:10", ["2025-03-29_235959", "2025-03-30_023000"])],
)
def test_days_across_the_change_to_summer_time(sandbox, now, gone):
    # The 30th has 23 hours, and its half past two does not exist.
    sandbox.settings(backup_keep_days="1")
    for name in ("2025-03-29_235959", "2025-03-30_023000"):
        folder(sandbox, name)
    assert removed(run(sandbox, env=at(now, "Europe/Berlin"))[1]) == gone


@pytest.mark.parametrize(
    ("now", "gone"),
    [("2025-10-27 23:59:50", ["2025-10-25_235959"]), ("2025-10-28 00:00:10", ["2025-10-25_235959", "2025-10-26_023000"])],
)
def test_days_across_the_change_to_winter_time(sandbox, now, gone):
    sandbox.settings(backup_keep_days="1")
    for name in ("2025-10-25_235959", "2025-10-26_023000"):
        folder(sandbox, name)
    assert removed(run(sandbox, env=at(now, "Europe/Berlin"))[1]) == gone


def test_unfinished_backups(sandbox):
    moments = {
        ".partial-2025-03-19_235900": 1742428740,  # yesterday at 23:59
        ".partial-x": 1742428740 - 86400,
        ".partial-2001-01-01_000000": 1742428800,  # today at 00:00
        ".partial-2025-03-21_000000": 1742428800 + 86400,
        ".Partial-x": 1000000000,
        "partial-x": 1000000000,
    }
    for name, moment in moments.items():
        os.utime(folder(sandbox, name), (moment, moment))
    _, lines, stamp = run(sandbox, env=at("2025-03-20 00:01:00"))
    assert removed(lines) == [".partial-2025-03-19_235900", ".partial-x"]
    assert names(sandbox) == [
        ".Partial-x",
        ".partial-2001-01-01_000000",
        ".partial-2025-03-21_000000",
        stamp,
        "partial-x",
    ]


def test_link_is_no_backup_and_leads_nowhere(sandbox):
    outside = sandbox.write("/srv/other/file", "x")
    sandbox.mkdir(DESTINATION)
    sandbox.symlink(f"{DESTINATION}/2001-01-01_000000", "/srv/other")
    sandbox.symlink(f"{DESTINATION}/.partial-x", "/srv/other")
    folder(sandbox, "2002-01-01_000000")
    sandbox.symlink(f"{DESTINATION}/2002-01-01_000000/link", "/srv/other")
    os.utime(sandbox.path("/srv/other"), (0, 0))
    _, lines, stamp = run(sandbox)
    assert removed(lines) == ["2002-01-01_000000"]
    assert outside.exists()
    assert names(sandbox) == [".partial-x", "2001-01-01_000000", stamp]


def test_old_backup_with_anything_in_it_goes(sandbox):
    old = folder(sandbox, "2001-01-01_000000")
    (old / "a" / "b").mkdir(parents=True)
    (old / "a" / ".hidden").write_text("x")
    os.mkdir(bytes(old) + b"/\xff\xfe")
    open(bytes(old) + b"/\xff\xfe/\xc3", "w").close()
    os.mkfifo(old / "pipe")
    (old / "a").chmod(0)
    run(sandbox)
    assert not old.exists()


def test_unfinished_name_that_is_no_text_goes(sandbox):
    sandbox.mkdir(DESTINATION)
    path = bytes(sandbox.path(DESTINATION)) + b"/.partial-\xff"
    os.mkdir(path)
    os.utime(path, (0, 0))
    run(sandbox)
    assert not os.path.exists(path)


def test_deletion_that_fails_is_no_problem(sandbox):
    folder(sandbox, "2001-01-01_000000")
    sandbox.small_disk(f"{DESTINATION}/2001-01-01_000000/disk")
    code, lines, stamp = run(sandbox)
    assert code == 0
    assert lines[1] == "  removing old 2001-01-01_000000" and done(lines[2])[1] == 0
    assert names(sandbox) == ["2001-01-01_000000", stamp]


def test_run_with_problems_still_deletes(sandbox):
    folder(sandbox, "2001-01-01_000000")
    sandbox.answer("pg_dump", exit=1)
    code, lines, stamp = run(sandbox)
    assert code == 1
    assert names(sandbox) == [stamp]


# The mode


def test_unknown_user_in_the_settings_stops_the_run(sandbox):
    sandbox.settings(agent_allowed_user="nosuch")
    code, output = sandbox.run_agent("--backup")
    assert (code, output) == (1, "")
    sandbox.logs("agent: no such user: nosuch")
    assert sandbox.calls() == [] and not sandbox.exists("/var/backups/corvane")


def test_missing_settings_stop_the_run(sandbox):
    sandbox.path("/etc/corvane/corvane.ini").unlink()
    code, output = sandbox.run_agent("--backup")
    assert (code, output) == (1, "")
    sandbox.logs("config file not found: /etc/corvane/corvane.ini")
    assert not sandbox.exists("/var/backups/corvane")


def test_run_opens_no_socket(sandbox):
    assert run(sandbox)[0] == 0
    assert not sandbox.exists("/run/corvane/agent.sock")


def test_run_ends_at_once_on_sigterm(sandbox):
    sandbox.answer("pg_dump", wait="/tmp/go")
    sandbox.launch("--backup")
    sandbox.wait_for_call("pg_dump")
    sandbox.agent.signal(15)
    assert sandbox.agent.wait() == -15
    sandbox.agent.close()
    sandbox.agent = None
    assert [name[:9] for name in names(sandbox)] == [".partial-"]


def test_help_names_the_mode(sandbox):
    code, output = sandbox.run_agent("--help")
    assert code == 0
    assert re.search(r"^  --backup +Make one backup \(accounts, panel database, settings\)\s+and\s+exit\.$", output, re.M)


def test_memory_does_not_grow_with_the_backup(sandbox):
    if sandbox.sanitized:
        pytest.skip("a checker's memory is its own")
    sandbox.add_account("alice")
    sandbox.answer("pg_dump", flood_out=200 << 20)
    sandbox.answer("tar", "-czf", "*-home.tar.gz", ..., wait="/tmp/go")
    sandbox.launch("--backup")
    sandbox.wait_for_call("tar", count=2)
    peak = sandbox.agent.memory("VmHWM")
    sandbox.write("/tmp/go")
    assert sandbox.agent.wait() == 0
    assert peak <= 24 << 20  # the framework of Debian 13 begins at 20 by itself
