"""A restore that is cut off in the middle, at each of its steps: what becomes of the account's database and files.

docs/backup.md tells operators the same in words.
"""

import subprocess

import pytest

DESTINATION = "/var/backups/corvane/auto"
CLUSTER = "/var/lib/postgresql/15/main"
NOISE = 30_000_000

# Calls of psql in a restore: the first prepares the scratch database, the second swaps it in or drops it. A script begins with
# three lines that set names; so many lines of it have been worked off when the hold begins.
PSQL = """
count=$(cat /run/stand-ins/count 2>/dev/null || echo 0)
count=$((count + 1))
echo $count >/run/stand-ins/count
[ $count = {call} ] || exec /usr/bin/psql "$@"
{{
    for line in $(seq {lines}); do IFS= read -r text && printf '%s\\n' "$text"; done
    echo '\\! : >/run/stand-ins/reached'
    until [ -e /run/stand-ins/reached ]; do sleep 0.05; done
    hold
    cat
}} | /usr/bin/psql "$@"
"""
PG_RESTORE = '{ head -c 1000000; hold; cat; } | /usr/bin/pg_restore "$@"'
# The compressor writes nothing before it has read a million bytes.
TAR = '{ head -c 5000000; hold; cat; } | /usr/bin/tar "$@"'

STEPS = {
    "before the scratch database is made": ("psql", PSQL.format(call=1, lines=3)),
    "while the scratch database is made": ("psql", PSQL.format(call=1, lines=5)),
    "while the dump is loaded": ("pg_restore", PG_RESTORE),
    "before the swap": ("psql", PSQL.format(call=2, lines=3)),
    "after the connections were ended": ("psql", PSQL.format(call=2, lines=5)),
    "after the live database was set aside": ("psql", PSQL.format(call=2, lines=6)),
    "after the restored one took its place": ("psql", PSQL.format(call=2, lines=7)),
}

# What the databases say after the agent was killed or PostgreSQL was stopped, by the end of their name.
CUT_OFF = {
    "before the scratch database is made": {"": "live"},
    "while the scratch database is made": {"": "live", "__restore": "empty"},
    "while the dump is loaded": {"": "live", "__restore": "part"},
    "before the swap": {"": "live", "__restore": "saved"},
    "after the connections were ended": {"": "live", "__restore": "saved"},
    "after the live database was set aside": {"__old": "live", "__restore": "saved"},
    "after the restored one took its place": {"": "saved", "__old": "live"},
}
# What the database of the account's name says when the disk was full from then on.
FULL = {
    "before the scratch database is made": "live",
    "while the scratch database is made": "live",
    "while the dump is loaded": "part",
    "before the swap": "saved",
    "after the connections were ended": "saved",
    "after the live database was set aside": "saved",
    "after the restored one took its place": "saved",
}

PREPARING = "runuser failed: "
KEPT = "the restore failed, so the current database was left as it is: "
LOADING = KEPT + "cannot read the backup file"
SWAPPING = "restored, but swapping it in failed: runuser failed: "


@pytest.fixture(scope="module")
def own_host(boot):
    host = boot()
    yield host
    host.stop()


@pytest.fixture(scope="module")
def prepared(own_host):
    """An account whose database says "saved" in the backup and "live" now; both are some megabytes of random text."""
    host = own_host
    # A file system of its own, so that it can be filled.
    host.ok(["sh", "-c", f"""
        systemctl stop postgresql@15-main
        mv {CLUSTER} {CLUSTER}.old
        mkdir {CLUSTER}
        mount -t tmpfs -o size=400m,mode=700,uid=postgres,gid=postgres tmpfs {CLUSTER}
        cp -a {CLUSTER}.old/. {CLUSTER}/
        systemctl start postgresql@15-main"""])
    account = host.account()
    sql(host, account, "CREATE TABLE says (word text); INSERT INTO says VALUES ('saved');"
        "CREATE TABLE bulk AS SELECT i, encode(sha512(i::text::bytea), 'base64') FROM generate_series(1, 50000) AS i;"
        "CREATE TABLE zlast AS SELECT 1 AS x")
    host.ok(["sh", "-c", 'head -c "$2" /dev/urandom >"$1/public_html/noise"', "sh", account.home, str(NOISE)],
            user=account.name)
    assert host.request("backup.start") == {"ok": True}
    backup = host.wait_for(lambda: host.request("backup.status")["backups"], "the backup", 120)[0]
    assert backup["errors"] == []
    sql(host, account, "UPDATE says SET word = 'live'")
    return account, backup["name"]


