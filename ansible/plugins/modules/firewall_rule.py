#!/usr/bin/python
# Copyright: (c) 2026, The corv-agent authors
# MIT License (see https://opensource.org/licenses/MIT)

DOCUMENTATION = r"""
module: firewall_rule
short_description: Open and shut ports of the firewall
version_added: 0.1.0
description:
  - Makes sure that a port is open, for everybody or for one network, or that there is no such rule.
  - A rule is its port, its protocol and its source. One that opens more, or other rules of ufw, are left alone.
author:
  - The corv-agent authors (@corvane)
extends_documentation_fragment:
  - corvane.server.server
notes:
  - The firewall has to be on, see M(corvane.server.protection), since what it holds cannot be seen otherwise. In check mode
    one that is off is taken for one without rules, with a warning.
  - A rule that lets SSH in is not deleted.
options:
  port:
    description: The port, 1 to 65535.
    type: int
    required: true
  proto:
    description: The protocol. C(both) is one rule for the two of them, not two rules.
    type: str
    choices: [tcp, udp, both]
    default: tcp
  source:
    description: An IPv4 or IPv6 address or network, such as C(10.0.0.0/8), or C(any).
    type: str
    default: any
  state:
    description: Whether there is to be such a rule.
    type: str
    choices: [present, absent]
    default: present
"""

EXAMPLES = r"""
- name: The office reaches the database
  corvane.server.firewall_rule:
    port: 5432
    source: 203.0.113.0/24

- name: Nobody reaches the old application
  corvane.server.firewall_rule:
    port: 8080
    state: absent
"""

RETURN = r"""
rules:
  description: The firewall's rules as they were found before the module changed anything.
  returned: success
  type: list
  elements: dict
  sample: [{"number": 1, "to": "22/tcp", "action": "ALLOW IN", "from": "Anywhere", "ssh": true}]
"""

import ipaddress

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.corvane.server.plugins.module_utils.corvctl import Corvctl

LAST_PORT = 65535
SHUTS_OUT = "that rule lets you reach this server over SSH; deleting it from here could lock you out"


def network(text):
    """The network of an address or a range, None for everybody; raises ValueError for anything else."""
    return None if text == "any" else ipaddress.ip_network(text, strict=False)


def network_of(rule):
    """The network that a rule of ufw lets in; ValueError where that is none. What stands behind a number sign is a comment."""
    text = rule["from"].split("#")[0].strip()
    if text in ("Anywhere", "Anywhere (v6)"):  # each is everybody of one of the two kinds of addresses
        text = "::/0" if "(v6)" in text + rule["to"] else "0.0.0.0/0"
    return ipaddress.ip_network(text, strict=False)


def matching(rules, port, proto, source):
    """The rules that are the one that is asked for: of one for everybody there are two, for IPv4 and IPv6."""
    to = str(port) if proto == "both" else f"{port}/{proto}"
    found = []
    for rule in rules:
        if rule["action"] != "ALLOW IN" or rule["to"] not in (to, f"{to} (v6)"):
            continue
        try:
            let_in = network_of(rule)
        except ValueError:
            continue  # a name of ufw's, an interface: nothing that this module makes
        if let_in == source or (source is None and let_in.prefixlen == 0):
            found.append(rule)
    return found


def delete(module, corvctl, port, proto, source):
    """Deletes the rules one by one: each deletion gives those behind it other numbers."""
    found = matching(corvctl.ask("firewall", "status")["rules"], port, proto, source)
    while found:
        corvctl.ask("firewall", "delete", str(found[-1]["number"]))
        left = matching(corvctl.ask("firewall", "status")["rules"], port, proto, source)
        if len(left) >= len(found):
            module.fail_json(msg="the rule was deleted and is there again")
        found = left


def read_rules(module, corvctl):
    """The rules that there are."""
    status = corvctl.ask("firewall", "status")
    if status.get("active"):
        return status["rules"]
    if not status["installed"] and module.params["state"] == "absent":
        return []
    if not module.check_mode:
        module.fail_json(msg="the firewall is off, and its rules cannot be seen", advice="corvctl firewall enable switches it on")
    module.warn("the firewall is off; this is what will be done once it is on, without rules")
    return []


def main():
    module = AnsibleModule(
        argument_spec={
            "port": {"type": "int", "required": True},
            "proto": {"type": "str", "choices": ["tcp", "udp", "both"], "default": "tcp"},
            "source": {"type": "str", "default": "any"},
            "state": {"type": "str", "choices": ["present", "absent"], "default": "present"},
        },
        supports_check_mode=True,
    )
    port, proto, state = module.params["port"], module.params["proto"], module.params["state"]
    if not 1 <= port <= LAST_PORT:
        module.fail_json(msg="port: 1 to 65535")
    try:
        source = network(module.params["source"])
    except ValueError:
        module.fail_json(msg="source: an address like 203.0.113.7 or a range like 203.0.113.0/24")
    corvctl = Corvctl(module)

    rules = read_rules(module, corvctl)
    found = matching(rules, port, proto, source)
    if state == "absent" and any(rule["ssh"] for rule in found):
        module.fail_json(msg=SHUTS_OUT, advice="ufw on the server itself deletes it")
    changed = bool(found) != (state == "present")
    if changed and not module.check_mode:
        if state == "present":
            corvctl.ask("firewall", "allow", str(port), "--proto", proto, "--from", str(source) if source else "any")
        else:
            delete(module, corvctl, port, proto, source)
    rule = {"port": port, "proto": proto, "source": str(source) if source else "any"}
    module.exit_json(changed=changed, rules=rules, diff={"before": dict(rule, state="present" if found else "absent"),
                                                         "after": dict(rule, state=state)})


if __name__ == "__main__":
    main()
