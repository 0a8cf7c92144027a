#!/usr/bin/python3
"""Writes what is made of the protocol's description.

describe.py markdown|man|table|typescript DESCRIPTION OUTPUT

markdown gives docs/protocol.md, man the manual page corv-protocol(7), table the C++ source with the commands that corvctl
knows, typescript the page's types and what it holds replies against. Each is written whole, from the description alone.
"""

import json
import sys
import textwrap
from pathlib import Path

SOCAT = "socat -t 36000 - UNIX-CONNECT:{socket}"


def request(command):
    """The example request, as the one line that is sent."""
    arguments = {"args": command["example"]} if command["example"] else {}
    return json.dumps({"cmd": command["name"], **arguments}, separators=(",", ":"), ensure_ascii=False)


def example(description, command):
    """A shell command that sends the example request and shows the reply."""
    return f"echo '{request(command)}' | {SOCAT.format(socket=description['socket']['path'])}"


def duration(command):
    """How long the command may take, as a sentence."""
    if command["seconds"] == 0:
        return "Runs no program."
    text = f"At worst {command['seconds']} s ({command['longest']})"
    if "more" in command:
        text += f", and {command['more']['seconds']} s for each {command['more']['each']}"
    return text + "."


def with_operations(part, text):
    """The text with the operations that it concerns, for the one command that has several."""
    return f"{text} ({', '.join(part['for'])})" if "for" in part else text


def limits_of(argument):
    """What an argument may be, beyond its type, as a list of texts."""
    found = []
    if "values" in argument:
        found.append(" | ".join(argument["values"]))
    if "maximum" in argument:
        found.append(f"{argument['minimum']} to {argument['maximum']}")
    elif "minimum" in argument:
        found.append(f"from {argument['minimum']}")
    return found


def default_of(argument):
    return "required" if argument.get("required") else "default " + json.dumps(argument["default"], ensure_ascii=False)


def errors_of(command):
    """Pairs of an error's text and when it comes."""
    for error in command["errors"]:
        when = error["when"]
        if "tools" in error:
            when += f" ({', '.join(error['tools'])}{'; joined' if error.get('joined') else ''})"
        yield error["text"], with_operations(error, when)


def members_of(members, where=""):
    """Triples of a reply member's path, its type with its unit, and its meaning; members of members follow theirs."""
    for member in members:
        kind = f"{member['type']}, {member['unit']}" if "unit" in member else member["type"]
        meaning = with_operations(member, member["meaning"])
        if "when" in member:
            meaning += f" (when {member['when']})"
        yield where + member["name"], kind, meaning
        yield from members_of(member.get("members", []), f"{where}{member['name']}[].")


# Markdown


def cell(text):
    return text.replace("|", "\\|").replace("*", "\\*")


def code(text):
    return f"`{cell(text)}`".replace("\\*", "*")


def table(heads, rows):
    rows = list(rows)
    if not rows:
        return []
    lines = ["| " + " | ".join(heads) + " |", "|" + " --- |" * len(heads)]
    return lines + ["| " + " | ".join(row) + " |" for row in rows] + [""]


def markdown_command(description, command):
    lines = [f"### {command['name']}", "", command["summary"], "", duration(command), ""]
    lines += ["```sh", example(description, command), "```", ""]
    rows = []
    for argument in command["arguments"]:
        kind = ", ".join([argument["type"], *([argument["unit"]] if "unit" in argument else []), default_of(argument)])
        limits = [cell(limit) for limit in limits_of(argument)]
        if "pattern" in argument:
            limits.append(code(argument["pattern"]))
        meaning = cell(with_operations(argument, argument["meaning"]))
        rows.append([code(argument["name"]), kind, ", ".join(limits), meaning])
    lines += table(["argument", "type", "allowed", "meaning"], rows)
    rows = [[code(path), cell(kind), cell(meaning)] for path, kind, meaning in members_of(command["reply"])]
    lines += table(["reply", "type", "meaning"], rows)
    return lines + table(["error", "when"], ([code(text), cell(when)] for text, when in errors_of(command)))


def markdown(description):
    lines = ["# The protocol", "", "<!-- Written by data/describe.py from data/protocol.json; change it there. -->", ""]
    lines += [f"All {len(description['commands'])} commands of corv-agent {description['version']}, for the authors of "
              "clients. The same, for programs, is in /usr/share/corvane/protocol.json.", ""]
    for title, key in (("Authorisation", "authorisation"), ("Framing", "framing")):
        lines += [f"## {title}", ""]
        for paragraph in description[key]:
            lines += [paragraph, ""]
    lines += ["## Errors", "", cell(description["tools"]), ""]
    lines += table(["error", "when"], ([code(error["text"]), cell(error["when"])] for error in description["errors"]))
    lines += ["## Limits", ""]
    rows = ([limit["name"], f"{limit['value']} {limit['unit']}", limit["meaning"]] for limit in description["limits"])
    lines += table(["of", "at most", ""], rows)
    lines += ["## Commands", ""]
    for command in description["commands"]:
        lines += markdown_command(description, command)
    return "\n".join(lines).rstrip("\n") + "\n"


