#!/usr/bin/python
# Copyright: (c) 2026, The corv-agent authors
# MIT License (see https://opensource.org/licenses/MIT)

DOCUMENTATION = r"""
module: https
short_description: Put hosting accounts on HTTPS
version_added: 0.1.0
description:
  - Without a name it says whether the sites of all accounts are on HTTPS, with certificates that come and renew by themselves.
  - With a name it says how one account's site is there. What is not given is off, but for I(www).
  - It needs the package C(corv-https), and fails where the server's C(corvctl) does not know HTTPS.
author:
  - The corv-agent authors (@corvane)
extends_documentation_fragment:
  - corvane.server.server
notes:
  - In check mode an account that is not there is taken for one that an earlier task would have made, with a warning.
  - Whether a certificate that is brought can be used is found out when it is, and not in check mode.
options:
  name:
    description: The account; without it all of the server.
    type: str
    aliases: [account]
  state:
    description: Whether there is HTTPS.
    type: str
    choices: [present, absent]
    default: present
  redirect:
    description: Whether visitors of port 80 are sent to HTTPS once there is a certificate.
    type: bool
    default: false
  hsts:
    description: Whether browsers come by HTTPS alone for two years. That cannot be taken back from them.
    type: bool
    default: false
  www:
    description: Whether the site answers to its www name there too.
    type: bool
    default: true
  certificate:
    description: A file on the server with a certificate and its chain (PEM), to be used instead of one that comes by itself.
    type: path
  certificate_key:
    description: A file on the server with the certificate's key (PEM).
    type: path
"""

EXAMPLES = r"""
- name: All sites
  corvane.server.https:

- name: The shop sends its visitors there
  corvane.server.https:
    name: shop
    redirect: true

- name: A certificate that was bought
  corvane.server.https:
    name: shop
    redirect: true
    certificate: /root/shop.pem
    certificate_key: /root/shop.key
"""

RETURN = r"""
site:
  description: What C(corvctl https list) tells of the account's site.
  returned: when a name was given, HTTPS is on, and the site is listed
  type: dict
  sample: {"username": "shop", "domain": "shop.example", "state": "waiting", "remark": "", "names": [], "brought": false}
"""

import hashlib
import os

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.corvane.server.plugins.module_utils.corvctl import WRONG_USAGE, Corvctl, check_name

CHOICES = "/etc/corvane/https.d"
LARGEST = 256 * 1024
OFF = {"state": "absent"}


def is_on(module, corvctl):
    """Whether the server has HTTPS; ends the module where its corvctl does not know it."""
    status, failure = corvctl.attempt("https", "status")
    if failure and failure["rc"] == WRONG_USAGE:
        module.fail_json(msg=f"corvctl here does not know HTTPS ({failure['msg']}); it takes a newer corv-agent, and corv-https")
    if failure:
        module.fail_json(**failure)
    return status["on"]


def chosen(name):
    """What is in force for an account: the words of its file."""
    try:
        with open(os.path.join(CHOICES, name), encoding="utf-8") as file:
            words = [line.strip() for line in file if line.strip() and not line.startswith("#")]
    except FileNotFoundError:
        words = []
    if "off" in words:
        return dict(OFF)
    own = next((word.split(" ", 1)[1] for word in words if word.startswith("own ")), None)
    return {"state": "present", "redirect": "redirect" in words, "hsts": "hsts" in words, "www": "no-www" not in words,
            "certificate": own}


def read_pem(module, path):
    """The bytes of a file of the server's."""
    try:
        with open(path, "rb") as file:
            return file.read(LARGEST)
    except OSError as error:
        module.fail_json(msg=f"cannot read {path}: {error.strerror}")


def wanted(module, name):
    """What is asked for, in the same words. A certificate is known by the print of it and its key, as corvctl keeps it."""
    params = module.params
    if params["state"] == "absent":
        return dict(OFF)
    own = None
    if params["certificate"]:
        pair = read_pem(module, params["certificate"]) + read_pem(module, params["certificate_key"])
        own = f"{name}-{hashlib.sha256(pair).hexdigest()}"
    return {"state": "present", "redirect": params["redirect"], "hsts": params["hsts"], "www": params["www"], "certificate": own}


def words_for(params):
    """The options of corvctl account https."""
    if params["state"] == "absent":
        return ["off"]
    words = ["on"]
    words += ["--redirect"] if params["redirect"] else []
    words += ["--hsts"] if params["hsts"] else []
    words += [] if params["www"] else ["--no-www"]
    words += ["--cert", params["certificate"], "--key", params["certificate_key"]] if params["certificate"] else []
    return words


def for_all(module, corvctl):
    """Without a name: on or off."""
    params = module.params
    if params["redirect"] or params["hsts"] or not params["www"] or params["certificate"]:
        module.fail_json(msg="redirect, hsts, www and certificate are an account's; name says which")
    now = is_on(module, corvctl)
    on = params["state"] == "present"
    if now != on and not module.check_mode:
        corvctl.ask("https", "on" if on else "off")
    words = {True: "present", False: "absent"}
    module.exit_json(changed=now != on, diff={"before": {"state": words[now]}, "after": {"state": words[on]}})


def main():
    module = AnsibleModule(
        argument_spec={
            "name": {"type": "str", "aliases": ["account"]},
            "state": {"type": "str", "choices": ["present", "absent"], "default": "present"},
            "redirect": {"type": "bool", "default": False},
            "hsts": {"type": "bool", "default": False},
            "www": {"type": "bool", "default": True},
            "certificate": {"type": "path"},
            "certificate_key": {"type": "path", "no_log": False},
        },
        required_together=[("certificate", "certificate_key")],
        supports_check_mode=True,
    )
    name = module.params["name"]
    corvctl = Corvctl(module)
    if name is None:
        for_all(module, corvctl)
    check_name(module, name)
    on = is_on(module, corvctl)
    is_there = corvctl.account_or_assumed(name) is not None

    before, after = chosen(name), wanted(module, name)
    result = {"changed": before != after, "diff": {"before": before, "after": after}}
    if result["changed"] and not module.check_mode:
        corvctl.ask("account", "https", name, *words_for(module.params))
    if on and is_there:
        site = next((site for site in corvctl.ask("https", "list")["sites"] if site["username"] == name), None)
        if site:
            result["site"] = site
    module.exit_json(**result)


if __name__ == "__main__":
    main()
