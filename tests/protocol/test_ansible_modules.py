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


class Server:
    """The accounts of a server, and what changes of them was asked for."""

    def __init__(self, *accounts):
        self.accounts = {account["username"]: {"home": "/home/x", "uid": 1, **account} for account in accounts}
        self.changes = []

    def __call__(self, *words):
        if words == ("account", "list"):
            return {"accounts": list(self.accounts.values())}
        if words[:2] == ("account", "show"):
            return self.accounts[words[2]]
        self.changes.append(words)
        name, action = words[2], words[1]
        if action in ("create", "domain"):
            # As the agent has it: one "www." is taken off whatever it is given.
            account = self.accounts.setdefault(name, {"username": name, "state": "on-line", "home": "/home/x", "uid": 1})
            account["domain"] = words[3].removeprefix("www.")
            return {"dbPassword": "secret", "accessLog": "/log"}
        if action == "resume" and self.accounts[name].get("left"):
            return f"{name} has left for another server, which has it now"
        self.accounts[name]["state"] = {"resume": "on-line", "suspend": "suspended"}[action]
        return {}


def account(load, server, check=False, state="present", domain=None):
    return ended(load, "account", {"name": "shop", "domain": domain, "state": state}, server, check)


@pytest.mark.parametrize("there", [[], [{"username": "shop", "domain": "other.example", "state": "on-line"}]])
def test_a_domain_that_begins_with_www_is_asked_for_once_and_is_the_accounts(load, there):
    server = Server(*there)
    first = account(load, server, domain="www.www.shop.example")
    assert (first["changed"], first["account"]["domain"]) == (True, "www.shop.example")
    assert first["diff"]["after"] == {"state": "present", "domain": "www.shop.example"}
    assert account(load, server, domain="WWW.www.shop.example")["changed"] is False
    assert len(server.changes) == 1


@pytest.mark.parametrize("domain", [None, "new.example"])
def test_who_has_left_is_refused_before_anything_of_it_is_changed(load, domain):
    server = Server({"username": "shop", "domain": "shop.example", "state": "suspended", "left": True})
    said = [account(load, server, check, domain=domain) for check in (True, False)]
    assert said[0] == said[1]
    assert said[0]["msg"] == "shop has left for another server, which has it now"
    assert "corvctl account move shop HOST --back" in said[0]["advice"]
    assert server.changes == []


def test_who_has_left_stays_suspended_and_is_deleted_as_any_other(load):
    server = Server({"username": "shop", "domain": "shop.example", "state": "suspended", "left": True})
    assert account(load, server, state="suspended")["changed"] is False
    assert account(load, server, True, state="absent")["changed"] is True


@pytest.mark.parametrize("wanted, had, is_foretold", [
    ("shop.example", "shop.example", True),
    ("shop.example", "www.shop.example", True),
    ("www.www.shop.example", "shop.example", True),
    ("www.shop.example", "shop.example", True),
    ("shop.example", "www.www.shop.example", False),
    ("shop.example", "x.shop.example", False),
])
def test_check_mode_tells_of_another_account_that_has_a_name_of_the_site(load, wanted, had, is_foretold):
    server = Server({"username": "other", "domain": had, "state": "on-line"})
    end = account(load, server, True, domain=wanted)
    assert end.get("failed", False) is is_foretold
    assert ("the account other already answers to" in end.get("msg", "")) is is_foretold
    assert server.changes == []


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
