"""hosting.suspend and hosting.resume."""

import pytest

from sandbox import PSQL

SITE = "/etc/apache2/sites-available/corv-alice.conf"
POOL = "/etc/php/8.2/fpm/pool.d/corv-alice.conf"
PARKED = POOL + ".suspended"

SUSPENDED = """\
# Managed by Corvane (account alice). Edits here are overwritten.
<VirtualHost *:80>
    ServerName example.org
    ServerAlias www.example.org
    DocumentRoot /home/alice/public_html
    ErrorLog ${APACHE_LOG_DIR}/example.org-error.log
    CustomLog ${APACHE_LOG_DIR}/example.org-access.log corv
    RewriteEngine On
    RewriteRule ^ - [R=503,L]
    ErrorDocument 503 "This site is temporarily unavailable."
</VirtualHost>
"""
PLAIN = """\
# Managed by Corvane (account alice). Edits here are overwritten.
<VirtualHost *:80>
    ServerName example.org
    ServerAlias www.example.org
    DocumentRoot /home/alice/public_html
    ErrorLog ${APACHE_LOG_DIR}/example.org-error.log
    CustomLog ${APACHE_LOG_DIR}/example.org-access.log corv
    DirectoryIndex index.php index.html
    <Directory /home/alice/public_html>
        Options -Indexes +SymLinksIfOwnerMatch
        AllowOverride All
        Require all granted
    </Directory>
</VirtualHost>
"""
WITH_PHP = PLAIN.replace("</VirtualHost>", """\
    <FilesMatch "\\.php$">
        SetHandler "proxy:unix:/run/php/corv-alice.sock|fcgi://localhost"
    </FilesMatch>
</VirtualHost>""")

CONFIGTEST = ["apache2ctl", "configtest"]
RELOAD_APACHE = ["systemctl", "reload", "apache2"]
RELOAD_PHP = ["systemctl", "reload", "php8.2-fpm"]
RELOADS = [CONFIGTEST, RELOAD_APACHE, RELOAD_PHP]
KILL = ["pkill", "-u", "alice"]
USERMOD = {
    "suspend": ["usermod", "--lock", "--expiredate", "1", "alice"],
    "resume": ["usermod", "--unlock", "--expiredate", "", "alice"],
}
SCRIPT = {
    "suspend": "\\set u 'alice'\nSELECT format('ALTER ROLE %I NOLOGIN', :'u') \\gexec\n",
    "resume": "\\set u 'alice'\nSELECT format('ALTER ROLE %I LOGIN', :'u') \\gexec\n",
}
AFTER = {"suspend": [KILL], "resume": []}
TEXT = {"suspend": SUSPENDED, "resume": WITH_PHP}
BOTH = pytest.mark.parametrize("command", ["suspend", "resume"])


def everything(command):
    return [*RELOADS, USERMOD[command], PSQL, *AFTER[command]]


def failure(message):
    return {"ok": False, "error": message}


def ask(sandbox, command, username="alice"):
    return sandbox.request("hosting." + command, username=username)


def expiry(sandbox):
    """The day, since 1970, on which alice's account expires."""
    (line,) = [line for line in sandbox.read("/etc/shadow").splitlines() if line.startswith("alice:")]
    return line.split(":")[7]


@pytest.fixture
def alice(sandbox):
    sandbox.add_account("alice")
    sandbox.write(SITE, "site")
    sandbox.write(POOL, "pool", mode=0o640)
    return sandbox


@pytest.fixture
def suspended(alice):
    alice.path(POOL).rename(alice.path(PARKED))
    return alice


def test_suspends_an_account(alice):
    assert ask(alice, "suspend") == {"ok": True}
    assert alice.argvs() == everything("suspend")
    assert alice.scripts() == [SCRIPT["suspend"]]
    assert alice.read(SITE) == SUSPENDED
    assert alice.entry(SITE) == "0644 root:root"
    assert alice.tree("/etc/php/8.2/fpm/pool.d") == {"corv-alice.conf.suspended": "0640 root:root pool"}
    assert alice.run("passwd", "-S", "alice")[1].split()[1] == "L"
    assert expiry(alice) == "1"


def test_resumes_an_account(suspended):
    assert ask(suspended, "resume") == {"ok": True}
    assert suspended.argvs() == everything("resume")
    assert suspended.scripts() == [SCRIPT["resume"]]
    assert suspended.read(SITE) == WITH_PHP
    assert suspended.entry(SITE) == "0644 root:root"
    assert suspended.tree("/etc/php/8.2/fpm/pool.d") == {"corv-alice.conf": "0640 root:root pool"}
    assert expiry(suspended) == ""


