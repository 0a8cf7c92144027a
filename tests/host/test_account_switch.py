"""An account moves from one server to another: it is the same there afterwards, and at each time one of the two has it."""

import re
import subprocess
from contextlib import contextmanager

import pytest
from hostfloor import HostError
from moves import (  # noqa: F401 (pytest finds three of them here)
    HOST,
    MOVES,
    SWITCHES,
    Watch,
    is_settled,
    is_suspended,
    killed_when,
    move,
    new,
    old,
    record,
    shop,
    words,
)
from shops import but_for_logs, everything, page

LIMIT = 400
WELL = (200, "2000 orders, \n")
# Where a move is ended: what it says there, or what it has written down.
SAYS = ["making the account here", "bringing the files, while the site is served there", "bringing the database, and loading it here",
        SWITCHES]


def is_home(host, shop):
    """Whether the host serves the shop with its page over its database."""
    return page(host, shop) == WELL


@pytest.mark.core
def test_a_shop_is_the_same_on_its_new_server(old, new, shop):
    before = everything(old, shop.name)
    with Watch([old, new], shop.domain) as watch:
        done = move(new, shop.name)
    assert (done.code, re.findall("not as it was.*", done.err)) == (0, []), done
    assert "Moved" in done.out and f"http://{shop.domain}/ answers: status 200" in done.out
    assert but_for_logs(everything(new, shop.name)) == but_for_logs(before)
    assert is_home(new, shop) and page(new, shop, "/order/7") == (200, "2000 orders, open\n")
    assert is_suspended(old, shop.name) and is_home(old, shop), "the old address leads to the new server"
    assert watch.served(1)[0] > watch.stopped(), "both served it at a time"
    print(f"nobody served it for {watch.gap():.2f} s, at the old address for {watch.gap_at_the_old_address():.2f} s")
    assert record(new, shop.name)[-1] == "finished"
    assert not new.exists(f"{new_home(shop)}/.corv-moving") and not new.exists(f"{new_home(shop)}/.corv-moved")
    assert new.run(["sh", "-c", f"ls {MOVES} | grep dump"]).out == ""
    assert old.run(["systemctl", "is-active", f"corv-move-{shop.name}.timer"]).out == "inactive\n"


# Found for a text and a bigint before the system's own, by whoever has more than that one's schema on his path.
RISE = """
CREATE FUNCTION public.rise(text, bigint) RETURNS text LANGUAGE plpgsql AS $$ BEGIN
    IF (SELECT rolsuper FROM pg_catalog.pg_roles WHERE rolname = current_user) THEN
        EXECUTE 'ALTER ROLE @ME@ SUPERUSER';
    END IF;
    RETURN pg_catalog.concat($1, $2);
END $$;
CREATE OPERATOR public.|| (LEFTARG = text, RIGHTARG = bigint, FUNCTION = public.rise);
"""


def test_no_superuser_of_the_old_server_through_an_operator_left_there(old, new, shop):
    """As in a database that comes from a release before 15, in which everybody may make what he likes."""
    assert old.sql("GRANT CONNECT ON DATABASE postgres TO PUBLIC; GRANT CREATE ON SCHEMA public TO PUBLIC").code == 0
    try:
        left = old.run(["psql", "-qtAX", "-d", "postgres", "-c", RISE.replace("@ME@", shop.name)], user=shop.name)
        assert (left.code, left.err) == (0, "")
        assert move(new, shop.name).code == 0
        assert old.sql(f"SELECT rolsuper FROM pg_roles WHERE rolname = '{shop.name}'").out == "f\n"
        assert is_home(new, shop)
    finally:
        old.sql("DROP FUNCTION public.rise(text, bigint) CASCADE")
        old.sql("REVOKE CONNECT ON DATABASE postgres FROM PUBLIC; REVOKE CREATE ON SCHEMA public FROM PUBLIC")


