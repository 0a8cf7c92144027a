"""Making an account: what is called and written, what is checked first, and what is undone after each failure."""

import json
import os
import re

import pytest

from sandbox import PSQL

KEY = "ssh-ed25519 " + "A" * 68 + " alice@home"
SITE = "/etc/apache2/sites-available/corv-alice.conf"
POOL = "/etc/php/8.2/fpm/pool.d/corv-alice.conf"
HOME = "/home/alice"
PAGE = HOME + "/public_html/index.html"

WELCOME = (
    '<!doctype html><meta charset="utf-8"><title>example.org</title>'
    '<p style="font:16px system-ui;margin:3em">example.org is ready. Upload your site to public_html.</p>\n'
)
SITE_HEAD = """\
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
"""
SITE_PHP = """\
    <FilesMatch "\\.php$">
        SetHandler "proxy:unix:/run/php/corv-alice.sock|fcgi://localhost"
    </FilesMatch>
"""
SITE_END = "</VirtualHost>\n"
POOL_TEXT = """\
; Managed by Corvane (account alice). Edits here are overwritten.
[corv-alice]
user = alice
group = alice
listen = /run/php/corv-alice.sock
listen.owner = www-data
listen.group = www-data
listen.mode = 0660
pm = ondemand
pm.max_children = 5
pm.process_idle_timeout = 30s
php_admin_value[open_basedir] = /home/alice/
php_admin_value[upload_tmp_dir] = /home/alice/tmp
php_admin_value[sys_temp_dir] = /home/alice/tmp
php_admin_value[session.save_path] = /home/alice/tmp
php_admin_value[error_log] = /home/alice/logs/php-error.log
php_admin_flag[log_errors] = on
"""

CREATE_SCRIPT = """\
\\set u 'alice'
\\set pw '%s'
SELECT format('CREATE ROLE %%I LOGIN PASSWORD %%L', :'u', :'pw') \\gexec
SELECT format('CREATE DATABASE %%I OWNER %%I', :'u', :'u') \\gexec
SELECT format('REVOKE ALL ON DATABASE %%I FROM PUBLIC', :'u') \\gexec
"""
DROP_SCRIPT = """\
\\set u 'alice'
SELECT format('DROP DATABASE IF EXISTS %I WITH (FORCE)', :'u') \\gexec
SELECT format('DROP ROLE IF EXISTS %I', :'u') \\gexec
"""

USERADD = ["useradd", "--create-home", "--user-group", "--shell", "/bin/bash", "--comment"]
USERADD += ["Corvane account,example.org", "alice"]
CONFIGTEST = ["apache2ctl", "configtest"]
RELOAD_APACHE = ["systemctl", "reload", "apache2"]
RELOAD_PHP = ["systemctl", "reload", "php8.2-fpm"]
STEPS = [
    USERADD,
    ["chown", "alice:alice", "-R", HOME],
    ["chown", "alice:www-data", HOME, HOME + "/public_html", PAGE],
    ["chmod", "0710", HOME],
    ["chmod", "2750", HOME + "/public_html"],
    ["chmod", "0700", HOME + "/.ssh", HOME + "/tmp"],
    PSQL,
    ["a2ensite", "-q", "corv-alice"],
    CONFIGTEST,
    RELOAD_APACHE,
    RELOAD_PHP,
]
UNDO_SITE = [["a2dissite", "-q", "corv-alice"]]
UNDO_DATABASE = [PSQL]
UNDO_USER = [["pkill", "-u", "alice"], ["userdel", "--remove", "alice"]]


def create(sandbox, **more):
    return sandbox.request("hosting.create", {"username": "alice", "domain": "example.org", **more})


def refusal(sandbox, **more):
    """The error of a request that changes nothing."""
    before = {folder: sandbox.tree(folder) for folder in ("/home", "/etc", "/var")}
    reply = create(sandbox, **more)
    assert set(reply) == {"ok", "error"} and reply["ok"] is False
    assert sandbox.calls() == []
    assert {folder: sandbox.tree(folder) for folder in before} == before
    return reply["error"]


def nothing_remains(sandbox):
    assert not sandbox.has_user("alice")
    assert "alice" not in sandbox.read("/etc/group")
    for path in (HOME, SITE, POOL):
        assert not sandbox.exists(path)


