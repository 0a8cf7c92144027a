"""corvctl doctor: a server that is well, and one with each of the faults that it knows."""

import json
import os
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


@pytest.fixture
def well(sandbox):
    """A sandbox whose stand-ins tell of a server that is well and has the account alice."""
    sandbox.settings(agent_allowed_user="corv-web", agent_socket_group="corv-web")
    answer_unit(sandbox, "corv-agent.service")
    answer_unit(sandbox, "corv-backup.timer", SubState="waiting")
    block = "LoadState=loaded\nActiveState=active\nSubState=running\n"
    sandbox.answer("systemctl", "show", "--no-pager", ..., out="\n".join([block] * 3))
    sandbox.answer("apache2ctl", "-t", "-D", "DUMP_INCLUDES", out=INCLUDES)
    sandbox.answer("apache2ctl", "-M", out=MODULES)
    sandbox.write("/etc/apache2/apache2.conf", "ErrorLog /x\n")
    sandbox.write(LOG_FORMAT, 'LogFormat "%h \\"%r\\"" corv\n')
    sandbox.mkdir("/run/sshd")
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
    return code, [tuple(line.split("\t")) for line in out.splitlines()]


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
ok      services    apache2 postgresql php8.2-fpm
ok      Apache      modules and log format
ok      PHP         cache of 8.2
ok      sshd        sshd -T
ok      PostgreSQL  the server 15.14, pg_dump 15.14, pg_restore 15.14, psql
                    15.14
ok      accounts    1, PHP 8.2
ok      ids         0 of deleted accounts kept
ok      quotas      on, ext4 on /home
ok      apt         waits 120 s for its lock
ok      folders     run, transfer, backups
ok      backups     1 in {BACKUPS}, the last one
                    {last}
ok      homes       sizes

sandbox: 0 faults, 0 notes
"""


def test_shows_findings_within_eighty_columns_and_commands_whole(well):
    well.path(POOL).unlink()
    well.logs("agent: uid 0 ran ping -> ok")
    code, text = on_terminal(well, "doctor")
    assert code == 1
    assert text.splitlines()[7:10] == [
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


def large_home(box):
    with box.path("/home/alice/large").open("wb") as file:
        file.truncate(13_000_000_000)
    no_backup(box)
    back_up(box, accounts=[])


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
        "services", "the service postgresql does not run: it is failed", "systemctl start postgresql"),
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
    "PostgreSQL is down": (
        lambda box: box.answer("psql", "-qtAX", ..., exit=2, err="psql: error: connection refused\n"),
        "PostgreSQL", "PostgreSQL cannot be asked: psql: error: connection refused", "systemctl start postgresql"),
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
        "runuser -u postgres -- createdb -O alice alice && runuser -u postgres -- psql -c 'REVOKE ALL ON DATABASE alice FROM "
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
        move_pool, "accounts", "the account alice has its pool in PHP 8.1, not in 8.2, the version in force",
        f"mv {POOL.replace('8.2', '8.1')} {POOL}; systemctl try-reload-or-restart php8.1-fpm; systemctl reload php8.2-fpm"),
    "pool is put aside": (
        park_pool, "accounts", "the PHP pool of the account alice is put aside as if it were suspended",
        "corvctl account resume alice"),
    "account is only a user": (
        leave_alone, "accounts", "the account bobby is only half there: its user has no site, no pool, no role and no database",
        "tar -czf /root/bobby-home.tar.gz -C /home bobby && userdel --remove bobby"),
    "domain is none": (
        lambda box: give_domain(box, "Example"),
        "accounts", "the user database has no valid domain for the account alice, only 'Example'",
        "usermod --comment 'Corvane account,example.org' alice"),
    "user is locked": (
        lambda box: box.run("usermod", "--expiredate", "1", "alice"),
        "accounts", "the account alice is only half suspended: its site is on, its user is locked, its role is not locked",
        "corvctl account suspend alice"),
    "site is left over": (
        lambda box: box.write("/etc/apache2/sites-available/corv-gone.conf"), "accounts",
        "an Apache site is left of gone, which is no account",
        "rm -f /etc/apache2/sites-*/corv-gone.conf && systemctl reload apache2"),
    "pool is left over": (
        lambda box: box.write("/etc/php/8.2/fpm/pool.d/corv-gone.conf"), "accounts",
        "a PHP pool is left of gone, which is no account",
        "rm /etc/php/8.2/fpm/pool.d/corv-gone.conf; systemctl try-reload-or-restart php8.2-fpm"),
    "home is left over": (
        lambda box: box.run("chown", "4711", str(box.mkdir("/home/gone")).removeprefix(str(box.root))), "accounts",
        "the folder /home/gone belongs to no user",
        "tar -czf /root/left-over-home.tar.gz /home/gone && rm -rf /home/gone"),
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
    "there is no backup": (no_backup, "backups", "there is no backup yet", "corvctl backup start --wait"),
    "no backup is planned": (
        lambda box: answer_unit(box, "corv-backup.timer", ActiveState="inactive"),
        "backups", "no nightly backup is planned: its timer is off", "systemctl enable --now corv-backup.timer"),
    "home is too large": (
        large_home, "homes", "the home of the account alice, 12.1 GiB, is too large to be archived within ten minutes",
        "du -xh --apparent-size --max-depth=2 /home/alice | sort -h | tail | cat -v"),
}


# Those that do not hide each other are planted together, in the order in which they are found.
TOGETHER = [
    ["agent fails", "Apache is broken", "PostgreSQL is down", "account has no site", "site is left over", "quotas are off",
     "run folder is open to all", "transfer folder is open to all", "there is no backup"],
    ["agent is disabled", "service is down", "module is missing", "log format is missing", "sshd -T fails",
     "PostgreSQL has holes", "pool is in another version", "site is not enabled", "pool is left over", "home is left over",
     "apt waits for ever", "socket is open to all", "transfer folder is a link", "no backup is planned", "home is too large"],
    ["accounts are not kept apart", "panel database is missing", "pool is put aside", "account is only a user"],
    ["account has no database", "user is locked"],
    ["domain is none", "account has no role"],
]


@pytest.mark.parametrize("names", TOGETHER, ids=lambda names: names[0])
def test_finds(well, names):
    for name in names:
        FAULTS[name][0](well)
    assert doctor(well) == (1, [("fault", *FAULTS[name][1:]) for name in names])


def test_every_fault_is_planted():
    assert sorted(name for names in TOGETHER for name in names) == sorted(FAULTS)


def test_finds_an_old_backup(well):
    old_backup(well)
    code, findings = doctor(well)
    assert code == 1
    assert [(level, check, problem.split(", ")[2]) for level, check, problem, _ in findings] == [
        ("fault", "backups", "is 40 hours old")]


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


def test_notes_fail_nothing(well):
    well.answer("quotaon", exit=1, out="user quota on /home (/dev/sda1) is off\n")
    code, findings = doctor(well)
    assert (code, findings) == (0, [
        ("note", "quotas", "disk quotas are off: nothing keeps one account from filling the disk", "corvctl quota enable")])


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