def test_the_old_address_leads_here_until_it_is_told_not_to(old, new, shop):
    assert move(new, shop.name).code == 0
    assert is_home(old, shop)
    done = new.run(["corvctl", "account", "move", shop.name, HOST, "--end"])
    assert (done.code, done.out, done.err) == (0, f"{HOST} leads nobody to {shop.name} any more\n", "")
    old.wait_for(lambda: page(old, shop)[0] == 503, "the old address saying that it is suspended")
    assert is_home(new, shop) and not new.exists(f"{MOVES}/{shop.name}.json")


def new_home(shop):
    return f"/home/{shop.name}"


@pytest.mark.long
def test_who_is_suspended_stays_so(old, new, shop):
    before = everything(old, shop.name)
    old.ok(["corvctl", "account", "suspend", shop.name])
    done = move(new, shop.name)
    assert done.code == 0, done
    assert is_suspended(new, shop.name) and page(new, shop)[0] == 503
    new.ok(["corvctl", "account", "resume", shop.name])
    new.wait_for(lambda: is_home(new, shop), "the resumed shop being served")
    assert everything(new, shop.name) == before


# What is there and cannot be put back: while a table is loaded no names without a schema are known. And a table of which its owner
# himself does not see the rows.
ROWS = """
CREATE TABLE floors (n int); INSERT INTO floors VALUES (1);
CREATE FUNCTION fits(int) RETURNS bool LANGUAGE sql AS 'SELECT $1 >= (SELECT min(n) FROM floors)';
CREATE TABLE prices (n int CHECK (fits(n))); INSERT INTO prices SELECT generate_series(1, 50);
ALTER TABLE app.cfg ENABLE ROW LEVEL SECURITY; ALTER TABLE app.cfg FORCE ROW LEVEL SECURITY;
"""


def test_a_rehearsal_brings_all_and_leaves_the_account_where_it_is(old, new, shop):
    def run(statements):
        done = old.sql(f"SET search_path = public; {statements}", database=shop.name, role=shop.name, password=shop.password)
        assert done.code == 0, done

    run(ROWS)
    done = move(new, shop.name)
    assert done.code == 1 and ("corvctl: site1 is not moved: the dump has 50 rows of the table public.prices, of which 0 were restored\n"
                               .replace("site1", shop.name)) in done.err, done
    assert is_home(old, shop) and not is_suspended(old, shop.name)
    run("DROP TABLE prices")
    before = everything(old, shop.name)
    with Watch([old, new], shop.domain) as watch:
        done = move(new, shop.name, "--rehearse")
    assert done.code == 0, done
    assert "Rehearsed" in done.out and f"{HOST} still has it; corvctl account move {shop.name} {HOST} moves it" in done.err
    assert watch.statuses(0) == {"200"} and everything(old, shop.name) == before
    assert record(new, shop.name) == ["created", "rehearsed"]
    assert "orders" not in new.fetch(shop.domain).body
    # What has changed since comes along.
    old.put(f"{shop.home}/public_html/later.txt", "later\n", owner=f"{shop.name}:www-data")
    old.ok(["rm", f"{shop.home}/public_html/up/f9.bin"])
    assert old.sql("DELETE FROM orders WHERE id > 1990", database=shop.name).code == 0
    before = everything(old, shop.name)
    done = move(new, shop.name)
    assert done.code == 0 and everything(new, shop.name) == before
    assert page(new, shop) == (200, "1990 orders, \n")


def killed_at(new, shop, saying):
    """Starts a move and kills it with all that it has started once it says that."""
    with new.background(["setsid", "sh", "-c", 'echo $$ >&2; exec "$@"', "sh", *words(shop.name)], stdout=subprocess.DEVNULL,
                        stderr=subprocess.PIPE, text=True) as process:
        inner = process.stderr.readline().strip()
        for line in process.stderr:
            if saying in line:
                new.ok(["kill", "-KILL", inner])
                break
        else:
            raise HostError(f"the move never said {saying!r}")
    assert process.returncode != 0


