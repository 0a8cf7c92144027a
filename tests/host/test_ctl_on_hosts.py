"""corvctl where the system is real: the doctor finds each fault and its command mends it; other servers over real ssh."""

import json
import os
import re
import subprocess

import pytest
from hostfloor import ADDRESS

LIMIT = 240
SETTINGS = "/etc/corvane/corvane.ini"
AUTO = "/var/backups/corvane/auto"
POOLS = "/etc/php/8.2/fpm/pool.d"
OTHER_POOLS = "/etc/php/8.1/fpm/pool.d"
SITES = "/etc/apache2/sites-available"
PSQL = "runuser -u postgres -- psql -qc"
# The newest backup, whose manifest a test replaces.
NEWEST = f"$(ls -d {AUTO}/2*[0-9] | tail -n 1)"
# A page of PHP for the tenant, a site beside those of accounts, and its end.
PAGE = "echo '<?php echo 1;' >/home/@/public_html/index.php; chown @:www-data /home/@/public_html/index.php"


def site(name, *lines):
    text = "\\n".join(["<VirtualHost *:80>", f"ServerName {name}.example", *lines, "</VirtualHost>"])
    return f"printf '{text}\\n' >{SITES}/{name}.conf; a2ensite -q {name}; systemctl reload apache2"


REMOVE = "a2dissite -q {0}; rm /etc/apache2/sites-available/{0}.conf; systemctl reload apache2"
HOLES = "a dump can carry commands of a tenant that its restore runs as the superuser (CVE-2025-8714, CVE-2025-8715)"


@pytest.fixture(scope="module")
def well(boot):
    """A host of its own with one account and a backup, of which the doctor finds nothing wrong."""
    host = boot()
    # It would mend what is planted before the doctor looks.
    host.ok(["systemctl", "stop", "corv-php.path"])
    host.tenant = host.account()
    host.ok(["corvctl", "backup", "start", "--wait"])
    host.ok(["corvctl", "database", "harden", "--write"])
    return host


def examine(host):
    """The doctor's exit code, its problems and its commands, each in order."""
    done = host.run(["corvctl", "doctor", "--json"])
    assert done.err == ""
    findings = [finding for check in json.loads(done.out)["checks"] for finding in check["findings"]]
    return done.code, [finding["problem"] for finding in findings], [finding["mend"] for finding in findings]


def sh(host, script):
    return host.ok(["sh", "-ec", script])


@pytest.mark.core
def test_finds_nothing_wrong_with_a_host_that_is_well(well):
    assert examine(well) == (0, [], [])


@pytest.mark.core
def test_changes_nothing(well):
    script = "find /etc /home /run/corvane /var/backups /var/lib/corvane /var/lib/postgresql -xdev ! -path '*/pg_*' " \
             "! -path '*/base/*' ! -path '*/global/*' -printf '%p %m %u %g %s %C@\\n' | sort"
    before = sh(well, script)
    assert examine(well)[0] == 0
    assert sh(well, script) == before


