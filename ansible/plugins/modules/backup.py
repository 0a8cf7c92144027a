#!/usr/bin/python
# Copyright: (c) 2026, The corv-agent authors
# MIT License (see https://opensource.org/licenses/MIT)

DOCUMENTATION = r"""
module: backup
short_description: Say where backups lie, how long they are kept, and where copies of them go
version_added: 0.1.0
description:
  - Sets the section C([backup]) of the agent's settings, and restarts the agent where that is needed.
  - Has each backup copied to another machine, as C(corvctl offsite setup) does.
author:
  - The corv-agent authors (@corvane)
extends_documentation_fragment:
  - corvane.server.server
notes:
  - Credentials that restic needs beside the key belong into the file C(/etc/corvane/offsite/credentials).
  - Whether the place takes what is written, and whether it refuses to forget, is tried when it is set up and not in check mode.
options:
  destination:
    description: The folder that holds the backups, an absolute path.
    type: path
  keep_days:
    description: How many days a backup is kept, at least 1.
    type: int
  require_mount:
    description: The mount point without which no backup is made; an empty text for none.
    type: str
  offsite_repository:
    description:
      - Where each backup is copied to, such as C(ssh://vault@backup.example.org) for a vault, or what restic takes.
      - It cannot hold a password.
    type: str
  offsite_key:
    description:
      - The key of a repository that there is already, as on a server that takes the place of a lost one.
      - It is given where the place is set up, and not compared with the one in force afterwards.
    type: str
  offsite_retention:
    description: What is kept there, in restic's own words, such as C(--keep-daily 14 --keep-weekly 8); an empty text keeps all.
    type: str
"""

EXAMPLES = r"""
- name: A disk of their own, four weeks, and a copy elsewhere
  corvane.server.backup:
    destination: /mnt/backups/corvane
    require_mount: /mnt/backups
    keep_days: 28
    offsite_repository: ssh://vault@backup.example.org
  register: backup

- name: Keep the key where no break-in on the server reaches it
  ansible.builtin.copy:
    dest: "keys/{{ inventory_hostname }}"
    content: "{{ backup.repository_key }}"
    mode: "0600"
  delegate_to: localhost
  become: false
  when: backup.repository_key is defined
  no_log: true
"""

RETURN = r"""
repository_key:
  description:
    - The key of the repository. Without it nothing that is there can be read, and it is told this once.
    - The whole result is kept out of the output and of logs then; a variable that it is registered in has it.
  returned: when an off-site place was set up with a new key
  type: str
  sample: 43 letters and digits
append_only:
  description: Whether the place refuses to forget what it holds.
  returned: when an off-site place was set up
  type: bool
"""

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.corvane.server.plugins.module_utils import settings
from ansible_collections.corvane.server.plugins.module_utils.corvctl import Corvctl


def wanted_settings(module):
    """{(section, key): value} for what is given."""
    params = module.params
    if params["destination"] is not None and not params["destination"].startswith("/"):
        module.fail_json(msg="destination is an absolute path")
    if params["require_mount"] and not params["require_mount"].startswith("/"):
        module.fail_json(msg="require_mount is an absolute path")
    if params["keep_days"] is not None and params["keep_days"] < 1:
        module.fail_json(msg="keep_days is at least 1")
    wanted = {}
    if params["destination"] is not None:
        wanted["backup", "destination"] = params["destination"]
    if params["keep_days"] is not None:
        wanted["backup", "keep_days"] = str(params["keep_days"])
    if params["require_mount"] is not None:
        wanted["backup", "require_mount"] = params["require_mount"] or None
    if params["offsite_retention"] is not None:
        wanted["offsite", "retention"] = params["offsite_retention"] or None
    if any("\n" in (value or "") for value in wanted.values()):
        module.fail_json(msg="a setting is one line")
    return wanted


def shown(found):
    """Settings as the diff shows them."""
    return {f"{section}/{key}": value for (section, key), value in found.items()}


def set_up(module, corvctl, repository, result):
    """Has backups copied to a place, and keeps the key that is told of only now."""
    key = module.params["offsite_key"]
    reply = corvctl.ask("offsite", "setup", repository, *(["--key-file", "-"] if key else []), data=f"{key}\n" if key else None)
    result["append_only"] = reply["appendOnly"]
    if "key" in reply:
        result["repository_key"] = reply["key"]


def main():
    module = AnsibleModule(
        argument_spec={
            "destination": {"type": "path"},
            "keep_days": {"type": "int"},
            "require_mount": {"type": "str"},
            "offsite_repository": {"type": "str"},
            "offsite_key": {"type": "str", "no_log": True},
            "offsite_retention": {"type": "str"},
        },
        required_one_of=[("destination", "keep_days", "require_mount", "offsite_repository", "offsite_retention")],
        required_by={"offsite_key": "offsite_repository"},
        supports_check_mode=True,
    )
    wanted = wanted_settings(module)
    corvctl = Corvctl(module)
    try:
        text = settings.read_file()
    except OSError as error:
        module.fail_json(msg=f"the settings cannot be read: {error}")

    todo = settings.changes(text, wanted)
    before = {key: settings.value_in(text, *key) for key in wanted}
    after = dict(wanted)
    repository = module.params["offsite_repository"]
    if repository is not None:
        before["offsite", "repository"] = settings.value_in(text, "offsite", "repository")
        after["offsite", "repository"] = repository
    moves = repository is not None and repository != before["offsite", "repository"]

    result = {"changed": bool(todo) or moves, "diff": {"before": shown(before), "after": shown(after)}}
    if not module.check_mode:
        if todo:
            settings.write(module, text, todo)
        if moves:
            set_up(module, corvctl, repository, result)
    module.exit_json(**result)


if __name__ == "__main__":
    main()
