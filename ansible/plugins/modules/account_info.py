#!/usr/bin/python
# Copyright: (c) 2026, The corv-agent authors
# MIT License (see https://opensource.org/licenses/MIT)

DOCUMENTATION = r"""
module: account_info
short_description: Tell what hosting accounts there are
version_added: 0.1.0
description:
  - Lists the hosting accounts of a server with their domains and states, and, for those that are named, all that there is to tell.
author:
  - The corv-agent authors (@corvane)
extends_documentation_fragment:
  - corvane.server.server.info
options:
  name:
    description: The accounts to tell of, each in full. Without it all of them are listed, in short.
    type: list
    elements: str
    aliases: [names]
"""

EXAMPLES = r"""
- name: Who is there
  corvane.server.account_info:
  register: hosting

- name: Who is off-line
  ansible.builtin.debug:
    msg: "{{ hosting.accounts | selectattr('state', 'ne', 'on-line') | map(attribute='name') }}"

- name: All that there is to tell of one
  corvane.server.account_info:
    name: shop
"""

RETURN = r"""
accounts:
  description: The accounts in the order of their names. Of one that was asked for by name and is not there nothing is told.
  returned: always
  type: list
  elements: dict
  contains:
    name:
      description: The account.
      type: str
      returned: always
    domain:
      description: The domain of its site.
      type: str
      returned: always
    state:
      description: C(on-line), C(suspended), or what is wrong, such as C(half suspended) or C(no site).
      type: str
      returned: always
    home:
      description: Its home.
      type: str
      returned: always
    uid:
      description: Its user's id.
      type: int
      returned: always
    used_bytes:
      description: What it uses, by the quotas or the newest backup; null where that is not known.
      type: int
      returned: always
    php:
      description: Its PHP version; null where it has no pool, as while it is suspended.
      type: str
      returned: when it was asked for by name
    limit_bytes:
      description: Its hard disk limit; null without one.
      type: int
      returned: when it was asked for by name
    database:
      description: Its database's name, size in bytes, and whether it is read-only.
      type: dict
      returned: when it was asked for by name
    last_backup:
      description: The newest backup that has it; null without one.
      type: dict
      returned: when it was asked for by name
    last_login:
      description: Its last login by SSH in seconds since 1970; null without one.
      type: int
      returned: when it was asked for by name
    keys:
      description: Type, comment and fingerprint of each of its SSH keys.
      type: list
      elements: dict
      returned: when it was asked for by name
"""

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.corvane.server.plugins.module_utils.corvctl import Corvctl, describe


def main():
    module = AnsibleModule(
        argument_spec={"name": {"type": "list", "elements": "str", "aliases": ["names"]}},
        supports_check_mode=True,
    )
    names = module.params["name"]
    corvctl = Corvctl(module)

    accounts = []
    for one in sorted(corvctl.ask("account", "list")["accounts"], key=lambda account: account["username"]):
        if names is None:
            accounts.append({"name": one["username"], "domain": one["domain"], "state": one["state"], "home": one["home"],
                             "uid": one["uid"], "used_bytes": one.get("usedBytes")})
        elif one["username"] in names:
            accounts.append(describe(corvctl.ask("account", "show", one["username"])))
    module.exit_json(changed=False, accounts=accounts)


if __name__ == "__main__":
    main()
