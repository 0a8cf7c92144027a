"""The Ansible collection against a booted host over ssh: the example builds it, and each module brings it from state to state."""

import importlib.util
import json

import pytest
from hostfloor import HostError
from playbooks import MODULES, Controller

# The example makes twenty accounts, one after the other.
LIMIT = 400

NEW_KEY = "ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIJx0m0nV1bqvfXzYv4hS2Yw3sLkqF5oYzZ8dQ2mWm1aB"
OTHER_KEY = "ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIJx0m0nV1bqvfXzYv4hS2Yw3sLkqF5oYzZ8dQ2mWm1aC"
SETTINGS = "/etc/corvane/corvane.ini"
SANITY = "/usr/lib/python3/dist-packages/ansible_test/_util/controller/sanity"

# In corvctl's place for the modules alone: quotas that are on, of which a host without a kernel for them has none.
QUOTAS = """#!/usr/bin/python3
import json, os, pathlib, subprocess, sys
limit = pathlib.Path("/run/limit")
words = sys.argv[2:]
if words == ["quota", "status"]:
    print('{"enabled":true,"fsType":"ext4","mount":"/","ok":true,"supported":true}')
elif words[:2] == ["account", "limit"]:
    size = 0 if words[3] == "none" else int(words[3][:-1]) * 1024 ** "_KMGT".index(words[3][-1])
    limit.write_text(str(size))
    print('{"ok":true}')
else:
    done = subprocess.run(["/usr/bin/corvctl", *sys.argv[1:]], stdout=subprocess.PIPE)
    reply = json.loads(done.stdout)
    if words[:2] == ["account", "show"] and limit.exists() and limit.read_text() != "0":
        reply["limitBytes"] = int(limit.read_text())
    print(json.dumps(reply))
    sys.exit(done.returncode)
"""
OLD_CORVCTL = "#!/bin/sh\necho \"corvctl: no command '$2'\" >&2\necho '  corvctl help lists them' >&2\nexit 2\n"


@pytest.fixture(scope="module")
def bare(boot, package):
    """A host that only has what Debian brings, and where the example's first run leads it."""
    host = boot(bare=True)
    controller = Controller(host)
    (page,) = package.parent.glob("cockpit-corvane_*.deb")
    (guard,) = package.parent.glob("libapache2-mod-corvane_*.deb")
    (controller.folder / "packages.json").write_text(json.dumps({
        "corvane_packages": [str(package), str(guard)], "corvane_page_package": str(page),
        "corvane_page_sources": ["10.213.0.0/24"], "corvane_backup": {"keep_days": 20}}))
    yield host, controller
    controller.close()


def example(controller, *argv):
    """Runs the example, and gives what it said and the line that sums up."""
    passwords = controller.folder / "passwords"
    passwords.mkdir(exist_ok=True)
    done = controller.play("corvane.server.example", "-v", "--diff", "-e", "@packages.json", "-e", f"passwords={passwords}", *argv)
    (line,) = [line for line in done.out.splitlines() if "unreachable=" in line] or [done.err]
    summary = dict(word.split("=") for word in line.split() if "=" in word)
    if summary.get("failed") != "0":
        raise HostError(done.out + done.err)
    return done.out + done.err, summary


@pytest.fixture(scope="module")
def built(bare):
    host, controller = bare
    said, summary = example(controller)
    assert int(summary["changed"]) > 5
    return host, controller, said


@pytest.fixture
def server(built):
    host, controller, _said = built
    yield host, controller
    host.remove_accounts()


@pytest.fixture(scope="module")
def collection():
    controller = Controller()
    yield controller
    controller.close()


# The example


