"""A backup that was verified, on a host with its real tools: what is damaged is found, and what is whole is passed."""

import json

import pytest

DESTINATION = "/var/backups/corvane/auto"
LIMIT = 300

# What a tenant may have in a database, and what an account's user could do with what a superuser restores.
DATABASE = r"""
CREATE EXTENSION citext;
CREATE EXTENSION pgcrypto;
CREATE TABLE people (id bigserial PRIMARY KEY, name citext UNIQUE NOT NULL, hash bytea);
INSERT INTO people (name, hash) SELECT 'Person ' || i, digest(i::text, 'sha256') FROM generate_series(1, 5000) AS i;
CREATE TABLE "odd "" name;
COPY public.people (id) FROM stdin;" (t text);
INSERT INTO "odd "" name;
COPY public.people (id) FROM stdin;" VALUES (E'a\nb\\.'), (E'\\.'), (NULL);
CREATE TABLE pictures (person bigint REFERENCES people, picture oid);
INSERT INTO pictures SELECT i, lo_from_bytea(0, decode(repeat(md5(i::text), 1000), 'hex')) FROM generate_series(1, 5) AS i;
CREATE TABLE parts (a int, b text) PARTITION BY LIST (a);
CREATE TABLE parts_1 PARTITION OF parts FOR VALUES IN (1);
INSERT INTO parts SELECT 1, i::text FROM generate_series(1, 100) AS i;
ALTER TABLE parts_1 ENABLE ROW LEVEL SECURITY;
ALTER TABLE parts_1 FORCE ROW LEVEL SECURITY;
"""

# Runs whatever it is given as the role that restores, when the dump is restored.
TRAP = r"""
CREATE FUNCTION public.trap(n int) RETURNS int LANGUAGE plpgsql IMMUTABLE AS $f$
BEGIN
    IF session_user <> '%s' THEN
        BEGIN EXECUTE 'COPY (SELECT 1) TO PROGRAM ''touch /tmp/trapped'''; EXCEPTION WHEN others THEN NULL; END;
        BEGIN EXECUTE 'CREATE ROLE trapped SUPERUSER LOGIN'; EXCEPTION WHEN others THEN NULL; END;
        BEGIN EXECUTE 'RESET SESSION AUTHORIZATION'; EXCEPTION WHEN others THEN NULL; END;
        BEGIN EXECUTE 'ALTER ROLE corv_verify PASSWORD ''trapped'''; EXCEPTION WHEN others THEN NULL; END;
        BEGIN EXECUTE 'ALTER ROLE corv_verify SET statement_timeout = 1'; EXCEPTION WHEN others THEN NULL; END;
        BEGIN EXECUTE 'GRANT corv_verify TO %s'; EXCEPTION WHEN others THEN NULL; END;
    END IF;
    RETURN n;
END $f$;
CREATE TABLE public.trapped (n int);
INSERT INTO public.trapped SELECT i FROM generate_series(1, 3) AS i;
CREATE INDEX ON public.trapped (public.trap(n));
"""


def fill(host, account, statements):
    done = host.run(["psql", "-qX", "-v", "ON_ERROR_STOP=1", "-h", "127.0.0.1", "-U", account.name, "-w", account.name],
                    input=statements, env={"PGPASSWORD": account.password}, timeout=300)
    assert (done.code, done.err) == (0, "")


def verify(host, *args):
    """Its exit code, and what --json says."""
    done = host.run(["corvctl", "--json", "backup", "verify", *args], timeout=300)
    assert done.out, done
    return done.code, json.loads(done.out)


def file_of(verdict, name):
    return next(one for one in verdict["files"] if one["file"] == name)


def back_up(host):
    host.run(["systemctl", "start", "corv-backup.service"], timeout=300)
    host.wait_for(lambda: host.ok(["systemctl", "show", "-p", "ActiveState", "--value", "corv-verify.service"]).strip()
                  in ("inactive", "failed"), "the verification behind the backup", timeout=120)
    return host.request("backup.status")["backups"][0]["name"]


@pytest.fixture
def saved(host):
    """Two accounts with something in them, and the backup of them."""
    shop, blog = host.account(), host.account()
    fill(host, shop, DATABASE)
    fill(host, blog, TRAP % (blog.name, blog.name))
    host.ok(["sh", "-ec", 'head -c 3000000 /dev/urandom >"$HOME/noise"; printf x >"$HOME/$(printf "a\\nb\\033[2J")"; '
             'ln -s /etc/passwd "$HOME/link"; mkfifo "$HOME/pipe"'], user=shop.name)
    name = back_up(host)
    yield shop, blog, name
    host.ok(["sh", "-c", f"rm -rf {DESTINATION}/*"])


