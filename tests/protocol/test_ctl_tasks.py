"""The list of everyday tasks in docs/tasks.md: each command that it names is one of the client, each test that it names is there."""

import re
import shlex
from pathlib import Path

import pytest
from corvctl import corvctl
from described import ROOT

ROW = re.compile(r"^\| (.+?) \| (`corvctl .+?`) \| `([\w/]+\.py)::(\w+)` \|$", re.MULTILINE)
TABLE = (ROOT / "docs/tasks.md").read_text()
TASKS = ROW.findall(TABLE)
PRINTED = (Path(__file__).parent / "corvctl.txt").read_text()
# Options that every command takes and that have a value.
VALUED = {"-H", "--confirm", "--timeout", "--socket", "-c", "--config", "--host"}


def commands(cell):
    """The words of each command in a cell, without the options that stand before the topic."""
    for line in re.findall(r"`corvctl (.+?)`", cell):
        words = shlex.split(line)
        while words[0].startswith("-"):
            words = words[2:] if words[0] in VALUED else words[1:]
        yield words


def below(sandbox, *words):
    """The commands that the help of these words lists, and all of its text."""
    code, out, _ = corvctl(sandbox, *words, "--help", start=False)
    assert code == 0, words
    _, _, listed = out.partition("Subcommands:\n")
    return re.findall(r"^  ([a-z-]+) ", listed, re.MULTILINE), out


@pytest.mark.parametrize("cell", [row[1] for row in TASKS])
def test_each_command_is_one_of_the_client(sandbox, cell):
    topics, _ = below(sandbox)
    for words in commands(cell):
        assert words[0] in topics
        path = words[:1]
        inner, text = below(sandbox, *path)
        if inner:
            assert words[1] in inner
            path = words[:2]
            _, text = below(sandbox, *path)
        for option in (word for word in words if word.startswith("-")):
            assert re.search(rf"(^|[\s,]){option}\b", text), option


@pytest.mark.parametrize("file, test", [row[2:] for row in TASKS])
def test_each_test_is_there(file, test):
    assert re.search(rf"^def {test}\(", (ROOT / "tests" / file).read_text(), re.MULTILINE)


@pytest.mark.parametrize("cell", [row[1] for row in TASKS if row[3] == "test_prints"])
def test_what_is_tested_by_its_output_has_some(cell):
    for words in commands(cell):
        path = " ".join(words[:2])
        assert re.search(rf"^\$ corvctl (-\S+ )*{path}\b", PRINTED, re.MULTILINE), path


def test_every_row_is_read_and_stands_once():
    rows = [line for line in TABLE.splitlines() if line.startswith("| ") and not line.startswith(("| task |", "| --- |"))]
    assert len(rows) == len(TASKS) >= 65
    assert len({row[0] for row in TASKS}) == len(TASKS)


def test_no_command_of_the_client_is_no_task(sandbox):
    """But for what other programs run."""
    named = {" ".join(words[: 1 + bool(below(sandbox, words[0])[0])]) for row in TASKS for words in commands(row[1])}
    found = set()
    for topic in below(sandbox)[0]:
        found |= {f"{topic} {command}" for command in below(sandbox, topic)[0]} or {topic}
    assert found - named == {"notify send", "proxy"}
