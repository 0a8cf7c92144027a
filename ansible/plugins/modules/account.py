#!/usr/bin/python
# Copyright: (c) 2026, The corv-agent authors
# MIT License (see https://opensource.org/licenses/MIT)

DOCUMENTATION = r"""
module: account
short_description: Make, suspend, resume and delete hosting accounts
version_added: 0.1.0
description:
  - Makes sure that a hosting account is there and on-line, is there and suspended, or is not there.
  - An account is a user with a home, an Apache site, a PHP pool and a PostgreSQL database.
author:
  - The corv-agent authors (@corvane)
extends_documentation_fragment:
  - corvane.server.server
options:
  name:
    description: The account's name, which is that of its user and of its database as well.
    type: str
    required: true
  domain:
    description:
      - The domain of the account's site. Capitals and one leading C(www.) make no difference.
      - It is needed to make the account. An account that has another domain is given this one.
    type: str
  state:
    description:
      - C(present) makes the account where it is missing and puts it on-line where it is not. One that has left for another
        server is not put on-line again, and the module fails, since both would serve it.
      - C(suspended) makes it where it is missing and takes it off-line.
      - C(absent) deletes it. The server keeps an archive of its files and its database.
    type: str
    choices: [present, suspended, absent]
    default: present
seealso:
  - module: corvane.server.account_keys
  - module: corvane.server.account_limit
"""

EXAMPLES = r"""
- name: The shop
  corvane.server.account:
    name: shop
    domain: shop.example
  register: shop

- name: Keep its database's password here, not below a home whose owner could put a link in its place
  ansible.builtin.copy:
    dest: passwords/shop
    content: "{{ shop.db_password }}"
    mode: "0600"
  delegate_to: localhost
  become: false
  when: shop.db_password is defined
  no_log: true

- name: Who has not paid is off-line
  corvane.server.account:
    name: shop
    state: suspended

- name: Who has left is gone
  corvane.server.account:
    name: shop
    state: absent
"""

RETURN = r"""
account:
  description: The account afterwards.
  returned: when there is one
  type: dict
  sample:
    name: shop
    domain: shop.example
    state: on-line
    home: /home/shop
    uid: 1001
    php: "8.2"
    used_bytes: null
    limit_bytes: null
    database: {name: shop, bytes: 7627267, read_only: false}
    last_backup: null
    last_login: null
    keys: []
db_password:
  description:
    - The password of the account's new database. It is told this once.
    - The whole result is kept out of the output and of logs then; a variable that it is registered in has it.
  returned: when the account was made
  type: str
  sample: 24 letters and digits
access_log:
  description: The path of the site's access log.
  returned: when the account was made
  type: str
  sample: /var/log/apache2/shop.example-access.log
archive:
  description: The paths of the archives of files and database, with an asterisk where their names differ.
  returned: when the account was deleted
  type: str
  sample: /var/backups/corvane/shop-20261122-031500-*
"""

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.corvane.server.plugins.module_utils.corvctl import Corvctl, check_name, describe, plain_domain

# The words of corvctl for what the states ask for. Any other word is an account of which something is missing, and is none.
WORDS = {"on-line": "present", "suspended": "suspended"}


def make(corvctl, name, domain, result):
    """Makes the account, and keeps what is told of it only now. The domain is as it was given: corvctl makes it plain."""
    reply = corvctl.ask("account", "create", name, domain)
    result["db_password"] = reply["dbPassword"]
    result["access_log"] = reply["accessLog"]


def refuse_left(module, account):
    """Ends a run that would put an account on-line that another server has, before anything of it is changed."""
    name = module.params["name"]
    if account.get("left"):
        module.fail_json(msg=f"{name} has left for another server, which has it now",
                         advice=f"corvctl account move {name} HOST --back, HOST being that one, brings it back with what has changed "
                                f"there; corvctl account resume {name} --left resumes what is here")


def foretell_refusal(module, corvctl, domain):
    """Ends a run in check mode where a name of the domain's site is one of another account's; otherwise corvctl itself refuses,
    and knows other sites as well."""
    names = {domain, f"www.{domain}"}
    for other in corvctl.ask("account", "list")["accounts"]:
        if not names.isdisjoint((other["domain"], f"www.{other['domain']}")) and other["username"] != module.params["name"]:
            module.fail_json(msg=f"the account {other['username']} already answers to {domain} or www.{domain} on this server, and "
                                 "Apache would serve only one of the two")


def settle(module, corvctl, before, after, result):
    """Does what leads from one state to the other."""
    name = module.params["name"]
    if after["state"] == "absent":
        result["archive"] = corvctl.ask("account", "delete", name, "--confirm", name).get("archive")
        return
    state = before["state"]
    if state == "absent":
        make(corvctl, name, module.params["domain"], result)
        state = "present"
    elif before["domain"] != after["domain"]:
        corvctl.ask("account", "domain", name, module.params["domain"])
    if state != after["state"]:
        corvctl.ask("account", "resume" if after["state"] == "present" else "suspend", name)


def main():
    module = AnsibleModule(
        argument_spec={
            "name": {"type": "str", "required": True},
            "domain": {"type": "str"},
            "state": {"type": "str", "choices": ["present", "suspended", "absent"], "default": "present"},
        },
        supports_check_mode=True,
    )
    name, state = module.params["name"], module.params["state"]
    check_name(module, name)
    domain = plain_domain(module, module.params["domain"]) if module.params["domain"] is not None else None
    corvctl = Corvctl(module)

    account = corvctl.account(name)
    before, after = {"state": "absent"}, {"state": "absent"}
    if account:
        before = {"state": WORDS.get(account["state"], account["state"]), "domain": account["domain"]}
    if state != "absent":
        if not account and domain is None:
            module.fail_json(msg=f"there is no account {name}, and a domain is needed to make it")
        after = {"state": state, "domain": domain or before["domain"]}

    if account and state == "present" and before["state"] != "present":
        refuse_left(module, account)
    if module.check_mode and after.get("domain") not in (None, before.get("domain")):
        foretell_refusal(module, corvctl, after["domain"])
    result = {"changed": before != after, "diff": {"before": before, "after": after}}
    if result["changed"] and not module.check_mode:
        settle(module, corvctl, before, after, result)
        account = corvctl.account(name)
        got = WORDS.get(account["state"], account["state"]) if account else "absent"
        if got != state:
            module.fail_json(msg=f"the account {name} is {got} now; corvctl doctor tells what is wrong with it", **result)
    if account:
        result["account"] = describe(account)
    module.exit_json(**result)


if __name__ == "__main__":
    main()
