#!/usr/bin/python3
"""Has everything go wrong on a booted server at the same time, and looks whether the promises hold.

Usage: tests/hostile/chaos.py [--minutes M] [--seed S] [--https] [--package FILE] [--log FILE]

In each round three clients send random requests while services, disk, clock, agent, Apache's configuration and tenants make trouble.
Then the trouble is undone, and what has to hold is looked at. All that is random comes from the seed. The log tells each step; where
something does not hold the run ends, its last five lines say what and how to see it again, and the exit code is 1. As root.
"""

import argparse
import contextlib
import itertools
import json
import random
import select
import sys
import threading
import time
from pathlib import Path

sys.path[:0] = [str(Path(__file__).resolve().parents[1] / room) for room in ("host", "protocol")]

import certified  # noqa: E402
import chaos_commands  # noqa: E402
import chaos_invariants as invariants  # noqa: E402
import chaos_trouble  # noqa: E402
from chaos_commands import NAMES, TRANSFER, WITNESS  # noqa: E402
from chaos_invariants import Broken  # noqa: E402
from described import wrong_reply  # noqa: E402
from hostfloor import CACHE, Host, HostError, packages_of  # noqa: E402

CLIENTS = ("over one connection", "over a connection each", "by corvctl")
PATIENCE = 400  # seconds for a reply, behind all others
ROUNDS_TO_A_BACKUP = 4


class Log:
    """Lines with the seconds since the start, to a file and to standard output."""

    def __init__(self, path):
        path.parent.mkdir(parents=True, exist_ok=True)
        self.path = path
        self._file = path.open("w", buffering=1)
        self._lock = threading.Lock()
        self._began = time.monotonic()
        self.lines = []

    def __call__(self, text):
        line = f"{time.monotonic() - self._began:7.1f} {text}"
        with self._lock:
            self.lines.append(line)
            self._file.write(line + "\n")
            print(line, flush=True)


