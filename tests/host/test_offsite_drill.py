"""The drill: an account comes back from what is off-site under another name, is looked at, and is taken away again."""

import json

import pytest

LIMIT = 300
APT = {"DEBIAN_FRONTEND": "noninteractive"}
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
