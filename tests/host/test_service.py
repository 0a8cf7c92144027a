"""The agent as a service of the host: when it is ready, whom it lets in, how it stops."""

import pathlib
import shlex
import subprocess

import pytest

SETTINGS = "/etc/corvane/corvane.ini"
SHARE = "/mnt/silent"
SERVER = pathlib.Path(__file__).with_name("silent_share.py")
SOCKET = "/run/corvane/agent.sock"
PING = f"""printf '{{"cmd":"ping"}}\\n' | socat -t 10 - UNIX-CONNECT:{SOCKET}"""
PONG = '{"ok":true,"version":"0.1"}\n'


def ping_as(host, user, group=None):
    argv = ["runuser", "-u", user, *(["-g", group] if group else []), "--", "sh", "-c", PING]
    return host.run(argv)


def properties(host, *names):
    lines = host.ok(["systemctl", "show", *(f"-p{name}" for name in names), "corv-agent"]).splitlines()
    return dict(line.split("=", 1) for line in lines)


def test_systemd_is_told_that_the_agent_is_ready(host):
    assert properties(host, "Type", "ActiveState", "SubState", "NRestarts", "UnitFileState") == {
        "Type": "notify", "ActiveState": "active", "SubState": "running", "NRestarts": "0", "UnitFileState": "enabled"}


def test_a_restart_returns_when_the_socket_answers(host):
    mark = host.mark()
    for _ in range(3):
        host.ok(["systemctl", "reset-failed", "corv-agent"])
        assert host.ok(["sh", "-c", f"systemctl restart corv-agent && {PING}"]) == PONG
    assert host.agent_log(mark).count(f"agent: listening on {SOCKET}\n") == 3


def test_the_socket_lets_in_root_and_the_panels_group_alone(host):
    assert host.mode(SOCKET) == "660 root corv-web"
    assert host.mode("/run/corvane") == "755 root root"
    assert host.run(["touch", "/run/corvane/mine"], user="corv-web").code == 1


def test_the_panels_user_is_served(host):
    mark = host.mark()
    assert ping_as(host, "corv-web").out == PONG
    uid = host.ok(["id", "-u", "corv-web"]).strip()
    assert host.agent_log(mark) == f"agent: uid {uid} ran ping -> ok\n"


def test_an_account_cannot_open_the_socket(host, account):
    refused = ping_as(host, account.name)
    assert (refused.code, refused.out) == (1, "")
    assert "Permission denied" in refused.err


def test_a_user_in_the_panels_group_who_is_not_the_panel_is_refused_without_a_word(host):
    mark = host.mark()
    uid = host.ok(["id", "-u", "nobody"]).strip()
    assert ping_as(host, "nobody", "corv-web").out == ""
    host.wait_for(lambda: host.agent_log(mark), "the refusal being logged")
    assert host.agent_log(mark) == f"agent: refused connection from uid {uid}\n"


def test_the_agent_and_its_tools_speak_english_in_the_servers_time_zone(host):
    with host.stand_in("useradd", "env >/run/stand-ins/seen; exit 1"):
        reply = host.request("hosting.create", username=host.free_name(), domain="env.example")
        seen = host.get("/run/stand-ins/seen").splitlines()
    assert reply == {"ok": False, "error": "useradd failed: exit code 1"}
    assert "LC_ALL=C.UTF-8" in seen
    assert not [line for line in seen if line.startswith(("TZ=", "NOTIFY_SOCKET=", "CORV_CONFIG=", "PG"))]


def test_a_stop_finishes_the_creation_in_hand(host):
    name = host.free_name()
    with host.stand_in("useradd", 'hold; exec /usr/sbin/useradd "$@"'), host.connection() as client:
        host.send(client, "hosting.create", username=name, domain=f"{name}.example")
        host.wait_for_hold()
        host.ok(["systemctl", "stop", "--no-block", "corv-agent"])
        host.wait_for(lambda: properties(host, "ActiveState")["ActiveState"] == "deactivating", "the stop beginning")
        host.release()
        reply = host.receive(client)
        host.wait_for(lambda: properties(host, "ActiveState")["ActiveState"] == "inactive", "the stop")
        assert properties(host, "Result", "ExecMainStatus") == {"Result": "success", "ExecMainStatus": "0"}
        assert not host.exists(SOCKET)
    assert reply["ok"] is True
    host.wait_until_served(name, f"{name}.example")
    assert host.fetch(f"{name}.example").status == 200
    assert host.sql("SELECT 1", database=name, role=name, password=reply["dbPassword"]).out == "1\n"


