#!/usr/bin/python
# Copyright: (c) 2026, The corv-agent authors
# MIT License (see https://opensource.org/licenses/MIT)

DOCUMENTATION = r"""
module: account_limit
short_description: Limit how much disk space a hosting account may use
version_added: 0.1.0
description:
  - Sets or lifts the hard disk limit of an account. Disk quotas have to be on, see M(corvane.server.protection).
author:
  - The corv-agent authors (@corvane)
extends_documentation_fragment:
  - corvane.server.server
notes:
  - In check mode an account that is not there is taken for one that an earlier task would have made, with a warning.
options:
  name:
    description: The account.
    type: str
    required: true
    aliases: [account]
  limit:
    description:
      - A whole number with C(M), C(G) or C(T) behind it (powers of 1024), such as C(500M) or C(2G).
      - C(none) lifts the limit, and is right as well where quotas are off.
    type: str
    required: true
"""

EXAMPLES = r"""
- name: Two gibibytes
  corvane.server.account_limit:
    name: shop
    limit: 2G

- name: As much as there is
  corvane.server.account_limit:
    name: shop
    limit: none
"""

RETURN = r"""
limit_bytes:
  description: The limit afterwards, or as it would be in check mode; null without one.
  returned: success
  type: int
  sample: 2147483648
"""

import re

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.corvane.server.plugins.module_utils.corvctl import Corvctl, check_name

SIZE = re.compile(r"([1-9][0-9]{0,8})([MGT])")
MEBIBYTE = 1024 * 1024
UNITS = {"M": MEBIBYTE, "G": 1024 * MEBIBYTE, "T": 1024 * 1024 * MEBIBYTE}
MOST_BYTES = 104857600 * MEBIBYTE


def bytes_of(module, text):
    """The limit in bytes, None for none; ends the module where it is neither."""
    if text == "none":
        return None
    match = SIZE.fullmatch(text.upper())
    if not match:
        module.fail_json(msg="limit is a whole number with M, G or T behind it, such as 500M or 2G, or none")
    size = int(match[1]) * UNITS[match[2]]
    if size > MOST_BYTES:
        module.fail_json(msg="limit out of range")
    return size


def main():
    module = AnsibleModule(
        argument_spec={
            "name": {"type": "str", "required": True, "aliases": ["account"]},
            "limit": {"type": "str", "required": True},
        },
        supports_check_mode=True,
    )
    name = module.params["name"]
    check_name(module, name)
    after = bytes_of(module, module.params["limit"])
    corvctl = Corvctl(module)

    account = corvctl.account_or_assumed(name)
    before = account.get("limitBytes") or None if account else None
    if before != after:
        if not corvctl.ask("quota", "status")["enabled"]:
            module.fail_json(msg="hard quotas are off", advice="corvctl quota enable switches them on")
        if not module.check_mode:
            corvctl.ask("account", "limit", name, module.params["limit"])
    module.exit_json(changed=before != after, limit_bytes=after,
                     diff={"before": {"limit_bytes": before}, "after": {"limit_bytes": after}})


if __name__ == "__main__":
    main()
