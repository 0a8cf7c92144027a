"""The protocol's description: it and the agent, its documentation and the replies that tests see must agree."""

import json
import re
import shutil
import subprocess
import sys

import pytest

import described
from described import COMMANDS, ROOT, wrong_reply

SOURCES = ROOT / "src/agent"
DESCRIBE = ROOT / "data/describe.py"
OK = {"ok": True}


@pytest.fixture
def apart(monkeypatch):
    """Keeps what a test makes up from counting as seen."""
    monkeypatch.setattr(described, "seen", set())
    return described


def generated(kind, folder):
    target = folder / "out"
    subprocess.run([sys.executable, DESCRIBE, kind, ROOT / "data/protocol.json", target], check=True)
    return target


def test_commands_are_those_of_the_agents_table_in_its_order():
    source = (SOURCES / "Agent.cpp").read_text()
    table = source.split("m_commands({")[1].split("})\n{")[0]
    assert re.findall(r'^ *\{u"([\w.]+)"_s, ', table, re.MULTILINE) == list(COMMANDS)


def test_agent_knows_each_described_command(sandbox):
    sandbox.check_log = False
    with sandbox.connect() as client:
        for name in COMMANDS:
            client.send(json.dumps({"cmd": name}).encode() + b"\n")
            reply = client.reply()
            assert reply.get("error") != "unknown command", name


def test_arguments_are_those_that_the_sources_read():
    read = {name for file in SOURCES.rglob("*.cpp") for name in re.findall(r'args\.value\("(\w+)"_L1\)', file.read_text())}
    assert {argument["name"] for command in COMMANDS.values() for argument in command["arguments"]} == read


@pytest.mark.parametrize("command", COMMANDS.values(), ids=COMMANDS)
def test_example_is_a_request_as_described(command):
    operation = command["example"].get("op")
    arguments = {one["name"]: one for one in command["arguments"] if operation in one.get("for", [operation])}
    required = {name for name, one in arguments.items() if one.get("required")}
    assert required <= set(command["example"]) <= set(arguments)
    for name, value in command["example"].items():
        argument = arguments[name]
        assert type(value) is {"string": str, "integer": int, "boolean": bool}[argument["type"]]
        assert value in argument.get("values", [value])
        assert re.fullmatch(argument.get("pattern", ".*"), str(value))
        assert argument.get("minimum", 0) <= (value if type(value) is int else 0) or type(value) is not int
        assert type(value) is not int or value <= argument.get("maximum", value)


def test_example_line_works_as_it_stands(sandbox):
    sandbox.start()
    line = re.search("^echo .*$", (ROOT / "docs/protocol.md").read_text(), re.MULTILINE)[0]
    assert sandbox.run("env", "--chdir=/", "sh", "-c", line) == (0, '{"ok":true,"version":"0.1"}\n', "")
    sandbox.logs("agent: uid 0 ran ping -> ok")


def test_every_argument_is_required_or_has_a_default():
    for command in COMMANDS.values():
        for argument in command["arguments"]:
            assert ("default" in argument) != argument.get("required", False), (command["name"], argument)


def test_copy_of_the_documentation_is_what_is_generated(tmp_path):
    assert (ROOT / "docs/protocol.md").read_text() == generated("markdown", tmp_path).read_text()


def test_manual_page_has_no_flaws(tmp_path):
    if not shutil.which("mandoc"):
        pytest.skip("mandoc is not installed")
    page = generated("man", tmp_path)
    assert subprocess.run(["mandoc", "-T", "lint", page], capture_output=True, text=True).stdout == ""


def test_documentation_holds_every_command_argument_member_and_error(tmp_path):
    text = generated("markdown", tmp_path).read_text()
    for name, command in COMMANDS.items():
        section = text.split(f"\n### {name}\n")[1].split("\n### ")[0]
        for part in command["arguments"] + command["reply"]:
            assert f"| `{part['name']}` | {part['type']}" in section
        for error in command["errors"]:
            assert f"| `{error['text']}` |" in section


@pytest.mark.parametrize(
    "name, arguments, reply",
    [
        ("ping", {}, {"ok": True, "version": "0.1"}),
        ("hosting.usage", {}, {"ok": True, "usage": {"alice": 1}}),
        ("hosting.usage", {}, {"ok": False, "error": "repquota: took too long"}),
        ("hosting.suspend", {}, {"ok": False, "error": "systemctl failed: a\nb; usermod: cannot start"}),
        ("hosting.delete", {}, {"ok": False, "error": "userdel failed: x", "archive": "/var/backups/corvane/alice-*"}),
        ("firewall.status", {}, {"ok": True, "installed": False, "sshPort": "22"}),
        ("files", {"op": "read"}, {"ok": True, "content": ""}),
        ("files", {"op": "list"}, {"ok": False, "error": "Permission denied"}),
        ("updates.install", {"mode": "all"}, OK),
    ],
)
def test_described_reply_passes(apart, name, arguments, reply):
    assert wrong_reply(name, arguments, reply) == []


@pytest.mark.parametrize(
    "name, arguments, reply",
    [
        ("ping", {}, OK),
        ("ping", {}, {"ok": True, "version": 1}),
        ("ping", {}, {"ok": True, "version": "0.1", "more": 1}),
        ("ping", {}, {"ok": 1, "version": "0.1"}),
        ("ping", {}, {"version": "0.1"}),
        ("ping", {}, []),
        ("ping", {}, {"ok": False, "error": "anything"}),
        ("hosting.usage", {}, {"ok": True, "usage": {"alice": "1"}}),
        ("hosting.usage", {}, {"ok": False, "error": "du: took too long"}),
        ("hosting.usage", {}, {"ok": False, "error": "repquota: took too long; repquota: cannot start"}),
        ("hosting.suspend", {}, {"ok": False, "error": "systemctl failed: a; useradd: cannot start"}),
        ("hosting.suspend", {}, {"ok": False, "error": "userdel failed: x", "archive": "x"}),
        ("firewall.status", {}, {"ok": True, "installed": True, "sshPort": "22", "active": True, "rules": [{"number": 1}]}),
        ("security.status", {}, {"ok": True, "firewall": {"ok": True}, "fail2ban": {"ok": True, "installed": False}}),
        ("files", {"op": "read"}, {"ok": True, "size": 1}),
        ("files", {"op": "mkdir"}, {"ok": False, "error": "not a folder"}),
        ("updates.status", {}, {"ok": True, "lastCheck": "never"}),
        ("updates.install", {"mode": "all"}, {"ok": False}),
    ],
)
def test_reply_that_is_not_described_is_found_fault_with(apart, name, arguments, reply):
    assert wrong_reply(name, arguments, reply)


def test_what_no_reply_has_borne_out_is_told(apart):
    wrong_reply("ping", {}, {"ok": True, "version": "0.1"})
    left = apart.unproven(apart.seen)
    assert "described, but seen by no test: system.info: success" in left
    assert not any("ping:" in line for line in left)
    assert apart.unproven(set(apart.everything()) - set(apart.UNPROVEN)) == []


def test_excuses_are_for_what_is_described(apart):
    assert set(apart.UNPROVEN) <= set(apart.everything())
    assert len(apart.unproven(set(apart.everything()))) == len(apart.UNPROVEN)