# Success


def test_account_is_made(sandbox):
    reply = create(sandbox, sshKey=f"  {KEY}\n")

    password = reply.get("dbPassword", "")
    assert re.fullmatch("[A-Za-z0-9_-]{24}", password)
    assert reply == {
        "ok": True,
        "domain": "example.org",
        "phpVersion": "8.2",
        "dbPassword": password,
        "accessLog": "/var/log/apache2/example.org-access.log",
    }
    assert sandbox.argvs() == STEPS
    assert sandbox.scripts() == [CREATE_SCRIPT % password]
    assert {call.uid for call in sandbox.calls("psql")} == {sandbox.uid("postgres")}
    assert [line for line in sandbox.read("/etc/passwd").splitlines() if "alice" in line] == [
        "alice:x:1000:1000:Corvane account,example.org:/home/alice:/bin/bash"
    ]
    assert sandbox.tree("/home") == {
        "alice": "0710 alice:www-data",
        "alice/.profile": "0644 alice:alice # skeleton\n",
        "alice/.ssh": "0700 alice:alice",
        "alice/.ssh/authorized_keys": f"0600 alice:alice {KEY}\n",
        "alice/logs": "0755 alice:alice",
        "alice/public_html": "2750 alice:www-data",
        "alice/public_html/index.html": "0644 alice:www-data " + WELCOME,
        "alice/tmp": "0700 alice:alice",
    }
    assert sandbox.tree("/etc/apache2/sites-available") == {
        "corv-alice.conf": "0644 root:root " + SITE_HEAD + SITE_PHP + SITE_END
    }
    assert sandbox.tree("/etc/php") == {
        "8.2": "0755 root:root",
        "8.2/cli": "0755 root:root",
        "8.2/fpm": "0755 root:root",
        "8.2/fpm/pool.d": "0755 root:root",
        "8.2/fpm/pool.d/corv-alice.conf": "0644 root:root " + POOL_TEXT,
    }


# Prints 1 or 0 for the pool, the site and the home into a file named after the tool: are they there when it runs?
SEEN = f'for f in {POOL} {SITE} {HOME}; do [ -e "$f" ] && printf 1 || printf 0; done >"/tmp/seen.${{0##*/}}"'


def test_pool_and_site_are_written_between_database_and_web_server(sandbox):
    for program in ("psql", "a2ensite"):
        sandbox.answer(program, shell=SEEN)
    assert create(sandbox)["ok"] is True
    assert [sandbox.read(f"/tmp/seen.{name}") for name in ("psql", "a2ensite")] == ["001", "111"]


@pytest.mark.parametrize("key", ["", "  \n", None])
def test_account_without_a_key_has_no_key_file(sandbox, key):
    assert create(sandbox, **({} if key is None else {"sshKey": key}))["ok"] is True
    assert sandbox.entry(HOME + "/.ssh") == "0700 alice:alice"
    assert sandbox.tree(HOME + "/.ssh") == {}


@pytest.mark.parametrize("name", ["off", "yes", "true", "false", "none", "null"])
def test_name_that_is_a_value_of_another_kind_to_php_stays_a_name(sandbox, name):
    assert sandbox.request("hosting.create", username=name, domain="example.org")["ok"]
    pool = sandbox.read(f"/etc/php/8.2/fpm/pool.d/corv-{name}.conf").splitlines()
    assert pool[1:5] == [f"[corv-{name}]", f'user = "{name}"', f'group = "{name}"', f"listen = /run/php/corv-{name}.sock"]


def test_account_without_php(sandbox):
    sandbox.php()
    reply = create(sandbox)
    assert reply["ok"] is True and reply["phpVersion"] == ""
    assert sandbox.argvs() == STEPS[:-1]
    assert sandbox.read(SITE) == SITE_HEAD + SITE_END


def test_account_on_a_server_that_never_had_php(sandbox):
    sandbox.php()
    assert not sandbox.exists("/etc/php")
    assert create(sandbox)["phpVersion"] == ""


