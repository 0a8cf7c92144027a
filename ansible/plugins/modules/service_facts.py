#!/usr/bin/python
# Copyright: (c) 2026, The corv-agent authors
# MIT License (see https://opensource.org/licenses/MIT)

DOCUMENTATION = r"""
module: service_facts
short_description: Tell how a hosting server and its services are
version_added: 0.1.0
description:
  - Gathers the services that the agent watches, the server itself, its firewall, bans, updates, quotas and backups as facts.
author:
  - The corv-agent authors (@corvane)
extends_documentation_fragment:
  - corvane.server.server.info
attributes:
  facts:
    description: Action returns an ansible_facts dictionary that will update existing host facts.
    support: full
options:
  gather_subset:
    description: What to ask for. Each costs some milliseconds, C(updates) and C(bans) up to some seconds.
    type: list
    elements: str
    choices: [services, host, firewall, bans, updates, quotas, backups]
    default: [services, host]
"""

EXAMPLES = r"""
- name: What runs
  corvane.server.service_facts:

- name: Stop where PostgreSQL does not run
  ansible.builtin.assert:
    that: ansible_facts.corvane.services.postgresql.active
"""

RETURN = r"""
ansible_facts:
  description: What was asked for.
  returned: always
  type: dict
  contains:
    corvane:
      description: The agent's own replies, as C(corvctl --json) prints them.
      returned: always
      type: dict
      contains:
        services:
          description: By name, whether a service is there (C(loaded)), runs (C(active)), its finer state, memory and since when.
          type: dict
          returned: with C(services)
        host:
          description: The server's name, system, kernel, processors and age.
          type: dict
          returned: with C(host)
        firewall:
          description: Whether it is installed and active, its rules, the SSH ports.
          type: dict
          returned: with C(firewall)
        bans:
          description: Whether fail2ban is installed and running, its jails with the banned addresses.
          type: dict
          returned: with C(bans)
        updates:
          description: The updates that there are, whether they install themselves, whether a restart is needed.
          type: dict
          returned: with C(updates)
        quotas:
          description: Whether quotas can be had and are on.
          type: dict
          returned: with C(quotas)
        backups:
          description: The backups, their folder, the next run.
          type: dict
          returned: with C(backups)
"""

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.corvane.server.plugins.module_utils.corvctl import Corvctl

COMMANDS = {
    "services": ("service", "list"),
    "host": ("host", "info"),
    "firewall": ("firewall", "status"),
    "bans": ("ban", "list"),
    "updates": ("update", "status"),
    "quotas": ("quota", "status"),
    "backups": ("backup", "status"),
}


def main():
    module = AnsibleModule(
        argument_spec={
            "gather_subset": {"type": "list", "elements": "str", "default": ["services", "host"],
                              "choices": ["services", "host", "firewall", "bans", "updates", "quotas", "backups"]},
        },
        supports_check_mode=True,
    )
    corvctl = Corvctl(module)

    facts = {}
    for subset in module.params["gather_subset"]:
        reply = corvctl.ask(*COMMANDS[subset])
        reply.pop("ok")
        facts[subset] = reply
    if "services" in facts:
        facts["services"] = {service.pop("name"): service for service in facts["services"]["services"]}
    module.exit_json(changed=False, ansible_facts={"corvane": facts})


if __name__ == "__main__":
    main()
