# Copyright: (c) 2026, The corv-agent authors
# MIT License (see https://opensource.org/licenses/MIT)

DOCUMENTATION = r"""
name: hosts
short_description: The hosts file of corvctl as an inventory
version_added: 0.1.0
description:
  - Reads the servers that C(corvctl -H @GROUP) knows, so that both work on the same ones.
  - It is given a YAML file whose name ends in C(corvane.yml) or C(corvane.yaml) with these options, or a hosts file itself.
  - A host that is written as C(USER@HOST) is logged in to as that user.
author:
  - The corv-agent authors (@corvane)
options:
  plugin:
    description: The plugin's own name.
    type: str
    choices: [corvane.server.hosts]
  path:
    description: The hosts file; a relative path begins at the YAML file's folder.
    type: str
    default: /etc/corvane/hosts
"""

EXAMPLES = r"""
# servers.corvane.yml; ansible-inventory -i servers.corvane.yml --graph
plugin: corvane.server.hosts
path: /etc/corvane/hosts
---
# The hosts file itself, with ANSIBLE_INVENTORY_ENABLED=corvane.server.hosts:
# ansible-inventory -i /etc/corvane/hosts --graph
"""

import os
import re

from ansible.errors import AnsibleParserError
from ansible.plugins.inventory import BaseInventoryPlugin

HEADING = re.compile(r"\[([A-Za-z0-9][A-Za-z0-9_.-]{0,62})\]")
SHELL_CHARACTERS = set("'`\"$\\;&<>|(){}!*?#~")
LARGEST = 1024 * 1024


def host_problem(host):
    """What is wrong with a host, as corvctl says it; None where nothing is."""
    name = host.rpartition("@")[2]
    if not name or host.startswith("@"):
        return "a host is given as HOST or USER@HOST"
    if host.startswith("-") or name.startswith("-"):
        return "a host's name does not begin with a dash"
    if any(not character.isprintable() or character.isspace() or character in SHELL_CHARACTERS for character in host):
        return "a host's name holds no blanks, quotes or control characters"
    return None


def read_hosts(text):
    """The groups of a hosts file: a list of (group, hosts), the first of which has no name. Raises ValueError."""
    groups = [(None, [])]
    for number, whole in enumerate(text.split("\n"), 1):
        line = whole.partition("#")[0].strip()
        if not line:
            continue
        heading = HEADING.fullmatch(line)
        problem = None
        if not line.startswith("["):
            problem = host_problem(line)
            groups[-1][1].append(line)
        elif not heading:
            problem = "a group is given as [NAME], of letters, digits, dots, dashes and underscores"
        elif heading[1] == "all":
            problem = "the group 'all' is every host of the file"
        else:
            groups.append((heading[1], []))
        if problem:
            raise ValueError(f"line {number}: {problem}")
    return groups


class InventoryModule(BaseInventoryPlugin):
    NAME = "corvane.server.hosts"

    def verify_file(self, path):
        if path.endswith((".yml", ".yaml")):
            return super().verify_file(path) and path.endswith(("corvane.yml", "corvane.yaml"))
        return super().verify_file(path)

    def parse(self, inventory, loader, path, cache=True):
        super().parse(inventory, loader, path, cache)
        file = path
        if path.endswith((".yml", ".yaml")):
            self._read_config_data(path)
            file = os.path.join(os.path.dirname(os.path.abspath(path)), os.path.expanduser(self.get_option("path")))
        try:
            if os.path.getsize(file) > LARGEST or not os.path.isfile(file):
                raise ValueError("it is no file of hosts")
            with open(file, encoding="utf-8") as opened:
                groups = read_hosts(opened.read())
        except (OSError, ValueError) as error:
            raise AnsibleParserError(f"{file}: {error}") from error
        users = {}
        for group, hosts in groups:
            name = self.inventory.add_group(self._sanitize_group_name(group)) if group else None
            for host in hosts:
                self._add(file, users, host, name)

    def _add(self, file, users, host, group):
        user, _at, name = host.rpartition("@")
        if users.setdefault(name, user) != user:
            raise AnsibleParserError(f"{file}: {name} is there with two users; here a host has one")
        self.inventory.add_host(name, group=group)
        if user:
            self.inventory.set_variable(name, "ansible_user", user)