def test_domain_is_normalised_everywhere(sandbox):
    reply = create(sandbox, domain="WWW.Example.org ")
    assert reply["domain"] == "example.org"
    assert reply["accessLog"] == "/var/log/apache2/example.org-access.log"
    assert sandbox.read(SITE) == SITE_HEAD + SITE_PHP + SITE_END
    assert sandbox.read(PAGE) == WELCOME
    assert sandbox.argvs()[0] == USERADD


@pytest.mark.parametrize(
    "versions, others, chosen",
    [
        (["7.4", "8.1", "8.3"], ["8.4/cli"], "8.3"),
        (["8.9", "8.10"], [], "8.10"),
        (["8.10", "8.9"], [], "8.10"),
        (["7.4", "10.0"], [], "10.0"),
        (["8.1", "8.2.1"], [], "8.2.1"),
        (["8.2"], ["8.5/fpm"], "8.2"),
        ([], ["8.5/fpm", "8.4/cli"], ""),
    ],
)
@pytest.mark.parametrize("locale", ["C", "C.UTF-8", ""])
def test_highest_php_version_with_fpm_is_used(sandbox, locale, versions, others, chosen):
    sandbox.php(*versions)
    for other in others:
        sandbox.mkdir(f"/etc/php/{other}")
    sandbox.write("/etc/php/9.9", "no folder")
    sandbox.write("/etc/php/9.8/fpm/pool.d", "no folder either")
    sandbox.start(env={"LC_ALL": locale or None})
    assert create(sandbox)["phpVersion"] == chosen
    assert sandbox.argvs("systemctl") == [RELOAD_APACHE] + ([["systemctl", "reload", f"php{chosen}-fpm"]] if chosen else [])
    if chosen:
        assert sandbox.read(f"/etc/php/{chosen}/fpm/pool.d/corv-alice.conf") == POOL_TEXT


def test_php_version_is_looked_up_for_every_account(sandbox):
    assert create(sandbox)["phpVersion"] == "8.2"
    sandbox.mkdir("/etc/php/8.3/fpm/pool.d")
    assert create(sandbox, username="bob", domain="bob.org")["phpVersion"] == "8.3"


def test_modes_do_not_depend_on_the_mask(sandbox):
    sandbox.start(wrapper=["/bin/sh", "-c", 'umask 077; exec "$@"', "sh"])
    create(sandbox, sshKey=KEY)
    for path, mode in ((SITE, "0644"), (POOL, "0644"), (PAGE, "0644"), (HOME + "/.ssh/authorized_keys", "0600")):
        assert sandbox.entry(path).split()[0] == mode


def test_two_accounts_do_not_share_anything(sandbox):
    first, second = create(sandbox), create(sandbox, username="bob", domain="bob.org")
    assert first["ok"] and second["ok"] and first["dbPassword"] != second["dbPassword"]
    assert "bob" not in sandbox.read(SITE) and "alice" not in sandbox.read(SITE.replace("alice", "bob"))


# Checks, in their order


def test_taken_user(sandbox):
    sandbox.add_user("alice", group=False)
    assert refusal(sandbox) == "a user or group named 'alice' already exists on this server"


def test_taken_group(sandbox):
    sandbox.add_group("alice", 2000)
    assert refusal(sandbox) == "a user or group named 'alice' already exists on this server"


def test_account_that_exists_already(sandbox):
    sandbox.add_account("alice")
    assert refusal(sandbox) == "a user or group named 'alice' already exists on this server"


@pytest.mark.parametrize("kind", ["file", "link", "folder"])
def test_left_over_site_file(sandbox, kind):
    if kind == "file":
        sandbox.write(SITE)
    elif kind == "link":
        sandbox.symlink(SITE, "/nowhere")
    else:
        sandbox.mkdir(SITE)
    assert refusal(sandbox) == "an Apache site for 'alice' already exists"


def test_checks_come_in_their_order(sandbox):
    name = "username: 3 to 16 lowercase letters and digits, starting with a letter (not a reserved name)"
    sandbox.add_group("alice", 2000)
    sandbox.write(SITE)
    sandbox.symlink(HOME, "/tmp")
    everything_wrong = {"username": "Alice", "domain": "", "sshKey": "x"}
    assert refusal(sandbox, **everything_wrong) == name
    assert refusal(sandbox, domain="", sshKey="x") == "that is not a valid domain name"
    assert refusal(sandbox, sshKey="x") == "a user or group named 'alice' already exists on this server"
    sandbox.write("/etc/group", sandbox.read("/etc/group").replace("alice:x:2000:\n", ""))
    assert refusal(sandbox, sshKey="x") == "an Apache site for 'alice' already exists"
    sandbox.path(SITE).unlink()
    assert refusal(sandbox, sshKey="x") == "that does not look like one SSH public key (ssh-ed25519 AAAA… comment)"
    assert refusal(sandbox) == "/home/alice already exists and holds links"


