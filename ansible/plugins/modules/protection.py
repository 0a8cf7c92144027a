#!/usr/bin/python
# Copyright: (c) 2026, The corv-agent authors
# MIT License (see https://opensource.org/licenses/MIT)

DOCUMENTATION = r"""
module: protection
short_description: Switch on what protects a server
version_added: 0.1.0
description:
  - The firewall, bans of those who guess passwords, automatic security updates, disk quotas, and the rule of PostgreSQL that
    a role reaches its own databases only.
  - What is not given is left as it is.
author:
  - The corv-agent authors (@corvane)
extends_documentation_fragment:
  - corvane.server.server
options:
  firewall:
    description: Whether the firewall is on. Switching it on opens the SSH ports, 80 and 443, and 53 beside a DNS server.
    type: bool
  bans:
    description: Whether addresses are banned after failed logins. What is on cannot be switched off here.
    type: bool
  automatic_updates:
    description: Whether security updates install themselves. The package C(unattended-upgrades), which does it, has to be there.
    type: bool
  quotas:
    description: Whether disk quotas are on. What is on cannot be switched off here.
    type: bool
  database:
    description: Whether C(pg_hba.conf) keeps a role to its own databases. What is so cannot be undone here.
    type: bool
"""

EXAMPLES = r"""
- name: All of it
  corvane.server.protection:
    firewall: true
    bans: true
    automatic_updates: true
    database: true
"""

RETURN = r"""
protection:
  description: What is on afterwards, or would be in check mode, of what was given.
  returned: success
  type: dict
  sample: {firewall: true, bans: true}
"""

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.corvane.server.plugins.module_utils.corvctl import Corvctl


# For each option what tells whether it is on, and the commands that switch it on and, where there is one, off.
SWITCHES = {
    "firewall": (lambda corvctl: bool(corvctl.ask("firewall", "status").get("active")), ["firewall", "enable"],
                 ["firewall", "disable"]),
    "bans": (lambda corvctl: has_bans(corvctl), ["ban", "enable"], None),
    "automatic_updates": (lambda corvctl: corvctl.ask("update", "status")["automatic"], ["update", "automatic", "on"],
                          ["update", "automatic", "off"]),
    "quotas": (lambda corvctl: corvctl.ask("quota", "status")["enabled"], ["quota", "enable"], None),
    "database": (lambda corvctl: not corvctl.ask("database", "harden")["changes"], ["database", "harden", "--write"], None),
}


def has_bans(corvctl):
    """Whether fail2ban runs with a jail for SSH; without that it may be there and ban nobody."""
    status = corvctl.ask("ban", "list")
    return bool(status.get("running")) and any(jail["name"] == "sshd" for jail in status.get("jails", []))


def refuse_in_vain(module, corvctl, name):
    """Ends the module where a switch would fail: before anything is changed, and in check mode too."""
    if name == "quotas":
        status = corvctl.ask("quota", "status")
        if not status["supported"]:
            module.fail_json(msg=status["reason"])
    if name == "automatic_updates":
        out = module.run_command(["dpkg-query", "-W", "-f=${Status}", "unattended-upgrades"])[1]
        if out != "install ok installed":
            module.fail_json(msg="nothing would install the updates: the package unattended-upgrades is missing")


def main():
    module = AnsibleModule(
        argument_spec={name: {"type": "bool"} for name in ("firewall", "bans", "automatic_updates", "quotas", "database")},
        required_one_of=[tuple(SWITCHES)],
        supports_check_mode=True,
    )
    given = {name: module.params[name] for name in SWITCHES if module.params[name] is not None}
    corvctl = Corvctl(module)

    before = {name: bool(SWITCHES[name][0](corvctl)) for name in given}
    todo = []
    for name, on in given.items():
        if before[name] == on:
            continue
        command = SWITCHES[name][1 if on else 2]
        if command is None:
            module.fail_json(msg=f"{name} is on, and is not switched off here")
        if on:
            refuse_in_vain(module, corvctl, name)
        todo.append(command)
    if not module.check_mode:
        for command in todo:
            corvctl.ask(*command)
    module.exit_json(changed=bool(todo), protection=given, diff={"before": before, "after": given})


if __name__ == "__main__":
    main()