# Name: what plants it, what the doctor says then (@ stands for the account, 8.2 for its PHP version); what undoes it where the
# doctor's own commands only show more of it, and what is to be done once it is mended.
FAULTS = {
    "the agent is stopped": ("systemctl stop corv-agent", ["the agent does not run"]),
    "the agent has failed": (
        "mkdir -p /run/systemd/system/corv-agent.service.d; "
        "printf '[Service]\\nRestart=no\\nExecStartPre=/bin/false\\n' >/run/systemd/system/corv-agent.service.d/x.conf; "
        "systemctl daemon-reload; systemctl restart corv-agent || rm -r /run/systemd/system/corv-agent.service.d; "
        "systemctl daemon-reload",
        ["the agent has failed; journalctl -u corv-agent says why"]),
    "the agent is disabled": (
        "systemctl -q disable corv-agent", ["the agent will not come up with the server, its service is disabled"]),
    "a service is down": ("systemctl stop php8.2-fpm", ["the service php8.2-fpm does not run: it is dead"]),
    "one account's memory ends everybody's services": (
        "for unit in php8.2-fpm CLUSTER; do mkdir -p /etc/systemd/system/$unit.service.d; "
        "printf '[Service]\\nOOMPolicy=stop\\n' >/etc/systemd/system/$unit.service.d/x.conf; done; systemctl daemon-reload",
        ["one process that takes too much memory ends php8.2-fpm for all accounts (OOMPolicy=stop)",
         "one process that takes too much memory ends CLUSTER for all accounts (OOMPolicy=stop)"],
        None, "rm -r /etc/systemd/system/php8.2-fpm.service.d /etc/systemd/system/CLUSTER.service.d; systemctl daemon-reload"),
    "Apache's configuration is broken": (
        "echo Nonsense >/etc/apache2/conf-enabled/x.conf",
        ["Apache's configuration has an error, so that no site can be changed: AH00526: Syntax error on line 1 of "
         "/etc/apache2/conf-enabled/x.conf: Invalid command 'Nonsense', perhaps misspelled or defined by a module not included "
         "in the server configuration"],
        "rm /etc/apache2/conf-enabled/x.conf"),
    "a module is off": ("a2dismod -q -f proxy_fcgi", ["Apache lacks what the sites of accounts need: proxy_fcgi"]),
    "accounts are not kept apart": (
        "a2dismod -q -f corvane",
        ["Apache lacks the module corvane, so an account's .htaccess reaches the files and the PHP of all others"]),
    "the cache of PHP is open to all accounts": (
        "rm /etc/php/8.2/fpm/conf.d/90-corvane.ini; systemctl reload php8.2-fpm",
        ["the cache of PHP 8.2 gives each account what the pages of all others hold",
         "each account can list the scripts of all others in the cache of PHP 8.2, and empty it"]),
    "the cache of PHP is opened again": (
        "echo opcache.validate_permission=0 >/etc/php/8.2/fpm/conf.d/99-own.ini",
        ["the cache of PHP 8.2 gives each account what the pages of all others hold"],
        "rm /etc/php/8.2/fpm/conf.d/99-own.ini"),
    "the log format is off": (
        "a2disconf -q corv-logformat",
        ["Apache knows no log format 'corv', so the access logs of all accounts hold that word alone"]),
    "sshd -T fails": (
        "rmdir /run/sshd",
        ["sshd -T fails, so the firewall would keep port 22 open, whatever the daemon's ports are: Missing privilege separation "
         "directory: /run/sshd"]),
    "PostgreSQL is down": (
        "systemctl stop CLUSTER postgresql",  # the latter alone does not wait for the server
        ["the service postgresql does not run: it is dead", "the service CLUSTER does not run: it is dead",
         "PostgreSQL cannot be asked: psql: error: connection to server on "
         "socket \"/var/run/postgresql/.s.PGSQL.5432\" failed: No such file or directory; Is the server running locally and "
         "accepting connections on that socket?"]),
    "pg_dump has holes": (
        "printf '#!/bin/sh\\necho pg_dump \\\\(PostgreSQL\\\\) 15.13\\n' >/usr/local/bin/pg_dump; chmod 755 /usr/local/bin/pg_dump",
        [f"pg_dump is of PostgreSQL 15.13; before 15.14 {HOLES}"], "rm /usr/local/bin/pg_dump"),
    "the panel's database is missing": ("runuser -u postgres -- dropdb corvane", ["the panel's database corvane is missing"]),
    "the panel's database is not the panel's": (
        f"{PSQL} 'ALTER DATABASE corvane OWNER TO postgres'",
        ["the panel's database corvane belongs to postgres, not to corv-web"]),
    "an account is only a user": (
        "useradd --create-home --comment 'Corvane account,half.example' half1",
        ["the account half1 is only half there: its user has no site, no pool, no role and no database"],
        "corvctl account delete half1 --force --confirm half1"),
    "a role is left over": (
        "runuser -u postgres -- createuser gone3", ["PostgreSQL has a role gone3, but the server has no such user"]),
    "the mark is on another user": (
        "useradd --comment 'Corvane account,x.example' not-ours",
        ["the user 'not-ours' is marked as an account, but no account can have that name"]),
    "an account has no domain": (
        "usermod --comment 'Corvane account' @", ["the user database has no valid domain for the account @, only ''"]),
    "an account has no role": (
        f"{PSQL} 'ALTER DATABASE @ OWNER TO postgres' && runuser -u postgres -- dropuser @",
        ["the account @ has no role in PostgreSQL", "the database of the account @ belongs to postgres, not to @"]),
    "an account has no database": ("runuser -u postgres -- dropdb @", ["the account @ has no database"]),
    "a database is open to all": (
        f"{PSQL} 'GRANT CONNECT ON DATABASE @ TO PUBLIC'", ["every role may connect to the database of the account @"]),
    "a restore was cut off in its swap": (
        f"{PSQL} 'ALTER DATABASE @ RENAME TO @__old'",
        ["the database of the account @ is missing; a restore that was cut off left it as @__old"]),
    "a restore was cut off": (
        "runuser -u postgres -- createdb @__restore; runuser -u postgres -- createdb @__old",
        ["a restore that was cut off left the database @__old", "a restore that was cut off left the database @__restore"]),
    "a user is locked": (
        "usermod --expiredate 1 @",
        ["the account @ is only half suspended: its site is on, its user is locked, its role is not locked"],
        None, "corvctl account resume @"),
    "a suspended account's pool runs": (
        f"corvctl account suspend @; mv {POOLS}/corv-@.conf.suspended {POOLS}/corv-@.conf",
        ["the account @ is suspended, but its PHP pool still runs"], None, "corvctl account resume @"),
    "a suspended account has no pool": (
        f"corvctl account suspend @; rm {POOLS}/corv-@.conf.suspended",
        ["the suspended account @ has no pool in PHP 8.2 to come back with"], None, "corvctl account resume @"),
    "an account has no pool": (
        f"rm {POOLS}/corv-@.conf", ["the account @ has no pool in PHP 8.2, the version in force"]),
    "PHP has not read an account's pool": (
        # It reads them a moment after the reload was asked for.
        f"mv {POOLS}/corv-@.conf /root/pool; systemctl reload php8.2-fpm; "
        "timeout 60 sh -c 'while [ -e /run/php/corv-@.sock ]; do sleep 0.1; done'; " f"mv /root/pool {POOLS}/corv-@.conf",
        ["PHP 8.2 does not run for the account @: nothing listens at its socket"]),
    "an account's pool is in another version": (
        f"mkdir -p {OTHER_POOLS}; mv {POOLS}/corv-@.conf {OTHER_POOLS}",
        ["PHP 8.1 is not installed any more, but has the pools of @"]),
    "an account has two pools": (
        f"mkdir -p {OTHER_POOLS}; cp {POOLS}/corv-@.conf {OTHER_POOLS}", ["the account @ has a second pool in PHP 8.1"]),
    "an account's pool is put aside": (
        f"mv {POOLS}/corv-@.conf {POOLS}/corv-@.conf.suspended",
        ["the PHP pool of the account @ is put aside as if it were suspended"]),
    "a pool was put aside and made anew": (
        f"cp {POOLS}/corv-@.conf {POOLS}/corv-@.conf.suspended",
        ["the account @ has a pool that was put aside beside the one in use"]),
    "an account has no site": (f"rm {SITES}/corv-@.conf", ["the account @ has no Apache site"]),
    "a site is not enabled": ("a2dissite -q corv-@", ["the Apache site of the account @ is not enabled"]),
    "a site shows its source": (
        f"sed -i '/FilesMatch/,/FilesMatch/d' {SITES}/corv-@.conf",
        ["the site of the account @ runs no PHP, but shows the source of its pages"]),
    "a site is left over": (
        f"touch {SITES}/corv-gone1.conf; a2ensite -q corv-gone1", ["an Apache site is left of gone1, which is no account"]),
    "a pool is left over": (
        f"touch {POOLS}/corv-gone1.conf", ["a PHP pool is left of gone1, which is no account"]),
    "a home is left over": (
        "mkdir /home/gone1; chown 4711:4711 /home/gone1", ["the folder /home/gone1 belongs to no user"]),
    "a role and a database are left over": (
        f"runuser -u postgres -- createuser gone1; runuser -u postgres -- createdb -O gone1 gone1; "
        f"{PSQL} 'REVOKE ALL ON DATABASE gone1 FROM PUBLIC'; {PSQL} 'ALTER DATABASE gone1 IS_TEMPLATE true'; "
        f"{PSQL} 'ALTER DATABASE gone1 ALLOW_CONNECTIONS false'", ["the role and database gone1 belong to no account"]),
    "a change of the firewall was cut off": (
        "apt-get -qq install ufw >/dev/null; ufw allow 22/tcp >/dev/null; ufw --force enable >/dev/null; iptables -F ufw-user-input",
        ["the firewall is on, but only a part of its rules is in force: a change was cut off"], None, "ufw disable >/dev/null"),
    "quotas are asked for and off": (
        "cp /etc/fstab /root/fstab; echo 'x / ext4 usrjquota=aquota.user 0 1' >>/etc/fstab",
        ["/etc/fstab asks for disk quotas on /, but the package quota is missing"], "mv /root/fstab /etc/fstab"),
    "apt does not wait": (
        "rm /etc/apt/apt.conf.d/60corv-agent",
        ["apt-get does not wait for the package lock, so that whatever else installs packages makes requests fail"]),
    "apt waits for ever": (
        "echo 'DPkg::Lock::Timeout \"-1\";' >/etc/apt/apt.conf.d/99forever",
        ["apt-get waits for the package lock for longer than the ten minutes that the agent gives it"]),
    "the run folder is open to all": (
        "chmod 777 /run/corvane", ["the folder /run/corvane is root:root 0777 instead of root:root 0755"]),
    "the socket is open to all": (
        "chmod 666 /run/corvane/agent.sock",
        ["the agent's /run/corvane/agent.sock is root:corv-web 0666 instead of root:corv-web 0660"]),
    "the transfer folder is another's": (
        "chown @ /var/lib/corvane/transfer",
        ["the folder /var/lib/corvane/transfer is @:corv-web 0700 instead of corv-web:corv-web 0700"]),
    "the transfer folder is a link": (
        "rmdir /var/lib/corvane/transfer; ln -s /tmp /var/lib/corvane/transfer",
        ["/var/lib/corvane/transfer is no folder of its own, but a link or a file"]),
    "the transfer folder is missing": (
        "rmdir /var/lib/corvane/transfer", ["the folder /var/lib/corvane/transfer is missing"]),
    "backups are open to all": (
        f"chmod 755 {AUTO}", [f"the folder {AUTO} is root:root 0755 instead of root:root 0700"]),
    "Apache is stopped": (
        "systemctl stop apache2",
        ["the service apache2 does not run: it is dead",
         "visitors of localhost, @.example get no page from port 80: Connection refused"]),
    "visitors see 503": (
        f"{PAGE}; rm /run/php/corv-@.sock", ["PHP 8.2 does not run for the account @: nothing listens at its socket", "visitors of @.example see 503 Service Unavailable"],
        None, "rm /home/@/public_html/index.php"),
    "visitors see 502": (
        # What listens there closes each connection without a word.
        "a2enmod -q proxy_http; systemctl restart apache2; systemd-run --quiet --unit=mute "
        "--socket-property=ListenStream=127.0.0.1:8099 --socket-property=Accept=yes /bin/true; "
        + site("mute", "ProxyPass / http://127.0.0.1:8099/"),
        ["visitors of mute.example see 502 Bad Gateway"],
        REMOVE.format("mute") + "; a2dismod -q proxy_http; systemctl stop mute.socket"),
    "visitors see 503 of a program": (
        site("dead", "<Location />", "SetHandler proxy:fcgi://127.0.0.1:9", "</Location>"),
        ["visitors of dead.example see 503 Service Unavailable"], REMOVE.format("dead")),
    "Apache still has a suspension": (
        "corvctl account create zz2 zz2.example; corvctl account suspend zz2; "
        "corvctl account resume zz2; cp {0}/corv-zz2.conf /root/open.conf; corvctl account suspend zz2; "
        "mv /root/open.conf {0}/corv-zz2.conf; usermod --expiredate '' zz2; "
        "mv {1}/corv-zz2.conf.suspended {1}/corv-zz2.conf; systemctl reload php8.2-fpm; "
        "timeout 60 sh -c 'until [ -e /run/php/corv-zz2.sock ]; do sleep 0.1; done'; "
        "runuser -u postgres -- psql -qc 'ALTER ROLE zz2 LOGIN'".format(SITES, POOLS),
        ["visitors of zz2.example are told that it is suspended, which it is not any more"],
        None, "corvctl account delete zz2 --confirm zz2"),
    "two accounts have one domain": (
        "corvctl account create zz1 @.example --force",
        ["the sites corv-@ and corv-zz1 both answer to @.example, www.@.example; visitors get those of corv-@"],
        "corvctl account delete zz1 --confirm zz1"),
    "a site outlives a suspension": (
        site("corv-@-le-ssl", "DocumentRoot /home/@/public_html") + "; corvctl account suspend @",
        ["the account @ is suspended, but the site corv-@-le-ssl serves its home or name all the same"],
        None, f"rm {SITES}/corv-@-le-ssl.conf; corvctl account resume @"),
    "a site outlives its account": (
        "mkdir -p /var/www/gone3; " + site("old-shop", "DocumentRoot /var/www/gone3", "Alias /old /home/gone3/public_html"),
        ["the site old-shop serves the home or the PHP of gone3, who is no user"], None, f"rm {SITES}/old-shop.conf"),
    "a pool of nobody keeps PHP from starting": (
        f"sed s/@/gone4/g {POOLS}/corv-@.conf >{POOLS}/corv-gone4.conf; "
        "for i in 1 2 3 4 5 6 7 8; do systemctl restart php8.2-fpm || :; done",
        ["a PHP pool is left of gone4, which is no account", "the service php8.2-fpm does not run: it is failed"]),
    "a key of the settings is misspelt": (
        f"cp {SETTINGS} /root/keys.ini; printf '[backup]\\nkeepdays=3\\n' >>{SETTINGS}",
        ["the settings have a key backup/keepdays, which nothing reads; backup/keep_days is meant"],
        None, f"grep -x keep_days=3 {SETTINGS}; mv /root/keys.ini {SETTINGS}; systemctl restart corv-agent"),
    "a watched service is misspelt": (
        f"cp {SETTINGS} /root/services.ini; printf '[health]\\nservices=apache2,postgresq\\n' >>{SETTINGS}",
        ["the settings watch the service postgresq, but no unit has that name; postgresql is meant"],
        None, f"grep -x services=apache2,postgresql {SETTINGS}; mv /root/services.ini {SETTINGS}; systemctl restart corv-agent"),
    "the disk of the backups is not mounted": (
        "cp /etc/fstab /root/fstab.disk; mkdir /srv/disk; echo 'tmpfs /srv/disk tmpfs mode=700 0 0' >>/etc/fstab; "
        f"chmod 700 /srv/disk; cp -r {NEWEST} /srv/disk; cp {SETTINGS} /root/disk.ini; "
        f"printf '[backup]\\ndestination=/srv/disk\\n' >>{SETTINGS}",
        ["backups go to /srv/disk, but what should be mounted at /srv/disk is not: they would fill the disk below it"],
        None, f"umount /srv/disk; mv /root/disk.ini {SETTINGS}; mv /root/fstab.disk /etc/fstab"),
    "no backup is planned": (
        "systemctl stop corv-backup.timer", ["no nightly backup is planned: its timer is off"]),
    "the last backup is old": (
        f"rm -r {AUTO}/*; mkdir {AUTO}/2026-01-05_031500; echo '{{\"errors\":[]}}' >{AUTO}/2026-01-05_031500/manifest.json",
        ["the last backup, 2026-01-05_031500, is N hours old", "whether the last backup can be restored was not looked at"]),
    "the last backup is damaged": (
        f"truncate -s -1 {NEWEST}/config.tar.gz; corvctl backup verify || true",
        ["the last backup is not whole: config.tar.gz is damaged: gzip: stdin: unexpected end of file"]),
    "a unit has another PATH": (
        "mkdir -p /etc/systemd/system/corv-backup.service.d; "
        "printf '[Service]\\nEnvironment=PATH=/usr/bin:/bin\\n' >/etc/systemd/system/corv-backup.service.d/x.conf; systemctl daemon-reload",
        ["the PATH of corv-backup.service was changed and does not begin with /usr/libexec/corvane/tools any more, so that its "
         "archives take up to ten times as long"],
        "rm -r /etc/systemd/system/corv-backup.service.d; systemctl daemon-reload"),
    "no proof is planned": (
        "systemctl stop corv-prove.timer", ["no dump is restored for a proof each week: its timer is off"]),
    "deletions are not watched": (
        "systemctl stop corv-state.path",
        ["what the archives of deletions do not hold is not written down: its watcher is off"]),
    "there is no backup": (f"rm -r {AUTO}/*", ["there is no backup yet"]),
    "the last backup has errors": (
        f"sed -i 's/\"errors\": \\[/&\"@ files: tar: took too long\"/' {NEWEST}/manifest.json",
        ["the last backup, NAME: @ files: tar: took too long",
         "the home of the account @, 0.0 GiB, is too large to be archived within ten minutes; the last backup cut it off"],
        "corvctl backup start --wait"),
    "a home is too large": (
        f"truncate -s 4T /home/@/large; echo '{{\"errors\":[]}}' >{NEWEST}/manifest.json",
        ["the home of the account @, 4096.0 GiB, is too large to be archived within ten minutes"],
        "rm /home/@/large; corvctl backup start --wait"),
    "the destination is full": (
        f"mkdir /srv/small; mount -t tmpfs -o size=16m,mode=700 small /srv/small; cp -r {NEWEST} /srv/small; "
        f"cp {SETTINGS} /root/; printf '[backup]\\ndestination=/srv/small\\n' >>{SETTINGS}",
        ["only 0.0 GiB are free at /srv/small, and the next backup needs 1.0 GiB"],
        f"mv /root/corvane.ini {SETTINGS}; umount /srv/small"),
}