# The manual page

# Stand for a hyphen at which no line is broken, and for where one is without a hyphen.
HYPHEN = "\u2011"
BREAK = "\u200b"


def roff(text):
    """Text for a line of its own: nothing in it is taken for a request or an escape."""
    text = text.replace("\\", "\\e").replace("…", "\\[u2026]").replace(HYPHEN, "\\-")
    text = text.replace(BREAK, "\\:")
    return "\\&" + text if text[:1] in (".", "'") else text


def prose(text):
    """Text as lines: a new one for each sentence, none of them long."""
    sentences = text.replace(". ", ".\n").split("\n")
    lines = [line for one in sentences for line in textwrap.wrap(one, 78, break_long_words=False, break_on_hyphens=False)]
    return [roff(line) for line in lines]


def pattern(text):
    """A pattern: long ones are broken, but never at what is part of them."""
    text = text.replace("-", HYPHEN)
    for end in ("|", ")", "}"):
        text = text.replace(end, end + BREAK)
    return text


def word(text):
    """Text for one argument of a macro."""
    text = roff(text).replace('"', '""')
    return f'"{text}"'


def items(rows):
    """A list of terms and what is said of each."""
    rows = list(rows)
    if not rows:
        return []
    lines = [".Bl -tag -width indent -compact"]
    for term, kind, text in rows:
        lines += [".It " + term, *(prose(f"{kind}:") if kind else []), *prose(text)]
    return [*lines, ".El"]


def man_command(description, command):
    lines = [f".Ss {command['name']}", *prose(command["summary"]), ".Pp", *prose(duration(command))]
    lines += [".Bd -literal -compact", roff(example(description, command)), ".Ed"]
    rows = []
    for argument in command["arguments"]:
        limits = limits_of(argument) + ([pattern(argument["pattern"])] if "pattern" in argument else [])
        unit = [argument["unit"]] if "unit" in argument else []
        kind = ", ".join([argument["type"], *unit, default_of(argument), *limits])
        rows.append(("Ar " + word(argument["name"]), kind, with_operations(argument, argument["meaning"])))
    if rows:
        lines += [".Pp", "Arguments:", *items(rows)]
    rows = [("Va " + word(path), kind, meaning) for path, kind, meaning in members_of(command["reply"])]
    if rows:
        lines += [".Pp", "Reply:", *items(rows)]
    rows = [("Qq " + word(text), "", when) for text, when in errors_of(command)]
    if rows:
        lines += [".Pp", "Errors:", *items(rows)]
    return lines


def man(description):
    year, month, day = description["date"].split("-")
    months = "January February March April May June July August September October November December".split()
    lines = ['.\\" Written by data/describe.py from data/protocol.json; change it there.']
    lines += [f".Dd {months[int(month) - 1]} {int(day)}, {year}", ".Dt CORV-PROTOCOL 7", ".Os", ".Sh NAME"]
    lines += [".Nm corv-protocol", ".Nd requests to and replies of the hosting panel's agent", ".Sh DESCRIPTION"]
    lines += [f"All {len(description['commands'])} commands of corv-agent {description['version']}, "
              "for the authors of clients.", "The same, for programs, is in",
              ".Pa /usr/share/corvane/protocol.json ."]
    for title, key in (("Authorisation", "authorisation"), ("Framing", "framing")):
        lines.append(f".Ss {title}")
        for i, paragraph in enumerate(description[key]):
            lines += [*([".Pp"] if i else []), *prose(paragraph)]
    lines += [".Ss Errors", *prose(description["tools"]), ".Pp"]
    lines += items(("Qq " + word(error["text"]), "", error["when"]) for error in description["errors"])
    lines += [".Ss Limits"]
    rows = ((word(one["name"]), f"{one['value']} {one['unit']}", one["meaning"]) for one in description["limits"])
    lines += items(rows)
    lines += [".Sh COMMANDS"]
    for command in description["commands"]:
        lines += man_command(description, command)
    lines += [".Sh FILES", ".Bl -tag -width indent -compact", f".It Pa {description['socket']['path']}", "the socket",
              ".It Pa /usr/share/corvane/protocol.json", "this description for programs",
              ".It Pa /var/lib/corvane/transfer", "uploads and downloads", ".El"]
    return "\n".join(lines) + "\n"


