"""corvctl doctor: a server that is well, and one with each of the faults that it knows."""

import json
import os
import re
import socket
import time

import pytest
from corvctl import PATH, corvctl, install, on_terminal

MODULES = (
    "Loaded Modules:\n core_module (static)\n rewrite_module (shared)\n proxy_module (shared)\n proxy_fcgi_module (shared)\n"
    " corvane_module (shared)\n"
)
INCLUDES = "Included configuration files:\n  (*) /etc/apache2/apache2.conf\n    (146) /etc/apache2/conf-enabled/corv-logformat.conf\n"
LOG_FORMAT = "/etc/apache2/conf-enabled/corv-logformat.conf"
SITE = "/etc/apache2/sites-available/corv-alice.conf"
ENABLED = "/etc/apache2/sites-enabled/corv-alice.conf"
POOL = "/etc/php/8.2/fpm/pool.d/corv-alice.conf"
BACKUPS = "/var/backups/corvane/auto"
FAILURES = "/var/lib/corvane/failures"
SETTINGS = "/etc/corvane/corvane.ini"
JAIL = "/etc/fail2ban/jail.d/zz-sshd-journal.local"
UNIT = "LoadState,ActiveState,SubState,UnitFileState"


PHP = """\
opcache.enable => On => On
opcache.restrict_api => /usr/share/corvane/opcache/ => /usr/share/corvane/opcache/
opcache.validate_permission => On => On
"""


def databases(**changes):
    """What PostgreSQL answers to the doctor's question."""
    everything = {
        "version": 150014,
        "roles": [{"name": "alice", "login": True, "plain": True}, {"name": "corv-web", "login": True, "plain": True}],
        "databases": [
            {"name": "alice", "owner": "alice", "open": False},
            {"name": "corvane", "owner": "corv-web", "open": False},
        ],
    }
    return json.dumps({**everything, **changes})


def answer_unit(sandbox, unit, **properties):
    known = {"LoadState": "loaded", "ActiveState": "active", "SubState": "running", "UnitFileState": "enabled", **properties}
    sandbox.answer("systemctl", "show", "-p", UNIT, unit, out="".join(f"{key}={value}\n" for key, value in known.items()))


def answer_versions(sandbox, minor):
    for program in ("pg_dump", "pg_restore", "psql"):
        sandbox.answer(program, "--version", out=f"{program} (PostgreSQL) 15.{minor} (Debian 15.{minor}-0+deb12u1)\n")


def back_up(sandbox, age=3600, **manifest):
    """Leaves a finished backup of that age in seconds."""
    began = time.time() - age
    name = time.strftime("%Y-%m-%d_%H%M%S", time.gmtime(began))
    content = {"name": name, "created": int(began), "seconds": 5, "accounts": [{"username": "alice"}], "errors": [], **manifest}
    sandbox.write(f"{BACKUPS}/{name}/manifest.json", json.dumps(content))
    sandbox.path(BACKUPS).chmod(0o700)
    return name


# What systemd says of a unit whose PATH begins with the faster gzip.
FAST_PATH = "PATH=/usr/libexec/corvane/tools:/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8\n"


@pytest.fixture
def well(sandbox):
    """A sandbox whose stand-ins tell of a server that is well and has the account alice."""
    sandbox.settings(agent_allowed_user="corv-web", agent_socket_group="corv-web", notify_mail="root")
    sandbox.answer("sendmail")
    sandbox.mkdir(FAILURES)
    answer_unit(sandbox, "corv-agent.service")
    for unit in ("corv-backup.timer", "corv-prove.timer", "corv-state.path"):
        answer_unit(sandbox, unit, SubState="waiting")
    block = "LoadState=loaded\nActiveState=active\nSubState=running\n"
    sandbox.answer("systemctl", "show", "--no-pager", ..., out="\n".join([block] * 3))
    sandbox.answer("apache2ctl", "-t", "-D", "DUMP_INCLUDES", out=INCLUDES)
    sandbox.answer("apache2ctl", "-M", out=MODULES)
    sandbox.write("/etc/apache2/apache2.conf", "ErrorLog /x\n")
    sandbox.write(LOG_FORMAT, 'LogFormat "%h \\"%r\\"" corv\n')
    sandbox.mkdir("/run/sshd")
    sandbox.write("/usr/libexec/corvane/tools/gzip", "", mode=0o755)
    for unit in ("corv-agent.service", "corv-backup.service"):
        sandbox.answer("systemctl", "show", "-p", "Environment", "--value", unit, out=FAST_PATH)
    sandbox.answer("php-fpm8.2", "-i", out=PHP)
    sandbox.answer("psql", "-qtAX", ..., out=databases())
    answer_versions(sandbox, 14)
    sandbox.answer("findmnt", out="/home ext4\n")
    sandbox.answer("dpkg-query", out="install ok installed")
    sandbox.answer("quotaon", out="user quota on /home (/dev/sda1) is on\n")
    sandbox.answer("apt-config", out="120\n")
    sandbox.answer("apt-cache", out="")
    sandbox.answer("a2ensite", write={ENABLED: ""})
    sandbox.write("/etc/nsswitch.conf", "passwd: files systemd\ngroup: files systemd\n")
    assert sandbox.request("hosting.create", username="alice", domain="example.org")["ok"] is True
    back_up(sandbox)
    return sandbox