def sql(host, account, statement, database=None):
    done = host.sql(statement, database=database or account.name, role=account.name, password=account.password)
    assert (done.code, done.err) == (0, "")
    return done.out.strip()


def databases(host, account):
    """What each of the account's databases says, by the end of its name; "part" where not all of the saved tables are there."""
    found = {}
    names = host.sql(f"SELECT datname FROM pg_database WHERE datname LIKE '{account.name}%'").out.split()
    for name in names:
        word = host.sql("SELECT word FROM says", database=name).out.strip()
        rows = host.sql("SELECT count(*) FROM bulk", database=name).out.strip()
        last = host.sql("SELECT x FROM zlast", database=name).out.strip()
        empty = host.sql("SELECT count(*) FROM pg_class WHERE relnamespace = 'public'::regnamespace", database=name).out
        whole = rows == "50000" and last == "1"
        found[name.removeprefix(account.name)] = word if whole else "empty" if empty == "0\n" else "part"
    return found


def put_back(host, account):
    """Makes the live database what it was before the next cut."""
    host.ok(["sh", "-c", f"""
        rm -f {CLUSTER}/filler
        systemctl restart postgresql@15-main
        cd /
        until runuser -u postgres -- psql -qtAXc 'SELECT 1' >/dev/null 2>&1; do sleep 0.1; done
        names() {{ runuser -u postgres -- psql -qtAXc "SELECT 1 FROM pg_database WHERE datname = '$1'"; }}
        for other in {account.name}__old {account.name}__restore; do
            runuser -u postgres -- psql -qtAXc "DROP DATABASE IF EXISTS $other WITH (FORCE)" 2>/dev/null
        done
        runuser -u postgres -- psql -qtAXc "DROP DATABASE IF EXISTS {account.name} WITH (FORCE)" 2>/dev/null
        runuser -u postgres -- createdb -O {account.name} {account.name}
        backup=$(ls -d {DESTINATION}/2*[0-9] | tail -n 1)
        runuser -u postgres -- pg_restore -d {account.name} <"$backup/accounts/{account.name}-db.dump"
        runuser -u postgres -- psql -qtAXc "UPDATE says SET word = 'live'" {account.name}"""], timeout=300)


def size(host, path):
    return int(host.ok(["stat", "-c", "%s", path]))


def kill_agent(host):
    host.ok(["systemctl", "kill", "--kill-who=main", "--signal=SIGKILL", "corv-agent"])
    host.wait_for(lambda: host.run(["pgrep", "-f", "pg_restore|/usr/bin/psql|tar -xzf"]).code == 1, "the tools' end", 60)
    host.wait_for_unit("corv-agent")


def stop_postgresql(host):
    # The unit without the cluster's name does not wait for the server.
    host.ok(["systemctl", "stop", "postgresql@15-main"])


def fill_disk(host):
    host.run(["sh", "-c", f"head -c 1G /dev/zero >{CLUSTER}/filler"])


def cut(host, account, backup, what, stand_in, cause):
    """Holds a restore at a stand-in while `cause` happens: its reply, None when the agent was killed."""
    with host.stand_in(*stand_in):
        host.ok(["chmod", "777", "/run/stand-ins"])  # whatever user the tool runs under
        with host.connection(600) as client:
            host.send(client, "backup.restore", username=account.name, backup=backup, what=what)
            host.wait_for_hold()
            cause(host)
            if cause is kill_agent:
                return None
            host.release()
            return host.receive(client)


def database_after(host, account, backup, step, cause):
    """The reply's error and what the databases say once PostgreSQL is back and the disk has room again."""
    reply = cut(host, account, backup, "database", STEPS[step], cause)
    host.ok(["sh", "-c", f"rm -f {CLUSTER}/filler; systemctl start postgresql@15-main"])
    host.wait_for(lambda: host.sql("SELECT 1").out == "1\n", "PostgreSQL")
    return reply and reply["error"], databases(host, account)