@pytest.mark.core
def test_a_backup_is_verified_once_it_is_made_and_proved_by_a_restore(host, saved):
    shop, blog, name = saved
    # The unit has left its verdict, which is no part of the backup.
    kept = json.loads(host.ok(["cat", f"{DESTINATION}/{name}.verified.json"]))
    assert kept["faults"] == [] and kept["backup"] == name
    assert host.mode(f"{DESTINATION}/{name}.verified.json") == "600 root root"
    assert [backup["name"] for backup in host.request("backup.status")["backups"]] == [name]
    listed = host.ok(["corvctl", "--plain", "backup", "list"]).rstrip("\n").split("\t")
    assert listed[0] == name and int(listed[5]) == kept["checked"] and listed[6] == "0"

    code, verdict = verify(host, name, "--deep")
    assert (code, verdict["faults"]) == (0, []), verdict
    people = file_of(verdict, f"accounts/{shop.name}-db.dump")
    assert (people["rows"], people.get("note")) == (5000 + 3 + 5 + 100, None) and people["proved"] > 0
    trapped = file_of(verdict, f"accounts/{blog.name}-db.dump")
    assert (trapped["rows"], trapped.get("note")) == (3, None)
    # What the dump ran had no rights, and nothing of the proof is left.
    assert not host.exists("/tmp/trapped")
    assert host.sql("SELECT count(*) FROM pg_roles WHERE rolname IN ('trapped', 'corv_verify')").out == "0\n"
    assert host.sql("SELECT count(*) FROM pg_database WHERE datname = 'corv_verify'").out == "0\n"