class Chaos:
    """One server, and the run of one seed on it."""

    def __init__(self, host, seed, log):
        self.host = host
        self.seed = seed
        self.log = log
        self.secrets = set()
        self.problems = []
        self.requests = self.troubles = 0
        self._lasting = contextlib.ExitStack()
        self._connection = None
        self._is_over = threading.Event()
        self.php = host.ok(["ls", "/etc/php"]).split()[-1]
        self.postgres = host.ok(["ls", "/etc/postgresql"]).split()[-1]

    def prepare(self, *, https):
        """What is there before: the tools that the commands would install, and an account that nobody touches."""
        host = self.host
        if https:
            certified.prepare(host)
            certified.lead(host, *(f"{name}.example" for name in (WITNESS, *NAMES)))
        host.ok(["apt-get", "-q", "install", "--yes", "faketime", "unattended-upgrades"], env={"DEBIAN_FRONTEND": "noninteractive"},
                timeout=300)
        for command in ("firewall.enable", "fail2ban.enable"):
            reply = host.request(command)
            if reply.get("ok") is not True:
                raise HostError(f"{command}: {reply}")
        for name in (WITNESS, *NAMES[::2]):
            reply = host.request("hosting.create", username=name, domain=f"{name}.example", sshKey=host.key.public)
            self.secrets.add(reply["dbPassword"])
        host.ok(["sh", "-ec", f"mkdir {chaos_trouble.VICTIM}; echo theirs >{chaos_trouble.VICTIM}/file; "
                 f"mkdir -m 777 {chaos_trouble.VICTIM}/open; corvctl database harden --write"])
        host.wait_until_served(WITNESS, f"{WITNESS}.example")
        invariants.backup_restorable(host, self.log)
        invariants.visits(host, self.php, self.log)
        if https:
            host.wait_for(lambda: WITNESS in invariants.served(host), "the first certificate", timeout=100)
        self.before = invariants.files(host)
        self.before_others = invariants.others(host)

    def token_of(self, rng):
        """A new content that no log may hold."""
        text = chaos_commands.token(rng)
        self.secrets.add(text)
        return text

    def round(self, number):
        """Requests and trouble at once, then what has to hold."""
        rng = random.Random(f"{self.seed}/{number}")
        troubles = [(rng.uniform(0, 3), chaos_trouble.draw(rng, self.php, self.postgres)) for _ in range(rng.randint(1, 3))]
        may_end = any(trouble.ends_agent for _, trouble in troubles)
        self.log(f"round {number}: {'; '.join(trouble.name for _, trouble in troubles)}")
        self._is_over.clear()
        clients = [threading.Thread(target=self._client, args=(number, kind, may_end), daemon=True) for kind in range(len(CLIENTS))]
        for client in clients:
            client.start()
        self._make_trouble(troubles, rng.uniform(1, 4))
        self._is_over.set()
        for client in clients:
            client.join(PATIENCE * 2)
            if client.is_alive():
                raise Broken("a client still waits for its reply")
        self._settle()
        if self.problems:
            raise Broken(self.problems[0])
        self._look(number)

    def _client(self, number, kind, may_end):
        rng = random.Random(f"{self.seed}/{number}/{kind}")
        # Which ones, the seed says; how many of them, how long the trouble lasts.
        for step in itertools.count():
            if self._is_over.wait(rng.uniform(0, 0.5)):
                return
            request = chaos_commands.draw(rng, self.host.key.public, self.token_of)
            began = time.monotonic()
            try:
                reply = self._send(request, kind)
            except Exception as error:  # whatever it is belongs into the log, and to the round
                reply = None
                said = f"no reply: {error}".splitlines()[0][:200]
                if not may_end:
                    self.problems.append(f"client {kind}, {request.told()}: {said}")
            self.requests += 1
            if reply is not None:
                said = json.dumps({key: "..." if key == "dbPassword" else value for key, value in reply.items()})[:240]
                for problem in wrong_reply(request.command, request.args, reply):
                    self.problems.append(f"client {kind}, {request.told()}: {problem}")
                if reply.get("dbPassword"):
                    self.secrets.add(reply["dbPassword"])
            self.log(f"round {number} client {kind}.{step}: {request.told()} -> {said} ({time.monotonic() - began:.1f} s)")

    def _send(self, request, kind):
        host = self.host
        args = dict(request.args)
        if request.newest is not None:
            backups = host.request("backup.status", PATIENCE).get("backups", [])
            names = [backup["name"] for backup in backups]
            args["backup"] = names[request.newest % len(names)] if names else "2000-01-01_000000"
        if request.upload and isinstance(args.get("transfer"), str):
            path = f"{TRANSFER}/{request.args['transfer']}"
            host.run(["sh", "-c", 'umask 077; cat >"$1" && chown corv-web: "$1"', "sh", path], input=request.upload)
        if kind == 2:
            done = host.run(["corvctl", "--json", "--timeout", str(PATIENCE), "call", request.command, "-"], input=json.dumps(args), timeout=PATIENCE + 60)
            if not done.out:
                raise HostError(done.err)
            return json.loads(done.out)
        if kind == 1:
            return host.request(request.command, PATIENCE, **args)
        return self._send_on(request.command, args)

    def _send_on(self, command, args):
        """Over the one connection, which lasts until something ends it."""
        try:
            if self._connection and select.select([self._connection], [], [], 0)[0]:
                # What was mended at the end of the round before has ended the agent that it led to.
                self._lasting.close()
                self._connection = None
            if self._connection is None:
                self._connection = self._lasting.enter_context(self.host.connection(PATIENCE))
            self.host.send(self._connection, command, **args)
            return self.host.receive(self._connection)
        except (OSError, HostError):
            self._lasting.close()
            self._connection = None
            raise

    def _make_trouble(self, troubles, hold):
        done = []
        for wait, trouble in troubles:
            time.sleep(wait)
            ended = self.host.run(["sh", "-c", trouble.do], timeout=PATIENCE)
            self.troubles += 1
            done.append(trouble)
            self.log(f"trouble: {trouble.name}" + (f" ({ended.code}: {ended.err.strip()[-200:]})" if ended.code else ""))
        time.sleep(hold)
        # Room first, for without it nothing else can be undone; then the newest first.
        for trouble in sorted(reversed(done), key=lambda one: one.name != "the disk is full"):
            if trouble.undo:
                self.host.run(["sh", "-c", trouble.undo], timeout=PATIENCE)
                self.log(f"undone: {trouble.name}")

    def _settle(self):
        """Waits until everything runs and nothing is under way."""
        host = self.host
        units = " ".join(["corv-agent", *chaos_trouble.units(self.php, self.postgres)])
        host.run(["sh", "-c", f"systemctl reset-failed; systemctl start {units}"])
        for unit in units.split():
            host.wait_for_unit(unit)
        busy = "systemctl is-active -q corv-update || systemctl list-units --no-legend --state=activating 'corv-*' | grep -q ."
        host.wait_for(lambda: host.run(["sh", "-c", busy]).code == 1, "the end of what runs in units", timeout=300)
        if host.request("ping").get("ok") is not True:
            raise Broken("the agent does not answer")

    def _look(self, number):
        there = invariants.mend(self.host, self.php, self.log)
        invariants.visits(self.host, self.php, self.log)
        invariants.unchanged(self.host, self.before, self.before_others)
        invariants.nothing_told(self.host, self.secrets)
        invariants.nothing_left(self.host)
        if number % ROUNDS_TO_A_BACKUP == 0:
            invariants.backup_restorable(self.host, self.log)
        states = [one["state"] for one in there.values()]
        self.log(f"round {number} held: {states.count('on')} accounts on, {states.count('off')} off, {states.count('gone')} gone")

    def finish(self):
        """After the last round: a backup, and nothing at all that the doctor calls a fault."""
        self.host.ok(["rm", "-f", "/srv/filler-stays"])
        self.host.request("updates.automatic", on=False)  # the timer that would start them is off on these servers
        invariants.backup_restorable(self.host, self.log)
        faults = [finding for finding in invariants.examine(self.host) if finding[0] == "fault"]
        if faults:
            raise Broken(f"the doctor finds faults on a server that should be well: {faults}")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--minutes", type=float, default=5)
    parser.add_argument("--seed", default="1")
    parser.add_argument("--package", required=True)
    parser.add_argument("--suite", default="bookworm")
    parser.add_argument("--https", action="store_true", help="with certificates of an authority on the server")
    parser.add_argument("--log", type=Path)
    options = parser.parse_args()
    log = Log(options.log or CACHE / "chaos" / f"{options.seed}.log")
    ends = time.monotonic() + options.minutes * 60
    host = Host(f"chaos-{options.seed}", options.suite, packages_of(options.package, https=options.https))
    number = 0
    chaos = None
    try:
        chaos = Chaos(host, options.seed, log)
        chaos.prepare(https=options.https)
        log("the server is ready")
        # However slow the machine is, one round says more than none.
        while number == 0 or time.monotonic() < ends:
            number += 1
            chaos.round(number)
        chaos.finish()
    except (Broken, HostError) as error:
        told = log.lines[-1:]
        began = next((line for line in reversed(log.lines) if f" round {number}:" in line), "nothing had begun")
        log(f"FAILED: seed {options.seed}, round {number}: {type(error).__name__}")
        log(f"meanwhile: {began}")
        log("the last step: " + (told[-1] if told else "none"))
        log(f"again: scripts/chaos --seed {options.seed} --minutes {options.minutes:g}{' --https' if options.https else ''}; the log is {log.path}")
        log("cause: " + " ".join(str(error).split())[:1500])
        return 1
    finally:
        host.stop()
    log(f"seed {options.seed}: {number} rounds, {chaos.requests} requests, {chaos.troubles} disturbances; everything held")
    return 0


if __name__ == "__main__":
    sys.exit(main())
