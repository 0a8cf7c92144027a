# Copyright: (c) 2026, The corv-agent authors
# MIT License (see https://opensource.org/licenses/MIT)
"""The agent's settings file, /etc/corvane/corvane.ini: read and changed key by key, everything else in it left as it is."""

import os
import re
import tempfile

PATH = "/etc/corvane/corvane.ini"
# What needs no quotes: no blank, no semicolon, no comma, no quote, no backslash.
PLAIN = re.compile(r"[A-Za-z0-9_./:@%+=-]+")
# Keys that the agent does not read at its start, but what is run with them.
READ_LATER = (("backup", "require_mount"), ("offsite", None), ("notify", None))


def read_file():
    """The text of the settings file; raises OSError."""
    with open(PATH, encoding="utf-8") as file:
        return file.read()


def value_in(text, section, key):
    """A key's value, None where it is not there; the last one counts."""
    value, inside = None, False
    for line in text.splitlines():
        stripped = line.strip()
        if stripped.startswith("["):
            inside = stripped == f"[{section}]"
        elif inside and not stripped.startswith(";") and "=" in stripped:
            name, written = stripped.split("=", 1)
            if name.strip() == key:
                value = unquoted(written)
    return value


def unquoted(written):
    """A value as it is meant: a semicolon outside of quotes begins a comment, a backslash is doubled."""
    meant, quoted, blanks = "", False, ""
    characters = iter(written.strip())
    for character in characters:
        if character == "\\":
            meant, blanks = meant + blanks + next(characters, ""), ""
        elif character == '"':
            quoted = not quoted
        elif character == ";" and not quoted:
            break
        elif character == " " and not quoted:
            blanks += character
        else:
            meant, blanks = meant + blanks + character, ""
    return meant


def quoted(value):
    """A value as it is written: what is not plain stands in quotes."""
    if PLAIN.fullmatch(value):
        return value
    return '"' + value.replace("\\", "\\\\").replace('"', '\\"') + '"'


def with_value(text, section, key, value):
    """The text with a key set to a value, or without that key where it is None."""
    lines = text.splitlines()
    heading, inside, mine = None, False, []
    for number, line in enumerate(lines):
        stripped = line.strip()
        if stripped.startswith("["):
            inside = stripped == f"[{section}]"
            heading = number if inside and heading is None else heading
        elif inside and not stripped.startswith(";") and stripped.split("=", 1)[0].strip() == key and "=" in stripped:
            mine.append(number)
    # The last one is in force; those before it would only mislead.
    last = mine[-1] if mine else None
    if value is not None and last is not None:
        lines[last] = f"{key}={quoted(value)}"
        mine.pop()
    for number in reversed(mine):
        del lines[number]
    if value is not None and last is None:
        if heading is None:
            lines += ["", f"[{section}]"]
            heading = len(lines) - 1
        lines.insert(heading + 1, f"{key}={quoted(value)}")
    return "".join(f"{line}\n" for line in lines)


def changes(text, wanted):
    """What of {(section, key): value} is not so yet."""
    return {key: value for key, value in wanted.items() if value_in(text, *key) != value}


def write(module, text, after):
    """Writes the changed keys and puts them into force. Where the agent does not start with them, the old ones come back."""
    fresh = text
    for (section, key), value in after.items():
        fresh = with_value(fresh, section, key, value)
    replace(module, fresh)
    if ("backup", "require_mount") in after:
        module.run_command(["systemctl", "daemon-reload"], check_rc=True)
    if all((section, key) in READ_LATER or (section, None) in READ_LATER for section, key in after):
        return
    if not restart(module):
        replace(module, text)
        restart(module)
        module.fail_json(msg=f"the agent does not start with these settings, so the old ones are back: {complaint(module)}")


def replace(module, text):
    """Puts a text in the file's place, at once and with its owner and mode."""
    handle, path = tempfile.mkstemp(dir=os.path.dirname(PATH), prefix=".corvane.ini.")
    module.add_cleanup_file(path)
    with os.fdopen(handle, "w", encoding="utf-8") as file:
        file.write(text)
    module.atomic_move(path, PATH)


def restart(module):
    """Whether the agent runs after a restart, which lets the request in hand end first."""
    module.run_command(["systemctl", "reset-failed", "corv-agent"])
    return module.run_command(["systemctl", "restart", "corv-agent"])[0] == 0


def complaint(module):
    """The last line of what the agent said before it ended."""
    out = module.run_command(["journalctl", "-q", "--no-pager", "-o", "cat", "-n", "20", "SYSLOG_IDENTIFIER=corv-agent"])[1]
    return (out.strip().splitlines() or ["see journalctl -u corv-agent"])[-1]
