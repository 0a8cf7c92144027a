"""Host facts, service status and restarts where systemd is real."""

from contextlib import contextmanager

import pytest

SETTINGS = "/etc/corvane/corvane.ini"


@contextmanager
def watching(host, *services):
    """The agent with these services on its list."""
    before = host.get(SETTINGS)
    host.put(SETTINGS, f"{before}\n[health]\nservices={','.join(services)}\n")
    try:
        host.ok(["systemctl", "restart", "corv-agent"])
        yield
    finally:
        host.put(SETTINGS, before)
        host.ok(["systemctl", "reset-failed", "corv-agent"])
        host.ok(["systemctl", "restart", "corv-agent"])


def shown(host, unit, name):
    return host.ok(["systemctl", "show", "--value", "-p", name, unit]).strip()


def main_pid(host, unit):
    return shown(host, unit, "MainPID")


def test_tells_what_the_host_is(host):
    reply = host.request("system.info")
    uptime = float(host.get("/proc/uptime").split()[0])
    assert uptime - 60 < reply.pop("uptimeSeconds") <= uptime
    assert reply == {
        "ok": True,
        "hostname": host.ok(["hostname"]).strip(),
        "os": host.ok(["sh", "-c", '. /etc/os-release && echo "$PRETTY_NAME"']).strip(),
        "kernel": host.ok(["uname", "-r"]).strip(),
        "cpus": int(host.ok(["nproc", "--all"])),
    }


def test_shows_real_services(host):
    units = ["postgresql", "apache2", "no-such-service", "systemd-journald", "apache2"]
    with watching(host, *units):
        reply = host.request("services.status")
    expected = []
    for unit in units:
        entry = {"name": unit, "loaded": unit != "no-such-service", "active": host.active(unit),
                 "sub": shown(host, unit, "SubState")}
        memory = shown(host, unit, "MemoryCurrent")
        entry["memory"] = int(memory) if memory.isdecimal() else 0
        if unit != "no-such-service":
            entry["since"] = int(host.ok(["date", "-d", shown(host, unit, "ActiveEnterTimestamp"), "+%s"]))
        expected.append(entry)
    # What a service uses changes from one moment to the next; that it is told or not does not.
    for entry in (*reply["services"], *expected):
        entry["memory"] = entry["memory"] > 0
    assert reply == {"ok": True, "services": expected}


def test_systemctl_puts_memory_that_is_not_set_first(host):
    argv = ["systemctl", "show", "--no-pager", "-p",
            "Id,LoadState,ActiveState,SubState,ActiveEnterTimestamp,MemoryCurrent", "no-such-service", "apache2"]
    blocks = host.ok(argv).split("\n\n")
    assert blocks[0].splitlines()[0] == "MemoryCurrent=[not set]"
    assert [block.splitlines()[1] for block in blocks] == ["Id=no-such-service.service", "Id=apache2.service"]


def test_restarts_a_service_before_it_answers(host):
    with watching(host, "cron", "no-such-service"):
        before = main_pid(host, "cron")
        assert host.request("services.restart", name="cron") == {"ok": True, "queued": False}
        assert main_pid(host, "cron") not in (before, "0")
        assert host.request("services.restart", name="no-such-service") == {
            "ok": False,
            "error": "Failed to restart no-such-service.service: Unit no-such-service.service not found.",
        }
        assert host.request("services.restart", name="apache2") == {
            "ok": False, "error": "that service is not on the [health] services list"}


def test_the_agent_answers_before_it_restarts_itself(host):
    with watching(host, "corv-agent"):
        before = main_pid(host, "corv-agent")
        with host.connection() as client:
            host.send(client, "services.restart", name="corv-agent")
            assert host.receive(client) == {"ok": True, "queued": True}
            host.send(client, "ping")
            assert host.receive(client) == {"ok": True, "version": "0.1"}
            assert main_pid(host, "corv-agent") == before
            assert client.recv(1) == b"", "the old agent is gone"
        host.wait_for(lambda: main_pid(host, "corv-agent") not in (before, "0"), "the new agent")
        host.wait_for_unit("corv-agent")
        assert host.request("ping")["ok"] is True


def test_apache_restarts_with_a_valid_configuration_alone(host):
    before = main_pid(host, "apache2")
    host.put("/etc/apache2/conf-enabled/broken.conf", "NoSuchDirective\n")
    try:
        reply = host.request("services.restart", name="apache2")
    finally:
        host.ok(["rm", "/etc/apache2/conf-enabled/broken.conf"])
    assert reply["ok"] is False
    start = "Apache's configuration has an error, so it was not restarted: "
    assert reply["error"].startswith(start) and "Invalid command 'NoSuchDirective'" in reply["error"]
    assert len(reply["error"]) <= len(start) + 300
    assert main_pid(host, "apache2") == before

    assert host.request("services.restart", name="apache2") == {"ok": True, "queued": True}
    host.wait_for(lambda: main_pid(host, "apache2") not in (before, "0"), "Apache's restart")
    host.wait_for_unit("apache2")


@pytest.mark.parametrize("zone", ["Asia/Tokyo"])
def test_times_are_right_whatever_the_hosts_zone(host, zone):
    link = host.ok(["readlink", "/etc/localtime"]).strip()
    host.ok(["ln", "-sfn", f"/usr/share/zoneinfo/{zone}", "/etc/localtime"])
    try:
        with watching(host, "apache2"):
            (service,) = host.request("services.status")["services"]
        since = int(host.ok(["date", "-d", shown(host, "apache2", "ActiveEnterTimestamp"), "+%s"]))
        assert service["since"] == since
    finally:
        host.ok(["ln", "-sfn", link, "/etc/localtime"])
