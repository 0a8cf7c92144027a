"""The drill: an account comes back from what is off-site under another name, is looked at, and is taken away again. And what
the rules of what to keep leave of an account that is deleted."""

import json
import pathlib
import re

import pytest

LIMIT = 300
PAGE = pathlib.Path(__file__).parents[2] / "docs/backup.md"
APT = {"DEBIAN_FRONTEND": "noninteractive"}
AUTO = "/var/backups/corvane/auto"
STATE = "/var/lib/corvane/offsite/state.json"
# But for what keeps the user id of a deleted account from the next one.
LEFT = "ls -A /home /var/backups/corvane /etc/apache2/sites-available; getent passwd | cut -d: -f1 | grep -v ^corv-gone-; " \
       "runuser -u postgres -- psql -qtAXc 'SELECT datname FROM pg_database ORDER BY 1'"


@pytest.fixture(scope="module")
def host(boot):
    """A host of its own with two accounts, a page of PHP that reads the database, and a disk as the place."""
    host = boot()
    host.ok(["apt-get", "install", "-yq", "restic"], env=APT)
    host.ok(["corvctl", "offsite", "setup", "/srv/copies"])
    host.shop, host.blog = host.account(), host.account()
    host.put(f"{host.shop.home}/public_html/index.php",
             f"<?php echo pg_fetch_result(pg_query(pg_connect('host=127.0.0.1 user={host.shop.name} dbname={host.shop.name} "
             f"password={host.shop.password}'), 'SELECT max(id) FROM goods'), 0, 0);", owner=f"{host.shop.name}:www-data")
    made = host.sql("CREATE TABLE goods AS SELECT generate_series(1, 1000) AS id", database=host.shop.name, role=host.shop.name,
                    password=host.shop.password)
    assert made.code == 0, made
    host.wait_for(lambda: host.fetch(host.shop.domain).body == "1000", "the page of the shop")
    host.ok(["crontab", "-u", host.shop.name, "-"], input="* * * * * id >>/tmp/ran-by-cron\n")
    host.put(f"{host.blog.home}/public_html/index.php", "<?php http_response_code(500);", owner=f"{host.blog.name}:www-data")
    host.ok(["corvctl", "account", "state", "--write"])
    host.ok(["corvctl", "backup", "start", "--wait"])
    host.ok(["corvctl", "offsite", "run"])
    return host


def restic(host, words):
    return host.ok(["corvctl", "offsite", "restic", words])


def snapshots(host, words):
    return json.loads(restic(host, f"snapshots --json --no-lock {words}"))


def newest(host):
    return host.ok(["sh", "-c", f"ls {AUTO} | grep '^20.*[0-9]$' | tail -n 1"]).strip()


def drilled(host):
    kept = json.loads(host.get(STATE))
    return kept["drilled"], kept["drillProblem"]


def test_an_account_comes_back_and_is_taken_away_again(host):
    before = host.ok(["sh", "-c", LEFT])
    done = host.run(["corvctl", "offsite", "drill", host.blog.name])
    assert done.code == 0, done
    lines = done.out.splitlines()
    assert "restoring it as drill1, at drill1.drill.example" in lines
    assert any(line.startswith("its first page: ") for line in lines)
    assert lines[-1] == f"{host.blog.name} came back from what is off-site, and was taken away again"
    assert drilled(host) == (host.blog.name, "")
    assert host.ok(["sh", "-c", LEFT]) == before


@pytest.mark.long
def test_a_site_that_fails_comes_back_as_it_is(host):
    host.wait_for(lambda: host.fetch(host.blog.domain).status == 500, "the page that fails")
    done = host.run(["corvctl", "offsite", "drill", host.blog.name])
    assert done.code == 0, done
    assert "its first page: 500, the live one: 500" in done.out.splitlines()