def test_the_example_makes_a_server_with_twenty_accounts_of_an_empty_debian(built):
    host, controller, said = built
    accounts = json.loads(host.ok(["corvctl", "--json", "account", "list"]))["accounts"]
    assert len(accounts) == 20
    assert [(one["username"], one["state"]) for one in accounts if one["state"] != "on-line"] == [("debtor", "suspended")]
    host.put("/home/shop/public_html/a.txt", "hello")
    host.wait_until_served("shop", "shop.example")
    assert host.fetch("shop.example", "/a.txt").body == "hello"
    assert host.fetch("debtor.example").status == 503
    assert json.loads(host.ok(["corvctl", "--json", "firewall", "status"]))["active"]
    assert host.active("cockpit.socket")
    assert host.ok(["corvctl", "--json", "backup", "status"]).count('"keepDays":20') == 1
    passwords = {file.name: file.read_text().strip() for file in (controller.folder / "passwords").iterdir()}
    assert sorted(passwords) == [one["username"] for one in accounts]
    assert host.sql("SELECT 1", database="shop", role="shop", password=passwords["shop"]).out == "1\n"
    assert not [name for name, password in passwords.items() if password in said]


def test_a_second_run_of_the_example_changes_nothing(built):
    _host, controller, _said = built
    _said, summary = example(controller)
    assert summary["changed"] == "0"


# The modules


@pytest.mark.core
@pytest.mark.turn
def test_an_account_goes_from_state_to_state(server):
    host, controller = server
    name = host.free_name()
    made, moved, suspended, resumed, deleted, off, gone = controller.states(
        ("account", {"name": name, "domain": f"www.{name}.Example"}),
        ("account", {"name": name, "domain": f"{name}2.example"}),
        ("account", {"name": name, "state": "suspended"}),
        ("account", {"name": name}),
        ("account", {"name": name, "state": "absent"}),
        ("account", {"name": name, "domain": f"{name}.example", "state": "suspended"}),
        ("account", {"name": name, "state": "absent"}),
    )
    assert made["diff"] == {"before": {"state": "absent"}, "after": {"state": "present", "domain": f"{name}.example"}}
    assert len(made["db_password"]) == 24
    assert made["access_log"] == f"/var/log/apache2/{name}.example-access.log"
    assert made["account"]["state"] == "on-line"
    assert made["db_password"] not in controller.said
    assert "the output has been hidden" in controller.said
    assert moved["account"]["domain"] == f"{name}2.example"
    assert "db_password" not in moved
    assert suspended["account"]["state"] == "suspended"
    assert resumed["account"]["state"] == "on-line"
    assert deleted["archive"].startswith(f"/var/backups/corvane/{name}-")
    assert off["account"]["state"] == "suspended"
    assert gone["diff"]["after"] == {"state": "absent"}


def test_what_corvctl_refuses_is_the_message(server):
    host, controller = server
    name = host.free_name()
    results = controller.tasks(
        ("account", {"name": name}),
        ("account", {"name": "Shop", "domain": "shop.example"}),
        ("account", {"name": name, "domain": "nonsense"}),
        ("account", {"name": name, "domain": "shop.example"}),
        ("account", {"name": name, "domain": "shop.example"}, {"check_mode": True}),
        ("account_keys", {"name": name, "keys": []}),
        ("account_keys", {"name": "shop", "keys": [], "state": "absent", "exclusive": True}),
        ("account_keys", {"name": "shop", "keys": ["nonsense"]}),
        ("account_limit", {"name": "shop", "limit": "2G"}),
        ("account_limit", {"name": "shop", "limit": "2"}),
        ("firewall_rule", {"port": 22, "state": "absent"}),
        ("firewall_rule", {"port": 80, "source": "nonsense"}),
        ("protection", {"database": False}),
        ("protection", {"quotas": True}),
        ("backup", {"keep_days": 0}),
    )
    assert all(result["failed"] and not result["changed"] for result in results)
    assert [result["msg"] for result in results] == [
        f"there is no account {name}, and a domain is needed to make it",
        "username: 3 to 16 lowercase letters and digits, starting with a letter (not a reserved name)",
        "that is not a valid domain name",
        "the site corv-shop already answers to shop.example or www.shop.example on this server, and Apache would serve only one of the two",
        "the account shop already answers to shop.example or www.shop.example on this server, and Apache would serve only one of the two",
        f"no Corvane account named '{name}'",
        "exclusive says which keys stay, and does not go with state: absent",
        "that does not look like one SSH public key (ssh-ed25519 AAAA... comment): nonsense",
        "hard quotas are off",
        "limit is a whole number with M, G or T behind it, such as 500M or 2G, or none",
        "that rule lets you reach this server over SSH; deleting it from here could lock you out",
        "source: an address like 203.0.113.7 or a range like 203.0.113.0/24",
        "database is on, and is not switched off here",
        "hard quotas are automated for ext4 only so far",
        "keep_days is at least 1",
    ]
    assert results[3]["advice"] == "choose another domain; --force takes it all the same"


