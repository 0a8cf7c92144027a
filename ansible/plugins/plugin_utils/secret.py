# Copyright: (c) 2026, The corv-agent authors
# MIT License (see https://opensource.org/licenses/MIT)
"""For modules whose result has a secret that is told once."""

from ansible.plugins.action import ActionBase


class SecretKeepingAction(ActionBase):
    """Runs the module of its own name. A result with a secret in it is shown and logged by nobody, as if the task had
    no_log; a variable that it is registered in has all of it. A module cannot ask for that itself."""

    SECRET = None

    def run(self, tmp=None, task_vars=None):
        self._supports_check_mode = True
        self._supports_async = False
        result = super().run(tmp, task_vars)
        result.update(self._execute_module(task_vars=task_vars))
        if result.get(self.SECRET):
            result["_ansible_no_log"] = True
        return result
