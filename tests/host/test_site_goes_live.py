"""A new account is used as its owner, its visitors and its neighbours would."""

import json
import re

import pytest

# Lists what creation may change, for comparing before and after a refusal. An id that was an account's for a moment is kept from
# the next one all the same, by a record of its own.
STATE = r"""
getent passwd | grep -v '^corv-gone-'
getent group | grep -v '^corv-gone-'
ls -lR --time-style=+ /home /etc/apache2/sites-available /etc/apache2/sites-enabled /etc/php/*/fpm/pool.d
runuser -u postgres -- psql -qtAX -c 'SELECT datname FROM pg_database ORDER BY 1' -c 'SELECT rolname FROM pg_roles ORDER BY 1'
"""

SESSION_PAGE = "<?php session_id('abcdefabcdefabcdefabcdefab'); session_start(); $_SESSION['secret'] = 'treasure'; echo 'kept';"


def state(host):
    return host.ok(["sh", "-c", STATE])


@pytest.fixture
def neighbour(host):
    return host.account()


def test_the_page_of_a_new_account_is_fetched_over_http(host, account):
    page = host.fetch(account.domain)
    assert page.status == 200
    assert page.headers["content-type"] == "text/html"
    assert page.body == (f'<!doctype html><meta charset="utf-8"><title>{account.domain}</title><p style="font:16px system-ui;'
                         f'margin:3em">{account.domain} is ready. Upload your site to public_html.</p>\n')


def test_the_page_is_also_fetched_under_www(host, account):
    assert host.fetch(f"www.{account.domain}").body == host.fetch(account.domain).body


def test_a_reply_has_exactly_the_five_members(host):
    name = host.free_name()
    reply = host.request("hosting.create", username=name, domain=f" WWW.{name}.Example ")
    password = reply.pop("dbPassword")
    version = reply.pop("phpVersion")
    assert reply == {"ok": True, "domain": f"{name}.example", "accessLog": f"/var/log/apache2/{name}.example-access.log"}
    assert re.fullmatch(r"[A-Za-z0-9_-]{24}", password)
    assert host.active(f"php{version}-fpm")


def test_an_uploaded_php_page_runs_under_the_account(host, account):
    host.ssh(account, "cat >public_html/who.php", input="<?php echo posix_getuid(), ' ', posix_getgid();")
    user = host.ok(["id", "-u", account.name]).strip()
    group = host.ok(["id", "-g", account.name]).strip()
    assert host.fetch(account.domain, "/who.php").body == f"{user} {group}"


def test_php_keeps_sessions_and_uploads_in_the_account(host, account):
    host.put(f"{account.home}/public_html/s.php", SESSION_PAGE, owner=account.name)
    host.put(f"{account.home}/public_html/u.php", "<?php echo dirname($_FILES['f']['tmp_name']);", owner=account.name)
    assert host.fetch(account.domain, "/s.php").body == "kept"
    session = f"{account.home}/tmp/sess_abcdefabcdefabcdefabcdefab"
    assert host.mode(session) == f"600 {account.name} {account.name}"
    assert host.fetch(account.domain, "/u.php", "-F", "f=@/etc/hostname").body == f"{account.home}/tmp"


def test_php_errors_are_logged_in_the_account(host, account):
    host.put(f"{account.home}/public_html/e.php", "<?php error_log('the goose is loose');", owner=account.name)
    host.fetch(account.domain, "/e.php")
    assert "the goose is loose" in host.get(f"{account.home}/logs/php-error.log")


def test_the_returned_password_logs_in_to_the_database(host, account):
    def log_in(statement, password=account.password):
        return host.sql(statement, database=account.name, role=account.name, password=password)

    assert log_in("SELECT current_user || ' ' || current_database()").out == f"{account.name} {account.name}\n"
    assert log_in("CREATE TABLE kept (n int); INSERT INTO kept VALUES (7); SELECT n FROM kept").out == "7\n"
    refused = log_in("SELECT 1", password=account.password[::-1])
    assert refused.code == 2
    assert f'password authentication failed for user "{account.name}"' in refused.err


def test_the_given_key_logs_in_over_ssh_and_no_other(host, account):
    assert host.ssh(account, "whoami; pwd").out == f"{account.name}\n{account.home}\n"
    stranger = host.make_key(f"stranger-{account.name}")
    assert host.ssh(account, "whoami", key=stranger.private).code == 255


