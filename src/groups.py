#!/usr/bin/env python3
"""Which sources can be compiled as one text: groups.py SOURCE...

Prints each source with the number of its group. Most of a compiler's time goes into Qt's headers, which a group reads once. A name
that a source keeps to itself must not be found by any other of its group.
"""

import pathlib
import re
import sys

# A group that is too large leaves a processor without work at the end.
LARGEST = 14

# What stands in a nameless name space begins its line, the formatter sees to that.
NAMELESS = re.compile(r"^namespace \{$.*?^\} // namespace$", re.MULTILINE | re.DOTALL)
TYPE = re.compile(r"^(?:struct|class|enum|enum class|using) (\w+)", re.MULTILINE)
FUNCTION = re.compile(r"^[\w\[][^\n=;{}/#]*?\b(\w+)\(", re.MULTILINE)
VALUE = re.compile(r"^[\w\[][^\n({;/#]*?\b(\w+)(?:\[\w*\])?(?: = |\{|;|\()", re.MULTILINE)

# What makes the names of one name space known to all that stands behind it.
USING = re.compile(r"^\s*using namespace (?!Qt::)([\w:]+);", re.MULTILINE)
WORD = re.compile(r"\b[A-Za-z_]\w*")


def own_names(text):
    """The names that a source keeps to itself."""
    inner = "\n".join(NAMELESS.findall(text))
    return {name for pattern in (TYPE, FUNCTION, VALUE) for name in pattern.findall(inner)}


def groups(keys):
    """Lists of sources that can be one text: of one folder, with equal keys, and with no name of one's own that another one has.
    `keys` has the sources, each with what else must be equal."""
    made = []
    for path, what in sorted(keys.items()):
        text = path.read_text()
        names, words = own_names(text), set(WORD.findall(text))
        key = (path.parent, what, sorted(set(USING.findall(text))))
        for group in made:
            if group["key"] == key and not names & group["words"] and not words & group["names"] and len(group["paths"]) < LARGEST:
                group["names"] |= names
                group["words"] |= words
                group["paths"].append(path)
                break
        else:
            made.append({"key": key, "names": names, "words": words, "paths": [path]})
    return [group["paths"] for group in made]


if __name__ == "__main__":
    for number, paths in enumerate(groups({pathlib.Path(word): None for word in sys.argv[1:]})):
        for path in paths:
            print(f"{number} {path}")
