"""A database is loaded as its owner: what comes back, what does not, and logins that fail and leave the live database."""

import re

import pytest

LIMIT = 240
DESTINATION = "/var/backups/corvane/auto"
KEPT = "the restore failed, so the current database was left as it is: "
HBA = "/etc/postgresql/15/main/pg_hba.conf"

RICH = r"""
SET client_min_messages = error;
CREATE EXTENSION hstore;
CREATE EXTENSION citext WITH SCHEMA public;
CREATE EXTENSION pg_trgm;
CREATE SCHEMA shop;
COMMENT ON SCHEMA shop IS 'of the shop';
CREATE TYPE shop.state AS ENUM ('new', 'paid');
CREATE DOMAIN shop.positive AS int CHECK (VALUE > 0);
CREATE SEQUENCE shop.numbers START 17 INCREMENT 3;
CREATE FUNCTION shop.is_fine(x int) RETURNS bool LANGUAGE plpgsql IMMUTABLE AS 'BEGIN RETURN x > 0; END';
CREATE TABLE shop.customers (
    id bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY, name citext UNIQUE, more hstore,
    amount shop.positive, twice int GENERATED ALWAYS AS (amount * 2) STORED, CHECK (shop.is_fine(amount)));
INSERT INTO shop.customers (name, more, amount)
    SELECT 'Customer ' || i, hstore('number', i::text), i FROM generate_series(1, 2000) AS i;
CREATE INDEX customers_by_part ON shop.customers USING gin ((name::text) gin_trgm_ops);
CREATE TABLE shop.orders (
    customer bigint REFERENCES shop.customers ON DELETE CASCADE, state shop.state DEFAULT 'new', made date NOT NULL
) PARTITION BY RANGE (made);
CREATE TABLE shop.orders_old PARTITION OF shop.orders FOR VALUES FROM ('2000-01-01') TO ('2020-01-01');
CREATE TABLE shop.orders_new PARTITION OF shop.orders DEFAULT;
INSERT INTO shop.orders SELECT i, 'paid', date '2019-12-01' + i FROM generate_series(1, 60) AS i;
CREATE FUNCTION shop.note() RETURNS trigger LANGUAGE plpgsql SECURITY DEFINER SET search_path = shop AS $$
BEGIN NEW.state := 'paid'; RETURN NEW; END $$;
CREATE TRIGGER note BEFORE INSERT ON shop.orders_new FOR EACH ROW EXECUTE FUNCTION shop.note();
ALTER TABLE shop.orders_new DISABLE TRIGGER note;
CREATE TABLE private (owner name DEFAULT current_user, secret text);
INSERT INTO private (secret) VALUES ('mine'), (E'with\ttab'), (NULL);
INSERT INTO private VALUES ('another', 'not mine');
ALTER TABLE private ENABLE ROW LEVEL SECURITY;
ALTER TABLE private FORCE ROW LEVEL SECURITY;
CREATE POLICY own ON private USING (owner = current_user);
CREATE VIEW many AS SELECT name, twice FROM shop.customers WHERE amount > 1000;
CREATE MATERIALIZED VIEW sums AS SELECT state, count(*) FROM shop.orders GROUP BY state;
CREATE STATISTICS both_columns ON id, amount FROM shop.customers;
CREATE RULE keep AS ON DELETE TO shop.customers WHERE OLD.id = 1 DO INSTEAD NOTHING;
CREATE PUBLICATION changes FOR TABLE shop.customers;
SELECT lo_from_bytea(4711, decode('00ff00ff', 'hex'));
COMMENT ON LARGE OBJECT 4711 IS 'bytes';
GRANT USAGE ON SCHEMA shop TO PUBLIC;
GRANT SELECT (name) ON shop.customers TO PUBLIC;
GRANT SELECT ON LARGE OBJECT 4711 TO PUBLIC;
REVOKE ALL ON FUNCTION shop.is_fine FROM PUBLIC;
ALTER DEFAULT PRIVILEGES IN SCHEMA shop GRANT SELECT ON TABLES TO PUBLIC;
SELECT nextval('shop.numbers');
"""


def owner_sql(host, account, statement, *, database=None):
    done = host.sql(statement, database=database or account.name, role=account.name, password=account.password)
    assert (done.code, done.err) == (0, "")
    return done.out.strip()


def everything(host, account):
    """The database as SQL, less a key that pg_dump makes up each time."""
    text = host.ok(["pg_dump", account.name], user="postgres")
    return re.sub(r"^\\(un)?restrict .*\n", "", text, flags=re.MULTILINE)


def save(host, account):
    """Makes a backup and gives its name."""
    before = len(host.request("backup.status")["backups"])
    assert host.request("backup.start") == {"ok": True}
    backups = host.wait_for(lambda: (found := host.request("backup.status")["backups"]) and len(found) > before and found,
                            "the backup", 120)
    assert backups[0]["errors"] == []
    return backups[0]["name"]