def doctor(sandbox, *args, ping=True, **how):
    """Runs the doctor: its exit code and the findings, each as (level, check, problem, command)."""
    if ping:
        sandbox.logs("agent: uid 0 ran ping -> ok")
    code, out, err = corvctl(sandbox, "doctor", "--plain", *args, **how)
    assert err == ""
    findings = [tuple(line.split("\t")) for line in out.splitlines()]
    # It would be shown doubled, and typed so.
    assert not [finding for finding in findings if "\\" in finding[3]]
    return code, findings


def test_finds_nothing_on_a_server_that_is_well(well):
    assert doctor(well) == (0, [])


def test_changes_nothing(well):
    def everything():
        return {top: well.tree(top) for top in ("/etc", "/home", "/var", "/run")}
    before = everything()
    assert doctor(well) == (0, [])
    assert everything() == before


def test_shows_what_it_looked_at(well):
    well.logs("agent: uid 0 ran ping -> ok")
    code, text = on_terminal(well, "doctor")
    assert code == 0
    last = max(entry.name for entry in well.path(BACKUPS).iterdir())
    assert text == f"""\
ok      agent       answers, version 0.1
ok      settings    /etc/corvane/corvane.ini
ok      Apache      modules and log format
ok      leftovers   sites, pools, homes
ok      services    apache2 postgresql php8.2-fpm
ok      PHP         cache of 8.2
ok      PostgreSQL  the server 15.14, pg_dump 15.14, pg_restore 15.14, psql
                    15.14
ok      accounts    1, PHP 8.2
ok      sites       0 enabled
ok      visitors    0 sites asked for their first page
ok      sshd        sshd -T
ok      ids         0 of deleted accounts kept
ok      quotas      on, ext4 on /home
ok      disks       room for files
ok      apt         waits 120 s for its lock
ok      updates     automatic
ok      folders     run, transfer, backups
ok      backups     1 in {BACKUPS}, the last one
                    {last}
ok      notify      root
ok      homes       sizes (11.2 GiB fit), what the web server reaches

sandbox: 0 faults, 0 notes
"""


def test_shows_findings_within_eighty_columns_and_commands_whole(well):
    well.path(POOL).unlink()
    well.logs("agent: uid 0 ran ping -> ok")
    code, text = on_terminal(well, "doctor")
    assert code == 1
    assert text.splitlines()[8:11] == [
        "        accounts    1, PHP 8.2",
        "FAULT   the account alice has no pool in PHP 8.2, the version in force",
        f"        # corvctl doctor --pool alice >{POOL} && systemctl reload php8.2-fpm",
    ]
    assert text.endswith("\nsandbox: 1 fault, 0 notes\n")


def test_reports_in_one_line_of_json(well):
    well.answer("apt-config", out="")
    well.logs("agent: uid 0 ran ping -> ok")
    code, out, err = corvctl(well, "doctor", "--json")
    assert (code, err) == (1, "")
    report = json.loads(out)
    assert out.count("\n") == 1
    assert [report[key] for key in ("ok", "host", "faults", "notes")] == [False, "sandbox", 1, 0]
    assert {check["check"]: check["findings"] for check in report["checks"] if check["findings"]} == {
        "apt": [{
            "level": "fault",
            "problem": "apt-get does not wait for the package lock, so that whatever else installs packages makes requests fail",
            "mend": "echo 'DPkg::Lock::Timeout \"120\";' >/etc/apt/apt.conf.d/60corv-agent",
        }]
    }


def remove_site(box):
    box.path(SITE).unlink()


def move_pool(box):
    box.mkdir("/etc/php/8.1/fpm/pool.d")
    box.path(POOL).rename(box.path(POOL.replace("8.2", "8.1")))


def leave_alone(box):
    """An account that is nothing but a user."""
    box.add_account("bobby", "bobby.example")


def give_domain(box, domain):
    text = box.read("/etc/passwd").replace("Corvane account,example.org", f"Corvane account,{domain}")
    box.write("/etc/passwd", text)


def park_pool(box):
    box.path(POOL).rename(box.path(POOL + ".suspended"))


def break_apache(box):
    box.answer("apache2ctl", "-t", ..., exit=1, err="Syntax error on line 3\n")


def break_sshd(box):
    box.path("/run/sshd").rmdir()
    box.answer("sshd", "-T", exit=255, err="Missing privilege separation directory: /run/sshd\n")


def answer_databases(**changes):
    return lambda box: box.answer("psql", "-qtAX", ..., out=databases(**changes))


def quotas_off(box):
    box.answer("quotaon", exit=1, out="user quota on /home (/dev/sda1) is off\n")
    box.write("/etc/fstab", "UUID=1 /home ext4 defaults,usrjquota=aquota.user,jqfmt=vfsv1 0 1\n")


def transfer_open_to_all(box):
    box.path("/var/lib/corvane/transfer").chmod(0o777)


def transfer_is_a_link(box):
    box.path("/var/lib/corvane/transfer").rmdir()
    box.symlink("/var/lib/corvane/transfer", "/tmp")


def no_backup(box):
    for entry in box.path(BACKUPS).iterdir():
        entry.rename(entry.with_name("elsewhere"))


def old_backup(box):
    no_backup(box)
    back_up(box, age=40 * 3600)


def failed_backup(box):
    no_backup(box)
    back_up(box, errors=["alice database: runuser failed: pg_dump: error: \x1b[31m"])


def keep_failure(box, unit="corv-renew.service", age=7230):
    when = time.time() - age
    os.utime(box.write(f"{FAILURES}/{unit}", "x"), (when, when))


def large_home(box):
    with box.path("/home/alice/large").open("wb") as file:
        file.truncate(13_000_000_000)
    no_backup(box)
    back_up(box, accounts=[])