# Faults that do not hide each other are planted side by side: an examination takes most of a second.
ROUNDS = [
    ["the agent is stopped", "a service is down", "Apache's configuration is broken", "sshd -T fails", "PostgreSQL is down",
     "a home is left over", "apt does not wait", "the transfer folder is missing", "no backup is planned"],
    ["the agent has failed", "a module is off", "the log format is off", "pg_dump has holes",
     "an account has no domain", "the run folder is open to all", "apt waits for ever", "backups are open to all",
     "quotas are asked for and off"],
    ["the agent is disabled", "the panel's database is missing", "an account has no role", "a site is not enabled",
     "an account has no pool", "a site is left over", "a pool is left over", "the socket is open to all",
     "the transfer folder is a link", "the last backup is old"],
    ["accounts are not kept apart", "the panel's database is not the panel's", "an account has no database",
     "an account's pool is in another version", "an account has no site", "the transfer folder is another's",
     "there is no backup"],
    ["a database is open to all", "an account's pool is put aside", "a site shows its source",
     "a role and a database are left over", "the last backup has errors", "no proof is planned",
     "one account's memory ends everybody's services"],
    ["a restore was cut off in its swap", "an account has two pools", "the destination is full", "a unit has another PATH"],
    ["a restore was cut off", "a user is locked", "the mark is on another user", "a role is left over",
     "the cache of PHP is open to all accounts", "an account is only a user"],
    ["a suspended account's pool runs", "Apache still has a suspension", "the last backup is damaged", "deletions are not watched"],
    ["a pool was put aside and made anew", "a home is too large", "the cache of PHP is opened again"],
    ["Apache is stopped", "a pool of nobody keeps PHP from starting", "a key of the settings is misspelt"],
    ["visitors see 503", "visitors see 502", "visitors see 503 of a program", "two accounts have one domain", "a site outlives its account",
     "a watched service is misspelt"],
    ["a site outlives a suspension", "the disk of the backups is not mounted"],
    ["PHP has not read an account's pool", "a change of the firewall was cut off"],
    ["a suspended account has no pool"],
]


