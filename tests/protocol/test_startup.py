"""Command line, settings file and what keeps the agent from starting."""

import pytest

from sandbox import LISTENING, SOCKET

SETTINGS = "/etc/corvane/corvane.ini"
OTHER = "/run/other.sock"


def other_settings(sandbox, path="/etc/other.ini"):
    """A settings file that shows by the socket that it was read."""
    sandbox.write(path, f"[agent]\nsocket={OTHER}\n")
    sandbox.socket_path = OTHER
    return path


def refuses_to_start(sandbox, line, *args, env=None):
    assert sandbox.run_agent(*args, env=env) == (1, "")
    sandbox.logs(line)
    assert not sandbox.exists(SOCKET) and not sandbox.exists(OTHER)


@pytest.mark.parametrize("option", ["-h", "--help", "--help-all"])
def test_help_is_printed_and_nothing_started(sandbox, option):
    sandbox.path(SETTINGS).unlink()
    code, out = sandbox.run_agent(option)
    assert code == 0
    lines = [" ".join(line.split()) for line in out.splitlines()]
    assert "-c, --config <file> Configuration file." in lines
    assert not any("version" in line.lower() for line in lines)
    assert not sandbox.exists(SOCKET)


@pytest.mark.parametrize("option", ["--version", "-v", "--unknown", "--Config", "--files2"])
def test_unknown_option_is_refused(sandbox, option):
    assert sandbox.run_agent(option) == (1, "")
    (line,) = sandbox.log_lines
    assert line.endswith(f"Unknown option '{option.lstrip('-')}'.")
    sandbox.logs(line)


@pytest.mark.parametrize("args", [("--config", SETTINGS, "--files"), ("--help2", "--files")])
def test_file_helper_mode_is_an_unknown_option_but_for_the_first_argument(sandbox, args):
    assert sandbox.run_agent(*args) == (1, "")
    (line,) = sandbox.log_lines
    assert "Unknown option" in line
    sandbox.logs(line)


@pytest.mark.parametrize(
    "args",
    [("--files",), ("--files", "--help"), ("--files", "list", "/etc", ""), ("--files", "--config", "/etc/none.ini")],
)
def test_file_helper_needs_no_settings_and_parses_no_options(sandbox, args):
    sandbox.path(SETTINGS).unlink()
    code, out = sandbox.run_agent(*args, env={"CORV_CONFIG": "/etc/none.ini"})
    assert (code, out) == (0, '{"error":"that path is outside the account\'s home","ok":false}\n')
    assert not sandbox.exists(SOCKET)


def test_config_without_a_file_name_is_refused(sandbox):
    assert sandbox.run_agent("--config") == (1, "")
    (line,) = sandbox.log_lines
    assert line.endswith("Missing value after '--config'.")
    sandbox.logs(line)


@pytest.mark.parametrize("form", [["-c", "{}"], ["--config", "{}"], ["--config={}"]])
def test_config_option_names_the_settings_file(sandbox, form):
    path = other_settings(sandbox)
    sandbox.start(*[part.format(path) for part in form], env={"CORV_CONFIG": SETTINGS})
    assert sandbox.request("ping")["ok"]


def test_environment_names_the_settings_file(sandbox):
    sandbox.start(env={"CORV_CONFIG": other_settings(sandbox)})
    assert sandbox.request("ping")["ok"]


def test_default_settings_file_and_socket(sandbox):
    sandbox.start()
    assert sandbox.log_lines == ["agent: listening on /run/corvane/agent.sock"]
    assert sandbox.exists("/run/corvane/agent.sock")


def test_empty_environment_variable_is_like_none(sandbox):
    sandbox.start(env={"CORV_CONFIG": ""})
    assert sandbox.request("ping")["ok"]


def test_empty_config_option_leaves_it_to_the_environment(sandbox):
    sandbox.start("--config", "", env={"CORV_CONFIG": other_settings(sandbox)})
    assert sandbox.request("ping")["ok"]


def test_link_to_a_settings_file_is_followed(sandbox):
    sandbox.symlink("/etc/link.ini", other_settings(sandbox))
    sandbox.start("--config", "/etc/link.ini")
    assert sandbox.request("ping")["ok"]


def test_relative_settings_path(sandbox):
    other_settings(sandbox)
    sandbox.start("--config", "etc/other.ini")
    assert sandbox.request("ping")["ok"]


def test_missing_default_settings_file(sandbox):
    sandbox.path(SETTINGS).unlink()
    refuses_to_start(sandbox, f"config file not found: {SETTINGS}")


@pytest.mark.parametrize("path", ["/etc/none.ini", "/etc", "/dev/null", "/etc/dangling", "/etc/to-folder"])
@pytest.mark.parametrize("source", ["option", "environment"])
def test_earlier_source_without_a_file_is_not_passed_over(sandbox, source, path):
    sandbox.symlink("/etc/dangling", "/etc/none.ini")
    sandbox.symlink("/etc/to-folder", "/etc/corvane")
    line = f"config file not found: {path}"
    if source == "option":
        refuses_to_start(sandbox, line, "--config", path, env={"CORV_CONFIG": SETTINGS})
    else:
        refuses_to_start(sandbox, line, env={"CORV_CONFIG": path})