def test_resuming_gives_back_what_creation_wrote(sandbox):
    assert sandbox.request("hosting.create", username="alice", domain="www.Example.org")["ok"] is True
    site, pools = sandbox.read(SITE), sandbox.tree("/etc/php/8.2/fpm/pool.d")
    for command in ("suspend", "suspend", "resume", "resume"):
        assert ask(sandbox, command) == {"ok": True}
    assert sandbox.read(SITE) == site == WITH_PHP
    assert sandbox.tree("/etc/php/8.2/fpm/pool.d") == pools


def test_suspending_twice_keeps_the_parked_pool(suspended):
    assert ask(suspended, "suspend") == {"ok": True}
    assert suspended.argvs() == everything("suspend")
    assert suspended.tree("/etc/php/8.2/fpm/pool.d") == {"corv-alice.conf.suspended": "0640 root:root pool"}


@BOTH
def test_without_php_only_apache_is_reloaded(alice, command):
    alice.php()
    assert ask(alice, command) == {"ok": True}
    assert alice.argvs() == [call for call in everything(command) if call != RELOAD_PHP]
    assert alice.read(SITE) == {"suspend": SUSPENDED, "resume": PLAIN}[command]


def test_an_account_older_than_php_gets_its_block_but_no_pool(alice):
    alice.path(POOL).unlink()
    for command in ("suspend", "resume"):
        assert ask(alice, command) == {"ok": True}
    assert alice.read(SITE) == WITH_PHP
    assert alice.tree("/etc/php/8.2/fpm/pool.d") == {}


def test_a_pool_parked_under_another_version_is_not_found(suspended):
    suspended.mkdir("/etc/php/8.10/fpm/pool.d")
    assert ask(suspended, "resume") == {"ok": True}
    assert suspended.exists(PARKED)
    assert not suspended.exists(POOL)
    assert suspended.tree("/etc/php/8.10/fpm/pool.d") == {}
    assert suspended.argvs("systemctl") == [RELOAD_APACHE, ["systemctl", "reload", "php8.10-fpm"]]


@BOTH
def test_no_pool_of_another_version_goes_on(alice, command):
    alice.php("8.2", "8.10", "7.4")
    alice.write("/etc/php/8.10/fpm/pool.d/corv-alice.conf", "new")
    alice.write("/etc/php/8.2/fpm/pool.d/corv-alice.conf", "old", mode=0o640)
    alice.write("/etc/php/8.2/fpm/pool.d/corv-alice.conf.suspended", "older")
    alice.write("/etc/php/7.4/fpm/pool.d/corv-bob.conf", "theirs")
    assert ask(alice, command) == {"ok": True}
    assert alice.tree("/etc/php/8.2/fpm/pool.d") == {"corv-alice.conf.suspended": "0640 root:root old"}
    parked = ".suspended" if command == "suspend" else ""
    assert alice.tree("/etc/php/8.10/fpm/pool.d") == {f"corv-alice.conf{parked}": "0644 root:root new"}
    assert list(alice.tree("/etc/php/7.4/fpm/pool.d")) == ["corv-bob.conf"]
    assert alice.argvs("systemctl") == [RELOAD_APACHE, ["systemctl", "reload", "php8.10-fpm"]]


@BOTH
def test_neither_of_two_pool_files_is_overwritten(alice, command):
    alice.write(PARKED, "parked")
    assert ask(alice, command) == {"ok": True}
    assert (alice.read(POOL), alice.read(PARKED)) == ("pool", "parked")


@BOTH
@pytest.mark.parametrize("username", ["root", "bob", "carol", "Alice", "alice ", "", None, {"a": 1}])
def test_knows_accounts_alone(alice, command, username):
    alice.add_user("bob", "Robert")
    name = username if isinstance(username, str) else ""
    assert ask(alice, command, username) == failure(f"no Corvane account named '{name}'")
    assert alice.argvs() == []


@BOTH
@pytest.mark.parametrize("php", [["8.2"], []])
def test_a_site_that_cannot_be_written_stops_at_once(alice, command, php):
    alice.php(*php)
    alice.path(SITE).unlink()
    alice.mkdir(SITE)
    assert ask(alice, command) == failure("cannot write the Apache site")
    assert alice.argvs() == []


def test_a_failed_suspension_leaves_the_pool(alice):
    alice.path(SITE).unlink()
    alice.mkdir(SITE)
    ask(alice, "suspend")
    assert alice.tree("/etc/php/8.2/fpm/pool.d") == {"corv-alice.conf": "0640 root:root pool"}


def test_a_failed_resumption_leaves_the_pool_renamed(suspended):
    suspended.path(SITE).unlink()
    suspended.mkdir(SITE)
    ask(suspended, "resume")
    assert suspended.tree("/etc/php/8.2/fpm/pool.d") == {"corv-alice.conf": "0640 root:root pool"}


@BOTH
def test_a_site_on_a_full_disk_stops_at_once(alice, command):
    alice.small_disk("/mnt/full")
    alice.write("/mnt/full/rest", "x" * 4096)
    alice.path(SITE).unlink()
    alice.symlink(SITE, "/mnt/full/site")
    assert ask(alice, command) == failure("cannot write the Apache site")
    assert alice.argvs() == []