def restore(host, account, backup):
    return host.request("backup.restore", username=account.name, backup=backup, what="database")


def databases(host, account):
    """The account's databases, by the end of their name."""
    names = host.sql(f"SELECT datname FROM pg_database WHERE datname LIKE '{account.name}%' ORDER BY 1").out.split()
    return [name.removeprefix(account.name) for name in names]


@pytest.fixture
def saved(host, account):
    """An account with a table that says "saved" in the backup and "live" now."""
    owner_sql(host, account, "CREATE TABLE says AS SELECT 'saved' AS word")
    backup = save(host, account)
    owner_sql(host, account, "UPDATE says SET word = 'live'")
    yield account, backup
    host.run(["rm", "-rf", f"{DESTINATION}/{backup}"])


def word(host, account, database=None):
    return host.sql("SELECT word FROM says", database=database or account.name).out.strip()


def refused(host, saved):
    """The error of a restore that has to leave the live database, less its beginning."""
    account, backup = saved
    error = restore(host, account, backup)["error"]
    assert error.startswith(KEPT)
    assert databases(host, account) == [""]
    assert word(host, account) == "live"
    assert not host.exists("/run/corvane/restore")
    return error.removeprefix(KEPT)


def test_rich_database_comes_back_the_same(host, account):
    owner_sql(host, account, RICH)
    before = everything(host, account)
    assert "FORCE ROW LEVEL SECURITY" in before and "lo_create('4711')" in before
    backup = save(host, account)
    owner_sql(host, account, "SET client_min_messages = error; DROP SCHEMA shop CASCADE; "
              "DROP TABLE private; SELECT lo_unlink(4711)")
    assert restore(host, account, backup) == {"ok": True}
    assert everything(host, account) == before
    assert databases(host, account) == [""]


def test_all_of_it_is_loaded_by_the_account_s_role(host, account):
    owner_sql(host, account, """
        CREATE TABLE who (name text);
        CREATE FUNCTION look(x int) RETURNS bool LANGUAGE plpgsql AS $$
            BEGIN INSERT INTO public.who SELECT session_user || ' ' || current_user; RETURN true; END $$;
        CREATE TABLE looks (x int CHECK (public.look(x)));
        INSERT INTO looks VALUES (1); DELETE FROM who""")
    backup = save(host, account)
    assert restore(host, account, backup) == {"ok": True}
    assert owner_sql(host, account, "SELECT DISTINCT name FROM who") == f"{account.name} {account.name}"


def test_objects_of_the_superuser_come_back_as_the_account_s(host, account):
    assert host.sql("CREATE TABLE his AS SELECT 1 AS x; CREATE EXTENSION amcheck", database=account.name).code == 0
    backup = save(host, account)
    assert restore(host, account, backup) == {"ok": True}
    owner = "SELECT tableowner FROM pg_tables WHERE tablename = 'his'"
    assert host.sql(owner, database=account.name).out == f"{account.name}\n"
    # One that only a superuser may make does not come back.
    assert host.sql("SELECT FROM pg_extension WHERE extname = 'amcheck'", database=account.name).out == ""


def test_settings_of_the_role_do_not_stop_it(host, saved):
    account, backup = saved
    owner_sql(host, account, f"ALTER ROLE {account.name} SET default_transaction_read_only = on")
    assert restore(host, account, backup) == {"ok": True}
    assert word(host, account) == "saved"


def test_suspended_account_has_to_be_resumed_first(host, saved):
    account, backup = saved
    assert host.request("hosting.suspend", username=account.name) == {"ok": True}
    assert refused(host, saved) == f"{account.name} may not log in to PostgreSQL: resume the account first"
    assert host.request("hosting.resume", username=account.name) == {"ok": True}
    assert restore(host, account, backup) == {"ok": True}
    assert word(host, account) == "saved"


def test_a_suspended_account_is_resumed_for_its_restore_and_suspended_again(host, saved):
    account, backup = saved
    assert host.request("hosting.suspend", username=account.name) == {"ok": True}
    host.ok(["corvctl", "backup", "restore", account.name, backup, "database", "--resume", "--confirm", account.name])
    assert word(host, account) == "saved"
    assert databases(host, account) == [""]
    assert host.sql(f"SELECT rolcanlogin FROM pg_roles WHERE rolname = '{account.name}'").out == "f\n"
    assert host.fetch(account.domain).status == 503


def test_role_without_a_connection_left(host, saved):
    account, _ = saved
    host.sql(f"ALTER ROLE {account.name} CONNECTION LIMIT 0")
    assert refused(host, saved) == f'too many connections for role "{account.name}"'


