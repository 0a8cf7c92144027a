"""The figures of a run of this floor: how often each thing was made to go wrong, and how often all held.

Tests count() what they tried; table() makes of it the table that docs/reliability.md holds. As a program, it puts the
table there: figures.py FIGURES DOCUMENT.
"""

import json
import os
import sys
from collections import Counter
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
FIGURES = Path(os.environ.get("CORV_HOSTILE_FIGURES") or ROOT / "build/hostile/figures.jsonl")

BEGIN, END = "<!-- figures: written by scripts/reliability -->", "<!-- end of figures -->"


def count(when, then, cases, held):
    """Notes that so many cases of something that goes wrong were tried, and how many of them held what is promised."""
    _keep({"when": when, "then": then, "cases": cases, "held": held})


def note(text):
    """Notes a sentence with figures that the table ends with."""
    _keep({"note": text})


def _keep(entry):
    line = json.dumps(entry) + "\n"
    descriptor = os.open(FIGURES, os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o644)
    try:
        os.write(descriptor, line.encode())  # in one piece: several processes of a run write here
    finally:
        os.close(descriptor)


def table(text):
    """The table in Markdown, in alphabetical order."""
    cases, held, then, notes = Counter(), Counter(), {}, []
    for line in text.splitlines():
        entry = json.loads(line)
        if "note" in entry:
            notes.append(entry["note"])
            continue
        cases[entry["when"]] += entry["cases"]
        held[entry["when"]] += entry["held"]
        then[entry["when"]] = entry["then"]
    rows = ["| what happens when ... | then ... | tried | held |", "| --- | --- | --- | --- |"]
    rows += [f"| {when} | {then[when]} | {cases[when]} | {held[when]} |" for when in sorted(cases)]
    rows.append(f"| **all** | | **{sum(cases.values())}** | **{sum(held.values())}** |")
    return "\n".join(rows + [""] * bool(notes) + notes) + "\n"


def main(figures, document):
    document = Path(document)
    before, begin, rest = document.read_text().partition(BEGIN)
    _, end, after = rest.partition(END)
    assert begin and end, f"{document} has no place for the table"
    document.write_text(f"{before}{begin}\n\n{table(Path(figures).read_text())}\n{end}{after}")


if __name__ == "__main__":
    main(*sys.argv[1:])
