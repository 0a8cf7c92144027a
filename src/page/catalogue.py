#!/usr/bin/python3
"""The page's texts in other languages.

catalogue.py check    tells which texts have no translation, and which translations no text; fails when there are any
catalogue.py missing  prints the missing ones as entries to be filled in
"""

import json
import re
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
STRING = r'"(?:[^"\\]|\\.)*"'
ONE = re.compile(rf"\b_\(\s*({STRING})\s*\)")
MANY = re.compile(rf"\bplural\(\s*({STRING})\s*,\s*({STRING})")
# A text that is put together cannot be translated.
UNREADABLE = re.compile(r"(?<![\w.])_\((?!\s*\"|text)")


def texts():
    """The texts of the sources, each with its plural or None."""
    found = {}
    for path in sorted([*HERE.glob("*.ts"), *HERE.glob("pages/*.ts")]):
        source = path.read_text(encoding="utf-8")
        if path.name != "text.ts" and UNREADABLE.search(source):
            sys.exit(f"{path.name}: a text that is no plain string")
        found.update({json.loads(one): None for one in ONE.findall(source)})
        found.update({json.loads(one): json.loads(many) for one, many in MANY.findall(source)})
    # The name in Cockpit's own menu.
    found.update({entry["label"]: None for entry in json.loads((HERE / "manifest.json").read_text())["menu"].values()})
    return found


def entries(path):
    """The translations of a catalogue: text to (plural, translations)."""
    found = {}
    for block in path.read_text(encoding="utf-8").split("\n\n"):
        fields, last = {}, None
        for line in block.splitlines():
            if line.startswith("#") or not line.strip():
                continue
            named = re.fullmatch(rf"(msg[a-z_]+(?:\[\d\])?) ({STRING})", line)
            if named:
                last = named[1]
                fields[last] = json.loads(named[2])
            elif last and re.fullmatch(STRING, line):
                fields[last] += json.loads(line)
            else:
                sys.exit(f"{path.name}: no line of a catalogue: {line}")
        if fields.get("msgid"):
            said = [fields[key] for key in ("msgstr", "msgstr[0]", "msgstr[1]") if key in fields]
            found[fields["msgid"]] = (fields.get("msgid_plural"), said)
    return found


def complaints(path, wanted):
    known = entries(path)
    for text, many in wanted.items():
        if text not in known or known[text][0] != many or len(known[text][1]) != (2 if many else 1) or "" in known[text][1]:
            yield f"{path.name}: no translation of {json.dumps(text, ensure_ascii=False)}"
            continue
        for said in known[text][1]:
            lost = set(re.findall(r"\$\d", many or text)) - set(re.findall(r"\$\d", said))
            if lost:
                yield f"{path.name}: {', '.join(sorted(lost))} is missing in {json.dumps(said, ensure_ascii=False)}"
    for text in known.keys() - wanted.keys():
        yield f"{path.name}: not used any more: {json.dumps(text, ensure_ascii=False)}"


def script(path):
    """The catalogue as the script that Cockpit loads for its language. All languages that there are so far count as English does."""
    texts = {text: [many, *said] for text, (many, said) in sorted(entries(path).items())}
    head = f'{{"plural-forms": n => n != 1, "language": {json.dumps(path.stem)}, "language-direction": "ltr"}}'
    body = ",\n".join(f"{json.dumps(text, ensure_ascii=False)}: {json.dumps(said, ensure_ascii=False)}" for text, said in texts.items())
    return f'cockpit.locale({{"": {head},\n{body}\n}});\n'


def main():
    wanted = texts()
    catalogues = sorted((HERE / "po").glob("*.po"))
    if sys.argv[1:] == ["check"]:
        bad = [line for path in catalogues for line in complaints(path, wanted)]
        print("\n".join(bad) or f"{len(wanted)} texts in {len(catalogues)} catalogue(s)")
        sys.exit(bool(bad) or not catalogues)
    if sys.argv[1:] != ["missing"]:
        sys.exit(__doc__.strip())
    known = entries(catalogues[0])
    for text, many in wanted.items():
        if text not in known:
            print(f"\nmsgid {json.dumps(text, ensure_ascii=False)}")
            print(f'msgid_plural {json.dumps(many, ensure_ascii=False)}\nmsgstr[0] ""\nmsgstr[1] ""' if many else 'msgstr ""')


if __name__ == "__main__":
    main()
