"""The gzip that makes the pipes of tar larger: what it makes of them, which gzip it becomes, and that what it writes is there."""

import gzip
import os
import signal
import subprocess

import pytest

from ground import agent_executable

# Says how much its pipes hold, what it was given, and where it would look for programs.
NEXT = """#!/usr/bin/python3
import fcntl, os, sys
print(*(fcntl.fcntl(end, fcntl.F_GETPIPE_SZ) for end in (0, 1)), *sys.argv[1:], os.environ["PATH"])
"""


@pytest.fixture
def program():
    return agent_executable().parent / "pipes" / "gzip"


@pytest.fixture
def folder(tmp_path):
    """One with the gzip that comes next on PATH."""
    (tmp_path / "gzip").write_text(NEXT)
    (tmp_path / "gzip").chmod(0o755)
    return tmp_path


def run(program, *words, path, text=b"", **how):
    return subprocess.run([program, *words], env={"PATH": ":".join(map(str, path))}, input=text, stdout=subprocess.PIPE, timeout=60, **how)


def test_makes_both_pipes_larger_and_hands_its_words_over(program, folder):
    done = run(program, "-d", "two words", path=["/usr/bin", program.parent, folder, "/bin"])
    assert (done.returncode, done.stdout.decode()) == (0, f"1048576 1048576 -d two words {folder}:/bin\n")


def test_does_not_become_itself_where_its_folder_is_named_twice(program, folder):
    done = run(program, path=[program.parent, program.parent, folder])
    assert (done.returncode, done.stdout.decode()) == (0, f"1048576 1048576 {folder}\n")


def test_passes_by_a_link_that_leads_nowhere(program, folder, tmp_path_factory):
    dangling = tmp_path_factory.mktemp("tools")
    (dangling / "gzip").symlink_to("/nonexistent/igzip")
    done = run(program, path=[program.parent, dangling, folder])
    assert (done.returncode, done.stdout.decode()) == (0, f"1048576 1048576 {dangling}:{folder}\n")


@pytest.mark.parametrize("behind", [[], ["/nonexistent"]], ids=["nothing behind it", "no gzip behind it"])
def test_becomes_the_systems_gzip_where_there_is_no_other(program, behind):
    packed = run(program, "-c", path=["/bin", program.parent, *behind], text=b"text")
    assert (packed.returncode, gzip.decompress(packed.stdout)) == (0, b"text")


def test_takes_files_in_place_of_pipes(program, folder, tmp_path):
    (tmp_path / "in").write_bytes(gzip.compress(b"text"))
    with (tmp_path / "in").open("rb") as file, (tmp_path / "out").open("wb") as out:
        subprocess.run([program, "-d"], env={"PATH": os.defpath}, stdin=file, stdout=out, check=True, timeout=60)
    assert (tmp_path / "out").read_bytes() == b"text"


# What a gzip does that does not look at what became of its output, as Debian's igzip with its last 4 KiB.
CARELESS = """#!/usr/bin/python3
import os, sys
data = sys.stdin.buffer.read()
try:
    os.write(1, data)
except OSError:
    pass
"""


def follow_with(folder, text):
    (folder / "gzip").write_text(text)
    return [folder]


@pytest.mark.parametrize("size", [1, 4000, 100_000])
def test_says_that_the_disk_is_full_where_the_next_one_does_not(program, folder, size):
    with open("/dev/full", "wb") as full:
        done = subprocess.run([program], env={"PATH": f"{program.parent}:{follow_with(folder, CARELESS)[0]}"}, input=b"x" * size,
                              stdout=full, stderr=subprocess.PIPE, timeout=60)
    assert (done.returncode, done.stderr) == (1, b"gzip: stdout: No space left on device\n")


def test_what_is_written_into_a_file_is_all_there(program, folder, tmp_path):
    data = os.urandom(5_000_000)
    with (tmp_path / "out").open("wb") as out:
        subprocess.run([program, "-c"], env={"PATH": f"{program.parent}:{follow_with(folder, CARELESS)[0]}:/bin"}, input=data, stdout=out,
                       check=True, timeout=60)
    assert (tmp_path / "out").read_bytes() == data


@pytest.mark.parametrize("end, code", [("exit 3", 3), ("kill -TERM $$", 128 + signal.SIGTERM)])
def test_ends_as_the_next_one_does(program, folder, tmp_path, end, code):
    with (tmp_path / "out").open("wb") as out:
        done = subprocess.run([program], env={"PATH": f"{program.parent}:{follow_with(folder, f'#!/bin/sh{chr(10)}{end}{chr(10)}')[0]}:/bin"},
                              input=b"", stdout=out, timeout=60)
    assert done.returncode == code


def test_an_archive_on_a_full_disk_fails_with_the_compressor_of_the_system(program, tmp_path):
    """However small: tar tells of it."""
    (tmp_path / "small").write_text("text")
    done = subprocess.run(["tar", "-czf", "/dev/full", "-C", tmp_path, "small"], env={"PATH": f"{program.parent}:/usr/bin:/bin"},
                          capture_output=True, text=True, timeout=60)
    assert done.returncode == 2
    assert "No space left on device" in done.stderr