STEPS = {
    "apache2ctl": ("apache2ctl failed: ", [RELOAD_APACHE, RELOAD_PHP]),
    "systemctl": ("systemctl failed: ", [RELOAD_PHP]),
    "usermod": ("usermod failed: ", []),
    "psql": ("runuser failed: ", []),
}


@BOTH
@pytest.mark.parametrize("tool", STEPS)
@pytest.mark.parametrize("errors", ["", "went wrong\n"])
def test_a_failing_step_stops_no_other(alice, command, tool, errors):
    alice.answer(tool, err=errors, exit=5)
    prefix, left_out = STEPS[tool]
    assert ask(alice, command) == failure(prefix + (errors.strip() or "exit code 5"))
    assert alice.argvs() == [call for call in everything(command) if call not in left_out]
    assert alice.read(SITE) == TEXT[command]


@BOTH
@pytest.mark.parametrize("errors", ["", "not loaded\n"])
def test_a_failing_reload_of_php_stops_no_other(alice, command, errors):
    alice.answer("systemctl", "reload", "php8.2-fpm", err=errors, exit=5)
    assert ask(alice, command) == failure("systemctl failed: " + (errors.strip() or "exit code 5"))
    assert alice.argvs() == everything(command)


@BOTH
def test_all_failures_are_told_together(alice, command):
    alice.answer("systemctl", err="reload", exit=1)
    alice.answer("usermod", err="locked", exit=10)
    alice.answer("psql", err="role", exit=3)
    assert ask(alice, command) == failure("systemctl failed: reload; usermod failed: locked; runuser failed: role")


@BOTH
def test_missing_tools_are_told_together(alice, command):
    for tool in ("apache2ctl", "usermod", "runuser"):
        alice.remove_standin(tool)
    assert ask(alice, command) == failure("apache2ctl: cannot start; usermod: cannot start; runuser: cannot start")
    assert alice.argvs() == AFTER[command]


@pytest.mark.parametrize("errors", ["", "no such process\n"])
def test_whoever_runs_nothing_is_suspended_as_well(alice, errors):
    alice.answer("pkill", err=errors, exit=1)
    assert ask(alice, "suspend") == {"ok": True}


def test_processes_end_after_the_login_is_locked(alice):
    alice.answer("usermod", err="locked", exit=10)
    ask(alice, "suspend")
    assert alice.argvs()[-1] == KILL


# The domain lies in the user database, where its user may be able to change it.


def set_comment(sandbox, comment):
    lines = sandbox.read("/etc/passwd").replace("Corvane account,example.org", comment)
    sandbox.write("/etc/passwd", lines)


@BOTH
@pytest.mark.parametrize("domain", [
    "Example.org", " example.org", "example", "example.org/..", "a b.org", "*", "example.org\\",
    "${APACHE_LOG_DIR}.org", "example.org\t", "exämple.org",
])
def test_a_domain_that_is_none_never_reaches_apache(alice, command, domain):
    set_comment(alice, f"Corvane account,{domain}")
    assert ask(alice, command) == failure("that is not a valid domain name")
    assert alice.argvs() == []
    assert alice.read(SITE) == "site"
    assert alice.tree("/etc/php/8.2/fpm/pool.d") == {"corv-alice.conf": "0640 root:root pool"}


@pytest.mark.parametrize("given", ["www.www.example.org", "WWW.www.www.example.org"])
def test_whatever_domain_creation_stores_is_taken(sandbox, given):
    stored = given[4:].lower()
    assert sandbox.request("hosting.create", username="alice", domain=given)["domain"] == stored
    active = sandbox.read(SITE)
    for command in ("suspend", "resume"):
        assert ask(sandbox, command) == {"ok": True}
        assert f"    ServerName {stored}\n    ServerAlias www.{stored}\n" in sandbox.read(SITE)
    assert sandbox.read(SITE) == active


def test_a_domain_that_is_none_keeps_the_parked_pool(suspended):
    set_comment(suspended, "Corvane account,none")
    ask(suspended, "resume")
    assert suspended.tree("/etc/php/8.2/fpm/pool.d") == {"corv-alice.conf.suspended": "0640 root:root pool"}


@BOTH
@pytest.mark.parametrize("comment", ["Corvane account", "Corvane account,", "Corvane account,,example.org"])
def test_an_account_without_a_domain_is_left_to_apaches_own_test(alice, command, comment):
    set_comment(alice, comment)
    assert ask(alice, command) == {"ok": True}
    assert alice.read(SITE) == TEXT[command].replace("example.org", "")


@BOTH
def test_the_domain_ends_at_the_next_comma(alice, command):
    set_comment(alice, "Corvane account,example.org,room 1")
    assert ask(alice, command) == {"ok": True}
    assert alice.read(SITE) == TEXT[command]
