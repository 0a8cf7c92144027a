"""Whole folders, an editor and a busy agent on a real host, as an administrator meets them."""

LIMIT = 180


def corvctl(host, *args):
    done = host.run(["corvctl", *args])
    assert (done.code, done.err) == (0, ""), (args, done)
    return done.out


def test_a_folder_comes_and_goes_and_a_page_is_edited(host):
    account = host.account()
    name = account.name
    host.ok(["sh", "-ec", "rm -rf /root/site /root/back; mkdir -p /root/site/img; echo '<h1>sent</h1>' >/root/site/index.html; "
                          "head -c 3000000 /dev/urandom >/root/site/img/a.bin"])
    assert corvctl(host, "file", "put", "-r", name, "/root/site", "public_html/new") == \
        "public_html/new: 2 file(s), 2.9 MiB\n"
    assert host.ok(["stat", "-c", "%U", f"/home/{name}/public_html/new/img/a.bin"]) == f"{name}\n"
    assert host.fetch(account.domain, "/new/index.html").body == "<h1>sent</h1>\n"
    assert corvctl(host, "file", "get", "-r", name, "public_html/new", "/root/back") == "/root/back: 2 file(s), 2.9 MiB\n"
    assert host.ok(["diff", "-r", "/root/site", "/root/back"]) == ""
    host.ok(["env", "EDITOR=sed -i s/sent/edited/", "corvctl", "file", "edit", name, "public_html/new/index.html"])
    assert host.fetch(account.domain, "/new/index.html").body == "<h1>edited</h1>\n"
    assert host.ok(["ls", "-A", "/var/lib/corvane/transfer"]) == ""
    host.ok(["rm", "-r", "/root/site", "/root/back"])


def test_a_busy_agent_says_with_what(host):
    """A session of PostgreSQL keeps the account's database to itself, so that the agent's own statement has to wait."""
    name = host.account().name
    held = f"BEGIN; ALTER DATABASE {name} SET work_mem = '5MB'; SELECT pg_sleep(600)"
    host.ok(["systemd-run", "--unit=holder", "--uid=postgres", "psql", "-c", held])
    sleeping = "SELECT pid FROM pg_stat_activity WHERE wait_event = 'PgSleep'"
    try:
        host.wait_for(lambda: host.sql(sleeping).out, "the session that holds the database")
        host.ok(["systemd-run", "--unit=asker", "corvctl", "account", "read-only", name, "on"])
        host.wait_for(lambda: host.run(["cat", "/run/corvane/request"]).out, "the request in hand")
        assert host.ok(["stat", "-c", "%a %U %G", "/run/corvane/request"]) == "640 root corv-web\n"
        done = host.run(["corvctl", "--timeout", "1", "service", "list"])
        assert (done.code, done.out) == (4, "")
        assert f"\n  the agent is busy with hosting.dbReadOnly of {name}, for root since " in done.err
    finally:
        host.sql("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE wait_event = 'PgSleep'")
    host.wait_for(lambda: host.run(["test", "!", "-e", "/run/corvane/request"]).code == 0, "the end of the request")