def test_a_stop_finishes_the_undoing_of_a_creation_that_failed(host):
    name = host.free_name()
    with host.stand_in("a2ensite", 'hold; echo "no such site" >&2; exit 3'), host.connection() as client:
        host.send(client, "hosting.create", username=name, domain=f"{name}.example")
        host.wait_for_hold()
        host.ok(["systemctl", "stop", "--no-block", "corv-agent"])
        host.wait_for(lambda: properties(host, "ActiveState")["ActiveState"] == "deactivating", "the stop beginning")
        host.release()
        reply = host.receive(client)
        host.wait_for(lambda: properties(host, "ActiveState")["ActiveState"] == "inactive", "the stop")
    assert reply == {"ok": False, "error": "a2ensite failed: no such site"}
    assert host.run(["getent", "passwd", name]).code == 2
    assert host.sql(f"SELECT count(*) FROM pg_roles WHERE rolname = '{name}'").out == "0\n"
    for path in (f"/home/{name}", f"/etc/apache2/sites-available/corv-{name}.conf"):
        assert not host.exists(path)
    assert host.run(["sh", "-c", f"ls /etc/php/*/fpm/pool.d/corv-{shlex.quote(name)}.conf"]).code == 2


@pytest.fixture
def silent_share(host):
    """Backups on a share that answers nothing, until the test's end."""
    usual = host.get(SETTINGS)
    host.put("/root/silent_share.py", SERVER.read_text())
    with host.background(["python3", "/root/silent_share.py", SHARE], stdout=subprocess.PIPE, text=True) as server:
        assert server.stdout.readline() == "greeted\n"
        host.put(SETTINGS, usual + f"[backup]\ndestination={SHARE}\n" if "[backup]\n" not in usual else
                 usual.replace("[backup]\n", f"[backup]\ndestination={SHARE}\n", 1))
        host.ok(["systemctl", "restart", "corv-agent"])
        yield
        host.put(SETTINGS, usual)
        host.ok(["systemctl", "restart", "corv-agent"])
        host.ok(["umount", "-f", "-l", SHARE])
        server.kill()


def test_who_is_stuck_on_a_share_holds_up_no_restart(host, silent_share):
    """A stop waits for two hours for whatever is in the service, so that a request is finished; this one never is."""
    group = "/sys/fs/cgroup/system.slice/corv-agent.service/cgroup.procs"
    assert host.ok(["corvctl", "--plain", "backup", "list"]) == ""
    assert len(host.get(group).split()) == 1
    stuck = [pid for pid in host.get("/sys/fs/cgroup/init.scope/cgroup.procs").split() if pid != "1"]
    assert [host.get(f"/proc/{pid}/comm") for pid in stuck] == ["corv-agent\n"]
    host.ok(["systemctl", "restart", "corv-agent"])
    assert host.ok(["sh", "-c", PING]) == PONG
    assert host.exists(f"/proc/{stuck[0]}")


@pytest.mark.parametrize("signal", ["SIGTERM", "SIGINT"])
def test_a_signal_to_stop_ends_an_idle_agent_with_success(host, signal):
    host.ok(["systemctl", "reset-failed", "corv-agent"])
    host.ok(["systemctl", "kill", f"--signal={signal}", "corv-agent"])
    host.wait_for(lambda: properties(host, "ActiveState")["ActiveState"] == "inactive", "the agent ending")
    assert properties(host, "Result", "ExecMainStatus") == {"Result": "success", "ExecMainStatus": "0"}
    host.ok(["systemctl", "start", "corv-agent"])
    assert host.request("ping") == {"ok": True, "version": "0.1"}


def test_a_killed_agent_is_started_again_and_replaces_its_socket(host):
    host.ok(["systemctl", "reset-failed", "corv-agent"])
    before = properties(host, "MainPID")["MainPID"]
    host.ok(["systemctl", "kill", "--signal=SIGKILL", "--kill-whom=main", "corv-agent"])
    host.wait_for(lambda: properties(host, "MainPID")["MainPID"] not in ("0", before), "the agent being started again")
    host.wait_for_unit("corv-agent")
    assert host.request("ping") == {"ok": True, "version": "0.1"}