@pytest.mark.core
@pytest.mark.parametrize("names", ROUNDS, ids=lambda names: names[0])
def test_finds_and_mends(well, names):
    version = well.ok(["ls", "/etc/postgresql"]).strip()
    cluster = f"postgresql@{version}-main"

    def here(text):
        return text.replace("8.2", well.tenant.php).replace("@", well.tenant.name).replace("CLUSTER", cluster)
    faults = [(*FAULTS[name], None, None)[:4] for name in names]
    sh(well, "systemctl reset-failed corv-agent")  # it may be started five times a minute, and the rounds follow closely
    for plant, *_ in faults:
        sh(well, here(plant))

    newest = ([name for name in well.run(["ls", AUTO]).out.split() if name[-1].isdigit()] or [""])[-1]
    code, found, commands = examine(well)
    assert sorted(re.sub(r"is \d+ hours old", "is N hours old", problem) for problem in found) == sorted(
        here(problem).replace("NAME", newest) for _, problems, *_ in faults for problem in problems)
    assert code == 1

    for _, problems, undo, _ in faults:
        if undo:
            sh(well, here(undo))
            shown = [here(problem).replace("NAME", newest) for problem in problems]
            commands = [command for problem, command in zip(found, commands, strict=True) if problem not in shown]
            found = [problem for problem in found if problem not in shown]
    for command in commands:
        well.run(["sh", "-c", command])  # some of its steps may have nothing to do; what counts is that all is well then
    sh(well, "systemctl reset-failed corv-agent")
    for *_, after in faults:
        sh(well, here(after or ":"))
    assert examine(well) == (0, [], [])