@pytest.mark.core
@pytest.mark.turn
def test_keys_are_added_replaced_and_taken_away(server):
    host, controller = server
    account = host.account()
    first, second = f"{NEW_KEY} anna", f"{OTHER_KEY} ben"
    found = controller.states(
        ("account_keys", {"name": account.name, "keys": [first]}),
        ("account_keys", {"name": account.name, "keys": [second, second]}),
        ("account_keys", {"name": account.name, "keys": [f"{NEW_KEY} anna@home"]}),
        ("account_keys", {"name": account.name, "keys": [OTHER_KEY], "state": "absent"}),
        ("account_keys", {"name": account.name, "keys": [second], "exclusive": True}),
        ("account_keys", {"name": account.name, "keys": [], "exclusive": True}),
    )
    own = host.key.public
    assert [one["keys"] for one in found] == [
        [own, first], [own, first, second], [own, f"{NEW_KEY} anna@home", second], [own, f"{NEW_KEY} anna@home"], [second], []]
    assert all(one["changed"] for one in found)
    assert host.get(f"{account.home}/.ssh/authorized_keys").strip() == ""


def test_keys_of_an_account_that_the_same_run_will_make_are_foretold(server):
    host, controller = server
    name = host.free_name()
    (told,) = controller.tasks(("account_keys", {"name": name, "keys": [NEW_KEY]}, {"check_mode": True}))
    assert (told["changed"], told["diff"]) == (True, {"before": "", "after": f"{NEW_KEY}\n"})
    assert told["warnings"] == [f"there is no account {name} yet; this is what will be done once it is made"]


@pytest.mark.core
@pytest.mark.turn
def test_a_limit_is_set_and_lifted(server):
    host, controller = server
    account = host.account()
    host.put("/usr/local/bin/corvctl", QUOTAS, mode="0755")
    try:
        found = controller.states(
            ("account_limit", {"name": account.name, "limit": "2G"}),
            ("account_limit", {"name": account.name, "limit": "2048M"}),
            ("account_limit", {"name": account.name, "limit": "none"}),
        )
    finally:
        host.ok(["rm", "-f", "/usr/local/bin/corvctl", "/run/limit"])
    assert [(one["changed"], one["limit_bytes"]) for one in found] == [(True, 2 << 30), (False, 2 << 30), (True, None)]