def test_settings_are_read_once(sandbox):
    sandbox.start()
    sandbox.settings(agent_allowed_user="nosuch", agent_socket=OTHER)
    assert sandbox.request("ping")["ok"]
    assert not sandbox.exists(OTHER)


@pytest.mark.parametrize(
    "value, name",
    [
        ("nosuch", "nosuch"),
        # Read as a list by the settings facility, it must still name nobody: an empty text would let our own uid in.
        ("root,corv-web", "root,corv-web"),
        ("corv-web,", "corv-web,"),
        (",", ","),
        ('"corv-web,root"', "corv-web,root"),
        ("Corv-web", "Corv-web"),
        # The facility has a list of another kind for these.
        ("@admin,corv-web", "@admin,corv-web"),
        ("corv-web,@admin", "corv-web,@admin"),
        ("0", "0"),
    ],
)
def test_unknown_allowed_user_stops_the_start(sandbox, value, name):
    sandbox.settings(agent_allowed_user=value)
    refuses_to_start(sandbox, f"agent: no such user: {name}")


def test_allowed_user_is_not_cut_at_a_nul(sandbox):
    sandbox.settings(agent_allowed_user=r"corv-web\0x")
    code, _ = sandbox.run_agent()
    assert code == 1
    sandbox.logs("agent: no such user: corv-web")


def test_unknown_allowed_user_stops_the_backup(sandbox):
    sandbox.settings(agent_allowed_user="nosuch")
    refuses_to_start(sandbox, "agent: no such user: nosuch", "--backup")
    assert sandbox.calls() == []
    assert not sandbox.exists("/var/backups/corvane")


def test_help_explains_the_backup(sandbox):
    code, out = sandbox.run_agent("--help")
    assert code == 0
    # The parser breaks long texts into lines.
    assert "--backup Make one backup (accounts, panel database, settings) and exit." in " ".join(out.split())


def test_empty_allowed_user_is_like_none(sandbox):
    sandbox.settings(agent_allowed_user="")
    assert sandbox.request("ping")["ok"]


def test_list_like_socket_path_is_one_path(sandbox):
    sandbox.settings(agent_socket="/run/a,b.sock")
    sandbox.socket_path = "/run/a,b.sock"
    assert sandbox.request("ping")["ok"]


def test_empty_socket_path_does_not_take_the_default(sandbox):
    sandbox.settings(agent_socket="")
    assert sandbox.run_agent() == (1, "")
    (line,) = sandbox.log_lines
    assert line.startswith("agent: cannot listen on : ")
    sandbox.logs(line)
    assert not sandbox.exists(SOCKET)


def test_socket_folder_that_is_missing(sandbox):
    sandbox.settings(agent_socket="/run/none/agent.sock")
    assert sandbox.run_agent() == (1, "")
    (line,) = sandbox.log_lines
    assert line.startswith("agent: cannot listen on /run/none/agent.sock: ")
    sandbox.logs(line)


def test_socket_path_that_is_too_long(sandbox):
    path = "/run/" + "a" * 120
    sandbox.settings(agent_socket=path)
    assert sandbox.run_agent() == (1, "")
    (line,) = sandbox.log_lines
    assert line.startswith(f"agent: cannot listen on {path}: ")
    sandbox.logs(line)


@pytest.mark.parametrize("group", ["nosuch", "root,corv-web", "@x,corv-web"])
def test_unknown_socket_group_stops_the_start(sandbox, group):
    sandbox.settings(agent_socket_group=group)
    assert sandbox.run_agent() == (1, "")
    sandbox.logs(f"agent: cannot give {SOCKET} to group {group}")


def test_socket_group_is_not_cut_at_a_nul(sandbox):
    sandbox.settings(agent_socket_group=r"corv-web\0x")
    assert sandbox.run_agent() == (1, "")
    sandbox.logs(f"agent: cannot give {SOCKET} to group corv-web")


def test_group_change_that_is_not_permitted_stops_the_start(sandbox):
    sandbox.mkdir("/run/other", owner="nobody:nogroup")
    sandbox.settings(agent_socket="/run/other/s", agent_socket_group="corv-web")
    assert sandbox.run_agent(uid=65534, gid=65534) == (1, "")
    sandbox.logs("agent: cannot give /run/other/s to group corv-web")


def test_settings_of_other_sections_and_unknown_keys_are_ignored(sandbox):
    sandbox.settings("allowed_user=nosuch\n[other]\nsocket=/run/x\n[agent]\nunknown=1\n")
    assert sandbox.request("ping")["ok"]
    assert LISTENING % SOCKET in sandbox.log_lines