def test_an_account_without_key_has_no_key_file_and_no_login(host):
    name = host.free_name()
    assert host.request("hosting.create", username=name, domain=f"{name}.example", sshKey=" ")["ok"] is True
    assert host.mode(f"/home/{name}/.ssh") == f"700 {name} {name}"
    assert not host.exists(f"/home/{name}/.ssh/authorized_keys")
    assert host.ssh(name, "whoami").code == 255


def test_modes_and_owners_let_in_the_web_server_and_nobody_else(host, account):
    name, home = account.name, account.home
    assert {path: host.mode(f"{home}{path}") for path in
            ("", "/public_html", "/public_html/index.html", "/logs", "/tmp", "/.ssh", "/.ssh/authorized_keys")} == {
        "": f"710 {name} www-data",
        "/public_html": f"2750 {name} www-data",
        "/public_html/index.html": f"644 {name} www-data",
        "/logs": f"755 {name} {name}",
        "/tmp": f"700 {name} {name}",
        "/.ssh": f"700 {name} {name}",
        "/.ssh/authorized_keys": f"600 {name} {name}",
    }
    assert host.mode(f"/etc/apache2/sites-available/corv-{name}.conf") == "644 root root"
    assert host.mode(f"/etc/php/{account.php}/fpm/pool.d/corv-{name}.conf") == "644 root root"
    assert host.mode(f"/run/php/corv-{name}.sock") == "660 www-data www-data"


def test_the_user_carries_the_marker_and_the_domain(host, account):
    fields = host.ok(["getent", "passwd", account.name]).strip().split(":")
    assert fields[4:] == [f"Corvane account,{account.domain}", account.home, "/bin/bash"]


def test_a_second_account_reads_and_writes_nothing_of_the_first(host, account, neighbour):
    host.put(f"{account.home}/public_html/s.php", SESSION_PAGE, owner=account.name)
    assert host.fetch(account.domain, "/s.php").body == "kept"
    home = account.home
    for command in (f"ls {home}", f"ls {home}/public_html", f"cat {home}/public_html/index.html", f"ls {home}/logs",
                    f"cat {home}/.ssh/authorized_keys", f"ls {home}/tmp", f"cat {home}/tmp/sess_abcdefabcdefabcdefabcdefab",
                    f"touch {home}/mine", f"touch {home}/public_html/mine"):
        done = host.ssh(neighbour, command)
        assert (command, done.code != 0, done.out, done.err.strip()[-17:]) == (command, True, "", "Permission denied")


def test_a_second_account_cannot_reach_the_first_ones_database(host, account, neighbour):
    refused = host.sql("SELECT 1", database=account.name, role=neighbour.name, password=neighbour.password)
    assert refused.code == 2
    assert f'permission denied for database "{account.name}"' in refused.err
    assert host.sql("SELECT 1", database=neighbour.name, role=neighbour.name, password=neighbour.password).out == "1\n"


def test_a_second_account_cannot_talk_to_the_first_ones_php(host, account, neighbour):
    done = host.ssh(neighbour, f"socat - UNIX-CONNECT:/run/php/corv-{account.name}.sock </dev/null 2>&1")
    assert done.code == 1
    assert "Permission denied" in done.out


def test_php_of_a_second_account_reads_nothing_outside_its_home(host, account, neighbour):
    paths = [f"{account.home}/public_html/index.html", "/etc/passwd", "/tmp"]
    tries = "".join(f"echo json_encode(@file_get_contents('{path}')), json_encode(@scandir('{path}'));" for path in paths)
    host.put(f"{neighbour.home}/public_html/peek.php", f"<?php {tries}", owner=neighbour.name)
    assert host.fetch(neighbour.domain, "/peek.php").body == "falsefalse" * len(paths)


def test_a_link_into_the_first_account_is_not_served_by_the_second(host, account, neighbour):
    host.ssh(neighbour, f"ln -s {account.home}/public_html/index.html public_html/stolen.html; "
                        "ln -s index.html public_html/own.html")
    assert host.fetch(neighbour.domain, "/stolen.html").status == 403
    assert host.fetch(neighbour.domain, "/own.html").status == 200