def many_files(box, left):
    """A file system with the databases that can hold 1,000 files, of which so many are left."""
    box.small_disk("/var/lib/postgresql", files=1000)
    for number in range(999 - left):
        box.write(f"/var/lib/postgresql/{number}")


def vhost(*lines, port=80):
    return "".join([f"<VirtualHost 127.0.0.1:{port}>\n", *(line + "\n" for line in lines), "SSLEngine on\n</VirtualHost>\n"])


def watch_misspelt(box):
    box.write(SETTINGS, box.read(SETTINGS) + "[health]\nservices=apache2,postgresq\n")
    box.write("/usr/lib/systemd/system/postgresql.service")
    block = "LoadState=loaded\nActiveState=active\nSubState=running\n"
    box.answer("systemctl", "show", "--no-pager", ..., out=f"{block}\nLoadState=not-found\nActiveState=inactive\n\n{block}")


def php_leaves_sockets(box):
    # bob has no pool there: another FPM may serve him.
    for name in ("alice", "bob"):
        box.write(f"/run/php/corv-{name}.sock")
    block = "LoadState=loaded\nActiveState=active\n"
    box.answer("systemctl", "show", "--no-pager", ...,
               out=f"{block}\n{block}\nLoadState=loaded\nActiveState=failed\nSubState=failed\n")


def answer_memory(box, policy):
    """What systemd does with PHP's service when the kernel ended one of its processes; the unit before it is nothing but a name."""
    blocks = [f"LoadState=loaded\nActiveState=active\nSubState=running\nOOMPolicy={word}\n" for word in ("continue", "stop", policy)]
    box.answer("systemctl", "show", "--no-pager", ..., out="\n".join(blocks))


def journal_is_in_memory(box):
    box.write("/run/log/journal/0123/system.journal", "")
    box.answer("fail2ban-client", "get", "sshd", "journalmatch", out="Current match filter:\n_SYSTEMD_UNIT=sshd.service + _COMM=sshd\n")


