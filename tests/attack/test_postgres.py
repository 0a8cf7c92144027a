"""A tenant's database: PostgreSQL's superuser, other tenants' data, a server that makes no accounts any more and deletes none."""

from contextlib import contextmanager

import pytest

# What another release's versions decide.
pytestmark = pytest.mark.core

LIMIT = 180
DESTINATION = "/var/backups/corvane/auto"

# Run by the superuser, it makes its owner one.
RISE = """
CREATE FUNCTION public.rise(x int) RETURNS int LANGUAGE plpgsql AS $$ BEGIN
    IF (SELECT rolsuper FROM pg_catalog.pg_roles WHERE rolname = current_user) THEN
        EXECUTE 'ALTER ROLE @ME@ SUPERUSER';
    END IF;
    RETURN x;
END $$;
CREATE FUNCTION public.steady(x int) RETURNS int LANGUAGE plpgsql IMMUTABLE AS 'BEGIN RETURN public.rise(x); END';
"""
LOADED = {
    "a check of a table": "CREATE TABLE t (x int CHECK (public.rise(x) = x)); INSERT INTO t VALUES (1)",
    "a check of a domain": """CREATE DOMAIN public.d AS int CHECK (public.rise(VALUE) = VALUE);
                              CREATE TABLE t (x public.d); INSERT INTO t VALUES (1)""",
    "a generated column": """CREATE TABLE t (x int, y int GENERATED ALWAYS AS (public.steady(x)) STORED);
                             INSERT INTO t VALUES (1)""",
}

# Holds the first psql of a restore when the new database is there and everybody may still connect to it.
MADE = """
[ -e /run/stand-ins/first ] && exec /usr/bin/psql "$@"
: >/run/stand-ins/first
{
    for line in 1 2 3 4 5; do IFS= read -r text && printf '%s\\n' "$text"; done
    echo '\\! : >/run/stand-ins/reached'
    until [ -e /run/stand-ins/reached ]; do sleep 0.05; done
    hold
    cat
} | /usr/bin/psql "$@"
"""


def as_tenant(host, name, statement, database=None):
    """What a tenant has run, as his PHP or his shell can: through the socket, as his own user."""
    statement = statement.replace("@ME@", name)
    return host.run(["psql", "-qtAX", "-v", "ON_ERROR_STOP=1", "-d", database or name, "-c", statement], user=name)


@contextmanager
def session(host, name, database, statement):
    """A session of the tenant's that stays, or tries to."""
    process = host.background(["runuser", "-u", name, "--", "psql", "-qtAX", "-d", database, "-c",
                               f"{statement}; SELECT pg_sleep(1000)"], start_new_session=True)
    mine = f"SELECT FROM pg_stat_activity WHERE usename = '{name}' AND query LIKE '%pg_sleep(1000)'"
    host.wait_for(lambda: process.poll() is not None or host.sql(f"{mine.replace('SELECT', 'SELECT 1', 1)}").out,
                  "the session")
    try:
        yield
    finally:
        process.kill()
        process.wait()
        host.sql(f"SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE usename = '{name}'")


def is_superuser(host, name):
    return host.sql(f"SELECT rolsuper FROM pg_roles WHERE rolname = '{name}'").out == "t\n"


def save(host):
    before = len(host.request("backup.status")["backups"])
    assert host.request("backup.start") == {"ok": True}
    backups = host.wait_for(lambda: (found := host.request("backup.status")["backups"]) and len(found) > before and found,
                            "the backup", 120)
    return backups[0]["name"]


@pytest.fixture
def victim(host):
    """Another tenant, with data."""
    other = host.account()
    assert as_tenant(host, other.name, "CREATE TABLE says AS SELECT 'saved' AS word").code == 0
    return other


def restore_while(host, victim, attack):
    """Restores the victim's database; the attack goes on from the moment in which all may connect to the new one."""
    backup = save(host)
    with host.stand_in("psql", MADE):
        host.ok(["chmod", "777", "/run/stand-ins"])
        with host.connection(120) as client:
            host.send(client, "backup.restore", username=victim.name, backup=backup, what="database")
            host.wait_for_hold()
            with attack(f"{victim.name}__restore"):
                host.release()
                return host.receive(client)


@pytest.mark.parametrize("way", LOADED)
def test_no_superuser_through_a_restore(host, account, way):
    assert as_tenant(host, account.name, RISE + LOADED[way]).code == 0
    backup = save(host)
    assert host.request("backup.restore", username=account.name, backup=backup, what="database") == {"ok": True}
    assert as_tenant(host, account.name, "SELECT x FROM t").out == "1\n"
    assert not is_superuser(host, account.name)


def test_no_superuser_through_a_function_in_the_database_of_all(host, account, victim):
    host.sql("GRANT CONNECT ON DATABASE postgres TO PUBLIC; GRANT CREATE ON SCHEMA public TO PUBLIC")
    try:
        assert as_tenant(host, account.name, """
            CREATE FUNCTION public.format(text, text) RETURNS text LANGUAGE plpgsql AS $$ BEGIN
                IF (SELECT rolsuper FROM pg_catalog.pg_roles WHERE rolname = current_user) THEN
                    EXECUTE 'ALTER ROLE @ME@ SUPERUSER';
                END IF;
                RETURN pg_catalog.format($1, VARIADIC ARRAY[$2]);
            END $$""", "postgres").code == 0
        assert host.request("hosting.suspend", username=victim.name) == {"ok": True}
        assert not is_superuser(host, account.name)
    finally:
        host.sql("DROP FUNCTION public.format(text, text)")
        host.sql("REVOKE CONNECT ON DATABASE postgres FROM PUBLIC; REVOKE CREATE ON SCHEMA public FROM PUBLIC")


