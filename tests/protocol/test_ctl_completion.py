"""corvctl's completion for bash, zsh and fish, and its manual pages: all of them know what the command line knows."""

import os
import pty
import re
import shutil
import subprocess

import pytest

from corvctl import corvctl
from described import COMMANDS, ROOT
from ground import agent_executable

PAGES = ("corvctl.1", "corv-agent.8", "corvane.ini.5")

# A shell with its completion; gives what it offers for the words of a command line, one each line.
BASH = r"""
source "$1"
shift
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
compopt() { :; } # readline is not there
_corvctl
printf '%s\n' "${COMPREPLY[@]}"
"""
ZSH = r"""
script=$1
shift
words=("$@")
CURRENT=$#
compadd() { [[ $1 != -a ]] || print -rl -- ${(P)2} }
_describe() { print -rl -- ${${(P)2}%%:*} }
_files() { print -rl -- ${words[CURRENT]}*(N) }
source $script corvctl >/dev/null
_corvctl | grep -- "^${words[CURRENT]}" || true
"""
FISH = r"""
source $argv[1]
complete -C (string join ' ' -- $argv[2..]) | string replace -r '\t.*' ''
true
"""
SHELLS = {"bash": ["bash", "-c", BASH, "bash"], "zsh": ["zsh", "-f", "-c", ZSH, "zsh"], "fish": ["fish", "-N", "-c", FISH]}


@pytest.fixture(scope="module", params=SHELLS)
def offered(request, tmp_path_factory):
    """What a shell offers for the words of a command line, the last of which is not finished."""
    shell = request.param
    if not shutil.which(shell):
        pytest.skip(f"{shell} is not installed")
    script = tmp_path_factory.mktemp(shell) / "corvctl"
    program = agent_executable().with_name("corvctl")
    script.write_bytes(subprocess.run([program, "completion", shell], check=True, capture_output=True).stdout)
    # The user database that the accounts come from.
    tools = tmp_path_factory.mktemp("bin")
    (tools / "getent").write_text("#!/bin/sh\nprintf '%s\\n' 'root:x:0:0:root:/root:/bin/sh' "
                                  "'alice:x:1001:1001:Corvane account,example.org:/home/alice:/bin/bash' "
                                  "'carol:x:1002:1002:Corvane account,a.b:/home/carol:/bin/bash'\n")
    (tools / "getent").chmod(0o755)
    # And the client that tells of the backups.
    (tools / "corvctl").write_text("#!/bin/sh\n[ \"$*\" = '--plain backup list' ] || exit 1\n"
                                   "printf '%s\\t1\\t2\\n' 2026-01-05_031500 2026-01-04_031500\n")
    (tools / "corvctl").chmod(0o755)
    # And the folders of the PHP versions.
    (tools / "find").write_text("#!/bin/sh\n[ \"$*\" = '/etc/php -maxdepth 3 -path */fpm/pool.d' ] || exit 1\n"
                                "printf '/etc/php/%s/fpm/pool.d\\n' 8.2 8.4\n")
    (tools / "find").chmod(0o755)

    def offer(*words):
        environment = {"PATH": f"{tools}:/usr/bin:/bin", "HOME": str(tools), "LC_ALL": "C.UTF-8"}
        run = subprocess.run([*SHELLS[shell], script, "corvctl", *words], env=environment, capture_output=True, text=True)
        assert run.returncode == 0 and run.stderr == "", run
        return {line for line in run.stdout.splitlines() if line}

    offer.shell = shell
    return offer


def helped(*path):
    """The commands that the help of a topic lists."""
    program = agent_executable().with_name("corvctl")
    text = subprocess.run([program, *path, "--help"], check=True, capture_output=True, text=True).stdout
    return set(re.findall(r"^  ([a-z-]+) ", text.partition("Subcommands:")[2], re.MULTILINE))


def test_offers_all_topics_and_their_commands(offered):
    topics = helped()
    assert {"account", "file", "call", "host"} <= topics
    assert offered("") == topics
    for topic in topics:
        if commands := helped(topic):
            assert offered(topic, "") == commands


def test_offers_the_accounts_of_the_user_database(offered):
    for line in (["account", "suspend", ""], ["file", "ls", ""], ["backup", "restore", ""], ["account", "--json", "keys", ""],
                 ["--socket", "/x", "account", "delete", ""]):
        assert offered(*line) == {"alice", "carol"}
    assert offered("account", "limit", "al") == {"alice"}
    assert offered("account", "create", "") == set()


def test_offers_the_backups(offered):
    backups = {"2026-01-05_031500", "2026-01-04_031500"}
    for line in (["backup", "show", ""], ["backup", "verify", ""], ["backup", "verify", "--deep", ""]):
        assert offered(*line) == backups
    assert offered("backup", "verify", "2026-01-05") == {"2026-01-05_031500"}
    assert offered("backup", "verify", "2026-01-05_031500", "") == set()


def test_offers_the_versions_of_php(offered):
    assert offered("php", "move", "") == offered("php", "move", "8.2", "") == {"8.2", "8.4"}
    assert offered("php", "move", "8.2", "8.4", "") == set()


def test_offers_the_commands_of_the_protocol(offered):
    assert offered("call", "") == set(COMMANDS)
    assert offered("call", "quota.") == {"quota.status", "quota.enable", "quota.set"}


def test_offers_what_a_word_may_be(offered):
    assert offered("update", "install", "") == {"security", "all"}
    assert offered("account", "read-only", "alice", "") == {"on", "off"}
    assert offered("backup", "restore", "alice", "x", "") == {"files", "database"}
    assert offered("firewall", "allow", "53", "--proto", "") == {"tcp", "udp", "both"}
    assert offered("completion", "") == {"bash", "zsh", "fish"}