FAULTS = {
    "agent fails": (
        lambda box: answer_unit(box, "corv-agent.service", ActiveState="failed"),
        "agent", "the agent has failed; journalctl -u corv-agent says why",
        "systemctl reset-failed corv-agent; systemctl start corv-agent"),
    "agent is disabled": (
        lambda box: answer_unit(box, "corv-agent.service", UnitFileState="disabled"),
        "agent", "the agent will not come up with the server, its service is disabled",
        "systemctl unmask corv-agent && systemctl enable corv-agent"),
    "service is down": (
        lambda box: box.answer("systemctl", "show", "--no-pager", ...,
                               out="LoadState=loaded\nActiveState=active\n\nLoadState=loaded\nActiveState=failed\nSubState=failed\n"),
        "services", "the service postgresql does not run: it is failed",
        "systemctl reset-failed postgresql; systemctl start postgresql"),
    "PHP is down and has left sockets": (
        php_leaves_sockets, "services", "the service php8.2-fpm does not run: it is failed",
        "systemctl reset-failed php8.2-fpm; rm -f /run/php/corv-alice.sock; systemctl start php8.2-fpm"),
    "PHP's processes are not watched": (
        lambda box: answer_unit(box, "corv-php-watch.service", ActiveState="inactive"), "PHP",
        "a process of PHP that an account stops may hold up the pages of all: its watcher is off",
        "systemctl enable corv-php-watch; systemctl restart corv-php-watch"),
    "one account's memory ends PHP": (
        lambda box: answer_memory(box, "stop"), "services",
        "one process that takes too much memory ends php8.2-fpm for all accounts (OOMPolicy=stop)",
        "mkdir -p /etc/systemd/system/php8.2-fpm.service.d && (echo '[Service]'; echo OOMPolicy=continue) "
        ">/etc/systemd/system/php8.2-fpm.service.d/zz-corvane.conf && systemctl daemon-reload"),
    "Apache is broken": (
        break_apache, "Apache", "Apache's configuration has an error, so that no site can be changed: Syntax error on line 3",
        "apache2ctl configtest"),
    "module is missing": (
        lambda box: box.answer("apache2ctl", "-M", out=MODULES.replace("proxy_fcgi", "x")),
        "Apache", "Apache lacks what the sites of accounts need: proxy_fcgi", "a2enmod -q proxy_fcgi && systemctl restart apache2"),
    "accounts are not kept apart": (
        lambda box: box.answer("apache2ctl", "-M", out=MODULES.replace("corvane", "x")),
        "Apache", "Apache lacks the module corvane, so an account's .htaccess reaches the files and the PHP of all others",
        "apt-get install -y libapache2-mod-corvane && a2enmod -q corvane && systemctl restart apache2"),
    "log format is missing": (
        lambda box: box.write(LOG_FORMAT, 'LogFormat "%h" other\n'),
        "Apache", "Apache knows no log format 'corv', so the access logs of all accounts hold that word alone",
        "[ -e /etc/apache2/conf-available/corv-logformat.conf ] || apt-get install --reinstall -y "
        "-o Dpkg::Options::=--force-confmiss corv-agent; a2enconf -q corv-logformat && systemctl reload apache2"),
    "sshd -T fails": (
        break_sshd, "sshd",
        "sshd -T fails, so the firewall would keep port 22 open, whatever the daemon's ports are: Missing privilege separation "
        "directory: /run/sshd", "install -d -o root -g root -m 0755 /run/sshd"),
    "every user can have addresses banned": (
        journal_is_in_memory, "sshd",
        "fail2ban's jail for SSH believes users' programs named sshd too, so that every user can have addresses banned",
        f"[ -e {JAIL} ] && ! grep -q 'sshd].njournalmatch' {JAIL} || "
        f"(echo '[sshd]'; echo 'journalmatch = _SYSTEMD_UNIT=ssh.service _UID=0') >{JAIL} && systemctl restart fail2ban"),
    "PostgreSQL is down": (
        lambda box: box.answer("psql", "-qtAX", ..., exit=2, err="psql: error: connection refused\n\tIs it there?\n"),
        "PostgreSQL", "PostgreSQL cannot be asked: psql: error: connection refused; Is it there?", "systemctl start postgresql"),
    "PostgreSQL has holes": (
        answer_databases(version=150013), "PostgreSQL",
        "the server is of PostgreSQL 15.13; before 15.14 a dump can carry commands of a tenant that its restore runs as the "
        "superuser (CVE-2025-8714, CVE-2025-8715)",
        "apt-get update && apt-get install --only-upgrade postgresql-15 postgresql-client-15"),
    "panel database is missing": (
        answer_databases(databases=[{"name": "alice", "owner": "alice", "open": False}]),
        "PostgreSQL", "the panel's database corvane is missing", "/usr/libexec/corvane/panel-database"),
    "account has no database": (
        answer_databases(databases=[{"name": "corvane", "owner": "corv-web", "open": False}]),
        "accounts", "the account alice has no database",
        "runuser -u postgres -- createdb -O alice alice && runuser -u postgres -- psql -c 'REVOKE ALL ON DATABASE \"alice\" FROM "
        "PUBLIC'"),
    "account has no role": (
        answer_databases(roles=[{"name": "corv-web", "login": True, "plain": True}]),
        "accounts", "the account alice has no role in PostgreSQL",
        "runuser -u postgres -- createuser alice && corvctl account password alice"),
    "account has no site": (
        remove_site, "accounts", "the account alice has no Apache site",
        "corvctl account resume alice && a2ensite -q corv-alice && systemctl reload apache2"),
    "site is not enabled": (
        lambda box: box.path(ENABLED).unlink(), "accounts", "the Apache site of the account alice is not enabled",
        "a2ensite -q corv-alice && systemctl reload apache2"),
    "pool is in another version": (
        move_pool, "PHP", "PHP 8.1 is not installed any more, but has the pools of alice",
        "corvctl php move 8.1 8.2 --confirm 8.2"),
    "pool is put aside": (
        park_pool, "accounts", "the PHP pool of the account alice is put aside as if it were suspended",
        "corvctl account resume alice"),
    "account is only a user": (
        leave_alone, "accounts", "the account bobby is only half there: its user has no site, no pool, no role and no database",
        "corvctl account delete bobby --force"),
    "domain is none": (
        lambda box: give_domain(box, "Example"),
        "accounts", "the user database has no valid domain for the account alice, only 'Example'",
        "usermod --comment 'Corvane account,example.org' alice"),
    "user is locked": (
        lambda box: box.run("usermod", "--expiredate", "1", "alice"),
        "accounts", "the account alice is only half suspended: its site is on, its user is locked, its role is not locked",
        "corvctl account suspend alice"),
    "site is left over": (
        lambda box: box.write("/etc/apache2/sites-available/corv-gone.conf"), "leftovers",
        "an Apache site is left of gone, which is no account",
        "rm -f /etc/apache2/sites-*/corv-gone.conf && systemctl reload apache2"),
    "pool is left over": (
        lambda box: box.write("/etc/php/8.2/fpm/pool.d/corv-gone.conf"), "leftovers",
        "a PHP pool is left of gone, which is no account",
        "rm /etc/php/8.2/fpm/pool.d/corv-gone.conf; systemctl try-reload-or-restart php8.2-fpm"),
    "home is left over": (
        lambda box: box.run("chown", "4711", str(box.mkdir("/home/gone")).removeprefix(str(box.root))), "leftovers",
        "the folder /home/gone belongs to no user",
        "tar -czf /root/left-over-gone.tar.gz /home/gone && rm -rf /home/gone"),
    "quotas are off": (
        quotas_off, "quotas", "/etc/fstab asks for disk quotas on /home, but they are off: no limit holds", "quotaon -u /home"),
    "apt waits for ever": (
        lambda box: box.answer("apt-config", out="-1\n"), "apt",
        "apt-get waits for the package lock for longer than the ten minutes that the agent gives it",
        "echo 'DPkg::Lock::Timeout \"120\";' >/etc/apt/apt.conf.d/zz-corv-agent"),
    "transfer folder is open to all": (
        transfer_open_to_all, "folders",
        "the folder /var/lib/corvane/transfer is corv-web:corv-web 0777 instead of corv-web:corv-web 0700",
        "install -d -o corv-web -g corv-web -m 0700 /var/lib/corvane/transfer"),
    "transfer folder is a link": (
        transfer_is_a_link, "folders", "/var/lib/corvane/transfer is no folder of its own, but a link or a file",
        "mv /var/lib/corvane/transfer /var/lib/corvane/transfer.moved && "
        "install -d -o corv-web -g corv-web -m 0700 /var/lib/corvane/transfer"),
    "run folder is open to all": (
        lambda box: box.path("/run/corvane").chmod(0o777), "folders",
        "the folder /run/corvane is root:root 0777 instead of root:root 0755",
        "install -d -o root -g root -m 0755 /run/corvane"),
    "socket is open to all": (
        lambda box: box.path("/run/corvane/agent.sock").chmod(0o666), "folders",
        "the agent's /run/corvane/agent.sock is root:corv-web 0666 instead of root:corv-web 0660",
        "systemctl restart corv-agent"),
    "automatic updates have no package": (
        lambda box: box.answer("dpkg-query", "-W", "*", "unattended-upgrades", exit=1), "updates",
        "automatic security updates are on, but nothing installs them: there is no package unattended-upgrades",
        "apt-get install -y unattended-upgrades"),
    "automatic updates have no timer": (
        lambda box: answer_unit(box, "apt-daily-upgrade.timer", ActiveState="inactive"), "updates",
        "automatic security updates are on, but nothing starts them: apt-daily-upgrade.timer is off",
        "systemctl unmask apt-daily-upgrade.timer && systemctl enable --now apt-daily-upgrade.timer"),
    "a failure was kept": (
        keep_failure, "notify", "corv-renew.service failed 2 h 0 min ago and has not succeeded since",
        "systemctl start corv-renew.service"),
    "nobody can be mailed": (
        lambda box: box.remove_standin("sendmail"), "notify",
        "failures are to be mailed to root, but there is no program sendmail", "apt-get install -y default-mta"),
    "there is no backup": (no_backup, "backups", "there is no backup yet", "corvctl backup start --wait"),
    "no backup is planned": (
        lambda box: answer_unit(box, "corv-backup.timer", ActiveState="inactive"),
        "backups", "no nightly backup is planned: its timer is off", "systemctl enable --now corv-backup.timer"),
    "no proof is planned": (
        lambda box: answer_unit(box, "corv-prove.timer", ActiveState="inactive"), "backups",
        "no dump is restored for a proof each week: its timer is off", "systemctl enable --now corv-prove.timer"),
    "deletions are not watched": (
        lambda box: answer_unit(box, "corv-state.path", ActiveState="inactive"), "backups",
        "what the archives of deletions do not hold is not written down: its watcher is off",
        "systemctl enable --now corv-state.path"),
    "key is misspelt": (
        lambda box: box.write(SETTINGS, box.read(SETTINGS) + "[backup]\nkeepdays=3\n"),
        "settings", "the settings have a key backup/keepdays, which nothing reads; backup/keep_days is meant",
        f"sed -i 's/^[[:space:]]*keepdays[[:space:]]*=/keep_days=/' {SETTINGS} && systemctl restart corv-agent"),
    "disk of the backups is missing": (
        lambda box: box.write("/etc/fstab", "UUID=1 /var/backups/corvane ext4 noauto 0 2\n"),
        "settings", f"backups go to {BACKUPS}, but what should be mounted at /var/backups/corvane is not: they would fill the disk "
        "below it", "mount /var/backups/corvane"),
    "watched service is none": (
        watch_misspelt, "services", "the settings watch the service postgresq, but no unit has that name; postgresql is meant",
        f"sed -i '/^[[:space:]]*services[[:space:]]*=/s/postgresq/postgresql/' {SETTINGS} && systemctl restart corv-agent"),
    "two sites have one name": (
        lambda box: (box.write("/etc/apache2/sites-enabled/000-first.conf", vhost("ServerAlias WWW.Example.org")
                               + vhost("ServerName www.example.org", port=9)),
                     box.write(ENABLED, vhost("ServerName example.org", "ServerAlias www.example.org"))),
        "sites", "the sites 000-first and corv-alice both answer to www.example.org; visitors get those of 000-first",
        "grep -inE 'Server(Name|Alias)' /etc/apache2/sites-enabled/000-first.conf /etc/apache2/sites-enabled/corv-alice.conf"),
    "site serves a home of nobody": (
        lambda box: box.write("/etc/apache2/sites-enabled/old.conf", vhost("DocumentRoot /home/gone/public_html", port=9)),
        "sites", "the site old serves the home or the PHP of gone, who is no user",
        "a2dissite -q old && systemctl reload apache2"),
    "few files are left": (
        lambda box: many_files(box, 49), "disks",
        "only 49 of 1000 files are left on /var/lib/postgresql; without any nothing can be made there, though bytes are free",
        "du -x --inodes --max-depth=2 /var/lib/postgresql | sort -n | tail | cat -v"),
    "home is too large": (
        large_home, "homes", "the home of the account alice, 12.1 GiB, is too large to be archived within ten minutes",
        "du -xh --apparent-size --max-depth=2 /home/alice | sort -h | tail | cat -v"),
}