@pytest.mark.long
def test_its_jobs_are_left_out_and_what_a_drill_before_has_left_goes(host):
    before = host.ok(["sh", "-c", LEFT])
    host.ok(["corvctl", "account", "create", "drill7", "drill7.drill.example"])
    checks = json.loads(host.run(["corvctl", "doctor", "--json"]).out)["checks"]
    found = [finding["problem"] for check in checks for finding in check["findings"]]
    assert any(problem.startswith("the account drill7 is left of a drill: ") for problem in found), found
    done = host.run(["corvctl", "offsite", "drill", host.shop.name])
    assert done.code == 0, done
    lines = done.out.splitlines()
    assert "taking away drill7, which a drill before has left" in lines
    assert "left out, since the live one has them: crontab" in lines
    assert host.ok(["sh", "-c", LEFT]) == before
    ran = host.ok(["cat", "/tmp/ran-by-cron"]) if host.exists("/tmp/ran-by-cron") else ""
    assert "drill" not in ran


@pytest.mark.long
def test_each_account_has_its_turn(host):
    names = []
    for _ in range(2):
        host.run(["corvctl", "offsite", "drill"])
        names.append(drilled(host)[0])
    assert sorted(names) == sorted([host.shop.name, host.blog.name])


@pytest.mark.long
def test_what_does_not_come_back_is_told_and_nothing_is_left(host):
    before = host.ok(["sh", "-c", LEFT])
    pack = host.ok(["sh", "-c", "ls -S /srv/copies/data/*/* | head -n 1"]).strip()
    host.ok(["sh", "-ec", f"rm -rf /root/copies; cp -a /srv/copies /root/copies; chmod -R u+w /srv/copies; "
             f"for pack in /srv/copies/data/*/*; do printf damaged | dd of=$pack bs=1 seek=60 conv=notrunc 2>/dev/null; done"])
    assert pack
    done = host.run(["corvctl", "offsite", "drill", host.shop.name])
    assert done.code == 1
    assert done.err.startswith(f"corvctl: the drill with {host.shop.name} failed: restic failed: ")
    assert drilled(host)[1].startswith("restic failed: ")
    assert host.ok(["sh", "-c", LEFT]) == before
    checks = json.loads(host.run(["corvctl", "doctor", "--json"]).out)["checks"]
    (finding,) = [finding for check in checks if check["check"] == "off-site" for finding in check["findings"]]
    assert finding["problem"].startswith(f"the last drill, with {host.shop.name}: restic failed: ")
    host.ok(["sh", "-ec", "rm -r /srv/copies; mv /root/copies /srv/copies"])
    assert host.run(["corvctl", "offsite", "drill", host.shop.name]).code == 0
    assert drilled(host) == (host.shop.name, "")


def test_a_drill_without_tables_or_without_the_database_fails(host):
    """The page says nothing of either: it is the live database that it asks."""
    odd = host.account()
    # Whoever is no superuser cannot make that function, and then not the table.
    made = host.sql("CREATE FUNCTION public.odd() RETURNS float8 LANGUAGE internal AS 'drandom'; "
                    f"CREATE TABLE fickle (x float8 DEFAULT public.odd()); ALTER TABLE fickle OWNER TO {odd.name}; "
                    f"CREATE TABLE firm AS SELECT 1 AS x; ALTER TABLE firm OWNER TO {odd.name}", database=odd.name)
    assert made.code == 0, made
    host.ok(["corvctl", "backup", "start", "--wait"])
    host.ok(["corvctl", "offsite", "run"])
    done = host.run(["corvctl", "--json", "offsite", "drill", odd.name])
    problem = "1 of its database's tables did not come back"
    assert (done.code, json.loads(done.out)) == (1, {"ok": False, "error": f"the drill with {odd.name} failed: {problem}"}), done
    assert drilled(host) == (odd.name, problem)

    backup = newest(host)
    (rest,) = snapshots(host, f"--tag corv,rest,{backup}")
    restic(host, f"forget --quiet {rest['id']}")
    done = host.run(["corvctl", "offsite", "drill", odd.name])
    problem = f"the backup {backup} has no {odd.name}-db.dump; the backup {backup} has no accounts.state"
    assert (done.code, done.err) == (1, f"corvctl: the drill with {odd.name} failed: {problem}\n"), done
    assert drilled(host) == (odd.name, problem)
    host.ok(["corvctl", "account", "delete", odd.name, "--force", "--confirm", odd.name])
    host.ok(["corvctl", "offsite", "run"])
    assert snapshots(host, f"--tag corv,rest,{backup}")