def goes_on(old, new, shop, before):
    """The same command brings it to its end. before: what the shop was, where it has not been on-line there since."""
    if not is_suspended(old, shop.name):
        before = everything(old, shop.name)
    done = move(new, shop.name)
    assert done.code == 0, done
    assert everything(new, shop.name) == before
    assert is_home(new, shop) and is_suspended(old, shop.name)
    assert is_home(old, shop), "the old address leads to the new server"
    assert not is_suspended(new, shop.name)


@pytest.mark.parametrize("saying", [*(pytest.param(saying, marks=pytest.mark.long) for saying in SAYS[:-2]), SAYS[-2]])
def test_killed_before_the_switch_it_is_served_where_it_was(old, new, shop, saying):
    before = everything(old, shop.name)
    killed_at(new, shop, saying)
    assert is_home(old, shop) and not is_suspended(old, shop.name)
    assert "switching" not in record(new, shop.name)
    goes_on(old, new, shop, before)


# When it is killed, by what is seen of it from outside: each is a moment within the switch.
MOMENTS = {
    "suspended there": lambda old, new, name: is_suspended(old, name),
    "the dump is coming": lambda old, new, name: new.exists(f"{MOVES}/{name}.dump"),
    "the files are placed": lambda old, new, name: "placing" in record(new, name),
    "decided": lambda old, new, name: old.exists(f"{MOVES}/{name}.left"),
    "the old address leads here": lambda old, new, name: "forwarded" in record(new, name),
}


@pytest.mark.parametrize("moment", [moment if moment == "decided" else pytest.param(moment, marks=pytest.mark.long)
                                    for moment in MOMENTS])
def test_killed_within_the_switch_it_is_served_again_without_anybody(old, new, shop, moment):
    before = everything(old, shop.name)
    assert move(new, shop.name, "--rehearse").code == 0
    killed_when(new, shop, lambda: MOMENTS[moment](old, new, shop.name), moment)
    # What is left to do is done by the new server itself, before the old one's timer.
    old.wait_for(lambda: is_settled(old, shop.name) and is_home(old, shop), "the shop being served at its address", timeout=60)
    goes_on(old, new, shop, before)


@contextmanager
def nobody_goes_on(new, shop):
    """The new server as if it were gone once the move is killed: nothing there can go on with it."""
    unit = f"/run/systemd/system/corv-moving-{shop.name}.timer"
    new.ok(["sh", "-c", f"ln -s /dev/null {unit} && systemctl daemon-reload"])
    yield
    new.ok(["sh", "-c", f"rm {unit} && systemctl daemon-reload"])


def test_a_restart_of_the_old_server_within_the_switch(old, new, shop):
    with nobody_goes_on(new, shop):
        killed_when(new, shop, lambda: is_suspended(old, shop.name), "the suspension")
    # What a restart leaves of it: the timer is gone, and the units that are enabled are started.
    old.ok(["systemctl", "stop", f"corv-move-{shop.name}.timer"])
    assert page(old, shop)[0] == 503 and old.ok(["systemctl", "is-enabled", "corv-move.service"]) == "enabled\n"
    old.ok(["systemctl", "start", "corv-move.service"])
    old.wait_for(lambda: is_home(old, shop), "the shop being served where it was")
    assert old.run(["sh", "-c", f"ls {MOVES}"]).out == ""
    # Who was suspended before the move stays so.
    old.ok(["corvctl", "account", "suspend", shop.name])
    old.ok(["sh", "-c", f": >{MOVES}/{shop.name}.undecided"])
    old.ok(["systemctl", "start", "corv-move.service"])
    assert is_suspended(old, shop.name) and old.exists(f"{MOVES}/{shop.name}.undecided")


@pytest.mark.long
def test_the_timer_of_the_old_server_needs_nobody(old, new, shop):
    with nobody_goes_on(new, shop):
        killed_when(new, shop, lambda: is_suspended(old, shop.name), "the suspension")
    assert "decided" not in record(new, shop.name) and page(old, shop)[0] == 503
    old.wait_for(lambda: is_home(old, shop), "the timer's time", timeout=150)
    assert not is_suspended(old, shop.name)