def test_offers_the_options(offered):
    common = {"--json", "--plain", "--print-only", "--confirm", "--timeout", "--socket", "--config", "--host"}
    assert common <= offered("--")
    assert common | {"--set", "--text"} <= offered("account", "keys", "alice", "--")
    assert "--wait" in offered("backup", "start", "--w")
    assert "--wait" not in offered("backup", "list", "--w")


def test_offers_files(offered, tmp_path):
    (tmp_path / "picture.png").touch()
    for line in (["file", "put", "alice"], ["account", "keys", "alice", "--set"], ["--config"]):
        assert offered(*line, f"{tmp_path}/pic") == {f"{tmp_path}/picture.png"}


# A user's words on a line of root's


@pytest.fixture
def typed(tmp_path):
    """A function that types a line into an interactive bash, in a folder that has the files, and gives the words with which corvctl was
    started in the end."""
    script = tmp_path / "completion"
    program = agent_executable().with_name("corvctl")
    script.write_bytes(subprocess.run([program, "completion", "bash"], check=True, capture_output=True).stdout)
    tools = tmp_path / "bin"
    tools.mkdir()
    (tools / "corvctl").write_text(f"#!/bin/sh\nprintf '%s\\n' \"$@\" >{tmp_path}/words\n")
    (tools / "corvctl").chmod(0o755)

    def type_line(line, *files, accounts=()):
        folder = tmp_path / "folder"
        folder.mkdir()
        for file in files:
            (folder / file).mkdir() if file.endswith("/") else (folder / file).touch()
        lines = "".join(f"{name}:x:1001:1001:Corvane account,example.org:/home/x:/bin/bash\n" for name in accounts)
        (tmp_path / "passwd").write_text(lines)
        (tools / "getent").write_text(f"#!/bin/sh\ncat {tmp_path}/passwd\n")
        (tools / "getent").chmod(0o755)
        controller, terminal = pty.openpty()
        environment = {"PATH": f"{tools}:/usr/bin:/bin", "HOME": str(tmp_path), "LC_ALL": "C.UTF-8", "TERM": "dumb"}
        with subprocess.Popen(["bash", "--norc", "--noprofile", "-i"], stdin=terminal, stdout=terminal, stderr=terminal, cwd=folder,
                              env=environment, start_new_session=True) as shell:
            os.close(terminal)
            os.write(controller, f"source {script}\n{line}\nexit\n".encode())
            try:
                while os.read(controller, 65536):
                    pass
            except OSError:  # nobody has it open any more
                pass
        os.close(controller)
        assert shell.returncode == 0
        words = tmp_path / "words"
        return words.read_text().splitlines() if words.exists() else None, sorted(os.listdir(folder))

    return type_line


HOSTILE = "a$(touch made)b; touch made"


@pytest.mark.parametrize("begun", ["./a\t", "a\t", "'a\t", '"a\t', "a\\$\t"])
def test_bash_quotes_the_name_of_a_file(typed, begun):
    assert typed(f"corvctl file put shop {begun}", HOSTILE) == (
        ["file", "put", "shop", f"./{HOSTILE}" if begun.startswith("./") else HOSTILE], [HOSTILE])


def test_bash_goes_on_into_a_folder(typed):
    assert typed("corvctl --config fol\t", "folder of mine/") == (["--config", "folder of mine/"], ["folder of mine"])


@pytest.mark.parametrize("name", ["a$(touch made)", "a`touch made`", "a;made", "*"])
def test_bash_neither_runs_nor_offers_a_name_that_is_more_than_a_word(typed, name):
    assert typed("corvctl account suspend \t", accounts=[name]) == (["account", "suspend"], [])


def test_bash_offers_a_plain_name_beside_one_that_is_none(typed):
    assert typed("corvctl account suspend \t", accounts=["shop", "s$(touch made)"]) == (["account", "suspend", "shop"], [])


# The manual pages


@pytest.mark.parametrize("page", PAGES)
def test_manual_page_has_no_flaws(page):
    if not shutil.which("mandoc"):
        pytest.skip("mandoc is not installed")
    said = subprocess.run(["mandoc", "-T", "lint", ROOT / "man" / page], capture_output=True, text=True).stdout
    # Whether the pages that it names are installed here is another matter.
    assert [line for line in said.splitlines() if "referenced manual not found" not in line] == []


def test_manual_page_names_every_command_and_option(sandbox):
    page = (ROOT / "man/corvctl.1").read_text().replace("\\-", "-")
    listed = re.findall(r"^\.It (?:Xo )?Ic ([a-z -]+?)(?: (?:Ar|Cm|Fl|Op|Oo).*)?$", page, re.MULTILINE)
    for topic in helped():
        for command in helped(topic) or {""}:
            path = f"{topic} {command}".strip()
            assert path in listed, path
            help_text = corvctl(sandbox, *path.split(), "--help", start=False)[1]
            for option in re.findall(r"^  .*--([a-z-]+)", help_text, re.MULTILINE):
                assert f"Fl -{option}" in page, (path, option)
    for option in re.findall(r"--([a-z-]+)", corvctl(sandbox, "--help", start=False)[1]):
        assert f"Fl -{option}" in page, option


def test_manual_page_of_the_settings_names_every_key():
    page = (ROOT / "man/corvane.ini.5").read_text()
    keys = re.findall(r"^;?(\w+)=", (ROOT / "data/corvane.ini").read_text(), re.MULTILINE)
    assert len(keys) == 12
    assert set(re.findall(r"^\.It Ic (\w+)$", page, re.MULTILINE)) == set(keys)