def test_every_fault_is_planted():
    assert sorted(name for names in ROUNDS for name in names) == sorted(FAULTS)


def test_notes_what_may_be_meant(well):
    name = well.tenant.name
    sh(well, f"runuser -u postgres -- createuser gone2; {PSQL} 'GRANT USAGE ON SCHEMA public TO gone2'; echo '# by hand' >>{SITES}/corv-{name}.conf")
    code, found, commands = examine(well)
    assert (code, found) == (0, [
        f"the site file of the account {name} is not what the agent writes; it will be overwritten",
        "PostgreSQL has a role gone2, but the server has no such user"])
    sh(well, f"{PSQL} 'DROP OWNED BY gone2'")
    for command in commands:
        sh(well, command)
    assert examine(well) == (0, [], [])


@pytest.mark.core
@pytest.mark.parametrize("names", ["ServerName other.example", "ServerName @.example", "ServerName x.example\\nServerAlias *.example"],
                         ids=["another name", "the account's name", "a pattern"])
def test_a_site_that_takes_the_visitors_of_one_address_is_a_fault(well, names):
    """Apache asks no site with * where one has the address, whatever the names: not even a visit from the server shows it."""
    name = well.tenant.name
    sh(well, f"mkdir -p /var/www/other; echo taken >/var/www/other/index.html; echo own >/home/{name}/public_html/index.html; "
             + site("other", "DocumentRoot /var/www/other")
             + f"; sed -i 's/[*]:80/{ADDRESS}:80/; s/ServerName .*/{names.replace('@', name)}/' {SITES}/other.conf; "
             "systemctl reload apache2")
    well.wait_for(lambda: well.fetch(f"{name}.example").body == "taken\n", "the site on the address")
    problem = f"the site other takes all visitors of {ADDRESS} on port 80, those of the accounts too: an address goes before *; " \
              "*:80 there shares them by name"
    code, found, _ = examine(well)
    both = [problem for problem in found if problem.startswith(f"the sites other and corv-{name} both answer to ")]
    assert (code, found) == (1, [problem, *both])
    assert len(both) == (0 if "other.example" in names else 1)
    status = well.run(["corvctl", "status", "--plain"]).out
    assert f"sites\tattention\t{problem}\n" in status
    sh(well, f"sed -i 's/{ADDRESS}:80/*:80/; s/Server.*/ServerName other.example/' {SITES}/other.conf; systemctl reload apache2")
    well.wait_for(lambda: well.fetch(f"{name}.example").body == "own\n", "the account's site")
    assert examine(well) == (0, [], [])
    sh(well, REMOVE.format("other") + f"; rm -r /var/www/other /home/{name}/public_html/index.html")