@pytest.mark.core
@pytest.mark.turn
def test_ports_are_opened_and_shut(server):
    host, controller = server
    host.ok(["ufw", "deny", "proto", "tcp", "from", "198.51.100.2", "to", "any", "port", "5001"])
    found = controller.states(
        ("firewall_rule", {"port": 5001}),
        ("firewall_rule", {"port": 5001, "proto": "both", "source": "203.0.113.7/24"}),
        ("firewall_rule", {"port": 5001, "source": "2001:DB8::/32"}),
        ("firewall_rule", {"port": 5001, "state": "absent"}),
        ("firewall_rule", {"port": 5001, "source": "2001:db8::/32", "state": "absent"}),
        ("firewall_rule", {"port": 5002, "state": "absent"}),
        ("firewall_rule", {"port": 5003, "source": "0.0.0.0/0"}),
        ("firewall_rule", {"port": 5003, "source": "::/0"}),
        ("firewall_rule", {"port": 5003, "source": "0.0.0.0/0", "state": "absent"}),
    )
    assert [one["changed"] for one in found] == [True, True, True, True, True, False, True, True, True]
    rules = json.loads(host.ok(["corvctl", "--json", "firewall", "status"]))["rules"]
    assert [(rule["to"], rule["from"]) for rule in rules if "5001" in rule["to"]] == [
        ("5001/tcp", "198.51.100.2"), ("5001", "203.0.113.0/24")]
    assert [(rule["to"], rule["from"]) for rule in rules if "5003" in rule["to"]] == [("5003/tcp (v6)", "Anywhere (v6)")]


@pytest.mark.core
@pytest.mark.turn
def test_what_protects_a_server_is_switched_on_and_off(server):
    host, controller = server
    found = controller.states(
        ("protection", {"automatic_updates": False, "firewall": False}),
        ("protection", {"automatic_updates": True, "firewall": True, "bans": True, "database": True}),
    )
    assert [one["diff"]["before"] for one in found] == [
        {"automatic_updates": True, "firewall": True},
        {"automatic_updates": False, "firewall": False, "bans": True, "database": True}]
    assert host.active("fail2ban")


def test_a_rule_of_a_firewall_that_is_off_is_foretold_and_refused(server):
    host, controller = server
    host.ok(["corvctl", "firewall", "disable"])
    told, refused, _on = controller.tasks(("firewall_rule", {"port": 5003}, {"check_mode": True}), ("firewall_rule", {"port": 5003}),
                                          ("protection", {"firewall": True}))
    assert told["changed"]
    assert told["warnings"] == ["the firewall is off; this is what will be done once it is on, without rules"]
    assert (refused["msg"], refused["advice"]) == ("the firewall is off, and its rules cannot be seen",
                                                   "corvctl firewall enable switches it on")


@pytest.mark.core
@pytest.mark.turn
def test_backups_are_set_up_and_copied_elsewhere(server):
    host, controller = server
    host.ok(["apt-get", "-q", "install", "--yes", "restic"], env={"DEBIAN_FRONTEND": "noninteractive"})
    before = host.get(SETTINGS)
    folder, away, back = controller.states(
        ("backup", {"keep_days": 30, "destination": "/srv/a b; c", "require_mount": "/", "offsite_retention": "--keep-daily 3"}),
        ("backup", {"offsite_repository": "/srv/offsite"}),
        ("backup", {"keep_days": 20, "destination": "/var/backups/corvane/auto", "require_mount": "", "offsite_retention": ""}),
    )
    assert folder["diff"]["before"] == {"backup/keep_days": "20", "backup/destination": None, "backup/require_mount": None,
                                        "offsite/retention": None}
    assert back["diff"]["before"] == {"backup/keep_days": "30", "backup/destination": "/srv/a b; c", "backup/require_mount": "/",
                                      "offsite/retention": "--keep-daily 3"}
    key = host.get("/etc/corvane/offsite/key").strip()
    assert (away["repository_key"], away["append_only"]) == (key, False)
    assert key not in controller.said
    status = json.loads(host.ok(["corvctl", "--json", "backup", "status"]))
    assert (status["destination"], status["keepDays"]) == ("/var/backups/corvane/auto", 20)
    # Nothing else in the file has changed.
    assert host.get(SETTINGS).replace("\ndestination=/var/backups/corvane/auto\n", "\n") == (
        before.replace("\n[offsite]\n", '\n[offsite]\nappend_only="false"\nrepository="/srv/offsite"\n'))
    assert host.mode(SETTINGS) == "644 root root"