# Left-over homes


@pytest.mark.parametrize("target", ["/tmp/elsewhere", "/nowhere"])
@pytest.mark.parametrize(
    "place", ["", "/public_html", "/logs", "/tmp", "/.ssh", "/public_html/index.html", "/.ssh/authorized_keys"]
)
def test_left_over_home_with_a_link_is_refused(sandbox, place, target):
    sandbox.mkdir("/tmp/elsewhere")
    sandbox.symlink(HOME + place, target)
    assert refusal(sandbox, sshKey=KEY) == "/home/alice already exists and holds links"
    assert sandbox.tree("/tmp/elsewhere") == {}


def test_links_behind_a_linked_home_are_the_homes_own(sandbox):
    sandbox.mkdir("/tmp/elsewhere")
    sandbox.symlink("/tmp/elsewhere/logs", "/tmp")
    sandbox.symlink(HOME, "/tmp/elsewhere")
    assert refusal(sandbox) == "/home/alice already exists and holds links"


def test_a_link_that_comes_while_the_home_is_handed_over_is_refused(sandbox):
    # The account's own processes can swap a folder as soon as the home is theirs.
    sandbox.answer("chown", "alice:alice", "-R", HOME, shell=f"rmdir {HOME}/logs && ln -s /etc {HOME}/logs")
    before = sandbox.entry("/etc")
    assert create(sandbox) == {"ok": False, "error": "/home/alice already exists and holds links"}
    assert not sandbox.has_user("alice")
    assert sandbox.entry("/etc") == before


def test_plain_left_over_home_is_taken_over(sandbox):
    sandbox.write(HOME + "/public_html/old.html", "old", mode=0o600, owner="nobody:nogroup")
    sandbox.write(PAGE, "a much longer page than the new one " * 20, mode=0o600, owner="nobody:nogroup")
    sandbox.write(HOME + "/.ssh/authorized_keys", "old key\n" * 50, mode=0o644, owner="nobody:nogroup")
    assert create(sandbox, sshKey=KEY)["ok"] is True
    tree = sandbox.tree(HOME)
    assert tree["public_html/old.html"] == "0600 alice:alice old"
    assert tree["public_html/index.html"] == "0644 alice:www-data " + WELCOME
    assert tree[".ssh/authorized_keys"] == f"0600 alice:alice {KEY}\n"
    assert sandbox.entry(HOME) == "0710 alice:www-data"


def test_other_links_in_a_left_over_home_lead_nowhere(sandbox):
    sandbox.write("/root/precious", "precious", mode=0o600)
    sandbox.symlink(HOME + "/public_html/evil", "/root/precious")
    sandbox.symlink(HOME + "/logs/evil", "/root")
    assert create(sandbox)["ok"] is True
    assert sandbox.entry("/root/precious") == "0600 root:root"
    assert sandbox.entry("/root") == "0700 root:root"


def test_second_name_of_a_foreign_file_is_not_written(sandbox):
    # A former user may have made index.html a second name of somebody else's file.
    other = sandbox.write("/home/precious", "precious", mode=0o640)
    sandbox.mkdir(HOME + "/public_html")
    os.link(other, sandbox.path(PAGE))
    create(sandbox)
    assert sandbox.read("/home/precious") == "precious"


@pytest.mark.parametrize("place", ["/public_html/index.html", "/.ssh/authorized_keys"])
def test_left_over_pipe_holds_nobody_up(sandbox, place):
    sandbox.mkdir(HOME + os.path.dirname(place))
    os.mkfifo(sandbox.path(HOME + place))
    assert create(sandbox, sshKey=KEY)["ok"] is True


# Failures and their undo


