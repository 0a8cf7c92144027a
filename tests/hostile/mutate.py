#!/usr/bin/python3
"""Tests the tests: changes one thing at a time in the agent's sources and sees whether a test fails.

Usage: tests/hostile/mutate.py [--count N] [--seed N] [--only TEXT] [--folder FOLDER...] [--slice K/N] [--minutes M] [--again]
                               [--budget SECONDS] [--alone] [--workers N] [--jobs N] [--under COMMAND] [--learn TEXT...]
                               [--skip TEXT...] [--survivors] [--client] [--list]

A mutant is one changed operator, bound, truth value, text or left-out call in src/agent or src/common. One build in the cache folder
holds nearly all of them, each behind a switch (switches.py); what cannot be switched is built by itself. Each test is run once without a
mutant, which tells what it comes to (mutate_tests.py); N of the mutants (all of them with 0), drawn with a fixed seed, are then tried
with the tests that come to them, those first that killed mutants of the lines around, for so many SECONDS of tests each; the first
failure ends a mutant. What became of each is kept (mutate_results.py): a second run goes on with those that were not tried, unless
--again is given, or their lines have changed; with a larger budget also with those that survived a smaller one. --slice takes the Kth of
N parts, --folder those below src/FOLDER, of several the first before the others; after so many minutes no other is begun. --alone tries
what cannot be switched, and nothing else. --learn has the protocol tests that hold one of these texts run for what they come to, beside
those of the agent ("": all); --skip leaves some out. What survives without any test that comes to it counts as not tried unless all are
known. --survivors tries those that survived again. --client takes those that were drawn of src/ctl and src/https, in a build of their own,
with the client's tests.
What does not compile is not counted. Survivors stand in the report with what was changed; those that cannot be seen from outside are in
mutants.txt beside this file, with the reason. Prints the share that was killed. As root, with python3-clang-14.

The mutants run as root, and a mutant may well delete what it should not: unit tests run in a throw-away copy of the root,
protocol tests in the root of their sandbox.
"""

import argparse
import os
import queue
import random
import sys
import threading
import time
from collections import Counter

from mutants import TREE, drawn, excuses, keyed, mutants
from mutate_build import UNDER, Build, numbered, place
from mutate_results import Results
from mutate_tests import Reach, Server, Tester

# Tests of the client, and those that take long for what they look at, are learnt of where they are asked for only.
OTHERS = tuple(f"tests/protocol/test_{name}" for name in ("ctl_", "metrics_rules", "pipes", "description", "attempts", "budget",
                                                           "backup_status", "files_fence"))
# What the client's mutants are tried with.
CLIENTS = tuple(f"tests/protocol/test_{name}" for name in ("ctl_", "metrics_rules", "pipes"))
MOST = 10  # a mutant to which more than one in so many tests come is tried last
AGENTS = ("corv-agent", "corv-agent-short")
PROGRAMS = (*AGENTS, "corvctl", "corv-https", "corv-backup-generator", "corv-pipes")
UNITS = tuple(path.stem for path in sorted((TREE / "tests/unit").glob("test_*.cpp")))
AGENTS_UNITS = tuple(f"test_{name}" for name in (
    "account", "atomic_file", "backup", "budget", "files", "ids", "json", "postgres_protocol", "quotas", "readiness", "run", "run_too_long",
    "security", "system", "tree", "trust", "usage"))
KINDS = ("unit", "protocol", "too long", "build", "", "excused")


def options():
    parser = argparse.ArgumentParser()
    parser.add_argument("--count", type=int, default=300)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--only", default="", help="sources whose path holds this")
    parser.add_argument("--folder", nargs="*", default=[""], help="sources below these folders of src, in that order")
    parser.add_argument("--slice", default="1/1", help="K/N: the Kth of N parts")
    parser.add_argument("--minutes", type=float, default=0, help="begin with none after so long")
    parser.add_argument("--again", action="store_true", help="also those whose result is known")
    parser.add_argument("--budget", type=float, default=20, help="seconds of tests for one mutant")
    parser.add_argument("--learn", nargs="*", default=[], help="protocol tests to learn of beside the agent's")
    parser.add_argument("--skip", nargs="*", default=[], help="protocol tests not to learn of now")
    parser.add_argument("--survivors", action="store_true", help="those alone that survived before")
    parser.add_argument("--jobs", type=int, default=2, help="compilers at a time")
    parser.add_argument("--alone", action="store_true", help="those that are built by themselves, instead of the others")
    parser.add_argument("--workers", type=int, default=os.cpu_count(), help="mutants at a time")
    parser.add_argument("--under", default="", help="what to run every command by, such as 'nice -n 19'")
    parser.add_argument("--client", action="store_true", help="those drawn of the client and the program for certificates")
    parser.add_argument("--list", action="store_true", help="show what would be tried")
    return parser.parse_args()


def draw(given, results, listed):
    """The mutants to be tried, as (number, key, mutant), and how many there are in all of those that were asked for."""
    asked = [(number, *one) for number, one in enumerate(listed, 1)
             if one and given.only in one[0][0] and one[0][0].startswith(tuple(given.folder))]
    # In the order of the sources, whatever number each has.
    chosen = sorted(asked, key=lambda one: (one[2][:2], one[0]))
    if given.count:
        random.Random(given.seed).shuffle(chosen)
        chosen = chosen[: given.count]
    part, parts = map(int, given.slice.split("/"))
    chosen = chosen[part - 1 :: parts]
    if given.survivors:
        return [one for one in chosen if results.by(one[1]) == ""], len(asked)
    return [one for one in chosen if given.again or results.is_open(one[1], given.budget)], len(asked)