def begins(error, step, *steps_and_texts):
    """Whether the error begins as it should for a restore that was cut off at that step."""
    for text, steps in steps_and_texts:
        if step in steps:
            return error.startswith(text)
    raise KeyError(step)


def steps(*usual):
    """All of them, of which those that are not named are tried with --long alone."""
    return [step if step in usual else pytest.param(step, marks=pytest.mark.long) for step in STEPS]


@pytest.fixture
def live(own_host, prepared):
    """The account with its live database, the backup's name."""
    assert databases(own_host, prepared[0]) == {"": "live"}
    yield prepared
    put_back(own_host, prepared[0])


@pytest.mark.parametrize("step", steps("after the live database was set aside"))
def test_database_when_the_agent_is_killed(own_host, live, step):
    error, found = database_after(own_host, *live, step, kill_agent)
    assert error is None
    assert found == CUT_OFF[step]


@pytest.mark.long
@pytest.mark.parametrize("step", list(STEPS))
def test_database_when_postgresql_is_stopped(own_host, live, step):
    error, found = database_after(own_host, *live, step, stop_postgresql)
    steps = list(STEPS)
    assert begins(error, step, (PREPARING, steps[:2]), (LOADING, steps[2:3]), (SWAPPING, steps[3:]))
    assert found == CUT_OFF[step]


@pytest.mark.parametrize("step", steps("while the dump is loaded"))
def test_database_when_the_disk_fills_up(own_host, live, step):
    """From the loading on nothing keeps the live data: what was loaded is swapped in, and the old database is dropped."""
    error, found = database_after(own_host, *live, step, fill_disk)
    steps = list(STEPS)
    assert begins(error, step, (PREPARING, steps[:1]), (KEPT, steps[1:2]), (SWAPPING, steps[2:]))
    assert found[""] == FULL[step]
    assert found.get("__old") in (None, "part")


@pytest.mark.long
def test_another_restore_after_a_cut_between_the_renames_leaves_the_live_data(own_host, live):
    account, backup = live
    _, found = database_after(own_host, account, backup, "after the live database was set aside", kill_agent)
    assert found == {"__old": "live", "__restore": "saved"}
    reply = own_host.request("backup.restore", username=account.name, backup=backup, what="database")
    assert reply["error"].startswith(KEPT + f"there is no database {account.name}, and {account.name}__old holds its data")
    assert databases(own_host, account) == {"__old": "live", "__restore": "saved"}


def test_restored_database_of_a_cut_restore_is_replaced_by_the_next(own_host, live):
    account, backup = live
    database_after(own_host, account, backup, "while the dump is loaded", kill_agent)
    assert own_host.request("backup.restore", username=account.name, backup=backup, what="database") == {"ok": True}
    assert databases(own_host, account) == {"": "saved"}


def test_files_when_the_agent_is_killed(own_host, prepared):
    host, (account, backup) = own_host, prepared
    target = f"{account.home}/restored-{backup}"
    cut(host, account, backup, "files", ("tar", TAR), kill_agent)
    assert 0 < size(host, f"{target}/public_html/noise") < NOISE
    assert size(host, f"{account.home}/public_html/noise") == NOISE
    again = host.request("backup.restore", username=account.name, backup=backup, what="files")
    assert again == {"ok": False, "error": f"restored-{backup} exists already in the home folder"}
    host.ok(["rm", "-r", target])
    assert host.request("backup.restore", username=account.name, backup=backup, what="files")["ok"] is True
    assert size(host, f"{target}/public_html/noise") == NOISE
    host.ok(["rm", "-r", target])


def test_files_when_the_disk_fills_up(own_host, prepared):
    host, (account, backup) = own_host, prepared
    target = f"{account.home}/restored-{backup}"
    host.ok(["mount", "-t", "tmpfs", "-o", f"size=10m,mode=710,uid={account.name},gid=www-data", "tmpfs", account.home])
    try:
        reply = host.request("backup.restore", username=account.name, backup=backup, what="files")
        assert reply["ok"] is False and reply["error"].startswith("unpacking stopped (over the disk limit?): ")
        assert host.exists(f"{target}/public_html/noise")
    finally:
        host.ok(["umount", account.home])
    assert not host.exists(target)
