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
    assert host.request("backup.status")["backups"][0]["name"] == name
    listed = host.ok(["corvctl", "--plain", "backup", "list"]).splitlines()[0].split("\t")
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
        assert found(f": >{home}") == [f"accounts/{shop.name}-home.tar.gz is empty"]
        assert found(f"rm {dump}") == [f"accounts/{shop.name}-db.dump is missing"]
        bytes_of_dump = int(host.ok(["stat", "-c", "%s", dump]))
        (fault,) = found(flip.format(dump, bytes_of_dump // 2))  # PostgreSQL 17 does not read the last kilobyte
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
        assert fault in " ".join(host.run(["corvctl", "status"]).out.split())
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
        'only a superuser can restore all of it: permission denied to create extension "pageinspect"; ' \
        'then: extension "pageinspect" does not exist'


def test_a_dump_that_fills_the_disk_or_never_ends_is_let_go(host, saved):
    shop, _, _ = saved
    fill(host, shop, "CREATE MATERIALIZED VIEW endless AS SELECT pg_sleep(CASE WHEN session_user = 'corv_verify' THEN 100000 END)::text AS t")
    name = back_up(host)
    unit = host.ok(["systemd-run", "--unit=proof-test", "--service-type=exec", "corvctl", "backup", "verify", name, "--deep"])
    host.wait_for(lambda: host.sql("SELECT count(*) FROM pg_stat_activity WHERE query ~ 'endless' AND usename = 'corv_verify'").out
                  == "1\n", f"the endless statement {unit}", timeout=120)
    host.ok(["systemctl", "stop", "proof-test"], timeout=60)
    assert host.sql("SELECT count(*) FROM pg_roles WHERE rolname = 'corv_verify'").out == "0\n"
    assert host.sql("SELECT count(*) FROM pg_database WHERE datname = 'corv_verify'").out == "0\n"


# The compressor

UNPACKING = "unpacking stopped (over the disk limit?): "
TRAILING = ("gzip: stdin: decompression OK, trailing garbage ignored\ntar: Child returned status 2\n"
            "tar: Error is not recoverable: exiting now")


@pytest.fixture(params=["igzip", "gzip"])
def compressor(host, request):
    """With the link of the package, and with one that leads nowhere."""
    assert host.ok(["readlink", "-f", "/usr/libexec/corvane/tools/gzip"]) == "/usr/bin/igzip\n"
    if request.param == "gzip":
        host.ok(["mv", "/usr/bin/igzip", "/root/igzip"])
    yield request.param
    host.run(["sh", "-c", "[ ! -e /root/igzip ] || mv /root/igzip /usr/bin/igzip"])
    host.ok(["sh", "-c", f"rm -rf {DESTINATION}/*"])


@pytest.mark.core
def test_archives_are_packed_by_igzip_or_without_it_by_gzip(host, account, compressor):
    host.ok(["sh", "-ec", 'head -c 2000000 /dev/urandom >"$HOME/noise"; seq 100000 >"$HOME/numbers"'], user=account.name)
    name = back_up(host)
    archive = f"{DESTINATION}/{name}/accounts/{account.name}-home.tar.gz"
    assert host.request("backup.status")["backups"][0]["errors"] == []
    host.ok(["gzip", "-t", archive])
    # igzip writes the time into the header of what it reads from a pipe, gzip none.
    header = host.ok(["sh", "-c", f"head -c 10 {archive} | od -An -tx1"]).split()
    assert header[:3] == ["1f", "8b", "08"] and (header[4:8] == ["00"] * 4) == (compressor == "gzip"), header
    assert host.request("backup.restore", username=account.name, backup=name, what="files")["ok"] is True
    host.ok(["diff", "-r", f"/home/{account.name}/numbers", f"/home/{account.name}/restored-{name}/numbers"])


@pytest.mark.core
def test_what_is_wrong_with_an_archive_is_told_with_either(host, account, compressor):
    host.ok(["sh", "-ec", 'head -c 2000000 /dev/urandom >"$HOME/noise"'], user=account.name)
    name = back_up(host)
    archive = f"{DESTINATION}/{name}/accounts/{account.name}-home.tar.gz"
    host.ok(["cp", "-a", archive, "/root/whole.tar.gz"])

    def restored(script):
        host.ok(["sh", "-ec", f"cp -a /root/whole.tar.gz {archive}; {script}"])
        reply = host.request("backup.restore", username=account.name, backup=name, what="files")
        host.ok(["rm", "-rf", f"/home/{account.name}/restored-{name}"])
        return reply

    assert restored("true")["ok"] is True
    assert restored(f"echo more >>{archive}") == {"ok": False, "error": UNPACKING + TRAILING}
    assert restored(f"head -c 4096 /dev/zero >>{archive}")["ok"] is True  # which gzip takes for padding
    for script in (f"truncate -s -1 {archive}", f"truncate -s 1000000 {archive}", f": >{archive}", f"echo x >{archive}",
                   f"printf '\\252\\125\\252' | dd of={archive} bs=1 seek=1000000 conv=notrunc status=none"):
        reply = restored(script)
        assert reply["ok"] is False and reply["error"].startswith(UNPACKING), (script, reply)


@pytest.mark.core
def test_a_full_disk_is_a_problem_with_either(host, account, compressor):
    host.ok(["sh", "-ec", 'head -c 3000000 /dev/urandom >"$HOME/noise"'], user=account.name)
    host.ok(["sh", "-ec", f"mkdir -p {DESTINATION}; mount -t tmpfs -o size=1m tmpfs {DESTINATION}"])
    try:
        host.run(["systemctl", "start", "corv-backup.service"])
        # Nothing is left for a manifest either.
        said = host.request("backup.status")["log"].rpartition(f"  account {account.name}\n")[2]
        assert said.startswith(f"  ! {account.name} files: tar failed: gzip: stdout: No space left on device\n"), said
        assert "tar: Error is not recoverable: exiting now\n" in said
    finally:
        host.wait_for(lambda: host.ok(["systemctl", "show", "-p", "ActiveState", "--value", "corv-verify.service"]).strip()
                      in ("inactive", "failed"), "the verification behind the backup")
        host.ok(["umount", DESTINATION])
        host.run(["systemctl", "reset-failed", "corv-backup.service", "corv-verify.service"])
        host.ok(["sh", "-c", "rm -f /var/lib/corvane/failures/corv-*"])


def test_a_disk_that_is_full_for_a_small_home_stops_its_deletion(host, account, compressor):
    """The last bytes of an archive are those that nobody looks at the writing of."""
    host.ok(["sh", "-ec", "mkdir -p /var/backups/corvane; mount -t tmpfs -o size=4k tmpfs /var/backups/corvane; "
             "head -c 5000 /dev/zero >/var/backups/corvane/filler || true"])
    try:
        reply = host.request("hosting.delete", username=account.name, confirm=account.name)
        assert reply["error"].startswith("could not archive the files, so nothing was deleted: tar failed: gzip: stdout: No space left")
        assert host.fetch(account.domain, "/index.html").status == 200
    finally:
        host.ok(["umount", "/var/backups/corvane"])


def test_the_doctor_tells_of_the_compressor(host, compressor):
    drop_in = "/run/systemd/system/corv-backup.service.d/path.conf"
    host.put(drop_in, "[Service]\nEnvironment=PATH=/usr/sbin:/usr/bin:/sbin:/bin\n")
    host.ok(["systemctl", "daemon-reload"])
    try:
        doctor = json.loads(host.run(["corvctl", "--json", "doctor"], timeout=120).out)
    finally:
        host.ok(["sh", "-c", f"rm -r $(dirname {drop_in}); systemctl daemon-reload"])
    problems = [one["problem"] for check in doctor["checks"] for one in check["findings"] if "ten times" in one["problem"]]
    slow = ["isal is not installed, so that backups and deletions take up to ten times as long"]
    assert problems == (slow if compressor == "gzip" else []) + [
        "the PATH of corv-backup.service was changed and does not begin with /usr/libexec/corvane/tools any more, so that its "
        "archives take up to ten times as long"]


def test_nothing_else_finds_the_compressor(host):
    """But the tar of the agent: what an account runs, and what packages' scripts run, knows the options of gzip."""
    with host.stand_in("useradd", 'echo "$PATH" >/run/stand-ins/seen; exec /usr/sbin/useradd "$@"'):
        assert ":/usr/libexec/corvane/tools:" in host.ok(["systemctl", "show", "-p", "Environment", "--value", "corv-agent.service"])
        host.account()
        assert host.get("/run/stand-ins/seen") == "/run/stand-ins:/usr/sbin:/usr/bin:/sbin:/bin\n"