def test_a_site_on_the_loopback_address_hides_no_other_from_the_doctor(well):
    """It is noted, for the sake of a proxy; the accounts' sites are asked by another address, and what is wrong is seen."""
    name = well.tenant.name
    sh(well, site("inner", "Redirect 404 /") + f"; sed -i 's/[*]:80/127.0.0.1:80/' {SITES}/inner.conf; systemctl reload apache2; "
             + PAGE.replace("@", name) + f"; mv /run/php/corv-{name}.sock /run/php/aside.sock; touch /run/php/corv-{name}.sock")
    code, found, _ = examine(well)
    note = "the site inner takes all that comes to 127.0.0.1 on port 80; a proxy on this server that asks there does not reach " \
           "the accounts' sites"
    assert (code, found) == (1, [note, f"visitors of {name}.example see 503 Service Unavailable"])
    assert f"503 Service Unavailable: {name}.example (" in well.run(["corvctl", "status", "--plain"]).out
    sh(well, f"mv /run/php/aside.sock /run/php/corv-{name}.sock; rm /home/{name}/public_html/index.php")
    assert examine(well)[:2] == (0, [note])
    sh(well, REMOVE.format("inner"))
    assert examine(well) == (0, [], [])


@pytest.mark.core
def test_shows_on_one_screen_how_the_server_is(well):
    done = well.run(["corvctl", "status"])
    assert (done.code, done.err) == (0, "")
    lines = done.out.splitlines()
    assert lines[0] == "web1 needs attention in 3 places"
    assert [line.split()[:2] for line in lines if line.startswith("!")] == [["!", "Firewall"], ["!", "Bans"], ["!", "Updates"]]
    assert f"  Services  apache2, postgresql, php{well.tenant.php}-fpm, postgresql@" in done.out
    assert "  Accounts  1" in lines
    assert "  Sites     2 answer as they should" in lines
    assert len(lines) < 24