def programs(given):
    """What is built to try them: without the client and its tests where nothing asks for these."""
    return (*PROGRAMS, *UNITS) if given.client or "" in given.learn else (*AGENTS, *AGENTS_UNITS)


def concerns(test, given):
    """Whether a protocol test is one of the agent's, or the client's, or one that was asked for."""
    if given.client:
        return test.startswith(CLIENTS) and not any(text in test for text in given.skip)
    return (not test.startswith(OTHERS) or any(text in test for text in given.learn)) and not any(text in test for text in given.skip)


class Run:
    """One run over the mutants that were drawn."""

    def __init__(self, given, results, build):
        self.given, self.results, self.build = given, results, build
        self.excused = excuses()
        self.killed = dict.fromkeys(KINDS, 0)
        self.seconds = 0
        self._lock = threading.Lock()

    def _alone(self, number, tester, killers, kills):
        """Tries one that is in no program, in a build of its own: of the programs and those unit tests that come to its neighbour."""
        if not self.build.compiles(number):
            return "build"
        near = tester.reach.near(number)
        every = programs(self.given)
        units = {test for test in tester.reach.by_number.get(near, []) if test in UNITS}
        self.build.replace(number)
        try:
            if not self.build.make([name for name in every if name in PROGRAMS or name in units], jobs=self.given.jobs):
                return "build"
            tester.server.restart()
            return tester.test(number, killers, kills, self.given.budget, near)
        finally:
            self.build.replace(0)

    def one(self, index, number, key, mutant, tester):
        source, at, line, other = mutant
        began = time.monotonic()
        with self._lock:
            killers, kills = self.results.killers(source, at), Counter(self.results.kills)
        alone = number in self.build.alone
        by_tests = tester.reach.near(number) if alone else tester.reach.place(number)
        by = (self._alone(number, tester, killers, kills) if alone
              else tester.test(number, killers, kills, self.given.budget, by_tests))
        took = time.monotonic() - began
        text = (source, line.strip(), other.strip())
        with self._lock:
            self.seconds += took
            # Among tests that nothing is known of may be one that comes to it.
            unknown = by_tests not in tester.reach.by_number and self.given.learn != [""] and not self.given.client
            self.results.keep(key, at, by, tester.failed, took, self.given.budget, tester.left + unknown)
            if not by and text in self.excused:
                self.excused.remove(text)
                by = "excused"
            self.killed[by] += 1
            if by in ("", "excused") or index % 50 == 0:
                print(f"{index:4} {took:5.1f} s {by or 'SURVIVED':8} {source}:{at + 1}\t{line.strip()}\t{other.strip()}"
                      f"\t{tester.left} tests left", flush=True)

    def all(self, chosen, testers):
        """Tries them with all testers at a time, as long as there is time."""
        ends = time.monotonic() + self.given.minutes * 60 if self.given.minutes else None
        waiting = queue.SimpleQueue()
        for one in enumerate(chosen, 1):
            waiting.put(one)

        def work(tester):
            while ends is None or time.monotonic() < ends:
                try:
                    index, one = waiting.get_nowait()
                except queue.Empty:
                    return
                self.one(index, *one, tester)

        threads = [threading.Thread(target=work, args=(tester,)) for tester in testers]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()

    def told(self):
        tried = sum(self.killed.values()) - self.killed["build"] - self.killed["excused"]
        dead = self.killed["unit"] + self.killed["protocol"] + self.killed["too long"]
        return (f"{tried} tried: {self.killed['unit']} killed by unit tests, {self.killed['protocol']} by protocol tests, "
                f"{self.killed['too long']} by the clock, {self.killed['']} survived; {self.killed['build']} did not compile, "
                f"{self.killed['excused']} cannot be seen. {100 * dead / max(tried, 1):.1f} % killed, "
                f"{self.seconds / max(sum(self.killed.values()), 1):.1f} s for each")


def main():
    given = options()
    UNDER.extend(given.under.split())
    where = place(given.client)
    results, listed = Results(), numbered(drawn() if given.client else keyed(mutants()), where)
    chosen, number = draw(given, results, listed)
    print(f"{number} mutants, {len(chosen)} of them to be tried", flush=True)
    if given.list or not chosen:
        for _, _, (source, at, line, other) in chosen:
            print(f"{source}:{at + 1}: {line.strip()} -> {other.strip()}")
        return

    build = Build([one[1] if one else None for one in listed], where, given.client)
    if not build.make(programs(given), jobs=given.jobs):
        sys.exit(f"the tree cannot be built with its mutants, see {build.log}")
    chosen = [one for one in chosen if (one[0] in build.alone) == given.alone]
    # Only one build can be changed for one mutant.
    wanted = lambda path: concerns(path, given)  # noqa: E731
    servers = [Server(build, number, wanted) for number in range(1 if given.alone else given.workers)]
    try:
        reach = Reach(build)
        reach.learn_units()
        reach.learn(servers, wanted)
        run = Run(given, results, build)
        # What nearly all tests come to, such as what is made at each start, takes longest: it comes last, but for what survived some.
        rank = lambda source: next(at for at, folder in enumerate(given.folder) if source.startswith(folder))  # noqa: E731
        # Of survivors those come first that had all their tests: there are new ones since, or nothing sees them.
        chosen.sort(key=lambda one: (results.entry(one[1]) is not None, results.decided(one[1]) is None, rank(one[2][0]),
                                     len(reach.by_number.get(one[0], ())) > len(reach.tests) // MOST))
        testers = [Tester(build, server, reach, number) for number, server in enumerate(servers)]
        run.all(chosen, testers)
        print(run.told())
        for tester in testers:
            tester.close()
    finally:
        for server in servers:
            server.close()


if __name__ == "__main__":
    main()
