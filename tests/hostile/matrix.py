"""The fault matrix: what a recorded run of a scenario calls, what can become of each call, and what must hold after it."""

import json
import os
import re
from dataclasses import dataclass

from fixtures import used
from ground import short_agent_executable
from programs import wait_until
from sandbox import Sandbox
from scenarios import BY_NAME
from server import DATABASES, GONE, NAME, account, remove_by_hand

NO_TEXT = b"\xff\xfe\xf0\x28\x8c\x28 [ 1] \xc3\x28\n\x80"
MEBIBYTE = 1 << 20

# What becomes of one call. Those with rest=True do what they are there for.
FATES = {
    "exits 1 without a word": {"exit": 1},
    "exits 1 with a message": {"exit": 1, "err": "it went wrong\n"},
    "exits 127": {"exit": 127},
    "is killed": {"signal": 9},
    "ends without reading its input": {"unread": True, "exit": 1},
    "prints 1 MiB of noise and fails": {"noise": MEBIBYTE, "exit": 1},
    "prints 1 MiB of noise and succeeds": {"noise": MEBIBYTE, "rest": True},
    "prints what is no UTF-8 and fails": {"out": NO_TEXT, "err": NO_TEXT, "exit": 1},
    "prints what is no UTF-8 and succeeds": {"rest": True, "out": NO_TEXT, "err": NO_TEXT},
    "does its work and fails": {"rest": True, "err": "it went wrong\n", "exit": 1},
    "does its work and is killed": {"rest": True, "signal": 9},
    "is missing": None,
    "is no program": None,
    "never ends": {"hang": True},
}
LASTING = ("is missing", "is no program")

# The parts of an account that a program makes or takes away; the others have nothing to do with it.
PARTS = {
    "useradd": ("user", "group", "login", "home"),
    "userdel": ("user", "group", "login", "home"),
    "usermod": ("login",),
    "psql": ("role", "database"),
    "a2ensite": ("enabled",),
    "a2dissite": ("enabled",),
}
SCRATCH = f"{DATABASES}/db.{NAME}__restore"
SETTINGS = (
    "/etc/fstab",
    "/etc/fail2ban/filter.d/corv-web.conf",
    "/etc/fail2ban/jail.d/corvane.local",
    "/etc/apt/apt.conf.d/20auto-upgrades",
)


@dataclass
class Target:
    """One call of a recorded run: the number-th of its program."""

    argv: list
    number: int
    before: object = None  # the call of the agent that ended before it, None for the first

    @property
    def name(self):
        return self.argv[0]

    @property
    def parts(self):
        """What of the account it is about."""
        tool = self.argv[4] if self.name == "runuser" and self.argv[1] == "-u" else self.name
        return PARTS.get(tool, ())

    @property
    def unchecked(self):
        """What of it does not matter: the request succeeds all the same."""
        return self.parts if self.name == "a2dissite" else ()

    def __str__(self):
        return f"call {self.number} of {' '.join(self.argv)[:80]}"


@dataclass
class Recording:
    """What a scenario's undisturbed run did."""

    targets: list  # all calls, in order
    outer: list  # those that the agent made itself
    paths: set  # every path before and after
    settings: list  # what the settings files may hold after it


def paths(sandbox):
    """Every path that the server writes to; times and random names in them replaced."""
    found = set()
    for top in ("etc", "home", "root", "run", "tmp", "var"):
        for folder, folders, files in os.walk(sandbox.root / top):
            inside = os.path.relpath(folder, sandbox.root)
            for name in folders + files:
                path = f"/{inside}/{name}"
                path = re.sub(r"\d{8}-\d{6}", "TIME", path)
                found.add(re.sub(r"(?<=/transfer/)[\w-]{32}$", "DOWNLOAD", path))
    return found


def settings(sandbox):
    return {path: sandbox.read(path) if sandbox.exists(path) else None for path in SETTINGS}


_recordings = {}


def record(ground, scenario):
    """Runs a scenario undisturbed, once in this process, and tells what it did."""
    if scenario.name not in _recordings:
        with used(ground) as box:
            scenario.lay(box)
            assert account(box) == scenario.before
            before = paths(box)
            reply = box.request(scenario.command, scenario.args)
            assert reply["ok"] is scenario.ok, reply
            assert account(box) == scenario.after
            mine = _recording(box, before | paths(box), [settings(box)])
        _recordings[scenario.name] = mine
        if scenario.instead:
            other = record(ground, BY_NAME[scenario.instead])
            mine.paths |= other.paths
            mine.settings += other.settings
        # What there may be of the account itself is told by account().
        mine.paths |= record(ground, BY_NAME["hosting.create"]).paths
    return _recordings[scenario.name]


def _recording(box, allowed, texts):
    outer = box.folded_calls()
    targets, numbers, last, mine = [], {}, None, []
    for call in box.calls():
        numbers[call.name] = numbers.get(call.name, 0) + 1
        target = Target(call.argv, numbers[call.name], last)
        targets.append(target)
        if any(call.id == one.id for one in outer):
            last = target
            mine.append(target)
    return Recording(targets, mine, allowed, texts)


def plant(box, target, fate):
    """Lets the target's call meet its fate."""
    program = box.path(f"/standins/bin/{target.name}")
    if FATES[fate] is not None:
        box.answer(target.name, call=target.number, **FATES[fate])
    elif fate == "is no program":
        program.unlink()
        program.write_bytes(b"\x7fELF, but not really\n")
        program.chmod(0o755)
    elif target.before is None:
        program.unlink()
    else:
        box.answer(
            target.before.name, call=target.before.number, rest=True, remove=f"/standins/bin/{target.name}"
        )