@pytest.mark.core
def test_shows_when_an_account_last_logged_in(well):
    account = well.account()
    name = account.name

    def login():
        return json.loads(well.ok(["corvctl", "--json", "account", "show", name])).get("lastLogin", 0)
    began = int(well.ok(["date", "+%s"]))
    assert login() == 0
    # With a terminal: Debian 12 keeps no record of others.
    assert well.ssh(account, "true", terminal=True).code == 0
    well.wait_for(lambda: login() >= began, "the login being shown")
    assert login() <= int(well.ok(["date", "+%s"]))

    well.ok(["corvctl", "account", "delete", name, "--confirm", name])
    well.ok(["corvctl", "account", "create", name, account.domain])
    assert login() == 0  # that was somebody else's
    well.ok(["corvctl", "account", "delete", name, "--confirm", name])


# Other servers: two hosts, reached by this machine's own ssh.


@pytest.fixture(scope="module")
def client(well, running_host, package, tmp_path_factory):
    """corvctl of the package on this machine: a function that runs it. one and two are the hosts, through an ssh that is told
    where they are; three is nowhere."""
    folder = tmp_path_factory.mktemp("client")
    subprocess.run(["dpkg-deb", "-x", package, folder / "package"], check=True)
    hosts = {"one": well, "one-by-2222": well, "two": running_host}
    for host in (well, running_host):
        host.put("/root/.ssh/authorized_keys", f"{well.key.public}\n", mode="0600")
    (folder / "config").write_text(
        f"Host one one-by-2222 two\n HostName {ADDRESS}\n User root\n IdentityFile {well.key.private}\n"
        "Host one-by-2222\n Port 2222\n"
        "Host *\n IdentitiesOnly yes\n StrictHostKeyChecking no\n UserKnownHostsFile /dev/null\n LogLevel ERROR\n")
    # All hosts have the same address, each in a network of its own.
    cases = "".join(f"{name}) in='nsenter -t {host._process.pid} -n --' ;;\n" for name, host in hosts.items())
    (folder / "ssh").write_text(f"#!/bin/sh\ncase $3 in\n{cases}esac\nexec $in /usr/bin/ssh -F {folder}/config \"$@\"\n")
    (folder / "ssh").chmod(0o755)

    def run(*args):
        done = subprocess.run([folder / "package/usr/bin/corvctl", *args], stdin=subprocess.DEVNULL, capture_output=True,
                              text=True, check=False, env={"PATH": f"{folder}:/usr/bin:/bin", "HOME": "/root"})
        return done.returncode, done.stdout, done.stderr

    yield run
    for host in (well, running_host):
        host.ok(["rm", "/root/.ssh/authorized_keys"])


