#!/usr/bin/python3
"""What became of mutants, kept from one run to the next, and known again as long as a mutant's line has not changed, wherever it is now.

Each that was tried adds a line of JSON to a file of the cache folder. `mutate_results.py --write` puts what is known of the sources as
they are now into mutants.tried beside this file, so that a machine whose cache is empty goes on from there. In it is a line for each
source and outcome: the source, the outcome (killed, survived, refused by the compiler), then for each commit at which that was found the
commit and, behind a colon, the mutants' hashes of six digits each. A survivor counts when all tests that come to it have been tried.
mutate_results.py [FOLDER] prints what is known, with the survivors, and excuses that excuse nothing.
"""

import hashlib
import json
import os
import subprocess
import sys
from collections import Counter
from pathlib import Path

from mutants import AGENT, DRAWN, TREE, drawn, excuses, keyed, mutants

KEPT = Path(os.environ.get("CORV_CACHE", "/var/cache/corv-agent-dev")) / "mutate" / "results.jsonl"
TRIED = Path(__file__).with_name("mutants.tried")
KILLED = ("unit", "protocol", "too long")
OUTCOMES = {"killed": "protocol", "survived": "", "refused": "build"}
DIGITS = 6


def short(key):
    """The key's hash, which tells it from the others of its source."""
    return hashlib.sha256(json.dumps(key[1:]).encode()).hexdigest()[:DIGITS]


def outcome(by):
    return "killed" if by in KILLED else "refused" if by == "build" else "survived"


def read_tried(path=TRIED):
    """(source, hash) -> {"by", "commit"} of all that the tree knows."""
    known = {}
    for line in path.read_text().splitlines() if path.exists() else []:
        if line.startswith("#"):
            continue
        source, kind, *parts = line.split()
        for part in parts:
            commit, _, hashes = part.partition(":")
            for at in range(0, len(hashes), DIGITS):
                known[source, hashes[at : at + DIGITS]] = {"by": OUTCOMES[kind], "commit": commit}
    return known


class Results:
    """What is known, and what comes to be known."""

    def __init__(self, path=KEPT):
        self._path = path
        # The one that last changed what is tried: it stays when commits of other things are put on others.
        self._commit = subprocess.run(["git", "log", "-1", "--format=%h", "--", "src"], cwd=TREE, capture_output=True,
                                      text=True, check=True).stdout.strip()
        lines = path.read_text().splitlines() if path.exists() else []
        self._tried = read_tried()
        self._known = {}
        for entry in map(json.loads, lines):
            self._known[tuple(entry["key"])] = entry
        self.kills = Counter(entry["test"] for entry in self._known.values() if "::" in entry.get("test", ""))

    def entry(self, key):
        """What is known of a mutant: the cache's newest word, else the tree's; nothing where it has not been tried."""
        return self._known.get(key) or self._tried.get((key[0], short(key)))

    def by(self, key):
        """What killed the mutant, empty where it survived; nothing where it has not been tried."""
        entry = self.entry(key)
        return entry["by"] if entry else None

    def is_open(self, key, budget):
        """Whether it has not been tried, or survived while tests were left that a larger budget allows."""
        entry = self.entry(key)
        return entry is None or (entry["by"] == "" and entry.get("left", 0) > 0 and entry["budget"] < budget)

    def decided(self, key):
        """What is known of a mutant, but for a survivor that has not been tried with all tests that come to it."""
        entry = self.entry(key)
        return None if entry and entry["by"] == "" and entry.get("left", 0) > 0 else entry

    def keep(self, key, at, by, test, seconds, budget, left):
        """Notes what became of one, which test failed first, and how many tests the budget left untried."""
        entry = {"key": list(key), "by": by, "test": test, "seconds": round(seconds, 1), "commit": self._commit, "line": at,
                 "budget": budget, "left": left}
        self._known[key] = entry
        if "::" in test:
            self.kills[test] += 1
        self._path.parent.mkdir(parents=True, exist_ok=True)
        with self._path.open("a") as file:
            file.write(json.dumps(entry) + "\n")

    def killers(self, source, at):
        """The protocol tests that killed mutants of the source, those of the nearest lines first, and those that killed most."""
        mine = [entry for key, entry in self._known.items() if key[0] == source and "::" in entry.get("test", "")]
        nearest = [entry["test"] for entry in sorted(mine, key=lambda entry: abs(entry.get("line", 0) - at))]
        most = [test for test, _ in Counter(nearest).most_common(2)]
        return [*dict.fromkeys(nearest)][:3] + most


def write(results, path=TRIED):
    """Puts all that is known of the sources as they are into the tree's list."""
    found, hashes = {}, set()
    for key, (source, *_) in [*keyed(mutants()), *drawn()]:
        entry = results.decided(key)
        if (source, short(key)) in hashes:
            sys.exit(f"two mutants of {source} have the hash {short(key)}: more digits are needed")
        hashes.add((source, short(key)))
        if entry:
            found.setdefault((source, outcome(entry["by"])), {}).setdefault(entry["commit"], []).append(short(key))
    lines = ["# Mutants that were tried: written and read by mutate_results.py."]
    for (source, kind), commits in sorted(found.items()):
        lines.append(" ".join([source, kind, *(f"{commit}:{''.join(sorted(some))}" for commit, some in sorted(commits.items()))]))
    path.write_text("\n".join(lines) + "\n")


def main():
    if sys.argv[1:] == ["--write"]:
        write(Results())
        return
    folder = sys.argv[1] if len(sys.argv) > 1 else ""
    results, excused = Results(), excuses()
    of, commits = {}, Counter()
    everything = [*keyed(mutants()), *drawn()]
    there = {(source, line.strip(), other.strip()) for _, (source, _, line, other) in everything}
    for source, line, other in excused:
        if (source, line, other) not in there:
            print(f"excused, and no mutant any more: {source}\t{line}\t{other}")
    for key, (source, number, line, other) in everything:
        if not source.startswith(folder):
            continue
        entry = results.decided(key)
        mutant = (source, line.strip(), other.strip())
        kind = outcome(entry["by"]) if entry else "not tried"
        if kind == "survived" and mutant in excused:
            excused.remove(mutant)
            kind = "invisible"
        if entry:
            commits[entry["commit"]] += 1
        room = source.split("/")[0]
        of.setdefault(str(Path(source).parent) if room in AGENT else f"drawn of {room}", Counter())[kind] += 1
        if kind == "survived":
            print(f"survived: {source}:{number + 1}\t{line.strip()}\t{other.strip()}")
    print("| folder | mutants | tried | killed | survived | invisible | did not compile |\n| --- | --- | --- | --- | --- | --- | --- |")
    shares = {f"drawn of {room}": f"`src/{room}`, drawn of {len(mutants((room,)))}" for room in DRAWN}
    whole = sorted((name, kinds) for name, kinds in of.items() if name not in shares)
    rows = [*whole, ("all", sum((kinds for _, kinds in whole), Counter())), *((name, of[name]) for name in shares if name in of)]
    for name, kinds in rows:
        total = sum(kinds.values())
        label = shares.get(name) or (f"`src/{name}`" if name != "all" else "all")
        print(f"| {label} | {total} | {total - kinds['not tried']} | {kinds['killed']} | {kinds['survived']} | {kinds['invisible']} |"
              f" {kinds['refused']} |")
    print("tried at: " + ", ".join(f"{commit} ({count})" for commit, count in sorted(commits.items())))


if __name__ == "__main__":
    main()
