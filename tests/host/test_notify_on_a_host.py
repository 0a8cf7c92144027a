"""A failed backup reaches a person: by real mail, by a program, and at the login; until one succeeds."""

import json

import pytest
from hostfloor import ADDRESS

LIMIT = 240
UNIT = "corv-backup.service"
SETTINGS = "/etc/corvane/corvane.ini"
KEPT = f"/var/lib/corvane/failures/{UNIT}"
LINE = f"web1: {UNIT} failed (exit-code); corvctl doctor and journalctl -u {UNIT} tell more"
PAGE = "#!/bin/sh\n{ echo \"$*\"; env | grep ^CORV_ | sort; cat; } >/root/paged\n"
BROKEN = "[backup]\ndestination=/proc/nowhere\n"
APT = {"DEBIAN_FRONTEND": "noninteractive"}


@pytest.fixture(scope="module")
def host(boot):
    """A host of its own with a mail transfer agent, an account, and root's login with the key of the run."""
    host = boot()
    host.ok(["apt-get", "install", "-yq", "dma"], env=APT)
    host.put("/root/.ssh/authorized_keys", f"{host.key.public}\n", mode="0600")
    host.put("/usr/local/sbin/page", PAGE, mode="0755")
    host.tenant = host.account()
    host.usual = host.get(SETTINGS)
    return host


def login(host, user):
    """What a terminal shows at a login from outside."""
    done = host.outside(["ssh", "-tt", "-i", host.key.private, "-o", "StrictHostKeyChecking=no", "-o",
                         "UserKnownHostsFile=/dev/null", "-o", "LogLevel=ERROR", "-o", "IdentitiesOnly=yes",
                         f"{user}@{ADDRESS}"], input="exit\n")
    assert "logout" in done.out
    return done.out


def doctor(host):
    checks = json.loads(host.run(["corvctl", "doctor", "--json"]).out)["checks"]
    return {check["check"]: [finding["problem"] for finding in check["findings"]] for check in checks}


def fail_a_backup(host, more=""):
    host.put(SETTINGS, host.usual + BROKEN + more)
    assert host.run(["systemctl", "start", UNIT]).code == 1
    telling = ["systemctl", "show", "--value", "-p", "ActiveState", f"corv-notify@{UNIT}.service"]
    host.wait_for(lambda: host.exists(KEPT) and host.ok(telling).strip() in ("inactive", "failed"), "the end of the telling")


def succeed(host):
    host.put(SETTINGS, host.usual)
    host.ok(["corvctl", "backup", "start", "--wait"])
    host.wait_for(lambda: not host.exists(KEPT), "the kept failure being taken away")


@pytest.mark.core
def test_a_failed_backup_is_mailed_and_paged(host):
    host.ok(["rm", "-f", "/var/mail/root", "/root/paged"])
    fail_a_backup(host, '[notify]\nmail=root\ncommand="/usr/local/sbin/page --to \\"on call\\""\n')
    host.wait_for(lambda: host.exists("/root/paged"), "the page")
    host.wait_for(lambda: host.run(["test", "-s", "/var/mail/root"]).code == 0, "the mail")

    mail = host.get("/var/mail/root")
    assert f"\nTo: root\nSubject: web1: {UNIT} failed (exit-code)\n" in mail
    head, _, body = mail.partition("\n\n")
    assert body.startswith(f"{UNIT} failed on web1 at ")
    assert "\nThe end of its journal:\n\n    cannot create /proc/nowhere/.partial-" in body
    told = host.get("/root/paged").splitlines()
    assert told[0] == "--to on call"
    assert told[1] == "CORV_HOST=web1"
    assert told[2] == "CORV_RESULT=exit-code"
    assert told[3] == f"CORV_SUBJECT=web1: {UNIT} failed (exit-code)"
    assert told[5] == f"CORV_UNIT={UNIT}"
    assert "\n".join(told[6:]).strip() == body.strip()
    succeed(host)


@pytest.mark.core
def test_a_failure_shows_at_the_login_until_a_backup_succeeds(host):
    fail_a_backup(host)
    assert LINE in login(host, "root")
    assert "failed" not in login(host, host.tenant.name)
    assert f"Failed    {UNIT} failed " in host.ok(["corvctl", "status"])
    (problem,) = doctor(host)["notify"]
    assert problem.endswith(" ago and has not succeeded since; nobody was told, since the settings have no [notify]")

    succeed(host)
    assert UNIT not in login(host, "root")
    assert "Failed " not in host.ok(["corvctl", "status"])
    assert doctor(host)["notify"] == []


def test_a_failure_shows_also_after_a_restart_of_the_server(host):
    fail_a_backup(host)
    host.ok(["rm", "-r", "/run/motd.d"])
    assert LINE not in login(host, "root")
    host.ok(["systemd-tmpfiles", "--create", "corv-agent.conf"])  # as at each start
    assert LINE in login(host, "root")
    succeed(host)


def test_what_fails_while_it_is_told_is_in_the_journal(host):
    began = host.mark()
    fail_a_backup(host, "[notify]\nmail=nobody-of-that-name, x;y\ncommand=/usr/local/sbin/gone\n")
    journal = host.journal(f"corv-notify@{UNIT}", began)
    assert "corvctl: the setting command is of no use: there is no /usr/local/sbin/gone" in journal
    assert host.get(KEPT) == f"{LINE}\n"
    succeed(host)


def test_the_ways_can_be_tried(host):
    host.ok(["rm", "-f", "/var/mail/root", "/root/paged"])
    host.put(SETTINGS, host.usual + "[notify]\nmail=root\ncommand=/usr/local/sbin/page\n")
    done = host.run(["corvctl", "--plain", "notify", "test"])
    assert (done.code, done.out, done.err) == (
        0, "mail\troot\thanded over\ncommand\t/usr/local/sbin/page\thanded over\n", "")
    host.wait_for(lambda: host.run(["test", "-s", "/var/mail/root"]).code == 0, "the mail")
    assert "Subject: web1: a test of corvctl notify\n" in host.get("/var/mail/root")
    assert "This is a test, " in host.get("/root/paged")
    host.put(SETTINGS, host.usual)


@pytest.mark.core
def test_automatic_updates_are_on_only_where_something_installs_them(host):
    refused = host.run(["corvctl", "update", "automatic", "on"])
    assert (refused.code, refused.out) == (1, "")
    assert refused.err.startswith("corvctl: nothing would install the updates: the package unattended-upgrades is missing\n")
    assert doctor(host)["updates"] == []

    assert host.request("updates.automatic", on=True) == {"ok": True}  # the panel's switch knows nothing of packages
    nothing = "automatic security updates are on, but nothing installs them: there is no package unattended-upgrades"
    assert doctor(host)["updates"] == [nothing]
    assert nothing in " ".join(host.ok(["corvctl", "status"]).split())

    host.ok(["apt-get", "install", "-yq", "unattended-upgrades"], env=APT)
    host.ok(["systemctl", "mask", "--now", "apt-daily-upgrade.timer"])
    assert doctor(host)["updates"] == [
        "automatic security updates are on, but nothing starts them: apt-daily-upgrade.timer is off"]
    host.ok(["sh", "-c", "systemctl unmask apt-daily-upgrade.timer && systemctl enable --now apt-daily-upgrade.timer"])
    assert doctor(host)["updates"] == []
    assert host.ok(["corvctl", "update", "automatic", "on"]) == "automatic security updates are on\n"