# Those that do not hide each other are planted together, in the order in which they are found.
TOGETHER = [
    ["agent fails", "Apache is broken", "site is left over", "PostgreSQL is down", "account has no site", "quotas are off",
     "few files are left", "run folder is open to all", "transfer folder is open to all", "there is no backup"],
    ["agent is disabled", "module is missing", "log format is missing", "pool is left over", "home is left over",
     "service is down", "pool is in another version", "PostgreSQL has holes", "site is not enabled", "sshd -T fails",
     "apt waits for ever", "socket is open to all", "transfer folder is a link", "no backup is planned", "no proof is planned",
     "deletions are not watched", "home is too large"],
    ["accounts are not kept apart", "one account's memory ends PHP", "panel database is missing", "pool is put aside", "account is only a user"],
    ["account has no database", "user is locked", "every user can have addresses banned"],
    ["domain is none", "account has no role"],
    ["automatic updates have no package", "a failure was kept"],
    ["automatic updates have no timer", "nobody can be mailed"],
    ["key is misspelt", "disk of the backups is missing", "two sites have one name", "site serves a home of nobody"],
    ["watched service is none"],
    ["PHP is down and has left sockets", "PHP's processes are not watched"],
]


@pytest.mark.parametrize("names", TOGETHER, ids=lambda names: names[0])
def test_finds(well, names):
    for name in names:
        FAULTS[name][0](well)
    assert doctor(well) == (1, [("fault", *FAULTS[name][1:]) for name in names])