@pytest.mark.long
def test_a_connection_that_breaks_in_the_switch(old, new, shop):
    before = everything(old, shop.name)
    assert move(new, shop.name, "--rehearse").code == 0
    with new.background(words(shop.name), stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True) as process:
        for line in process.stderr:
            if SWITCHES in line:
                break
        old.wait_for(lambda: is_suspended(old, shop.name), "the suspension")
        # The sessions, not what listens for further ones.
        old.ok(["sh", "-c", "pkill -KILL -f '^sshd(-session)?: root@notty'"])
        rest = process.stderr.read()
    assert process.returncode == 1, rest
    assert f"{shop.name} is not moved: " in rest and f"{HOST} still has it" in rest
    assert is_home(old, shop)
    goes_on(old, new, shop, before)


@pytest.mark.long
@pytest.mark.parametrize("saying", SAYS[1:-1])  # the account is made without one
def test_a_connection_that_breaks_before_the_switch(old, new, shop, saying):
    before = everything(old, shop.name)
    with new.background(words(shop.name), stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True) as process:
        for line in process.stderr:
            if saying in line:
                break
        old.wait_for(lambda: old.run(["pkill", "-KILL", "-f", "^sshd(-session)?: root@notty"]).code == 0, "a session that ends")
        rest = process.stderr.read()
    assert process.returncode == 1 and f"{HOST} still has it" in rest, rest
    assert is_home(old, shop) and not is_suspended(old, shop.name)
    goes_on(old, new, shop, before)


# A disk of its own for what lies there, with some room: where homes are, and where databases are.
DISKS = {
    "/home": "mount -t tmpfs -o size=96m,mode=755 tmpfs /home",
    "/var/lib/postgresql": "systemctl stop 'postgresql*'; cp -a /var/lib/postgresql /root/kept; mount -t tmpfs -o size=512m tmpfs "
                           "/var/lib/postgresql; cp -a /root/kept/. /var/lib/postgresql/; rm -r /root/kept; systemctl start postgresql",
}


@pytest.mark.long
@pytest.mark.parametrize("folder, saying", [("/home", SAYS[1]), ("/var/lib/postgresql", SAYS[2]), ("/var/lib/postgresql", SWITCHES)])
def test_a_disk_that_fills_up_on_the_way(old, new, shop, folder, saying):
    before = everything(old, shop.name)
    if new.run(["mountpoint", "-q", folder]).code != 0:
        new.ok(["sh", "-c", DISKS[folder]])
    with new.background(words(shop.name), stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True) as process:
        for line in process.stderr:
            if saying in line:
                break
        new.run(["sh", "-c", f"head -c 1G /dev/zero >{folder}/filler"])
        rest = process.stderr.read()
    new.ok(["rm", f"{folder}/filler"])
    assert process.returncode == 1 and f"{HOST} still has it" in rest, rest
    assert is_home(old, shop) and not is_suspended(old, shop.name)
    # A database server that found no room for its log has to be started anew.
    new.ok(["sh", "-c", "systemctl restart postgresql; until runuser -u postgres -- psql -qc 'SELECT 1' >/dev/null 2>&1; do sleep 0.1; done"])
    goes_on(old, new, shop, before)


@pytest.mark.long
def test_a_disk_that_is_full(old, new, shop):
    filler = "CREATE TABLE public.filler AS SELECT md5(i::text) AS text FROM generate_series(1, 20000) i"
    assert old.sql(filler, database=shop.name, role=shop.name, password=shop.password).code == 0
    before = everything(old, shop.name)
    # The dump has room there, but takes more than half of it.
    new.ok(["sh", "-ec", f"mkdir -pm 700 {MOVES}; mount -t tmpfs -o size=1200k,mode=700 tmpfs {MOVES}"])
    try:
        done = move(new, shop.name)
        assert done.code == 1 and f"is not moved: the dump: more comes than was told of, and fills the disk of {MOVES}\n" in done.err, done
        assert is_home(old, shop) and not is_suspended(old, shop.name)
    finally:
        new.ok(["sh", "-ec", f"cp -a {MOVES} /root/kept; umount {MOVES}; cp -a /root/kept/. {MOVES}/; rm -r /root/kept"])
    goes_on(old, new, shop, before)


