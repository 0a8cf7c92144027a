# Copyright: (c) 2026, The corv-agent authors
# MIT License (see https://opensource.org/licenses/MIT)
"""What is the same in the documentation of the modules."""


class ModuleDocFragment:
    # For those that change something.
    DOCUMENTATION = r"""
requirements:
  - corv-agent, with C(corvctl), on the managed server
notes:
  - The module runs C(corvctl --json) on the managed server and has to be root there, so use C(become).
  - What C(corvctl) refuses is the message of the failure, and what it advises is returned as C(advice).
attributes:
  check_mode:
    description: Can run in check_mode and return changed status prediction without modifying target.
    support: full
  diff_mode:
    description: Will return details on what has changed (or possibly needs changing in check_mode), when in diff mode.
    support: full
"""
    # For those that only tell.
    INFO = r"""
requirements:
  - corv-agent, with C(corvctl), on the managed server
notes:
  - The module runs C(corvctl --json) on the managed server and has to be root there, so use C(become).
attributes:
  check_mode:
    description: Can run in check_mode and return changed status prediction without modifying target.
    support: full
  diff_mode:
    description: Will return details on what has changed (or possibly needs changing in check_mode), when in diff mode.
    support: none
"""