@pytest.mark.parametrize(("line", "reason"), [
    ("local {0}__restore {0} reject",
     'pg_hba.conf rejects connection for host "[local]", user "{0}", database "{0}__restore", no encryption'),
    ("local all {0} scram-sha-256", "PostgreSQL did not let the account in"),
])
def test_host_that_does_not_let_accounts_in_by_their_user(host, saved, line, reason):
    account, _ = saved
    host.ok(["sh", "-c", 'cp -p "$1" /root/hba && echo "$2" | cat - /root/hba >"$1" && systemctl reload postgresql@15-main',
             "sh", HBA, line.format(account.name)])
    try:
        assert host.sql("SELECT count(*) FROM pg_hba_file_rules WHERE error IS NOT NULL").out == "0\n"
        assert refused(host, saved) == reason.format(account.name)
    finally:
        host.ok(["sh", "-c", 'cat /root/hba >"$1"; systemctl reload postgresql@15-main', "sh", HBA])


def test_dump_that_is_none(host, saved):
    account, backup = saved
    host.put(f"{DESTINATION}/{backup}/accounts/{account.name}-db.dump", "no dump", mode="0600")
    assert refused(host, saved) == "pg_restore: error: input file does not appear to be a valid archive (too short?)"


def test_server_that_ends_the_connection(host, account):
    owner_sql(host, account, """
        CREATE TABLE says AS SELECT 'saved' AS word;
        CREATE FUNCTION leave(x int) RETURNS bool LANGUAGE plpgsql AS $$ BEGIN
            IF pg_catalog.current_database() LIKE '%restore' THEN
                PERFORM pg_catalog.pg_terminate_backend(pg_catalog.pg_backend_pid());
            END IF;
            RETURN true; END $$;
        CREATE TABLE leaves (x int CHECK (public.leave(x))); INSERT INTO leaves VALUES (1)""")
    backup = save(host, account)
    owner_sql(host, account, "UPDATE says SET word = 'live'")
    assert refused(host, (account, backup)) == "terminating connection due to administrator command"


def test_live_data_that_was_left_aside_is_not_dropped(host, saved):
    account, backup = saved
    name = account.name
    host.ok(["psql", "-qc", f"ALTER DATABASE {name} RENAME TO {name}__old"], user="postgres")
    assert restore(host, account, backup) == {"ok": False, "error": KEPT + (
        f"there is no database {name}, and {name}__old holds its data since a restore that was cut off; bring it back: "
        f"runuser -u postgres -- psql -c 'ALTER DATABASE \"{name}__old\" RENAME TO \"{name}\"'")}
    assert databases(host, account) == ["__old"]
    host.ok(["psql", "-qc", f"ALTER DATABASE {name}__old RENAME TO {name}"], user="postgres")
    assert word(host, account) == "live"
    assert restore(host, account, backup) == {"ok": True}
    assert word(host, account) == "saved"


def test_relay_is_gone_after_a_restore(host, saved):
    account, backup = saved
    assert restore(host, account, backup) == {"ok": True}
    assert not host.exists("/run/corvane/restore")
    agent = host.main_process("corv-agent")
    assert host.run(["pgrep", "-P", agent]).code == 1


@pytest.fixture
def hardened(host):
    """pg_hba.conf as corvctl writes it, until the test's end."""
    host.ok(["cp", "-p", HBA, "/root/hba"])
    host.ok(["corvctl", "database", "harden", "--write"])
    yield
    host.ok(["sh", "-c", 'cat /root/hba >"$1"; rm -f "$1".before-harden-*; systemctl reload postgresql@15-main', "sh", HBA])


def test_hardened_server_lets_a_role_reach_its_own_database_alone(host, hardened, saved):
    account, backup = saved
    other = host.account()
    assert host.sql("SELECT count(*) FROM pg_hba_file_rules WHERE error IS NOT NULL").out == "0\n"
    assert owner_sql(host, account, "SELECT 1") == "1"
    assert host.run(["psql", "-qtAc", "SELECT 1"], user=account.name).out == "1\n"
    assert host.run(["psql", "-qtAc", "SELECT 1", "corvane"], user="corv-web").out == "1\n"
    refused_there = host.run(["psql", "-d", other.name], user=account.name).err
    assert f'no pg_hba.conf entry for host "[local]", user "{account.name}", database "{other.name}"' in refused_there
    assert restore(host, account, backup) == {"ok": True}
    assert word(host, account) == "saved"
    assert host.sql("SELECT count(*) FROM pg_auth_members JOIN pg_roles ON pg_roles.oid = roleid "
                    "WHERE rolname = 'corv_restore'").out == "0\n"


def test_hardening_that_postgresql_does_not_take_is_undone(host):
    before = host.get(HBA)
    host.put(HBA, before + "local all all nosuch\n", mode="0640")
    try:
        done = host.run(["corvctl", "database", "harden", "--write"])
        assert done.code == 1 and "so the old ones are back" in done.err
        assert host.get(HBA) == before + "local all all nosuch\n"
    finally:
        host.ok(["sh", "-c", 'cat >"$1"; rm -f "$1".before-harden-*', "sh", HBA], input=before)
