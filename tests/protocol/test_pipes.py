"""The gzip that makes the pipes of tar larger: what it makes of them, and which gzip it becomes."""

import gzip
import os
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