def test_every_fault_is_planted():
    assert sorted(name for names in TOGETHER for name in names) == sorted(FAULTS)


RIGHT = "[sshd]\njournalmatch = _SYSTEMD_UNIT=ssh.service _UID=0\n"


@pytest.mark.parametrize("before, after", [
    (None, RIGHT),
    (RIGHT, RIGHT),
    # What an earlier form of the command came to, as it was shown.
    (r"[sshd]\njournalmatch = _SYSTEMD_UNIT=ssh.service _UID=0\n", RIGHT),
    ("[sshd]\nmaxretry = 3\n", "[sshd]\nmaxretry = 3\n"),
], ids=["no file", "right", "in one line", "somebody's"])
def test_the_jail_is_mended_by_the_command_as_it_is_shown(well, before, after):
    journal_is_in_memory(well)
    if before is not None:
        well.write(JAIL, before)
    mend = doctor(well)[1][0][3]
    assert well.run("sh", "-c", mend, env={"PATH": PATH})[0] == 0
    assert well.read(JAIL) == after
    assert well.argvs("systemctl")[-1] == ["systemctl", "restart", "fail2ban"]


def test_finds_an_old_backup(well):
    old_backup(well)
    code, findings = doctor(well)
    assert code == 1
    assert [(level, check, problem.split(", ")[-1]) for level, check, problem, _ in findings] == [
        ("fault", "backups", "is 40 hours old"),
        ("note", "backups", "whether the last backup can be restored was not looked at")]


def test_finds_what_a_backup_complained_of(well):
    failed_backup(well)
    code, findings = doctor(well)
    assert code == 1
    assert [(level, check, problem.split(": ", 1)[1]) for level, check, problem, _ in findings] == [
        ("fault", "backups", r"alice database: runuser failed: pg_dump: error: \x1b[31m")]


def test_finds_no_room_for_the_next_backup(well):
    well.settings(agent_allowed_user="corv-web", agent_socket_group="corv-web", backup_destination="/srv/backups")
    well.small_disk("/srv/backups")
    well.path("/srv/backups").chmod(0o700)
    code, findings = doctor(well)
    assert code == 1
    assert [finding[2:] for finding in findings] == [
        ("only 0.0 GiB are free at /srv/backups, and the next backup needs 1.0 GiB", "df -h /srv/backups"),
        ("there is no backup yet", "corvctl backup start --wait")]


def test_tells_a_failed_backup_that_left_none_and_whether_anybody_heard_of_it(well):
    well.settings(agent_allowed_user="corv-web", agent_socket_group="corv-web")
    keep_failure(well, "corv-backup.service", 600)
    back_up(well, age=7200)
    assert doctor(well) == (1, [
        ("fault", "notify", "corv-backup.service failed 10 min ago and has not succeeded since; nobody was told, since the "
         "settings have no [notify]", "corvctl backup start --wait")])


def test_tells_a_failed_backup_that_left_one_by_its_errors_alone(well):
    failed_backup(well)
    keep_failure(well, "corv-backup.service", 3590)
    assert [check for _, check, *_ in doctor(well)[1]] == ["backups"]


def test_finds_what_is_of_no_use_in_the_ways_to_tell(well):
    well.settings('[agent]\nallowed_user=corv-web\nsocket_group=corv-web\n[notify]\n'
                  'mail=root, -oQ/tmp, a@b@c\ncommand=/tmp/open --x\n')
    well.write("/tmp/open", "#!/bin/sh\n", 0o757)
    use = "nobody can be told of a failed backup so: the setting"
    mend = "editor /etc/corvane/corvane.ini; corvctl notify test"
    assert doctor(well) == (1, [
        ("fault", "notify", f"{use} mail has '-oQ/tmp', which is no user and no address", mend),
        ("fault", "notify", f"{use} mail has 'a@b@c', which is no user and no address", mend),
        ("fault", "notify", f"{use} command is of no use: /tmp/open can be changed by others than root", mend)])


def test_notes_fail_nothing(well):
    well.answer("quotaon", exit=1, out="user quota on /home (/dev/sda1) is off\n")
    code, findings = doctor(well)
    assert (code, findings) == (0, [
        ("note", "quotas", "disk quotas are off: nothing keeps one account from filling the disk", "corvctl quota enable")])


def test_enough_files_are_left_with_one_in_twenty(well):
    many_files(well, 50)
    assert doctor(well) == (0, [])


def test_a_file_system_without_a_number_of_files_has_enough(well):
    well.small_disk("/var/lib/postgresql")
    assert doctor(well) == (0, [])


def test_services_that_go_on_after_a_process_that_took_too_much_memory_are_well(well):
    answer_memory(well, "continue")
    assert doctor(well) == (0, [])


def test_what_a_removed_php_has_left_enabled_is_no_service(well):
    well.symlink("/etc/systemd/system/multi-user.target.wants/php8.1-fpm.service", "/lib/systemd/system/php8.1-fpm.service")
    assert doctor(well) == (0, [])


def test_tells_of_a_newer_postgresql_beside_the_one_that_has_the_databases(well):
    well.mkdir("/usr/lib/postgresql/16/bin")
    assert doctor(well) == (0, [])
    well.write("/usr/lib/postgresql/16/bin/postgres", mode=0o755)
    assert doctor(well) == (0, [
        ("note", "PostgreSQL", "the databases are with PostgreSQL 15, and PostgreSQL 16 is installed beside it",
         "less /usr/share/doc/corv-agent/php.md")])