def _mend(box, target):
    program = box.path(f"/standins/bin/{target.name}")
    program.unlink(missing_ok=True)
    box.add_standin(target.name)


def wrong_line(line):
    """What is wrong with a reply's line."""
    if not line.endswith(b"\n"):
        return ["no reply"]
    try:
        reply = json.loads(line)
    except ValueError:
        return ["the reply is no JSON"]
    if not isinstance(reply, dict) or not isinstance(reply.get("ok"), bool):
        return ["the reply has no ok"]
    if not reply["ok"] and not (isinstance(reply.get("error"), str) and reply["error"].strip()):
        return ["the failure has no sentence"]
    return []


def _wanted(scenario, reply, before):
    """The account that a reply speaks of."""
    if reply["ok"]:
        return scenario.after
    if scenario.command in ("hosting.suspend", "hosting.resume") and reply["error"] != "cannot write the Apache site":
        return scenario.after  # every step is tried
    if scenario.command == "hosting.delete" and not reply["error"].startswith("could not "):
        return scenario.after  # the copies are made: nothing stops the rest
    return before


def wrong_account(scenario, target, reply, found):
    """What is neither as the reply says nor left to what went wrong at the target."""
    wanted = _wanted(scenario, reply, scenario.before)
    if reply["ok"]:
        may_differ = target.unchecked
    elif scenario.before == scenario.after and scenario.ok:
        may_differ = ()
    else:
        may_differ = target.parts
    return [
        f"the account's {part} is {found[part]!r} and not {wanted[part]!r}"
        for part in wanted
        if found[part] != wanted[part] and part not in may_differ
    ]


def wrong_settings(scenario, recording, before, reply, found):
    wrong = []
    for path, text in found.items():
        if text not in (before[path], *(texts[path] for texts in recording.settings)):
            wrong.append(f"{path} is neither the old nor the new one")
    # Where a step fails by itself, the fault may be the second: that of putting the file back.
    is_first = scenario.ok and not reply["ok"]
    if scenario.command == "quota.enable" and is_first and found["/etc/fstab"] != before["/etc/fstab"]:
        wrong.append("/etc/fstab was not put back")
    return wrong


def leftovers(box, scenario, recording, target):
    """Paths that no undisturbed run would leave."""
    # What could not be taken away by psql is taken away at the next restore, before anything else.
    is_psql = "database" in target.parts or isinstance(target, Target) and target.name == "runuser"
    scratch = {SCRATCH} if scenario.command == "backup.restore" and is_psql else set()
    # The ids of a user who is gone are kept for good.
    kept = {path for path in paths(box) if path == "/etc/userdb" or path.startswith("/etc/userdb/")}
    return [f"{path} was left" for path in sorted(paths(box) - recording.paths - scratch - kept)]


def wrong_agent(box, client, descriptors):
    """What of the request is left in the agent, and whether it goes on."""
    wrong = ["a child is left"] if box.agent.children() else []
    try:
        wait_until(lambda: not box.agent.others(), "the end of all programs", 10)
    except AssertionError:
        wrong.append(f"these still run: {box.agent.others()}")
    client.send(b'{"cmd":"ping"}\n')
    if box.took("ping", client.reply())["ok"] is not True:
        wrong.append("the next request fails")
    if box.agent.fds() != descriptors:
        wrong.append(f"the descriptors {descriptors} became {box.agent.fds()}")
    return wrong


def try_again(box, scenario):
    """What is wrong with the same request once the fault is gone."""
    if scenario.command in ("hosting.create", "hosting.delete") and account(box) != scenario.before:
        remove_by_hand(box)
        if account(box) != GONE:
            return [f"the account cannot be taken away by hand: {account(box)}"]
        if scenario.command == "hosting.delete":
            return []
    if scenario.again:
        scenario.again(box)
    reply = box.request(scenario.command, scenario.args)
    if not reply["ok"]:
        return [f"the request cannot be repeated: {reply['error']}"]
    found = account(box)
    return [] if found == scenario.after else [f"after the repetition the account is {found}"]


def faulty_run(ground, scenario, target, fate):
    """Runs a scenario in which one call meets a fate, and returns what did not hold as a list of sentences."""
    recording = record(ground, scenario)
    box = Sandbox(ground)
    try:
        if fate == "never ends":
            box.executable = short_agent_executable()
        scenario.lay(box)
        plant(box, target, fate)
        before = settings(box)
        wrong = []
        with box.connect() as client:
            client.send(b'{"cmd":"ping"}\n')
            box.took("ping", client.reply())
            descriptors = box.agent.fds()
            box.keep_secrets(scenario.args)
            client.send(json.dumps({"cmd": scenario.command, "args": scenario.args}).encode() + b"\n")
            line = client.line()
            wrong += wrong_line(line)
            if wrong:
                return wrong
            reply = box.took(scenario.command, json.loads(line))
            wrong += wrong_account(scenario, target, reply, account(box))
            wrong += wrong_settings(scenario, recording, before, reply, settings(box))
            wrong += leftovers(box, scenario, recording, target)
            wrong += wrong_agent(box, client, descriptors)
        if scenario.ok and not reply["ok"]:
            if fate in LASTING:
                _mend(box, target)
            wrong += try_again(box, scenario)
        return wrong + box.finish()
    finally:
        box.close()