# The client's table


def table_of_commands(description):
    rows = []
    for command in description["commands"]:
        more = command.get("more", {"seconds": 0})["seconds"]
        rows.append(f'    {{"{command["name"]}", {command["seconds"]}, {more}}},')
    return "\n".join([
        "// Written by data/describe.py from data/protocol.json; change it there.",
        '#include "ctl/Described.h"',
        "",
        "namespace corv::ctl {",
        "",
        "constexpr Described kDescribed[] = {",
        *rows,
        "};",
        "",
        "std::span<const Described> described()",
        "{",
        "    return kDescribed;",
        "}",
        "",
        "const char *version()",
        "{",
        f'    return "{description["version"]}";',
        "}",
        "",
        "} // namespace corv::ctl",
        "",
    ])


# The page's types


# A type of the description: as TypeScript has it, and as the page checks it when a reply comes.
TYPES = {
    "string": ("string", "string"),
    "integer": ("number", "integer"),
    "boolean": ("boolean", "boolean"),
    "integer or null": ("number | null", "integer or null"),
    "array of strings": ("string[]", ["string"]),
    "object of integers": ("Record<string, number>", {"*": "integer"}),
}


def operations_of(command):
    """The command by its name; the one that has several operations by each of them, with what belongs to that one alone."""
    operations = next((one["values"] for one in command["arguments"] if one["name"] == "op"), None)
    if operations is None:
        return [(command["name"], command["arguments"], command["reply"])]

    def of(operation, parts):
        return [part for part in parts if operation in part.get("for", operations) and part["name"] != "op"]

    return [(f"{command['name']} {operation}", of(operation, command["arguments"]), of(operation, command["reply"]))
            for operation in operations]


def type_of(member):
    """Pair of a reply member's type and what it is checked by."""
    if member["type"].startswith("reply of "):
        other = member["type"].removeprefix("reply of ")
        return f"Half<Replies[{json.dumps(other)}]>", "@" + other
    if member["type"] == "array of objects":
        types, checks = object_of(member["members"])
        return f"{types}[]", [checks]
    return TYPES[member["type"]]


def object_of(members):
    """Pair of an object's type and what it is checked by; members that are not always there have a question mark."""
    types, checks = [], {}
    for member in members:
        of_type, check = type_of(member)
        # A member that also comes with a failure is there in each success.
        name = member["name"] + ("?" if "when" in member else "")
        types.append(f"{name}: {of_type}")
        checks[name] = check
    return ("{ " + "; ".join(types) + " }" if types else "Record<never, never>"), checks


def argument_of(argument):
    kind = " | ".join(json.dumps(one) for one in argument["values"]) if "values" in argument else TYPES[argument["type"]][0]
    return f"{argument['name']}{'' if argument.get('required') else '?'}: {kind}"


def typescript(description):
    commands = [one for command in description["commands"] for one in operations_of(command)]
    lines = ["// Written by data/describe.py from data/protocol.json; change it there.", "",
             "// A reply within a reply, which may have failed by itself.",
             "export type Half<T> = ({ ok: true } & T) | { ok: false; error: string };", "",
             "// What a command takes; the operations on files each by itself.", "export interface Requests {"]
    for name, arguments, _ in commands:
        taken = "; ".join(argument_of(argument) for argument in arguments)
        lines.append(f"    {json.dumps(name)}: {'{ ' + taken + ' }' if taken else 'Record<string, never>'};")
    lines += ["}", "", "// What it replies where it succeeds.", "export interface Replies {"]
    lines += [f"    {json.dumps(name)}: {object_of(reply)[0]};" for name, _, reply in commands]
    lines += ["}", "", "export type Command = keyof Replies;", "",
              "// The same for a look at each reply: a type by its name, [of what] for lists, members with a ? where they may be missing,",
              "// * for members of any name, @ for the reply of another command with an ok of its own.",
              "export type Shape = string | readonly [Shape] | { readonly [member: string]: Shape };", "",
              "export const kShapes: Record<Command, Shape> = {"]
    lines += [f"    {json.dumps(name)}: {json.dumps(object_of(reply)[1])}," for name, _, reply in commands]
    return "\n".join([*lines, "};", ""])


WRITERS = {"markdown": markdown, "man": man, "table": table_of_commands, "typescript": typescript}


def main():
    if len(sys.argv) != 4 or sys.argv[1] not in WRITERS:
        sys.exit(__doc__.strip())
    write = WRITERS[sys.argv[1]]
    description = json.loads(Path(sys.argv[2]).read_text(encoding="utf-8"))
    Path(sys.argv[3]).write_text(write(description), encoding="utf-8")


if __name__ == "__main__":
    main()