@pytest.mark.parametrize("failing", range(len(STEPS)), ids=lambda i: " ".join(STEPS[i][:3])[:40])
def test_each_failing_program_is_answered_and_undone(sandbox, failing):
    program, *args = STEPS[failing]
    program, args = ("psql", []) if STEPS[failing] is PSQL else (program, args)
    sandbox.answer(program, *args, call=1, exit=7, err=f"{program}: it went wrong\n")

    shown = STEPS[failing][0]
    assert create(sandbox) == {"ok": False, "error": f"{shown} failed: {program}: it went wrong"}

    if failing == 0:
        undo = []
    elif failing <= 6:
        undo = UNDO_USER
    else:
        undo = UNDO_SITE + UNDO_DATABASE + UNDO_USER
    again = [CONFIGTEST, RELOAD_APACHE, RELOAD_PHP] if failing >= 8 else []
    assert sandbox.argvs() == STEPS[: failing + 1] + undo + again
    if failing > 6:
        assert sandbox.scripts()[1:] == [DROP_SCRIPT]
    nothing_remains(sandbox)


def test_undo_finds_what_it_undoes_still_there(sandbox):
    # Newest first: the site is disabled before its file goes, the pool goes before the database, the user comes last.
    sandbox.answer("a2ensite", exit=1)
    sandbox.answer("a2dissite", shell=SEEN)
    sandbox.answer("psql", holds="DROP", shell=SEEN)
    sandbox.answer("pkill", shell=SEEN)
    assert create(sandbox)["ok"] is False
    assert [sandbox.read(f"/tmp/seen.{name}") for name in ("a2dissite", "psql", "pkill")] == ["111", "001", "001"]


@pytest.mark.parametrize("failing", ["a2dissite", "psql", "pkill", "userdel"])
def test_failing_undo_stops_no_other(sandbox, failing):
    sandbox.answer("a2ensite", exit=1, err="first reason")
    sandbox.answer(failing, **({"holds": "DROP"} if failing == "psql" else {}), exit=1, err="later reason")
    assert create(sandbox) == {"ok": False, "error": "a2ensite failed: first reason"}
    assert sandbox.argvs()[8:] == UNDO_SITE + UNDO_DATABASE + UNDO_USER
    assert not sandbox.exists(SITE) and not sandbox.exists(POOL)


def test_failing_reload_after_the_undo_changes_nothing(sandbox):
    sandbox.answer("apache2ctl", exit=1, err="AH00526: Syntax error on line 1 of %1")
    assert create(sandbox) == {"ok": False, "error": "apache2ctl failed: AH00526: Syntax error on line 1 of %1"}
    assert sandbox.argvs()[8:] == [CONFIGTEST] + UNDO_SITE + UNDO_DATABASE + UNDO_USER + [CONFIGTEST]
    nothing_remains(sandbox)


def test_failing_reload_without_php(sandbox):
    sandbox.php()
    sandbox.answer("systemctl", call=1, exit=1, err="no")
    assert create(sandbox) == {"ok": False, "error": "systemctl failed: no"}
    undo = UNDO_SITE + UNDO_DATABASE + UNDO_USER
    assert sandbox.argvs()[8:] == [CONFIGTEST, RELOAD_APACHE] + undo + [CONFIGTEST, RELOAD_APACHE]
    nothing_remains(sandbox)


def test_home_that_nobody_made_is_laid_out_all_the_same(sandbox):
    for program in ("useradd", "chown", "chmod"):
        sandbox.answer(program)
    assert create(sandbox, sshKey=KEY)["ok"] is True
    assert sorted(sandbox.tree("/home")) == sorted([
        "alice", "alice/.ssh", "alice/.ssh/authorized_keys", "alice/logs", "alice/public_html", "alice/public_html/index.html",
        "alice/tmp",
    ])


@pytest.mark.parametrize("program", ["useradd", "chown", "chmod", "runuser", "a2ensite", "apache2ctl", "systemctl"])
def test_missing_program_is_a_failure_like_any_other(sandbox, program):
    sandbox.remove_standin(program)
    assert create(sandbox) == {"ok": False, "error": f"{program}: cannot start"}
    nothing_remains(sandbox)