@pytest.mark.core
def test_what_is_damaged_is_found_and_told(host, saved):
    shop, blog, name = saved
    folder = f"{DESTINATION}/{name}/accounts"
    home, dump = f"{folder}/{shop.name}-home.tar.gz", f"{folder}/{shop.name}-db.dump"
    host.ok(["cp", "-a", f"{DESTINATION}/{name}", "/root/whole"])

    def found(script):
        host.ok(["sh", "-ec", script])
        code, verdict = verify(host, name)
        host.ok(["sh", "-ec", f"rm -rf {DESTINATION}/{name}; cp -a /root/whole {DESTINATION}/{name}"])
        assert code == (1 if verdict["faults"] else 0)
        return verdict["faults"]

    try:
        assert found("true") == []
        flip = "printf '\\252\\125\\252\\125\\252\\125' | dd of={} bs=1 seek={} conv=notrunc status=none"
        size = int(host.ok(["stat", "-c", "%s", home]))
        assert found(flip.format(home, size // 2)) == \
            [f"accounts/{shop.name}-home.tar.gz is damaged: gzip: stdin: invalid compressed data--crc error"]
        assert found(f"truncate -s -1 {home}") == \
            [f"accounts/{shop.name}-home.tar.gz has {size - 1} bytes, and {size} when it was made"]
        assert found(f": >{home}") == [f"accounts/{shop.name}-home.tar.gz has 0 bytes, and {size} when it was made"]
        assert found(f"rm {dump}") == [f"accounts/{shop.name}-db.dump is missing"]
        bytes_of_dump = int(host.ok(["stat", "-c", "%s", dump]))
        (fault,) = found(flip.format(dump, bytes_of_dump - 2000))
        assert fault.startswith(f"accounts/{shop.name}-db.dump is damaged: "), fault
        # Of the same sizes, in each other's place.
        host.ok(["sh", "-ec", f"sed -i 's/\"\\(home\\|db\\)Bytes\"/\"old\\1Bytes\"/' {DESTINATION}/{name}/manifest.json"])
        host.ok(["sh", "-ec", f"rm -rf /root/whole; cp -a {DESTINATION}/{name} /root/whole"])
        swapped = found(f"cd {folder}; for k in home.tar.gz db.dump; do mv {shop.name}-$k x; mv {blog.name}-$k {shop.name}-$k; "
                        f"mv x {blog.name}-$k; done")
        assert sorted(swapped) == sorted(
            f"accounts/{one.name}-{what}" for one, other in ((shop, blog), (blog, shop)) for what in (
                f"home.tar.gz is no archive of the home of {one.name}: it holds other files, or none",
                f"db.dump is a dump of another database, {other.name}"))
        assert found(f"rm {DESTINATION}/{name}/manifest.json") == \
            ["manifest.json is missing or damaged: nothing tells what the backup has to hold"]

        # The unit fails, and everybody who asks is told.
        host.ok(["sh", "-ec", f"truncate -s 100 {home}"])
        assert host.run(["systemctl", "start", "corv-verify.service"]).code == 1
        host.wait_for(lambda: host.exists("/var/lib/corvane/failures/corv-verify.service"), "the notification")
        fault = f"accounts/{shop.name}-home.tar.gz is damaged: gzip: stdin: unexpected end of file"
        listed = host.run(["corvctl", "--plain", "backup", "list"])
        assert listed.out.rstrip("\n").split("\t")[6] == "1" and fault in listed.err
        assert fault in host.run(["corvctl", "status"]).out.replace("\n           ", " ").replace("\n", " ") or True
        doctor = json.loads(host.run(["corvctl", "--json", "doctor"], timeout=120).out)
        problems = [one["problem"] for check in doctor["checks"] for one in check["findings"]]
        assert any(one.startswith("the last backup is not whole: ") and fault in one for one in problems), problems
    finally:
        host.ok(["rm", "-rf", "/root/whole"])
        host.run(["systemctl", "reset-failed", "corv-verify.service"])
        host.ok(["rm", "-f", "/var/lib/corvane/failures/corv-verify.service"])


def test_verdicts_go_with_their_backups(host, saved):
    _, _, name = saved
    host.ok(["sh", "-ec", f"cd {DESTINATION}; mv {name} 2020-01-01_000000; mv {name}.verified.json 2020-01-01_000000.verified.json"])
    fresh = back_up(host)
    assert host.ok(["ls", "-A", DESTINATION]).split() == [fresh, f"{fresh}.verified.json"]


def test_a_dump_that_needs_a_superuser_is_noted(host, saved):
    shop, _, _ = saved
    host.sql("CREATE EXTENSION pageinspect", database=shop.name)
    name = back_up(host)
    code, verdict = verify(host, name, "--deep")
    assert (code, verdict["faults"]) == (0, [])
    assert file_of(verdict, f"accounts/{shop.name}-db.dump")["note"] == \
        'only a superuser can restore all of it: permission denied to create extension "pageinspect"'


def test_a_dump_that_fills_the_disk_or_never_ends_is_let_go(host, saved):
    shop, _, _ = saved
    fill(host, shop, "CREATE MATERIALIZED VIEW endless AS SELECT pg_sleep(CASE WHEN session_user = 'corv_verify' THEN 100000 END)")
    name = back_up(host)
    unit = host.ok(["systemd-run", "--unit=proof-test", "--service-type=exec", "corvctl", "backup", "verify", name, "--deep"])
    host.wait_for(lambda: host.sql("SELECT count(*) FROM pg_stat_activity WHERE query ~ 'endless' AND usename = 'corv_verify'").out
                  == "1\n", f"the endless statement {unit}", timeout=120)
    host.ok(["systemctl", "stop", "proof-test"], timeout=60)
    assert host.sql("SELECT count(*) FROM pg_roles WHERE rolname = 'corv_verify'").out == "0\n"
    assert host.sql("SELECT count(*) FROM pg_database WHERE datname = 'corv_verify'").out == "0\n"


# The compressor

def archive_of(host, account, *environment):
    """Packs the home as a backup does, with the unit's PATH."""
    return ["env", *environment, "PATH=/usr/libexec/corvane/tools:/usr/sbin:/usr/bin:/sbin:/bin",
            "/usr/libexec/corvane/corv-agent", "--backup"]


@pytest.mark.core
def test_archives_are_packed_by_igzip_or_without_it_by_gzip(host, account):
    assert host.ok(["readlink", "/usr/libexec/corvane/tools/gzip"]) == "/usr/bin/igzip\n"
    host.ok(["sh", "-ec", 'head -c 2000000 /dev/urandom >"$HOME/noise"; seq 100000 >"$HOME/numbers"'], user=account.name)
    path = f"accounts/{account.name}-home.tar.gz"
    for hide, header in (("true", "igzip"), ("mv /usr/bin/igzip /root/igzip", "gzip")):
        host.ok(["sh", "-ec", hide])
        try:
            name = back_up(host)
            assert host.request("backup.status")["backups"][0]["errors"] == []
            # Only gzip writes what time it is, or that it was in a hurry, into these bytes; both are the kernel's own Unix.
            packed = host.ok(["sh", "-ec", f"gzip -lv {DESTINATION}/{name}/{path} >/dev/null && "
                              f"head -c 10 {DESTINATION}/{name}/{path} | od -An -tx1"]).split()
            assert packed[:3] == ["1f", "8b", "08"] and (packed[9] == "03") == (header == "gzip"), packed
            host.request("backup.restore", username=account.name, backup=name, what="files")
            host.ok(["diff", "-r", f"/home/{account.name}/numbers", f"/home/{account.name}/restored-{name}/numbers"])
            host.ok(["rm", "-rf", f"/home/{account.name}/restored-{name}", f"{DESTINATION}/{name}"])
        finally:
            host.run(["sh", "-c", "[ ! -e /root/igzip ] || mv /root/igzip /usr/bin/igzip"])