def test_the_access_log_names_the_virtual_host_and_the_time_taken(host, account):
    host.fetch(f"www.{account.domain}", "/nothing-here?x=1", "-A", "the tester", "-e", "http://from.example/")
    line = host.get(account.access_log).splitlines()[-1]
    assert re.fullmatch(r'10\.213\.0\.1 - - \[[^]]+\] "GET /nothing-here\?x=1 HTTP/1\.1" 404 \d+ "http://from\.example/" '
                        rf'"the tester" {re.escape(account.domain)} \d+', line)


def test_an_unknown_host_name_is_not_answered_by_an_account(host, account):
    assert account.domain not in host.fetch("stranger.example").body


def test_neither_password_nor_key_is_logged(host, account):
    journal = host.journal()
    assert account.password not in journal
    assert host.key.public.split()[1] not in journal
    assert "agent: uid 0 ran hosting.create -> ok\n" in host.journal("corv-agent")


def refusals(host):
    """Names, what is there before, what is asked, the reply."""
    name = host.free_name()
    key = host.key.public
    taken = f"a user or group named '{name}' already exists on this server"
    bad_name = "username: 3 to 16 lowercase letters and digits, starting with a letter (not a reserved name)"
    bad_key = "that does not look like one SSH public key (ssh-ed25519 AAAA… comment)"
    return {
        "a reserved name": ("", {"username": "backup"}, bad_name),
        "an upper-case name": ("", {"username": "Site"}, bad_name),
        "a name with a trailing line feed": ("", {"username": f"{name}\n"}, bad_name),
        "a name that is no string": ("", {"username": 7}, bad_name),
        "a domain without a dot": ("", {"username": name, "domain": "localhost"}, "that is not a valid domain name"),
        "a domain that leaves the site file": ("", {"username": name, "domain": "a.example\n</VirtualHost>"},
                                               "that is not a valid domain name"),
        "a user's name": (f"useradd --no-user-group {name}", {"username": name}, taken),
        "a group's name": (f"groupadd {name}", {"username": name}, taken),
        "a left-over site file": (f"touch /etc/apache2/sites-available/corv-{name}.conf", {"username": name},
                                  f"an Apache site for '{name}' already exists"),
        "a dangling left-over site file": (f"ln -s /nowhere /etc/apache2/sites-available/corv-{name}.conf", {"username": name},
                                           f"an Apache site for '{name}' already exists"),
        "no key": ("", {"username": name, "sshKey": "ssh-ed25519 short"}, bad_key),
        "two keys": ("", {"username": name, "sshKey": f"{key}\n{key}"}, bad_key),
        "a left-over home with links": (f"mkdir /home/{name} && ln -s /etc /home/{name}/public_html", {"username": name},
                                        f"/home/{name} already exists and holds links"),
    }


@pytest.mark.parametrize("case", [
    "a reserved name", "an upper-case name", "a name with a trailing line feed", "a name that is no string",
    "a domain without a dot", "a domain that leaves the site file", "a user's name", "a group's name", "a left-over site file",
    "a dangling left-over site file", "no key", "two keys", "a left-over home with links",
])
def test_creation_refuses_and_changes_nothing(host, case):
    prepare, args, error = refusals(host)[case]
    if prepare:
        host.ok(["sh", "-c", prepare])
    before = state(host)
    reply = host.request("hosting.create", **{"domain": "refused.example", **args})
    assert reply == {"ok": False, "error": error}
    assert state(host) == before


def test_creation_refuses_an_account_that_exists_and_leaves_it_working(host, account):
    before = state(host)
    reply = host.request("hosting.create", username=account.name, domain="second.example")
    assert reply == {"ok": False, "error": f"a user or group named '{account.name}' already exists on this server"}
    assert state(host) == before
    assert host.fetch(account.domain).status == 200


def test_creation_takes_over_a_plain_home_that_was_left_behind(host):
    name = host.free_name()
    host.put(f"/home/{name}/public_html/old.txt", "from before")
    assert host.request("hosting.create", username=name, domain=f"{name}.example")["ok"] is True
    host.wait_until_served(name, f"{name}.example")
    assert host.fetch(f"{name}.example", "/old.txt").body == "from before"
    assert host.mode(f"/home/{name}/public_html/old.txt") == f"644 {name} {name}"


@pytest.mark.parametrize("left", ["ROLE", "DATABASE"])
def test_creation_is_undone_when_the_database_has_the_name_already(host, left):
    name = host.free_name()
    assert host.sql(f"CREATE {left} {name}").code == 0
    reply = host.request("hosting.create", username=name, domain=f"{name}.example")
    assert reply == {"ok": False, "error": f"a PostgreSQL role or database named '{name}' already exists"}
    assert host.run(["getent", "passwd", name]).code == 2
    assert not host.exists(f"/home/{name}")
    assert not host.exists(f"/etc/apache2/sites-available/corv-{name}.conf")