def test_a_command_runs_on_another_server(client):
    assert client("-H", "one", "call", "ping") == (0, '{"ok":true,"version":"0.1"}\n', "")


def test_two_servers_side_by_side(client):
    code, out, err = client("-H", "one", "-H", "two", "call", "ping")
    assert (code, err) == (0, "2 hosts: 2 done\n")
    assert sorted(out.splitlines()) == ['one: {"ok":true,"version":"0.1"}', 'two: {"ok":true,"version":"0.1"}']


def test_a_server_that_is_nowhere_does_not_hold_up_the_others(client):
    code, out, err = client("-H", "one", "-H", "nowhere.invalid", "call", "ping")
    assert (code, out) == (3, 'one: {"ok":true,"version":"0.1"}\n')
    assert err.splitlines()[-1] == "2 hosts: 1 done, 1 no connection (nowhere.invalid)"
    assert err.startswith("nowhere.invalid: corvctl: nowhere.invalid: ssh: Could not resolve hostname nowhere.invalid")


def test_an_agent_that_is_stopped_is_told_from_over_there(client, well):
    well.ok(["systemctl", "stop", "corv-agent"])
    try:
        code, out, err = client("-H", "one", "call", "ping")
        assert (code, out) == (3, "")
        assert err.startswith("corvctl: one: corvctl: ")
        assert "/run/corvane/agent.sock" in err
    finally:
        # The tests before have started it often within a short time.
        well.ok(["sh", "-c", "systemctl reset-failed corv-agent; systemctl start corv-agent"])


def test_accounts_and_files_of_another_server(client, well, tmp_path):
    name = well.tenant.name
    code, out, err = client("-H", "one", "--plain", "account", "list")
    assert (code, err) == (0, "")
    assert [line.split("\t")[0] for line in out.splitlines()] == [name]
    content = os.urandom(3_000_000)
    (tmp_path / "a file").write_bytes(content)
    assert client("-H", "one", "--plain", "file", "put", name, str(tmp_path / "a file"), "tmp/it's here") == (0, "", "")
    assert well.ok(["stat", "-c", "%U %s", f"/home/{name}/tmp/it's here"]) == f"{name} {len(content)}\n"
    assert client("-H", "one", "--plain", "file", "get", name, "tmp/it's here", str(tmp_path / "back")) == (0, "", "")
    assert (tmp_path / "back").read_bytes() == content
    assert well.ok(["ls", "-A", "/var/lib/corvane/transfer"]) == ""
    well.ok(["rm", f"/home/{name}/tmp/it's here"])


def test_the_firewall_of_another_server_is_not_switched_on_where_it_would_cut_the_connection_off(client, well):
    """sshd listens on a second port that its settings do not name, and it is the one by which ssh comes in."""
    well.ok(["systemd-run", "--unit", "second-sshd", "/usr/sbin/sshd", "-D", "-p", "2222"])
    try:
        well.wait_for(lambda: well.run(["sh", "-c", "ss -ltn | grep -q :2222"]).code == 0, "the second sshd")
        code, out, err = client("-H", "one-by-2222", "firewall", "enable")
        assert (code, out) == (1, "")
        assert err.startswith("corvctl: you are logged in by SSH on port 2222, but the agent sees sshd on port 22 only")
    finally:
        well.ok(["systemctl", "stop", "second-sshd"])


def test_status_and_doctor_of_another_server(client):
    code, out, err = client("-H", "one", "status")
    assert (code, err) == (0, "")
    assert out.startswith("web1 needs attention in 3 places\n")
    assert "\n  Accounts  1\n" in out
    code, out, err = client("-H", "one", "doctor", "--plain")
    assert (code, out, err) == (0, "", "")