def test_settings_with_which_the_agent_does_not_start_are_taken_back(server):
    host, controller = server
    before = host.get(SETTINGS)
    wrong = before.replace("allowed_user=corv-web", "allowed_user=nobodythere")
    host.put(SETTINGS, wrong)
    try:
        (result,) = controller.tasks(("backup", {"keep_days": 21}))
        assert result["failed"]
        assert result["msg"].startswith("the agent does not start with these settings, so the old ones are back: ")
        assert "nobodythere" in result["msg"]
        assert host.get(SETTINGS) == wrong
    finally:
        host.put(SETTINGS, before)
        host.ok(["sh", "-c", "systemctl reset-failed corv-agent; systemctl restart corv-agent"])


def test_https_is_refused_where_corvctl_does_not_know_it(server):
    host, controller = server
    host.put("/usr/local/bin/corvctl", OLD_CORVCTL, mode="0755")
    try:
        results = controller.tasks(("https", {"name": "shop"}), ("https", {}))
    finally:
        host.ok(["rm", "/usr/local/bin/corvctl"])
    assert [result["msg"] for result in results] == [
        "corvctl here does not know HTTPS (no command 'https'); it takes a newer corv-agent, and corv-https"] * 2


@pytest.mark.core
@pytest.mark.turn
def test_https_of_an_account_is_as_it_was_chosen(server):
    host, controller = server
    name = host.account().name
    found = controller.states(
        ("https", {"name": name}),
        ("https", {"name": name, "redirect": True, "www": False}),
        ("https", {"name": name, "hsts": True}),
        ("https", {"name": name, "state": "absent"}),
    )
    assert [one["changed"] for one in found] == [False, True, True, True]
    assert found[2]["diff"]["before"] == {"state": "present", "redirect": True, "hsts": False, "www": False, "certificate": None}
    assert host.get(f"/etc/corvane/https.d/{name}").splitlines()[1:] == ["off"]


@pytest.mark.core
@pytest.mark.turn
def test_accounts_and_services_are_told_of(server):
    host, controller = server
    account = host.account()
    every, one, facts = controller.tasks(
        ("account_info", {}), ("account_info", {"name": [account.name, "nosuch"]}),
        ("service_facts", {"gather_subset": ["services", "host", "firewall", "bans", "updates", "quotas", "backups"]}))
    assert [name["name"] for name in every["accounts"]].count(account.name) == 1
    assert len(every["accounts"]) == 21
    assert [(one["name"], one["domain"], one["database"]["name"], one["keys"][0]["comment"]) for one in one["accounts"]] == [
        (account.name, account.domain, account.name, "key@test")]
    corvane = facts["ansible_facts"]["corvane"]
    assert sorted(corvane) == ["backups", "bans", "firewall", "host", "quotas", "services", "updates"]
    assert corvane["services"]["apache2"]["active"]
    assert corvane["host"]["hostname"] == host.ok(["hostname"]).strip()


# What needs no host


@pytest.mark.core
def test_the_inventory_is_the_hosts_file(collection):
    (collection.folder / "many").write_text("lonely # a remark\n\n[web]\nroot@web1\nadmin@web2\n[db-1]\nroot@web1\n")
    (collection.folder / "many.corvane.yml").write_text("plugin: corvane.server.hosts\npath: many\n")
    listed = json.loads(collection.ok("ansible-inventory", "-i", "many.corvane.yml", "--list"))
    assert {group: sorted(listed[group]["hosts"]) for group in ("ungrouped", "web", "db_1")} == {
        "ungrouped": ["lonely"], "web": ["web1", "web2"], "db_1": ["web1"]}
    users = {host: found["ansible_user"] for host, found in listed["_meta"]["hostvars"].items()}
    # Later releases of ansible-core say of a text that it is no template.
    assert {host: user["__ansible_unsafe"] if isinstance(user, dict) else user for host, user in users.items()} == {
        "web1": "root", "web2": "admin"}