@pytest.mark.long
def test_the_database_of_a_deleted_account_stays_with_its_home_whatever_is_forgotten(host):
    gone = host.account()
    made = host.sql("CREATE TABLE kept AS SELECT generate_series(1, 7) AS id", database=gone.name, role=gone.name, password=gone.password)
    assert made.code == 0, made
    host.ok(["corvctl", "account", "state", "--write"])
    host.ok(["corvctl", "backup", "start", "--wait"])
    backup = newest(host)
    # As if that had been its last night, long ago.
    last = "2024-01-10_031500"
    host.ok(["sh", "-ec", f"mkdir /root/aside; mv {AUTO}/20* /root/aside; mv /root/aside/{backup} {AUTO}/{last}"])
    host.ok(["corvctl", "offsite", "run"])
    host.ok(["corvctl", "account", "delete", gone.name, "--force", "--confirm", gone.name])

    server = host.ok(["hostname"]).strip()
    nights = [f"{2024 + month // 12}-{month % 12 + 1:02}-10" for month in range(1, 22)]
    host.ok(["mkdir", "/root/night"])

    def spend(nights):
        for night in nights:
            host.put("/root/night/manifest.json", night)
            restic(host, f"backup --quiet --host {server} --time \"{night} 03:15:00\" --tag corv --tag rest --tag {night}_031500 /root/night")

    def rests(place=""):
        return {tag for one in snapshots(host, f"{place} --tag corv,rest") for tag in one["tags"] if tag.startswith("20")}

    before = rests()
    spend(nights[:16])
    host.ok(["corvctl", "offsite", "run"])
    host.ok(["sh", "-ec", f"rm -r {AUTO}/{last}; mv /root/aside/20* {AUTO}; rmdir /root/aside"])
    spend(nights[16:])
    # The administrator of a vault does it by hand, and by time.
    host.ok(["cp", "-a", "/srv/copies", "/root/vault"])
    by_hand = re.search(r"^```\n(restic .* prune)\n```", PAGE.read_text(), re.MULTILINE | re.DOTALL)[1]
    there = 'restic -r rclone:x -o rclone.program="ssh vault@VAULT" -p KEYFILE'
    assert by_hand.count(there) == 5
    others = [one["id"] for one in snapshots(host, f"-r /root/vault --tag corv,home,{last}") if gone.name not in one["paths"][0]]
    restic(host, f"forget -r /root/vault --quiet {' '.join(others)}")
    host.ok(["sh", "-ec", by_hand.replace(there, "restic -r /root/vault -p /etc/corvane/offsite/key")])
    assert rests("-r /root/vault") == before
    host.ok(["corvctl", "offsite", "run"])
    # Of all others the rules let go, the usual ones: fourteen nights.
    all_nights = sorted(before | {f"{night}_031500" for night in nights})
    assert rests() == {last, *all_nights[-14:]}
    (home,) = json.loads(host.ok(["corvctl", "--json", "offsite", "list", gone.name]))["homes"]
    assert (home["backup"], home["database"]) == (last, True)

    done = host.run(["corvctl", "offsite", "fetch", gone.name, "--to", "/root/gone"])
    assert (done.code, done.err) == (0, ""), done
    assert "It was read through and is whole." in done.out
    host.ok(["corvctl", "account", "restore", gone.name, "--from", "/root/gone", "--confirm", gone.name])
    assert host.sql("SELECT count(*) FROM kept", database=gone.name).out.strip() == "7"

    # Somebody takes its copies away: nothing else needs that night.
    restic(host, "forget --quiet " + " ".join(one["id"] for one in snapshots(host, f"--path /{gone.name}-home.tar")))
    host.ok(["corvctl", "offsite", "run"])
    assert rests() == set(all_nights[-14:])
