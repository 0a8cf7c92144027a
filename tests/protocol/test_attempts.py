"""The table of attempts in docs/security.md: every promise has one, and every test that it names is there."""

import ast
import re
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
TEXT = (ROOT / "docs/security.md").read_text()
# Whose bold words are promises; those elsewhere are limits.
PROMISING = ("Boundaries", "HTTPS")


def plain(text):
    """A promise without its mark, in one line and without the end of a sentence."""
    text = " ".join(text.split()).removesuffix(" *").rstrip(".:,")
    return text[:1].lower() + text[1:] if text[1:2].islower() or text[1:2] == " " else text


def section(title):
    return re.search(rf"^## {title}\n(.*?)(?=^## |\Z)", TEXT, re.MULTILINE | re.DOTALL)[1]


def rows():
    """(promise, who tries, the tests, how it ends) of each line."""
    lines = [line for line in section("Attempts").splitlines() if line.startswith("| ")][2:]
    return [(cells[0], cells[1], re.findall(r"`([^`]+)`", cells[2]), cells[3])
            for cells in ([cell.strip() for cell in line.strip("|").split("|")] for line in lines)]


def promises():
    """Each text in bold of the sections that promise; of one that goes on behind a word, all of its parts are one promise."""
    found = []
    for title in PROMISING:
        found += [plain(text) for text in re.findall(r"\*\*(.+?)\*\*", section(title), re.DOTALL)]
    return found


def names_in(path):
    """The names of the tests in a file."""
    text = path.read_text()
    if path.suffix == ".py":
        return {node.name for node in ast.parse(text).body if isinstance(node, ast.FunctionDef) and node.name.startswith("test_")}
    if path.suffix == ".ts":
        return set(re.findall(r'^\s*test\("((?:[^"\\]|\\.)*)"', text, re.MULTILINE))
    return set(re.findall(r"^ +void (?:\w+::)?(\w+)\(\)", text, re.MULTILINE))


ROWS = rows()


@pytest.mark.parametrize("named", sorted({test for _, _, tests, _ in ROWS for test in tests}))
def test_each_attempt_that_is_named_is_there(named):
    if named.startswith("fuzz/"):
        name = named.removeprefix("fuzz/")
        assert f"fuzz_{name}" in (ROOT / "tests/hostile/fuzz/CMakeLists.txt").read_text() or list(
            (ROOT / "tests/hostile/fuzz").glob(f"*{name}*.cpp"))
        return
    path, _, test = named.partition("::")
    assert test in names_in(ROOT / "tests" / path)


@pytest.mark.parametrize("promise", promises())
def test_each_promise_has_an_attempt(promise):
    assert [tests for text, _, tests, _ in ROWS if promise in plain(text)] != []


@pytest.mark.parametrize("row", ROWS, ids=lambda row: row[0][:60])
def test_each_line_says_who_tries_what_and_how_it_ends(row):
    promise, who, tests, end = row
    assert promise and who and tests and end


def test_each_attempt_on_a_booted_host_stands_for_a_promise():
    named = {test for _, _, tests, _ in ROWS for test in tests}
    there = {f"attack/{path.name}::{test}" for path in (ROOT / "tests/attack").glob("test_*.py") for test in names_in(path)}
    assert there - named == set()