def settings(host, name):
    """What PostgreSQL has stored of settings of the role, and of its database."""
    return sorted(host.sql("SELECT unnest(setconfig) FROM pg_db_role_setting LEFT JOIN pg_database d ON d.oid = setdatabase "
                           f"LEFT JOIN pg_roles r ON r.oid = setrole WHERE datname = '{name}' OR rolname = '{name}'").out.split("\n"))


def test_what_the_account_itself_may_not_have_does_not_come_along(old, new, shop):
    """What is called like rsync's own complaints neither keeps an account from moving nor lets a part of it pass for the whole, and
    what only a superuser may set is not set on another server's word."""
    name, before = shop.name, settings(old, shop.name)
    superusers = [f"ROLE {name} SET session_preload_libraries = 'auto_explain'", f"DATABASE {name} SET log_statement = 'none'",
                  f"ROLE {name} IN DATABASE {name} SET other.one = '1'"]
    for statement in superusers:
        assert old.sql(f"ALTER {statement}").code == 0
    assert len(settings(old, name)) == len(before) + len(superusers)
    names = ["private/rsync: [receiver] x", "private/y (code 24)"]
    for file in names:
        old.put(f"{shop.home}/{file}", "kept to himself\n", owner=shop.name, mode="000")
    done = move(new, shop.name)
    assert done.code == 1 and "files that its user may not read there" in done.err, done
    for setting in ("session_preload_libraries", "log_statement", "other.one"):
        told = re.findall(f'not as it was: the setting {setting} of PostgreSQL: .*permission denied to set parameter "{setting}"', done.err)
        assert len(told) == 1, done
    assert settings(new, name) == before
    assert is_home(new, shop) and record(new, shop.name)[-1] == "finished"
    assert not any(new.exists(f"{shop.home}/{file}") for file in names)


# A session of the shop's own that does not take its database for read-only, until it is ended.
WRITES = ("while :; do psql -qX -h 127.0.0.1 -c 'SET default_transaction_read_only = off' "
          "-c \"INSERT INTO public.orders (what) VALUES ('late')\" 2>/dev/null || sleep 0.1; done")


def test_what_is_written_all_the_same_comes_along(old, new, shop):
    """An application that has its way with a database that is read-only loses nothing that it was told is there."""
    login = [f"PGUSER={shop.name}", f"PGPASSWORD={shop.password}", f"PGDATABASE={shop.name}"]
    with old.background(["env", *login, "sh", "-c", WRITES]) as writer:
        try:
            done = move(new, shop.name)
        finally:
            writer.kill()
    assert done.code == 0, done
    count = "SELECT count(*), max(id) FROM public.orders WHERE what = 'late'"
    there, here = (host.sql(count, database=shop.name).out for host in (old, new))
    assert there == here and int(here.split("|")[0]) > 0
    assert old.sql(f"SELECT setconfig FROM pg_db_role_setting JOIN pg_database d ON d.oid = setdatabase WHERE datname = '{shop.name}' "
                   "AND setrole = 0 AND setconfig::text LIKE '%read_only%'").out.strip() == "", "it is writable for whoever resumes it"


@pytest.mark.long
def test_another_host_is_refused_while_one_is_under_way(old, new, shop):
    assert move(new, shop.name, "--rehearse").code == 0
    done = new.run(["corvctl", "account", "move", shop.name, "root@elsewhere", "--confirm", shop.name])
    assert (done.code, done.err) == (1, f"corvctl: a move of {shop.name} from {HOST} is under way here\n"
                                     f"  corvctl account move {shop.name} {HOST} goes on with it\n")
