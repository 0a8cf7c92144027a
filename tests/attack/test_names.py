"""Accounts whose name is a word of its own to a program that reads it: PHP-FPM's settings, PostgreSQL's language."""

import pytest

LIMIT = 240
DESTINATION = "/var/backups/corvane/auto"


def whose(host, account):
    """The user that the account's PHP runs as."""
    page = f"/home/{account.name}/public_html/whose.php"
    host.put(page, "<?php echo posix_geteuid();", owner=account.name)
    return host.fetch(account.domain, "/whose.php").body.strip()


@pytest.mark.parametrize("name", ["null", "off", "yes"])
def test_a_name_that_is_a_value_to_php_runs_as_its_own_user_and_leaves_the_others_alone(host, account, name):
    tenant = host.account(name=name)
    assert whose(host, tenant) == host.ok(["id", "-u", name]).strip()
    assert whose(host, account) == host.ok(["id", "-u", account.name]).strip()


def test_the_database_of_a_name_that_is_a_word_of_sql_comes_back_to_its_owner(host):
    tenant = host.account(name="order")
    host.sql("CREATE TABLE says AS SELECT 'saved' AS word; ALTER TABLE says OWNER TO \"order\"", database="order")
    before = [saved["name"] for saved in host.request("backup.status")["backups"]]
    assert host.request("backup.start") == {"ok": True}
    (backup,) = host.wait_for(lambda: [saved["name"] for saved in host.request("backup.status")["backups"]
                                       if saved["name"] not in before], "the backup", 120)
    host.sql("UPDATE says SET word = 'live'", database="order")
    assert host.request("backup.restore", username="order", backup=backup, what="database") == {"ok": True}
    assert host.sql("SELECT word FROM says", database="order").out.strip() == "saved"
    owner = host.sql("SELECT pg_get_userbyid(datdba) FROM pg_database WHERE datname = 'order'").out.strip()
    assert owner == tenant.name
    host.run(["rm", "-rf", f"{DESTINATION}/{backup}"])
