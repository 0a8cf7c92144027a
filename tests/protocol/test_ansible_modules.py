"""The Ansible modules over a corvctl that is played: what they ask it for, and what they refuse before they change anything."""

import importlib.util
import ipaddress
import json
import sys
import types
from pathlib import Path

import pytest

PLUGINS = Path(__file__).resolve().parents[2] / "ansible/plugins"


class Ended(Exception):
    """What a module ends with: its result, with "failed" where it failed."""


class Module:
    """What the modules use of Ansible's own class; corvctl is a function from words to a reply, or to a failure's text."""

    params, check_mode, corvctl = {}, False, None

    def __init__(self, **_):
        self.asked = []

    def get_bin_path(self, name):
        return f"/usr/bin/{name}"

    def run_command(self, words, **_):
        assert words[:2] == ["/usr/bin/corvctl", "--json"]
        answer = type(self).corvctl(*words[2:])
        if isinstance(answer, str):
            return 1, json.dumps({"ok": False, "error": answer}), ""
        return 0, json.dumps({"ok": True, **answer}), ""

    def fail_json(self, **result):
        raise Ended({"failed": True, **result})

    def exit_json(self, **result):
        raise Ended(result)

    def warn(self, text):
        raise AssertionError(text)


@pytest.fixture
def load(monkeypatch):
    """Gives a module of the collection by its name, with Module in the place of Ansible's class."""
    def source(name, path):
        spec = importlib.util.spec_from_file_location(name, path)
        made = importlib.util.module_from_spec(spec)
        monkeypatch.setitem(sys.modules, name, made)
        spec.loader.exec_module(made)
        return made

    basic = types.ModuleType("ansible.module_utils.basic")
    basic.AnsibleModule = Module
    names = ["ansible_collections"]
    for part in ("corvane", "server", "plugins", "module_utils"):
        names.append(f"{names[-1]}.{part}")
    for name in ("ansible", "ansible.module_utils", *names):
        monkeypatch.setitem(sys.modules, name, types.ModuleType(name))
    monkeypatch.setitem(sys.modules, "ansible.module_utils.basic", basic)
    source(f"{names[-1]}.corvctl", PLUGINS / "module_utils/corvctl.py")
    return lambda name: source(f"corvane_{name}", PLUGINS / f"modules/{name}.py")


def ended(load, name, params, corvctl, check=False):
    """Runs a module of the collection to its end, and gives its result."""
    module = load(name)
    Module.params, Module.check_mode, Module.corvctl = params, check, staticmethod(corvctl)
    with pytest.raises(Ended) as end:
        module.main()
    return end.value.args[0]


def rule(number, to, whom):
    return {"number": number, "to": to, "action": "ALLOW IN", "from": whom, "ssh": False}


# What ufw lists of a rule: for everybody of IPv4, everybody of IPv6, a network.
FOUR, SIX, NET = rule(1, "80/tcp", "Anywhere"), rule(2, "80/tcp (v6)", "Anywhere (v6)"), rule(3, "80/tcp", "10.0.0.0/8   # ours")


class Ufw:
    """The rules of a firewall as corvctl lists them."""

    def __init__(self, *rules):
        self.rules = list(rules)

    def __call__(self, _, action, *words):
        if action == "delete":
            self.rules = [one for one in self.rules if str(one["number"]) != words[0]]
        if action == "allow":
            network = ipaddress.ip_network(words[-1]) if words[-1] != "any" else None
            self.rules += [one for one in (FOUR, SIX) if network is None or str(network.version) in ("6" if one is SIX else "4")]
        return {"installed": True, "active": True, "rules": self.rules}


def firewall(load, ufw, source, state="present"):
    return ended(load, "firewall_rule", {"port": 80, "proto": "tcp", "source": source, "state": state}, ufw)["changed"]


@pytest.mark.parametrize("source, listed", [("0.0.0.0/0", [FOUR]), ("::/0", [SIX]), ("any", [FOUR, SIX])])
def test_a_rule_for_everybody_is_made_once_and_deleted(load, source, listed):
    ufw = Ufw()
    assert firewall(load, ufw, source) is True
    assert ufw.rules == listed
    assert firewall(load, ufw, source) is False
    assert firewall(load, ufw, source, "absent") is True
    assert ufw.rules == []
    assert firewall(load, ufw, source, "absent") is False


def test_a_rule_for_everybody_of_one_kind_leaves_the_other_and_networks(load):
    ufw = Ufw(FOUR, SIX, NET)
    assert firewall(load, ufw, "::/0", "absent") is True
    assert ufw.rules == [FOUR, NET]
    assert firewall(load, ufw, "10.1.2.3/8", "absent") is True
    assert ufw.rules == [FOUR]
