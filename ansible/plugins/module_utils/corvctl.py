# Copyright: (c) 2026, The corv-agent authors
# MIT License (see https://opensource.org/licenses/MIT)
"""What the modules have in common: asking the server's agent through corvctl --json."""

import json
import re

NAME = re.compile(r"[a-z][a-z0-9]{2,15}")
DOMAIN = re.compile(r"(?=.{4,253}$)([a-z0-9]([a-z0-9-]{0,61}[a-z0-9])?\.)+[a-z][a-z0-9-]{1,62}")
NAME_RULE = "username: 3 to 16 lowercase letters and digits, starting with a letter (not a reserved name)"
RESERVED = ("root", "admin", "www", "postgres", "corvane", "mail", "ftp", "nobody", "daemon", "backup")

# corvctl's exit status for a command line that it does not understand.
WRONG_USAGE = 2


class Corvctl:
    """The server's own corvctl. What it refuses ends the module, with corvctl's own sentence as the message."""

    def __init__(self, module):
        self._module = module
        self._path = module.get_bin_path("corvctl")
        if self._path is None:
            module.fail_json(msg="corvctl is not installed here; the role corvane.server.agent, or the package corv-agent, brings it")

    def ask(self, *words, data=None):
        """Runs a command and returns its reply; `data` is its standard input."""
        reply, failure = self.attempt(*words, data=data)
        if failure:
            self._module.fail_json(**failure)
        return reply

    def attempt(self, *words, data=None):
        """The same, but gives what fail_json would be given where it was refused: (reply, failure), one of which is None."""
        code, out, err = self._module.run_command([self._path, "--json", *words], data=data, binary_data=True,
                                                  environ_update={"LC_ALL": "C.UTF-8"})
        reply = read_reply(out)
        if code == 0 and reply and reply.get("ok") is True:
            return reply, None
        sentence, advice = read_complaint(err)
        failure = {"msg": (reply or {}).get("error") or sentence or f"corvctl ended with {code} and gave no reply", "rc": code}
        if advice:
            failure["advice"] = advice
        return None, failure

    def account(self, name):
        """What there is of an account, None where there is none of that name."""
        if not any(account["username"] == name for account in self.ask("account", "list")["accounts"]):
            return None
        return self.ask("account", "show", name)

    def account_or_assumed(self, name):
        """The same for what needs the account: where there is none the module fails. In check mode it is taken for one that
        an earlier task of the playbook would have made, and is None."""
        account = self.account(name)
        if account is None:
            if not self._module.check_mode:
                self._module.fail_json(msg=f"no Corvane account named '{name}'")
            self._module.warn(f"there is no account {name} yet; this is what will be done once it is made")
        return account


def read_reply(out):
    """The object that corvctl printed, None where it printed something else."""
    try:
        reply = json.loads(out)
    except ValueError:
        return None
    return reply if isinstance(reply, dict) else None


def read_complaint(err):
    """What corvctl wrote to standard error: (its last sentence, the advice below that)."""
    sentence, advice = "", ""
    for line in err.splitlines():
        if line.startswith("corvctl: "):
            sentence, advice = line[len("corvctl: "):], ""
        elif line.startswith("  ") and sentence:
            advice = f"{advice} {line.strip()}".strip()
    return sentence or err.strip(), advice


def check_name(module, name):
    """Ends the module where the agent would refuse the name of an account, so that check mode says so too."""
    if not NAME.fullmatch(name) or name in RESERVED:
        module.fail_json(msg=NAME_RULE)


def plain_domain(module, domain):
    """The domain as the agent keeps it; ends the module where it is none."""
    plain = domain.strip().lower()
    plain = plain[len("www."):] if plain.startswith("www.") else plain
    if not DOMAIN.fullmatch(plain):
        module.fail_json(msg="that is not a valid domain name")
    return plain


def describe(account):
    """An account as the modules return it, from what corvctl account show says."""
    database = account.get("database")
    return {
        "name": account["username"],
        "domain": account["domain"],
        "state": account["state"],
        "home": account["home"],
        "uid": account["uid"],
        "php": account.get("php"),
        "used_bytes": account.get("usedBytes"),
        "limit_bytes": account.get("limitBytes"),
        "database": database and {"name": database["name"], "bytes": database["bytes"], "read_only": database["readOnly"]},
        "last_backup": account.get("lastBackup"),
        "last_login": account.get("lastLogin") or None,
        "keys": account.get("keys", []),
    }
