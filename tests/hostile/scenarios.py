"""One successful request, or more, for every command of the agent: how the server is before it, and what it asks for.

Everything else is generated from what a recorded run of these does: which programs are run in which order, which files
are written. A test sees to it that no command is missing.
"""

import os
from dataclasses import dataclass, field

from files import PANEL, TRANSFER
from server import (
    ACTIVE,
    BACKUP,
    DOMAIN,
    GONE,
    HOME,
    KEY,
    NAME,
    SUSPENDED,
    add_account,
    add_backup,
    furnish,
    suspend_account,
)

UPLOAD = "u" * 24


@dataclass
class Scenario:
    """A request and the server that it meets."""

    name: str
    command: str
    args: dict = field(default_factory=dict)
    server: dict = field(default_factory=dict)  # as furnish() takes it
    prepare: tuple = (add_account,)  # called with the sandbox, in order
    before: dict = field(default_factory=lambda: ACTIVE)  # the account before the request,
    after: dict = field(default_factory=lambda: ACTIVE)  # and after its success
    ok: bool = True  # whether the undisturbed request succeeds
    changes: bool = True  # whether it changes anything: reports are not tried against a killed agent
    instead: str = ""  # another scenario, whose changes a fault may lead to
    again: object = None  # called with the sandbox, makes the same request possible again where it is refused else

    def lay(self, sandbox):
        """Makes the sandbox the server that the request meets."""
        furnish(sandbox, **self.server)
        for step in self.prepare:
            step(sandbox)


def _upload(sandbox):
    sandbox.write(f"{TRANSFER}/{UPLOAD}", "uploaded\n", 0o600, PANEL)


def _more_services(sandbox):
    sandbox.settings(health_services="apache2,postgresql,corv-web")


def _file(sandbox):
    sandbox.write(f"{HOME}/page", "text\n", 0o644, f"{NAME}:{NAME}")


def _failing_configtest(sandbox):
    sandbox.answer("apache2ctl", "configtest", exit=1, err="Syntax error\n")


def _failing_quotacheck(sandbox):
    sandbox.answer("quotacheck", exit=1, err="quotacheck: Cannot remount filesystem\n")


def _unreadable_dump(sandbox):
    sandbox.answer("cat", "*-db.dump", exit=1)


def _panel_log_folder(sandbox):
    sandbox.mkdir("/var/log/corvane")


def _no_restored_folder(sandbox):
    sandbox.run("rm", "-rf", f"{HOME}/restored-{BACKUP}")


def _both(sandbox):
    sandbox.answer("systemctl", "is-active", "--quiet", "pdns", exit=0)


def _on(command, name="", **more):
    """A request that is about the account."""
    args = {"username": NAME, **more.pop("args", {})}
    return Scenario(name or command, command, args, **more)


def _files(op, path, prepare=(), changes=True, again=None, **more):
    return _on(
        "files",
        f"files: {op}",
        args={"op": op, "path": path, **more},
        prepare=(add_account, *prepare),
        changes=changes,
        again=again,
    )


def _report(command, name="", **more):
    return Scenario(name or command, command, changes=False, **more)


CREATE = {"domain": DOMAIN, "sshKey": KEY}
RESTORE = {"backup": BACKUP}
_NO_POOL = {"pool": None}

SCENARIOS = [
    _report("ping"),
    _report("system.info"),
    _report("system.disks"),
    _report("services.status"),
    Scenario("services.restart: at once", "services.restart", {"name": "postgresql"}, changes=False),
    Scenario("services.restart: apache2", "services.restart", {"name": "apache2"}, changes=False),
    Scenario(
        "services.restart: corv-web", "services.restart", {"name": "corv-web"}, changes=False,
        prepare=(add_account, _more_services),
    ),
    _on("hosting.create", args=CREATE, prepare=(), before=GONE),
    _on("hosting.create", "hosting.create: no PHP", args=CREATE, server={"php": False}, prepare=(), before=GONE,
        after={**ACTIVE, **_NO_POOL}),
    _on("hosting.create", "hosting.create: undone", args=CREATE, prepare=(_failing_configtest,), before=GONE, after=GONE,
        ok=False),
    _on("hosting.suspend", after=SUSPENDED),
    _on("hosting.resume", prepare=(add_account, suspend_account), before=SUSPENDED),
    _on("hosting.delete", args={"confirm": NAME}, after=GONE),
    _on("hosting.delete", "hosting.delete: suspended, with quotas", args={"confirm": NAME}, server={"quotas": True},
        prepare=(add_account, suspend_account), before=SUSPENDED, after=GONE),
    _report("hosting.usage", "hosting.usage: measured"),
    _report("hosting.usage", "hosting.usage: by quotas", server={"quotas": True}),
    _on("hosting.getKeys", changes=False),
    _report("quota.status", server={"quotas": True}),
    _report("quota.enable", "quota.enable: already on", server={"quotas": True}, instead="quota.enable"),
    Scenario("quota.enable", "quota.enable"),
    Scenario("quota.enable: undone", "quota.enable", prepare=(add_account, _failing_quotacheck), ok=False,
        instead="quota.enable"),
    _on("quota.set", args={"mb": 100}, server={"quotas": True}),
    _report("firewall.status"),
    Scenario("firewall.enable", "firewall.enable", server={"ufw": False}, prepare=(add_account, _both)),
    Scenario("firewall.disable", "firewall.disable"),
    Scenario("firewall.allow", "firewall.allow", {"port": 8080}),
    Scenario("firewall.delete", "firewall.delete", {"number": 2}),
    _report("fail2ban.status"),
    Scenario("fail2ban.enable", "fail2ban.enable"),
    Scenario("fail2ban.unban", "fail2ban.unban", {"jail": "sshd", "ip": "203.0.113.7"}),
    _report("updates.status"),
    Scenario("updates.refresh", "updates.refresh"),
    Scenario("updates.install", "updates.install", {"mode": "all"}, prepare=(add_account, _panel_log_folder)),
    Scenario("updates.automatic", "updates.automatic", {"on": True}),
    Scenario("system.reboot", "system.reboot", {"confirm": "sandbox"}),
    _report("security.status"),
    _report("backup.status", prepare=(add_account, add_backup)),
    Scenario("backup.start", "backup.start"),
    _on("backup.restore", "backup.restore: files", args={**RESTORE, "what": "files"}, prepare=(add_account, add_backup),
        again=_no_restored_folder),
    _on("backup.restore", "backup.restore: database", args={**RESTORE, "what": "database"},
        prepare=(add_account, add_backup)),
    _on("backup.restore", "backup.restore: unreadable dump", args={**RESTORE, "what": "database"},
        prepare=(add_account, add_backup, _unreadable_dump), ok=False),
    _files("list", "", changes=False),
    _files("read", "public_html/index.html", changes=False),
    _files("write", "page", (_file,), content="new text, longer than twenty characters\n"),
    _files("mkdir", "folder", again=lambda sandbox: sandbox.run("rm", "-rf", f"{HOME}/folder")),
    _files("rename", "page", (_file,), to="pages", again=lambda sandbox: (
        sandbox.run("rm", "-f", f"{HOME}/pages"), _file(sandbox))),
    _files("delete", "page", (_file,), again=_file),
    _files("upload", "page", (_upload,), transfer=UPLOAD, again=_upload),
    _files("download", "public_html/index.html"),
    _on("hosting.setKeys", args={"keys": KEY + "\n"}),
    _on("hosting.resetDbPassword"),
    _on("hosting.dbReadOnly", args={"readOnly": True}),
]
BY_NAME = {scenario.name: scenario for scenario in SCENARIOS}