def test_nobody_stays_in_another_s_new_database(host, account, victim):
    reply = restore_while(host, victim, lambda database: session(host, account.name, database, "SELECT 1"))
    assert reply == {"ok": True}
    assert as_tenant(host, victim.name, "SELECT word FROM says").out == "saved\n"


def test_not_even_its_owner_gets_between_the_two_renames(host, account):
    """A hijacked site that keeps connecting to the new database would leave its owner without any."""
    assert as_tenant(host, account.name, "CREATE TABLE says AS SELECT 'saved' AS word").code == 0
    backup = save(host)
    again = "while :; do psql -qtAX -d $0__restore -c 'SELECT pg_sleep(20)'; psql -qtAX -d $0 -c 'SELECT pg_sleep(20)'; done"
    loops = [host.background(["runuser", "-u", account.name, "--", "sh", "-c", again, account.name], start_new_session=True)
             for _ in range(3)]
    try:
        for _ in range(5):
            assert host.request("backup.restore", username=account.name, backup=backup, what="database") == {"ok": True}
    finally:
        host.run(["pkill", "-KILL", "-u", account.name])
        for loop in loops:
            loop.kill()
            loop.wait()
    host.sql(f"SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE usename = '{account.name}'")
    assert as_tenant(host, account.name, "SELECT word FROM says").out == "saved\n"
    owner = f"SELECT pg_get_userbyid(datdba), datacl FROM pg_database WHERE datname = '{account.name}'"
    assert host.sql(owner).out == f"{account.name}|{{{account.name}=CTc/{account.name}}}\n"


def test_nobody_leaves_anything_in_another_s_new_database(host, account, victim):
    @contextmanager
    def leave(database):
        assert as_tenant(host, account.name, "SELECT lo_create(4711)", database).out == "4711\n"
        yield

    restore_while(host, victim, leave)
    owners = "SELECT pg_get_userbyid(lomowner) FROM pg_largeobject_metadata"
    assert host.sql(owners, database=victim.name).out == ""
    assert as_tenant(host, victim.name, "SELECT word FROM says").out == "saved\n"


def test_no_session_stops_the_making_of_accounts(host, account):
    name = host.free_name()
    with session(host, account.name, "template1", "SELECT 1"):
        assert host.request("hosting.create", username=name, domain=f"{name}.example")["ok"] is True


def test_nothing_gets_into_all_new_databases(host, account):
    as_tenant(host, account.name, "SELECT lo_create(4712)", "template1")
    try:
        other = host.account()
        assert host.sql("SELECT oid FROM pg_largeobject_metadata", database=other.name).out == ""
    finally:
        host.sql("SELECT lo_unlink(oid) FROM pg_largeobject_metadata", database="template1")


@pytest.mark.parametrize("wall", ["ALTER DATABASE @ME@ IS_TEMPLATE true", "ALTER DATABASE @ME@ ALLOW_CONNECTIONS false"])
def test_no_account_makes_itself_lasting(host, account, wall):
    # The second from any other database that lets him in.
    assert host.sql(f"SET ROLE {account.name}; " + wall.replace("@ME@", account.name)).code == 0
    host.run(["corvctl", "account", "delete", account.name, "--confirm", account.name, "--force"])
    assert host.run(["id", account.name]).code == 1
    assert host.sql(f"SELECT FROM pg_database WHERE datname = '{account.name}'").out == ""


@pytest.mark.parametrize("hold", ["ALTER ROLE @ME@ PASSWORD 'y'", "ALTER DATABASE @ME@ SET work_mem = '8MB'", "COMMENT ON DATABASE @ME@ IS 'x'"])
@pytest.mark.parametrize("command, arguments", [
    ("suspend", {}), ("resume", {}), ("resetDbPassword", {}), ("dbReadOnly", {"readOnly": True}), ("delete", {"confirm": "@ME@"})])
def test_no_open_transaction_of_a_tenant_stops_the_agent(host, account, hold, command, arguments):
    given = {key: account.name if value == "@ME@" else value for key, value in arguments.items()}
    with session(host, account.name, account.name, "BEGIN; " + hold.replace("@ME@", account.name)):
        assert host.request(f"hosting.{command}", username=account.name, **given)["ok"] is True
    if command == "suspend":
        assert host.sql(f"SELECT rolcanlogin FROM pg_roles WHERE rolname = '{account.name}'").out == "f\n"
    if command == "delete":
        assert host.sql(f"SELECT FROM pg_roles WHERE rolname = '{account.name}'").out == ""
        assert host.sql(f"SELECT FROM pg_database WHERE datname = '{account.name}'").out == ""


def test_suspending_an_account_leaves_its_sessions_that_hold_nothing(host, account):
    with session(host, account.name, account.name, "SELECT 1"):
        assert host.request("hosting.suspend", username=account.name) == {"ok": True}
        there = f"SELECT count(*) FROM pg_stat_activity WHERE usename = '{account.name}' AND query LIKE '%pg_sleep(1000)'"
        assert host.sql(there).out == "1\n"


def test_no_sleeping_session_makes_an_account_lasting(host, account):
    assert as_tenant(host, account.name, "CREATE TABLE t (x int)").code == 0
    with session(host, account.name, account.name, "BEGIN; LOCK t"):
        host.wait_for(lambda: f"the database {account.name} to itself, so it cannot be dumped" in host.run(["corvctl", "doctor", "--json"]).out,
                      "the doctor's word of it", 60)
        host.ok(["corvctl", "account", "delete", account.name, "--confirm", account.name, "--force"])
    assert host.run(["id", account.name]).code == 1