def test_finds_that_the_agent_does_not_run(well):
    well.stop()
    answer_unit(well, "corv-agent.service", ActiveState="inactive", SubState="dead")
    assert doctor(well, ping=False, start=False) == (1, [
        ("fault", "agent", "the agent does not run", "systemctl start corv-agent")])


def test_finds_that_the_agent_does_not_listen(well):
    well.stop()
    well.path("/run/corvane/agent.sock").unlink(missing_ok=True)
    assert doctor(well, ping=False, start=False) == (1, [
        ("fault", "agent", "the agent runs but does not answer: there is no socket /run/corvane/agent.sock",
         "systemctl restart corv-agent")])


def test_tells_the_pool_that_an_account_should_have(well):
    assert corvctl(well, "doctor", "--pool", "alice") == (0, well.read(POOL), "")
    assert corvctl(well, "doctor", "--pool", "../x") == (2, "", "corvctl: '../x' is no name of an account\n")


def test_what_the_agent_is_working_on_is_not_taken_for_cut_off(well):
    answer_databases(databases=[{"name": "alice", "owner": "alice", "open": False},
                                {"name": "alice__restore", "owner": "alice", "open": False},
                                {"name": "corvane", "owner": "corv-web", "open": False}])(well)
    well.path(SITE).unlink()
    install(well)
    well.start()
    with open(f"/proc/{well.agent.pid}/status", encoding="utf-8") as status:
        inside = next(line.split()[-1] for line in status if line.startswith("NSpid:"))
    with open(f"/proc/{well.agent.pid}/stat", encoding="utf-8") as stat:
        began = stat.read().rpartition(")")[2].split()[19]
    request = {"command": "backup.restore", "account": "alice", "uid": 0, "began": 0, "agent": int(inside)}
    well.write("/run/corvane/request", json.dumps({**request, "agentBegan": int(began)}))
    assert doctor(well) == (0, [])
    well.write("/run/corvane/request", json.dumps({**request, "agentBegan": int(began) - 1}))  # of one that was killed
    code, findings = doctor(well)
    assert code == 1
    assert ("fault", "accounts", "a restore that was cut off left the database alice__restore",
            "runuser -u postgres -- dropdb alice__restore") in findings


def test_needs_root(well):
    install(well)
    code, out, err = well.run("setpriv", "--reuid=33", "--clear-groups", "corvctl", "doctor")
    assert (code, out) == (3, "")
    assert err == "corvctl: the doctor looks into what only root may read\n  run it as root: sudo corvctl doctor\n"


def test_finds_what_later_accounts_could_inherit(well):
    well.write("/etc/nsswitch.conf", "# passwd: files systemd\npasswd: files # systemd\ngroup:\tfiles systemd\n")
    places = ["/var/spool/cron/crontabs/carol", "/var/lib/systemd/linger/carol", "/var/spool/cron/atjobs/a0001"]
    for place in [*places, "/var/spool/cron/crontabs/alice", "/var/lib/systemd/linger/root", "/var/spool/cron/atjobs/a0002"]:
        well.write(place)
    os.chown(well.path("/var/spool/cron/atjobs/a0001"), 4242, 4242)
    assert doctor(well) == (1, [
        ("fault", "ids", "the C library does not know the ids of deleted accounts, so that they can be given out again",
         "apt-get install -y libnss-systemd && sed -i -E '/^(passwd|group):/{/systemd/!s/$/ systemd/}' /etc/nsswitch.conf"),
        *(("fault", "ids", f"{place} is of a user who is gone, and would be a later user's of that name or id", f"rm {place}")
          for place in places),
    ])


def test_knows_where_links_in_homes_cannot_be_closed(well):
    install(well)
    well.logs("agent: uid 0 ran ping -> ok")
    code, out, err = well.run("/usr/bin/setpriv", "--bounding-set=-sys_admin", "--inh-caps=-sys_admin", "corvctl", "doctor", "--plain",
                              env={"PATH": PATH, "HOME": "/root"})
    assert (code, out, err) == (0, "note\tids\ttools that work as root in homes follow links there: it takes Linux 5.14, and in a "
                                   "container the right to mount\tuname -r\n", "")


def test_finds_what_a_suspension_does_not_reach(well):
    well.write("/etc/apache2/sites-enabled/corv-alice-le-ssl.conf", vhost("DocumentRoot /home/alice/public_html"))
    assert doctor(well) == (0, [
        ("note", "sites", "the site corv-alice-le-ssl serves the home or name of the account alice too; suspending or deleting it "
                          "leaves that site on line", "apache2ctl -S")])
    well.answer("psql", "-qtAX", ..., out=databases(roles=[{"name": "alice", "login": False, "plain": True},
                                                          {"name": "corv-web", "login": True, "plain": True}]))
    assert well.request("hosting.suspend", username="alice") == {"ok": True}
    assert doctor(well) == (1, [
        ("fault", "sites", "the account alice is suspended, but the site corv-alice-le-ssl serves its home or name all the same",
         "a2dissite -q corv-alice-le-ssl && systemctl reload apache2")])


def test_tells_how_many_accounts_are_suspended(well):
    well.answer("psql", "-qtAX", ..., out=databases(roles=[{"name": "alice", "login": False, "plain": True},
                                                          {"name": "corv-web", "login": True, "plain": True}]))
    assert well.request("hosting.suspend", username="alice") == {"ok": True}
    well.logs("agent: uid 0 ran ping -> ok")
    code, out, err = corvctl(well, "doctor", "--json")
    assert (code, err) == (0, "")
    assert [check["seen"] for check in json.loads(out)["checks"] if check["check"] == "accounts"] == [
        "1, 1 suspended (alice), PHP 8.2"]


