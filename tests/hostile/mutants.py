"""The mutants that there are: one changed operator, bound, truth value, text or left-out call each; and which of them cannot be seen."""

import hashlib
import json
import re
from collections import Counter
from pathlib import Path

TREE = Path(__file__).resolve().parents[2]
EXCUSES = Path(__file__).with_name("mutants.txt")
AGENT = ("agent", "common")
# The client and the program for certificates have far more of them than can be tried: so many are drawn.
DRAWN = {"ctl": 150, "https": 60}

OPERATORS = (
    (r"(?<=\s)==(?=\s)", "!="), (r"(?<=\s)!=(?=\s)", "=="), (r"(?<=\s)<(?=\s)", "<="), (r"(?<=\s)<=(?=\s)", "<"),
    (r"(?<=\s)>(?=\s)", ">="), (r"(?<=\s)>=(?=\s)", ">"), (r"&&", "||"), (r"(?<=\w\s)\|\|", "&&"),
    (r"(?<=[(\s])!(?=[\w(:])", ""), (r"\btrue\b", "false"), (r"\bfalse\b", "true"), (r"(?<=\s)\+(?=\s)", "-"),
    (r"(?<=\s)-(?=\s\w)", "+"),
)
NUMBER = re.compile(r"(?<![\w.\"'{%])\d[\d']*(?![\w.\"])")
TEXT = re.compile(r'"([^"\\]|\\.)*"')
CALL = re.compile(r"^\s+(\(void\))?[\w:.>-]+\(.*\);( //.*)?$")


def mutants(rooms=AGENT):
    """All of these folders of src: (path below src, number of the line from 0, the line, the changed line)."""
    found = []
    for path in sorted(path for room in rooms for path in (TREE / "src" / room).rglob("*.cpp")):
        source = str(path.relative_to(TREE / "src"))
        raw = False
        for number, line in enumerate(path.read_text().splitlines()):
            raw = raw or 'R"(' in line
            code = line.split("//")[0] if "://" not in line else line
            if raw:
                # A template: its text is changed, nothing else.
                if line.strip() and ')"' not in line and 'R"(' not in line:
                    found.append((source, number, line, line + "x"))
                raw = ')"' not in line
                continue
            if not code.strip() or code.lstrip().startswith(("#", "using", "namespace", "static_assert", "*")):
                continue
            texts = [match.span() for match in TEXT.finditer(code)]
            inside = lambda at: any(begin <= at < end for begin, end in texts)  # noqa: E731
            for pattern, other in OPERATORS:
                for match in re.finditer(pattern, code):
                    if not inside(match.start()):
                        found.append((source, number, line, line[:match.start()] + other + line[match.end():]))
            for match in NUMBER.finditer(code):
                if not inside(match.start()):
                    other = str(int(match[0].replace("'", "")) + 1)
                    if match[0].startswith("0") and len(match[0]) > 1:
                        other = "0" + oct(int(match[0].replace("'", ""), 8) + 1)[2:]
                    found.append((source, number, line, line[:match.start()] + other + line[match.end():]))
            for begin, end in texts:
                if end - begin > 2:
                    found.append((source, number, line, line[:begin] + '"x' + line[begin + 1:]))
            if CALL.match(line) and not re.match(r"\s+(return|delete|using)\b", line):
                found.append((source, number, line, ""))
    return found


def keyed(everything):
    """Each mutant with its key, which tells it from those like it on lines of the same text."""
    seen = Counter()
    for source, number, line, other in everything:
        text = hashlib.sha256(line.strip().encode()).hexdigest()[:16]
        key = (source, text, other.strip())
        seen[key] += 1
        yield (*key, seen[key]), (source, number, line, other)


def drawn():
    """The keyed mutants that were drawn of the other folders: each has a fixed place in the draw, whatever else there is."""
    found = []
    for room, count in DRAWN.items():
        place = lambda one: hashlib.sha256(json.dumps(one[0]).encode()).hexdigest()  # noqa: E731
        found += sorted(sorted(keyed(mutants((room,))), key=place)[:count], key=lambda one: one[1][:2])
    return found


def excuses():
    """The mutants that cannot be seen: (source, line, changed line), both without the blanks around. In the file a tab stands
    between these and before the reason. Each is one place: where a line is there twice, a second survivor is none of them."""
    known = []
    for line in EXCUSES.read_text().splitlines():
        fields = line.split("\t")
        if len(fields) == 4:
            known.append(tuple(field.strip() for field in fields[:3]))
    return known