@pytest.mark.parametrize("line, problem", [
    ("@web", "a host is given as HOST or USER@HOST"),
    ("-oProxyCommand=x", "a host's name does not begin with a dash"),
    ("root@-x", "a host's name does not begin with a dash"),
    ("a b", "a host's name holds no blanks, quotes or control characters"),
    ("a;b", "a host's name holds no blanks, quotes or control characters"),
    ("[we b]", "a group is given as [NAME], of letters, digits, dots, dashes and underscores"),
    ("[all]", "the group 'all' is every host of the file"),
])
def test_a_line_that_corvctl_refuses_is_no_host(collection, line, problem):
    spec = importlib.util.spec_from_file_location("hosts", collection.collection / "plugins/inventory/hosts.py")
    hosts = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(hosts)
    with pytest.raises(ValueError) as raised:
        hosts.read_hosts(f"web1\n{line}\n")
    assert str(raised.value) == f"line 2: {problem}"


@pytest.mark.each
def test_everything_is_documented(collection):
    plugins = [("module", name) for name in MODULES] + [("inventory", "hosts")]
    assert sorted(file.stem for file in (collection.collection / "plugins/modules").iterdir()) == sorted(MODULES)
    for kind, name in plugins:
        told = json.loads(collection.ok("ansible-doc", "-t", kind, "--json", f"corvane.server.{name}"))[f"corvane.server.{name}"]
        assert told["examples"].strip(), name
        assert told["doc"]["short_description"] and told["doc"]["version_added"] == "0.1.0", name
        assert all(option.get("description") for option in told["doc"]["options"].values()), name
        if kind == "module":
            assert told["return"], name
            assert {"check_mode", "diff_mode"} <= set(told["doc"]["attributes"]), name
    for role in ("agent", "page"):
        told = json.loads(collection.ok("ansible-doc", "-t", "role", "--json", f"corvane.server.{role}"))[f"corvane.server.{role}"]
        defaults = (collection.collection / f"roles/{role}/defaults/main.yml").read_text()
        options = told["entry_points"]["main"]["options"]
        assert all(option["description"] and f"\n{name}:" in defaults for name, option in options.items()), role


@pytest.mark.each
def test_the_checks_for_collections_find_nothing(collection):
    for check in ("compile", "line-endings", "no-smart-quotes", "shebang", "use-argspec-type-path"):
        done = collection.run("ansible-test", "sanity", "--test", check, "--python", "default", folder=collection.collection)
        assert done.returncode == 0, done.stdout + done.stderr


def validated(collection, *paths):
    """What Ansible's own validate-modules finds in modules, by path."""
    done = collection.run("/usr/bin/python3", f"{SANITY}/validate-modules/validate.py", "--arg-spec", "--format", "json",
                          "--collection", "ansible_collections/corvane/server", *paths, folder=collection.collection,
                          env={"PYTHONPATH": f"{SANITY}/validate-modules:{collection.folder}/collections"})
    return {path: [error["msg"] for error in found["errors"]] for path, found in json.loads(done.stdout).items()}


@pytest.mark.each
def test_the_modules_are_what_their_documentation_says(collection):
    paths = [f"plugins/modules/{name}.py" for name in MODULES]
    # The collection has the licence of all that is beside it.
    licence = "GPLv3 license header not found in the first 20 lines of the module"
    assert validated(collection, *paths) == {path: [licence] for path in paths}
    module = collection.collection / "plugins/modules/account_keys.py"
    wrong = module.with_name("wrong.py")
    wrong.write_text(module.read_text().replace('"exclusive": {"type": "bool"', '"exclusive": {"type": "str"')
                     .replace("module: account_keys", "module: wrong"))
    found = validated(collection, "plugins/modules/wrong.py")
    wrong.unlink()
    assert "Argument 'exclusive' in argument_spec defines type as 'str' but documentation defines type as 'bool'" in (
        found["plugins/modules/wrong.py"])
