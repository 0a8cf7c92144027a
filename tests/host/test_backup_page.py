"""docs/backup.md as it stands: each of its commands is run, in the order of the page, on the server that its section is about."""

import pathlib
import re

import pytest
from hostfloor import OUTSIDE

LIMIT = 900
PAGE = pathlib.Path(__file__).parents[2] / "docs/backup.md"
AUTO = "/var/backups/corvane/auto"
INDENTED = re.compile(r"^    (?=\S)(.*)$", re.MULTILINE)


def sections():
    """(heading, commands) for each section of the page with indented lines, each of which is a command."""
    found = []
    for part in re.split(r"^#+ ", PAGE.read_text(), flags=re.MULTILINE)[1:]:
        heading, _, text = part.partition("\n")
        if commands := INDENTED.findall(re.sub(r"^```.*?^```", "", text, flags=re.MULTILINE | re.DOTALL)):
            found.append((heading, commands))
    return found


SECTIONS = sections()


@pytest.fixture(scope="module")
def hosts(boot):
    """The server of the page, with an account; the fresh one that takes its place; the vault."""
    server, fresh, vault = boot(), boot(), boot(bare=True)
    server.tenant = account = server.account()
    server.put(f"{account.home}/public_html/index.php", "<?php echo 'shop';", owner=f"{account.name}:www-data")
    server.sql("CREATE TABLE goods AS SELECT generate_series(1, 100) AS id", database=account.name, role=account.name,
               password=account.password)
    with server.reaching(vault, 22):
        yield {"server": server, "fresh": fresh, "vault": vault}


def newest(server):
    return server.ok(["sh", "-c", f"ls {AUTO} | grep [0-9]$ | tail -n 1"]).strip()


def replaced(server):
    """The folder with what the last restore of public_html in place replaced."""
    kept = server.run(["sh", "-c", f"ls -td {server.tenant.home}/replaced-*/public_html | head -n 1"]).out.strip()
    return pathlib.PurePosixPath(kept).parent.name


def sql(*statements):
    """What the page says that has happened to a database, done by hand."""
    def prepare(hosts):
        for statement in statements:
            done = hosts["server"].sql(re.sub(r"\bNAME", hosts["server"].tenant.name, statement))
            assert (done.code, done.err) == (0, ""), statement
    return prepare


def deleted(hosts):
    name = hosts["server"].tenant.name
    hosts["server"].ok(["corvctl", "account", "delete", name, "--confirm", name])


def copied(hosts):
    """The server's backup on the fresh one, as root's."""
    name = newest(hosts["server"])
    packed = hosts["server"].ok(["sh", "-c", f"tar -C {AUTO} -c {name} | base64"])
    hosts["fresh"].ok(["sh", "-c", "base64 -d | tar -C /root -x"], input=packed)


def complained(hosts):
    """A restore of which something does not come back: an extension that only a superuser may make."""
    server = hosts["server"]
    server.sql("CREATE EXTENSION amcheck", database=server.tenant.name)
    server.ok(["corvctl", "backup", "start", "--wait"])
    server.ok(["corvctl", "backup", "restore", server.tenant.name, newest(server), "database", "--confirm", server.tenant.name])


def let_in(hosts):
    """The line that the first setup prints, where the page says that it belongs."""
    line = next(line for line in hosts["server"].said.splitlines() if line.startswith("restrict,"))
    hosts["vault"].put("/home/vault/.ssh/authorized_keys", f"{line}\n")


# Which server a section is about, where it is not the server itself; and what its reader has met before a command that begins so.
WHERE = {"A whole server": "fresh", "On the vault": "vault"}
APT = {"DEBIAN_FRONTEND": "noninteractive"}
BEFORE = {
    "corvctl account restore NAME --from BACKUP": deleted,
    "corvctl server restore": copied,
    "grep -A 2 'NAME__restore ERROR'": complained,
    "runuser -u postgres -- psql -c 'ALTER DATABASE \"NAME__old\"": sql('ALTER DATABASE "NAME" RENAME TO "NAME__old"'),
    "runuser -u postgres -- psql -c 'ALTER DATABASE \"NAME__restore\"": sql('ALTER DATABASE "NAME" RENAME TO "NAME__restore"'),
    "corvctl offsite setup ssh://vault@VAULT  ": let_in,
}


def test_every_preparation_is_of_a_command_on_the_page():
    commands = [command for _, commands in SECTIONS for command in commands]
    assert [start for start in BEFORE if not any(command.startswith(start) for command in commands)] == []
    assert set(WHERE) <= {heading for heading, _ in SECTIONS}


# The commands themselves have tests of their own; here all are carried out as the page has them.
@pytest.mark.long
@pytest.mark.parametrize(("heading", "commands"), SECTIONS, ids=[heading for heading, _ in SECTIONS])
def test_the_commands_of_the_page_do_what_it_says(hosts, heading, commands):
    host, server = hosts[WHERE.get(heading, "server")], hosts["server"]
    for command in commands:
        for start, prepare in BEFORE.items():
            if command.startswith(start):
                prepare(hosts)
        words = {"NAME": server.tenant.name, "BACKUP": newest(server), "replaced-DATE": replaced(server), "VAULT": OUTSIDE}
        line = re.sub(r"replaced-DATE|\bNAME|BACKUP|VAULT", lambda word: words[word[0]], command)
        done = host.run(["sh", "-c", line], env=APT, timeout=300)
        server.said = done.out if "offsite setup" in command else ""
        assert done.code == 0, f"{line}\n{done.out}{done.err}"