@pytest.mark.parametrize(
    "text, message",
    [
        ('ERROR:  role "alice" already exists', "a PostgreSQL role or database named 'alice' already exists"),
        ('psql:<stdin>:4: ERROR:  database "alice" already exists\n', "a PostgreSQL role or database named 'alice' already exists"),
        ("ERROR: Already Exists", "runuser failed: ERROR: Already Exists"),
        ("ERROR:  permission denied", "runuser failed: ERROR:  permission denied"),
        ("", "runuser failed: exit code 3"),
    ],
)
def test_database_that_cannot_be_made(sandbox, text, message):
    sandbox.answer("psql", exit=3, err=text)
    assert create(sandbox) == {"ok": False, "error": message}
    assert sandbox.argvs() == STEPS[:7] + UNDO_USER
    nothing_remains(sandbox)


def test_password_is_new_for_every_attempt_and_never_told_on_failure(sandbox):
    sandbox.answer("psql", exit=1, err="no")
    create(sandbox)
    create(sandbox)
    passwords = [re.search(r"\\set pw '(.*)'", script).group(1) for script in sandbox.scripts()]
    assert len(set(passwords)) == 2
    assert not any(password in json.dumps(reply) for password in passwords for reply in sandbox.replies)


def test_pool_that_does_not_fit_on_the_disk(sandbox):
    sandbox.small_disk("/etc/php/8.2/fpm/pool.d")
    sandbox.write("/etc/php/8.2/fpm/pool.d/www.conf", "x" * 4096)
    assert create(sandbox) == {"ok": False, "error": "cannot write the PHP-FPM pool"}
    assert sandbox.argvs() == STEPS[:7] + UNDO_DATABASE + UNDO_USER
    # A file that was cut short is no finished step: it stays, and the next attempt replaces it.
    assert sandbox.read(POOL) == ""
    assert not sandbox.exists(SITE)


def test_pool_that_cannot_be_opened(sandbox):
    sandbox.mkdir(POOL)
    assert create(sandbox) == {"ok": False, "error": "cannot write the PHP-FPM pool"}
    assert sandbox.argvs() == STEPS[:7] + UNDO_DATABASE + UNDO_USER
    assert sandbox.exists(POOL)


def test_site_that_does_not_fit_on_the_disk(sandbox):
    sandbox.small_disk("/etc/apache2/sites-available")
    sandbox.write("/etc/apache2/sites-available/000-default.conf", "x" * 4096)
    assert create(sandbox) == {"ok": False, "error": "cannot write the Apache site"}
    assert sandbox.argvs() == STEPS[:7] + UNDO_DATABASE + UNDO_USER
    assert sandbox.read(SITE) == ""
    assert not sandbox.exists(POOL)


def test_site_that_cannot_be_opened(sandbox):
    sandbox.path("/etc/apache2/sites-available").rmdir()
    assert create(sandbox) == {"ok": False, "error": "cannot write the Apache site"}
    assert sandbox.argvs() == STEPS[:7] + UNDO_DATABASE + UNDO_USER
    assert not sandbox.exists(POOL)


def test_welcome_page_and_key_that_do_not_fit_are_not_missed(sandbox):
    sandbox.path("/etc/skel/.profile").unlink()
    sandbox.small_disk("/home")
    sandbox.write("/home/big", "x" * 4096)
    assert create(sandbox, sshKey=KEY)["ok"] is True
    assert sandbox.read(PAGE) == ""


def test_welcome_page_that_cannot_be_made_shows_at_its_owner(sandbox):
    sandbox.write(HOME + "/public_html", "a file where the folder belongs")
    reply = create(sandbox)
    assert reply["ok"] is False and reply["error"].startswith("chown failed: ")
    assert sandbox.argvs() == STEPS[:3] + UNDO_USER


def test_failed_attempt_does_not_stand_in_the_way_of_the_next(sandbox):
    sandbox.answer("apache2ctl", exit=1, calls=(1, 2))
    assert create(sandbox)["ok"] is False
    assert create(sandbox)["ok"] is True


def test_site_text_is_the_same_as_the_file_in_bytes(sandbox):
    create(sandbox)
    assert sandbox.path(SITE).read_bytes() == (SITE_HEAD + SITE_PHP + SITE_END).encode()
    assert len(sandbox.read(SITE).splitlines()) == 17 and len(sandbox.read(POOL).splitlines()) == 17
