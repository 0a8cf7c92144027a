"""Holds what tests see of the protocol against its description, data/protocol.json, and the other way round.

Every connection of a test has an Exchange, which finds fault with replies that the description does not allow and notes
what of the description they bear out. After a whole run, unproven() tells what no reply has borne out.
"""

import json
import os
import re
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
DESCRIPTION = json.loads((ROOT / "data/protocol.json").read_text())
COMMANDS = {command["name"]: command for command in DESCRIPTION["commands"]}
LONGEST_LINE = next(limit["value"] for limit in DESCRIPTION["limits"] if limit["name"] == "a request's line")

# What tests of this floor cannot bring about, and why.
UNPROVEN = {
    "files: error no such user": "the account would have to be removed between two look-ups of it",
}

# Everything that the replies of this process's tests have borne out so far.
seen = set()

_SYSTEM = "|".join(re.escape(os.strerror(number)) for number in range(1, 134))
_FATES = ": cannot start|: took too long| failed: "


def _pattern(error):
    """The pattern that an error's text is for."""
    tool = f"(?:{'|'.join(map(re.escape, error.get('tools', [])))})(?:{_FATES}.*)"
    parts = {"tool": f"{tool}(?:; {tool})*" if error.get("joined") else tool, "system": f"(?:{_SYSTEM})"}
    text = re.split(r"\{(\w+)\}", error["text"])
    for i, part in enumerate(text):
        text[i] = parts.get(part, ".*") if i % 2 else re.escape(part)
    return re.compile("".join(text), re.DOTALL)


for _command in COMMANDS.values():
    for _error in _command["errors"]:
        _error["pattern"] = _pattern(_error)


def _concerns(part, operation):
    """Whether an argument, member or error belongs to an operation of the command that has several."""
    return operation in part.get("for", [operation])


def _tools_in(error, text):
    """The programs that a text names as failed."""
    before = re.sub(r"\\\{\w+\\\}", ".*?", re.escape(error["text"].split("{tool}")[0]))
    between = "|; " if error.get("joined") else ""
    return re.findall(rf"(?:^{before}{between})([\w.-]+)(?:{_FATES})", text, re.DOTALL)


def _wrong_value(name, part, value, where):
    """What is wrong with the value of a member; notes its parts."""
    kind = part["type"]
    fits = {
        "string": lambda: isinstance(value, str),
        "boolean": lambda: isinstance(value, bool),
        "integer": lambda: isinstance(value, int) and not isinstance(value, bool),
        "integer or null": lambda: value is None or isinstance(value, int) and not isinstance(value, bool),
        "array of strings": lambda: isinstance(value, list) and all(isinstance(one, str) for one in value),
        "array of objects": lambda: isinstance(value, list) and all(isinstance(one, dict) for one in value),
        "object of integers": lambda: isinstance(value, dict) and all(type(one) is int for one in value.values()),
    }
    if kind.startswith("reply of "):
        return wrong_reply(kind.removeprefix("reply of "), {}, value)
    if not fits[kind]():
        return [f"{name}: {where} is no {kind}: {value!r:.200}"]
    if kind != "array of objects":
        return []
    return [wrong for one in value for wrong in _wrong_members(name, part, one, where + "[].", None)]


def _wrong_members(name, part, values, where, operation):
    """What is wrong with an object, the members of which part describes; notes those that are there."""
    wrong = []
    members = {member["name"]: member for member in part["members"] if _concerns(member, operation)}
    for key, member in members.items():
        if key in values:
            seen.add(f"{name}: member {where}{key}")
            wrong += _wrong_value(name, member, values[key], where + key)
        elif "when" not in member:
            wrong.append(f"{name}: the member {where}{key} is missing")
    if not part.get("open"):
        wrong += [f"{name}: the member {where}{key} is not described" for key in values if key not in members]
    return wrong


def _wrong_failure(name, reply, operation):
    command = COMMANDS[name]
    allowed = {"ok", "error"} | {member["name"] for member in command["reply"] if member.get("failure")}
    if not isinstance(reply.get("error"), str) or set(reply) - allowed:
        return [f"{name}: no failure: {reply!r:.500}"]
    for error in command["errors"]:
        if not _concerns(error, operation) or not error["pattern"].fullmatch(reply["error"]):
            continue
        if "tools" not in error:
            seen.add(f"{name}: error {error['text']}")
            return []
        tools = _tools_in(error, reply["error"])
        if set(tools) <= set(error["tools"]):
            seen.update(f"{name}: error {error['text']} of {tool}" for tool in tools)
            return []
    return [f"{name}: the error {reply['error']!r:.500} is not described"]


def wrong_reply(name, arguments, reply):
    """What is wrong with a command's reply, as a list of sentences; notes what it bears out."""
    operation = arguments.get("op") if "files" == name else None
    if not isinstance(reply, dict) or not isinstance(reply.get("ok"), bool):
        return [f"{name}: no reply: {reply!r:.500}"]
    if not reply["ok"]:
        return _wrong_failure(name, reply, operation)
    seen.add(f"{name}: success")
    seen.update(f"{name}: argument {key}" for key in arguments)
    members = {key: value for key, value in reply.items() if key != "ok"}
    return _wrong_members(name, {"members": COMMANDS[name]["reply"]}, members, "", operation)


def everything():
    """What the description holds, in its order and in the words of seen."""
    found = []

    def members(name, part, where):
        for member in part:
            found.append(f"{name}: member {where}{member['name']}")
            members(name, member.get("members", []), f"{where}{member['name']}[].")

    for name, command in COMMANDS.items():
        found.append(f"{name}: success")
        found += [f"{name}: argument {argument['name']}" for argument in command["arguments"]]
        members(name, command["reply"], "")
        for error in command["errors"]:
            base = f"{name}: error {error['text']}"
            found += [f"{base} of {tool}" for tool in error["tools"]] if "tools" in error else [base]
    return found


def unproven(proven):
    """What a whole run that has borne out all of proven left open, or excuses in vain, as a list of sentences."""
    wrong = [f"described, but seen by no test: {part}" for part in everything() if part not in proven | set(UNPROVEN)]
    return wrong + [f"excused, but seen: {part}" for part in UNPROVEN if part in proven]


class Exchange:
    """Follows one connection: which reply answers which request. What is wrong goes to the list that it is given."""

    def __init__(self, problems):
        self._problems = problems
        self._unfinished = bytearray()
        self._requests = []

    def sent(self, data):
        self._unfinished += data
        if b"\n" not in data:
            return
        *lines, self._unfinished = self._unfinished.split(b"\n")
        for line in lines:
            line += b"\n"
            # The agent takes a line over the limit in pieces, each a request of its own.
            self._requests += [line[i : i + LONGEST_LINE] for i in range(0, len(line), LONGEST_LINE)]

    def received(self, data):
        for line in data.split(b"\n")[:-1]:
            request = self._requests.pop(0) if self._requests else b""
            reply = json.loads(line)
            if reply == {"ok": False, "error": "unknown command"}:
                continue
            try:
                request = json.loads(request)
            except (ValueError, RecursionError):
                continue  # what the agent's own reader of JSON makes of it is for the tests of that
            arguments = request.get("args")
            self._problems += wrong_reply(request["cmd"], arguments if isinstance(arguments, dict) else {}, reply)
