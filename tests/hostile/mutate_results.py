"""What became of mutants, kept from one run to the next: one line of JSON for each that was tried, with the commit and its line's hash.

A mutant is known again as long as its line has not changed, wherever that has moved to. As a program it prints what is known of the
sources as they are now: mutate_results.py [FOLDER].
"""

import hashlib
import json
import os
import subprocess
import sys
from collections import Counter
from pathlib import Path

from mutants import TREE, excuses, mutants

KEPT = Path(os.environ.get("CORV_CACHE", "/var/cache/corv-agent-dev")) / "mutate" / "results.jsonl"
KILLED = ("unit", "protocol", "too long")
FIRST = 6  # tests that killed mutants of a source before, to begin with


def keyed(everything):
    """Each mutant with its key, which tells it from those like it on lines of the same text."""
    seen = Counter()
    for source, number, line, other in everything:
        text = hashlib.sha256(line.strip().encode()).hexdigest()[:16]
        key = (source, text, other.strip())
        seen[key] += 1
        yield (*key, seen[key]), (source, number, line, other)


class Results:
    """What is known, and what comes to be known."""

    def __init__(self, path=KEPT):
        self._path = path
        self._commit = subprocess.run(["git", "rev-parse", "--short", "HEAD"], cwd=TREE, capture_output=True, text=True,
                                      check=True).stdout.strip()
        lines = path.read_text().splitlines() if path.exists() else []
        self._known = {}
        for entry in map(json.loads, lines):
            self._known[tuple(entry["key"])] = entry

    def by(self, key):
        """What killed the mutant, empty where it survived; nothing where it has not been tried."""
        entry = self._known.get(key)
        return entry["by"] if entry else None

    def keep(self, key, by, test, seconds):
        """Notes what became of one, and the test that failed first."""
        entry = {"key": list(key), "by": by, "test": test, "seconds": round(seconds, 1), "commit": self._commit}
        self._known[key] = entry
        self._path.parent.mkdir(parents=True, exist_ok=True)
        with self._path.open("a") as file:
            file.write(json.dumps(entry) + "\n")

    def killers(self, source):
        """The tests that killed most mutants of the source so far."""
        tests = Counter(entry["test"] for key, entry in self._known.items() if key[0] == source and entry.get("test"))
        return [test for test, _ in tests.most_common(FIRST)]


def main():
    folder = sys.argv[1] if len(sys.argv) > 1 else ""
    results, excused = Results(), excuses()
    of = {}
    for key, (source, number, line, other) in keyed(mutants()):
        if not source.startswith(folder):
            continue
        by = results.by(key)
        mutant = (source, line.strip(), other.strip())
        kind = "not tried" if by is None else "killed" if by in KILLED else by or ("invisible" if mutant in excused else "survived")
        of.setdefault(str(Path(source).parent), Counter())[kind] += 1
        if kind == "survived":
            print(f"survived: {source}:{number + 1}\t{line.strip()}\t{other.strip()}")
    print("| folder | mutants | tried | killed | survived | invisible | did not compile |\n| --- | --- | --- | --- | --- | --- | --- |")
    for name, kinds in sorted(of.items()):
        total = sum(kinds.values())
        print(f"| `src/{name}` | {total} | {total - kinds['not tried']} | {kinds['killed']} | {kinds['survived']} | {kinds['invisible']} |"
              f" {kinds['build']} |")


if __name__ == "__main__":
    main()