def test_finds_what_keeps_visitors_from_a_page(well):
    with socket.create_server(("127.0.0.1", 0)) as server:
        port = server.getsockname()[1]
    well.write(ENABLED, f"<VirtualHost 127.0.0.1:{port}>\nServerName example.org\nDocumentRoot /home/alice\n</VirtualHost>\n")
    assert doctor(well) == (1, [
        ("fault", "visitors", f"visitors of example.org get no page from port {port}: Connection refused",
         "apache2ctl configtest && systemctl restart apache2")])


def test_waits_for_nothing_that_is_no_file_in_the_folder_of_sites(well):
    os.mkfifo(well.path("/etc/apache2/sites-enabled/pipe.conf"))
    well.symlink("/etc/apache2/sites-enabled/device.conf", "/dev/zero")
    well.write("/etc/apache2/sites-enabled/huge.conf", "x" * 1_048_577)
    assert doctor(well) == (0, [])


def test_never_proposes_to_delete_a_backup(well):
    well.small_disk("/srv/disk", "64k")
    well.settings(agent_allowed_user="corv-web", agent_socket_group="corv-web", backup_destination="/srv/disk")
    for age in (3600, 90000):
        name = back_up(well, age=age)
        well.write(f"/srv/disk/{name}/manifest.json", well.read(f"{BACKUPS}/{name}/manifest.json"))
    well.path("/srv/disk").chmod(0o700)
    code, findings = doctor(well)
    assert (code, [finding[1::2] for finding in findings]) == (1, [("backups", "df -h /srv/disk")])


@pytest.mark.parametrize("plant, problem", [
    (lambda box: box.path("/home/alice").chmod(0o700), "the web server cannot go through the home of the account alice"),
    (lambda box: box.path("/home/alice/public_html").chmod(0o700),
     "the web server cannot read the folder public_html of the account alice"),
    (lambda box: box.path("/home/alice/public_html").rename(box.path("/home/alice/gone")),
     "the account alice has no folder public_html"),
    (lambda box: box.write("/home/alice/public_html/a\nb", "x", 0o640, "alice:alice"),
     r"the web server cannot read public_html/a\nb of the account alice"),
    (lambda box: [box.mkdir(f"/home/alice/public_html/{name}", 0o750, "alice:alice") for name in ("x", "y")],
     "the web server cannot read 2 files and folders of the account alice, such as public_html/"),
], ids=["home", "pages", "missing", "file", "folders"])
def test_finds_what_the_web_server_cannot_reach(well, plant, problem):
    plant(well)
    code, findings = doctor(well)
    assert code == 1
    assert [(level, check, found.rstrip("xy") if "such as" in found else found, mend) for level, check, found, mend in findings] == [
        ("fault", "homes", problem, "corvctl account publish alice")]
    assert corvctl(well, "--plain", "account", "publish", "alice") == (0, "", "")
    assert doctor(well) == (0, [])


def test_calls_what_its_owner_keeps_to_himself_no_fault(well):
    well.write("/home/alice/public_html/.env", "x", 0o600, "alice:alice")
    well.mkdir("/home/alice/public_html/private", 0o700, "alice:alice")
    well.symlink("/home/alice/public_html/link", "/root")
    os.mkfifo(well.path("/home/alice/public_html/pipe"))
    assert doctor(well) == (0, [])


def test_walks_no_further_than_it_says(well):
    """2000 entries of an account are looked at, however many there are."""
    for number in range(3000):
        well.write(f"/home/alice/public_html/{number}.html", "", 0o640, "alice:alice")
    code, findings = doctor(well)
    assert code == 1
    assert [re.search(r"cannot read (\d+) files", finding[2])[1] for finding in findings] == ["2000"]


def test_lists_the_archives_of_refused_deletions(well):
    for name, mode in (("alice-20260105-031500-home.tar.gz", 0o644), ("alice-20260105-031500-db.dump", 0o644),
                       ("alice-20260106-031500-home.tar.gz", 0o600), ("alice-20260106-031500-db.dump", 0o600),
                       ("bobby-20260105-031500-home.tar.gz", 0o644)):
        file = well.write(f"/var/backups/corvane/{name}", "x" * 1000, mode)
        os.utime(file, (1767582900, 1767582900))
    assert doctor(well) == (0, [
        ("note", "accounts", "deletions of the account alice that were refused have left archives of 2.0 KiB",
         "rm /var/backups/corvane/alice-20260105-031500-home.tar.gz /var/backups/corvane/alice-20260105-031500-db.dump")])


def test_tells_a_deletion_that_was_cut_off(well):
    for part in (SITE, POOL, ENABLED):
        well.path(part).unlink()
    for end in ("home.tar.gz", "db.dump"):
        well.write(f"/var/backups/corvane/alice-20260105-031500-{end}", "x", 0o600)
    answer_databases(databases=[{"name": "alice", "owner": "alice", "invalid": True},
                                {"name": "corvane", "owner": "corv-web", "open": False}])(well)
    assert doctor(well) == (1, [(
        "fault", "accounts",
        "a deletion of the account alice was cut off while its database was dropped; its archives are "
        "/var/backups/corvane/alice-20260105-031500-home.tar.gz and /var/backups/corvane/alice-20260105-031500-db.dump",
        "corvctl account delete alice")])
