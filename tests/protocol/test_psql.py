"""Every psql of ours is told to find the system's names only: a function of a tenant's would run with the superuser's rights."""

import re
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
TOLD = "-csearch_path=pg_catalog"
# The one source that starts it, with what it is told.
STARTER = "src/common/Psql.cpp"
COMMENT = re.compile(r"^\s*(?://|#|\*).*$", re.MULTILINE)
# What an administrator is to type: such statements name no function, or with its schema, and no operator.
ADVICE = re.compile(r"psql -c (?:'(?:ALTER (?:DATABASE|ROLE)|REVOKE|GRANT) |\"_s \+ shellWord\(statement\))"
                    r"|psql\"_s, u\"-qc\"_s, obstacle\.statement\b")
ASKED_FOR_ITS_VERSION = 'u"pg_restore"_s, u"psql"_s}'


def sources():
    """Whatever of ours runs on a server, but for its tests: path and text without comments."""
    for folder in ("src", "data", "debian", "ansible"):
        for path in sorted((ROOT / folder).rglob("*")):
            name = str(path.relative_to(ROOT))
            if path.is_file() and "node_modules" not in path.parts and not name.startswith(("debian/tests/", "debian/changelog")):
                yield name, COMMENT.sub("", path.read_text(errors="replace"))


def untold(name, text):
    """The statements and commands of a source in which psql runs without being told."""
    if name in (STARTER, STARTER.replace(".cpp", ".h")):
        return []
    found = []
    for place in re.finditer(r"(?<![\w.-])psql(?![\w.(])", text):
        before = text[:place.start()]
        start = max(before.rfind(";\n"), before.rfind("{\n"), before.rfind("}\n"), before.rfind("\n\n")) + 1
        end = text.find(";\n" if name.endswith((".cpp", ".h")) else "\n", place.end())
        statement = text[start:end]
        told = TOLD in statement or "psqlVariables(" in statement
        if not told and not ADVICE.match(text, place.start()) and ASKED_FOR_ITS_VERSION not in statement:
            found.append(" ".join(statement.split()))
    if text.count("psqlAs(") > text.count("psqlVariables("):
        found.append("psqlAs without psqlVariables")
    return found


def test_no_source_starts_psql_without_telling_it():
    started = {name: found for name, text in sources() if (found := untold(name, text))}
    assert started == {}


@pytest.mark.parametrize(("name", "text"), [
    ("src/ctl/x.cpp", 'run(u"runuser"_s, {u"-u"_s, u"postgres"_s, u"--"_s, u"psql"_s, u"-qtAX"_s});\n'),
    ("src/ctl/x.cpp", 'uR"sh(seen=$(runuser -u postgres -- psql -qtAX -c "SELECT 1"))sh"_s;\n'),
    ("src/ctl/x.cpp", 'u"runuser -u postgres -- psql -c \'SELECT 1\'"_s;\n'),
    ("src/ctl/x.cpp", "runWithin(kMs, program, hosting::psqlAs(account));\n"),
    ("debian/x.postinst", "runuser -u postgres -- psql -qtAX <<'EOF'\n"),
    ("ansible/x.py", 'run("runuser", "-u", "postgres", "--", "psql", "-c", "SELECT 1")\n'),
])
def test_one_that_does_is_seen(name, text):
    assert len(untold(name, text)) == 1


def test_what_is_told_is_written_in_one_place():
    assert [name for name, text in sources() if name.startswith("src/") and TOLD in text] == ["src/common/Psql.h"]
