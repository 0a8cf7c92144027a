#!/usr/bin/python
# Copyright: (c) 2026, The corv-agent authors
# MIT License (see https://opensource.org/licenses/MIT)

DOCUMENTATION = r"""
module: account_keys
short_description: Say who may log in to a hosting account by SSH
version_added: 0.1.0
description:
  - Makes sure that SSH public keys let their owners in to an account, alone or beside others, or that they do not.
  - A key is known by its type and its material. One that is there with another comment is given the new one.
author:
  - The corv-agent authors (@corvane)
extends_documentation_fragment:
  - corvane.server.server
notes:
  - In check mode an account that is not there is taken for one that an earlier task would have made, with a warning.
  - The agent keeps keys without options. Where the account's user has written some, and anything changes, it is refused.
options:
  name:
    description: The account.
    type: str
    required: true
    aliases: [account]
  keys:
    description:
      - Public keys, one line of text each.
      - An empty list with I(exclusive=true) locks everybody out.
    type: list
    elements: str
    required: true
  state:
    description: Whether these keys are to let in, or not.
    type: str
    choices: [present, absent]
    default: present
  exclusive:
    description: Whether all other keys go. It does not go with I(state=absent).
    type: bool
    default: false
"""

EXAMPLES = r"""
- name: The two of them and nobody else
  corvane.server.account_keys:
    name: shop
    exclusive: true
    keys:
      - "{{ lookup('ansible.builtin.file', 'keys/anna.pub') }}"
      - "{{ lookup('ansible.builtin.file', 'keys/ben.pub') }}"

- name: Ben has left
  corvane.server.account_keys:
    name: shop
    state: absent
    keys:
      - "{{ lookup('ansible.builtin.file', 'keys/ben.pub') }}"
"""

RETURN = r"""
keys:
  description: The keys afterwards, or as they would be in check mode.
  returned: success
  type: list
  elements: str
  sample: ["ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIJx0m0nV1bqvfXzYv4hS2Yw3sLkqF5oYzZ8dQ2mWm1aB anna"]
"""

import re

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.corvane.server.plugins.module_utils.corvctl import Corvctl, check_name

KEY = re.compile(r"(ssh-ed25519|ssh-rsa|ecdsa-sha2-nistp(256|384|521)|sk-ssh-ed25519@openssh\.com|sk-ecdsa-sha2-nistp256@openssh\.com)"
                 r" [A-Za-z0-9+/]{40,}={0,3}( [ -~]{0,200})?")
MOST_KEYS = 50


def same(line):
    """What tells a key from another one; a line that is none of the agent's own is known by its whole text."""
    return tuple(line.split(" ")[:2]) if KEY.fullmatch(line) else (line,)


def lines_of(text):
    """The keys in the text of a key file."""
    lines = (line.strip() for line in text.splitlines())
    return [line for line in lines if line and not line.startswith("#")]


def wanted(module, before):
    """The keys that there are to be, those that were there first and in their order."""
    given = {}
    for line in (line.strip() for line in module.params["keys"]):
        if not KEY.fullmatch(line):
            module.fail_json(msg=f"that does not look like one SSH public key (ssh-ed25519 AAAA... comment): {line[:80]}")
        given[same(line)] = line
    if module.params["state"] == "absent":
        return [line for line in before if same(line) not in given]
    if module.params["exclusive"]:
        return list(given.values())
    kept = [given.pop(same(line), line) for line in before]
    return kept + list(given.values())


def main():
    module = AnsibleModule(
        argument_spec={
            "name": {"type": "str", "required": True, "aliases": ["account"]},
            "keys": {"type": "list", "elements": "str", "required": True, "no_log": False},
            "state": {"type": "str", "choices": ["present", "absent"], "default": "present"},
            "exclusive": {"type": "bool", "default": False},
        },
        supports_check_mode=True,
    )
    name = module.params["name"]
    if module.params["state"] == "absent" and module.params["exclusive"]:
        module.fail_json(msg="exclusive says which keys stay, and does not go with state: absent")
    check_name(module, name)
    corvctl = Corvctl(module)

    text = corvctl.ask("account", "keys", name)["keys"] if corvctl.account_or_assumed(name) else ""
    before = lines_of(text)
    after = wanted(module, before)
    changed = before != after
    if changed:
        odd = next((line for line in after if not KEY.fullmatch(line)), None)
        if odd is not None:
            module.fail_json(msg=f"the account's own key file holds what the agent does not keep: {odd[:80]}")
        if len(after) > MOST_KEYS:
            module.fail_json(msg=f"at most {MOST_KEYS} keys")
        if not module.check_mode:
            corvctl.ask("account", "keys", name, "--set", "-", data="".join(f"{line}\n" for line in after))
    module.exit_json(changed=changed, keys=after, diff={"before": "".join(f"{line}\n" for line in before),
                                                        "after": "".join(f"{line}\n" for line in after)})


if __name__ == "__main__":
    main()
