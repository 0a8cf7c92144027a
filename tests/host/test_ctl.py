"""corvctl on a real host: the whole life of an account, and files that are put and fetched, as an administrator does it."""

import hashlib
import re

LIMIT = 120


def corvctl(host, *args, input=None):
    """Its output, once it has done its work without a complaint."""
    done = host.run(["corvctl", *args], input=input)
    assert (done.code, done.err) == (0, ""), (args, done)
    return done.out


def refused(host, *args):
    """What it complains of when it cannot do its work."""
    done = host.run(["corvctl", *args])
    assert done.code == 1 and done.out == "", (args, done)
    return done.err


def test_the_whole_life_of_an_account(host):
    name = host.free_name()
    domain = f"{name}.example"
    made = corvctl(host, "--plain", "account", "create", name, domain, "--key-file", "-", input=host.key.public + "\n")
    facts = dict(line.split("\t") for line in made.splitlines())
    assert facts["Account"] == name and facts["Domain"] == domain
    password = facts["Database password"]
    host.wait_until_served(name, domain)
    line = next(line for line in corvctl(host, "--plain", "account", "list").splitlines() if line.startswith(f"{name}\t"))
    assert line.split("\t")[1:3] == [domain, "on-line"]
    assert host.sql("SELECT 1", database=name, role=name, password=password).out == "1\n"
    assert host.ssh(name, "id -un").out == f"{name}\n"

    # Its site, its keys, its database.
    corvctl(host, "file", "write", name, "public_html/index.html", input="<h1>made by corvctl</h1>\n")
    assert host.fetch(domain).body == "<h1>made by corvctl</h1>\n"
    assert corvctl(host, "--plain", "account", "keys", name).startswith("key@test\tssh-ed25519\tSHA256:")
    assert corvctl(host, "account", "keys", name, "--set", "/dev/null") == f"{name} has 0 key(s) now\n"
    assert host.ssh(name, "true").code != 0
    corvctl(host, "account", "keys", name, "--set", "-", input=host.key.public)
    assert host.ssh(name, "true").code == 0
    fresh = corvctl(host, "account", "password", name)
    assert re.fullmatch(r"[\w-]{24}\n", fresh) and fresh.strip() != password
    assert host.sql("SELECT 1", database=name, role=name, password=password).code != 0
    login = {"database": name, "role": name, "password": fresh.strip()}
    corvctl(host, "account", "read-only", name, "on")
    assert "read-only transaction" in host.sql("CREATE TABLE a (b int)", **login).err
    corvctl(host, "account", "read-only", name, "off")
    assert host.sql("CREATE TABLE a (b int)", **login).code == 0
    assert int(dict(line.split("\t") for line in corvctl(host, "--plain", "account", "usage").splitlines())[name]) > 0

    # Off-line and back.
    corvctl(host, "account", "suspend", name)
    host.wait_for(lambda: host.fetch(domain).status == 503, "the site going off-line")
    assert host.ssh(name, "true").code != 0
    corvctl(host, "account", "resume", name)
    host.wait_for(lambda: host.fetch(domain).status == 200, "the site coming back")

    # The end.
    done = host.run(["corvctl", "account", "delete", name])
    assert (done.code, done.out) == (2, "") and "this has to be confirmed" in done.err
    archives = dict(line.split("\t") for line in corvctl(host, "--plain", "account", "delete", name, "--confirm", name).splitlines())
    assert archives["Deleted"] == name
    assert len(host.ok(["sh", "-c", f"ls {archives['Archives']}"]).split()) == 3  # home, database, what neither holds
    assert name not in corvctl(host, "account", "list")
    assert refused(host, "account", "suspend", name) == \
        f"corvctl: no Corvane account named '{name}'\n  corvctl account list shows the accounts\n"


def test_files_are_put_and_fetched(host):
    account = host.account()
    host.ok(["sh", "-c", "head -c 100000000 /dev/urandom >/root/big"])
    corvctl(host, "file", "mkdir", account.name, "public_html/down loads")
    corvctl(host, "file", "put", account.name, "/root/big", "public_html/down loads/")
    path = f"{account.home}/public_html/down loads/big"
    assert host.mode(path) == f"644 {account.name} www-data"
    assert corvctl(host, "--plain", "file", "ls", account.name, "public_html/down loads").startswith("big\tfile\t100000000\t")
    corvctl(host, "file", "mv", account.name, "public_html/down loads/big", "moved")
    corvctl(host, "file", "get", account.name, "moved", "/root/back")
    sums = host.ok(["sha256sum", "/root/big", "/root/back", f"{account.home}/moved"]).split()[::2]
    assert len(set(sums)) == 1 and len(sums) == 3
    assert host.ok(["ls", "-A", "/var/lib/corvane/transfer"]) == ""
    text = "äöü\n" * 1000
    corvctl(host, "file", "write", account.name, "notes.txt", input=text)
    assert hashlib.sha256(corvctl(host, "file", "cat", account.name, "notes.txt").encode()).digest() == \
        hashlib.sha256(text.encode()).digest()
    corvctl(host, "file", "rm", account.name, "public_html/down loads", "--confirm", "down loads")
    assert not host.exists(f"{account.home}/public_html/down loads")
    host.ok(["rm", "/root/big", "/root/back"])