def test_creation_is_undone_when_the_web_server_is_broken(host, account):
    name = host.free_name()
    before = state(host)
    broken = "/etc/apache2/conf-enabled/zz-broken.conf"
    host.put(broken, "NoSuchDirective on\n")
    try:
        reply = host.request("hosting.create", username=name, domain=f"{name}.example")
    finally:
        host.ok(["rm", broken])
    assert reply["ok"] is False
    assert reply["error"].startswith("apache2ctl failed: ")
    assert "NoSuchDirective" in reply["error"]
    assert state(host) == before
    assert host.fetch(account.domain).status == 200


def domain_of(length):
    """A domain of so many characters."""
    start = ".".join(letter * 49 for letter in "abcd")
    return f"{start}.{'e' * (length - len(start) - 9)}.example"


@pytest.mark.core
def test_a_domain_too_long_for_its_logs_is_refused_and_the_neighbours_are_served(host, neighbour):
    """Apache's own test opens no logs, and the reload after it ended Apache."""
    long = host.account(domain=domain_of(238))
    assert host.fetch(long.domain).status == 200
    host.account(domain=domain_of(244))
    before, apache = state(host), host.main_process("apache2")
    for length, line, log in ((245, 7, 256), (253, 6, 263)):
        name = host.free_name()
        assert host.request("hosting.create", username=name, domain=domain_of(length)) == {
            "ok": False, "error": f"apache2ctl failed: /etc/apache2/sites-enabled/corv-{name}.conf line {line}: the name of the log has "
                                  f"{log} bytes, and no file's name has more than 255\nAH00014: Configuration check failed"}
        assert state(host) == before
        assert host.fetch(neighbour.domain).status == 200
    assert host.main_process("apache2") == apache
    assert host.run(["corvctl", "account", "domain", neighbour.name, domain_of(239)]).err.startswith(
        "corvctl: that domain has 239 characters, too many for the names of its logs")


@pytest.mark.core
def test_a_site_whose_logs_are_more_than_apache_may_open_is_refused_before_the_reload(host, neighbour):
    """It ended Apache at the reload; the doctor says before that it is near, and how to have more."""
    settings, most, kept = host.get("/etc/apache2/envvars"), 200, 32
    opened = host.ok(["sh", "-c", f"ls -l /proc/{host.main_process('apache2')}/fd"]).count("/var/log/apache2/")
    host.put("/etc/apache2/envvars", f"{settings}\nAPACHE_ULIMIT_MAX_FILES='ulimit -n {most}'\n")
    host.put("/etc/apache2/conf-enabled/many.conf",
             "".join(f"CustomLog /var/log/apache2/many{number}.log corv\n" for number in range(most - kept - opened)))
    try:
        host.ok(["systemctl", "restart", "apache2"])
        before, apache, name = state(host), host.main_process("apache2"), host.free_name()
        assert host.request("hosting.create", username=name, domain=f"{name}.example") == {
            "ok": False, "error": f"apache2ctl failed: the sites have {most - kept + 2} logs, too many for a server that may have {most} "
                                  "files open: APACHE_ULIMIT_MAX_FILES in /etc/apache2/envvars allows more, after a restart\n"
                                  "AH00014: Configuration check failed"}
        assert state(host) == before
        assert host.fetch(neighbour.domain).status == 200
        assert host.main_process("apache2") == apache

        report = json.loads(host.run(["corvctl", "--json", "doctor"]).out)
        found = next(check["findings"] for check in report["checks"] if check["check"] == "Apache")
        assert [re.sub(r"has \d+ files", "has MANY files", finding["problem"]) for finding in found] == [
            f"Apache has MANY files open, most of them the sites' logs, and may have {most}; a reload with more ends it"]
        host.ok(["sh", "-c", found[0]["mend"]])
        host.account()
        assert host.fetch(neighbour.domain).status == 200
    finally:
        host.put("/etc/apache2/envvars", settings)
        host.ok(["sh", "-c", "rm -f /etc/apache2/conf-enabled/many.conf /var/log/apache2/many*.log; systemctl restart apache2"])