def test_a_backup_is_made_and_brought_back(host):
    account = host.account()
    host.put(f"{account.home}/a.txt", "kept", owner=f"{account.name}:{account.name}")
    done = host.run(["corvctl", "backup", "start", "--wait"])
    assert done.code == 0, done
    backup = re.search(r"^the backup (\S+) was made$", done.out, re.MULTILINE)[1]
    assert f"{backup}\t" in corvctl(host, "--plain", "backup", "list")
    assert f"{account.name}\t{account.domain}\t" in corvctl(host, "--plain", "backup", "show", backup)
    corvctl(host, "backup", "restore", account.name, backup, "files")
    assert host.get(f"{account.home}/restored-{backup}/a.txt") == "kept"
    host.sql("CREATE TABLE later (a int)", database=account.name)
    corvctl(host, "backup", "restore", account.name, backup, "database", "--confirm", account.name)
    assert host.sql("SELECT * FROM later", database=account.name).code != 0
    host.ok(["rm", "-rf", f"/var/backups/corvane/auto/{backup}"])


def test_the_panels_user_may_use_it_and_others_may_not(host):
    assert host.run(["corvctl", "call", "ping"], user="corv-web").out == '{"ok":true,"version":"0.1"}\n'
    done = host.run(["corvctl", "call", "ping"], user="nobody")
    assert done.code == 3 and done.err.startswith("corvctl: no permission to use /run/corvane/agent.sock\n")


def test_what_comes_with_it_is_in_its_place(host):
    # The image's dpkg leaves manual pages out, but knows of them.
    files = host.ok(["dpkg", "-L", "corv-agent"]).splitlines()
    for page in ("1/corvctl.1", "5/corvane.ini.5", "8/corv-agent.8"):
        assert f"/usr/share/man/man{page}.gz" in files
    for shell, path in (("bash", "bash-completion/completions/corvctl"), ("zsh", "zsh/vendor-completions/_corvctl"),
                        ("fish", "fish/vendor_completions.d/corvctl.fish")):
        assert host.get(f"/usr/share/{path}") == corvctl(host, "completion", shell)


def test_an_account_moves_to_another_domain(host, account):
    new = f"moved-{account.name}.example"
    done = host.run(["corvctl", "account", "domain", account.name, f"www.{new}"])
    assert (done.code, done.out) == (0, f"{account.name} is at {new} now\n")
    assert done.err == f"corvctl: the logs of {account.domain} stay where they are: /var/log/apache2/{account.domain}-*.log\n"
    host.wait_until_served(account.name, new)
    assert f"{account.name} is ready" in host.fetch(new).body or host.fetch(new).status == 200
    assert host.exists(f"/var/log/apache2/{account.domain}-access.log")

    # It follows a suspension, and what Apache does not take is undone.
    corvctl(host, "account", "suspend", account.name)
    back = host.run(["corvctl", "account", "domain", account.name, account.domain])
    assert (back.code, back.out) == (0, f"{account.name} is at {account.domain} now\n")
    host.wait_for(lambda: host.fetch(account.domain).status == 503, "the suspension under the old name")
    host.ok(["sh", "-c", "echo Nonsense >/etc/apache2/conf-enabled/x.conf"])
    try:
        failed = host.run(["corvctl", "account", "domain", account.name, new])
        assert failed.code == 1
        assert "Invalid command 'Nonsense'" in failed.err
        assert f"Corvane account,{account.domain}" in host.ok(["getent", "passwd", account.name])
        assert f"ServerName {account.domain}\n" in host.get(f"/etc/apache2/sites-available/corv-{account.name}.conf")
    finally:
        host.ok(["rm", "/etc/apache2/conf-enabled/x.conf"])
    corvctl(host, "account", "resume", account.name)


def test_a_domain_that_another_account_has_is_refused(host, account):
    name = host.free_name()
    assert refused(host, "account", "create", name, account.domain).startswith(
        f"corvctl: the site corv-{account.name} already answers to {account.domain} or www.{account.domain}")


def test_all_that_an_account_has_is_shown(host, account):
    shown = dict(line.split("\t", 1) for line in corvctl(host, "--plain", "account", "show", account.name).splitlines())
    assert (shown["Domain"], shown["State"], shown["PHP"], shown["Certificate"]) == (
        account.domain, "on-line", account.php, "none")
    assert int(shown["Database"]) > 1_000_000
    assert shown["Key"] == "ssh-ed25519 key@test"
    assert shown["Fingerprint"].startswith("SHA256:")
