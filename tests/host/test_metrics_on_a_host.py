"""Figures for Prometheus on a booted host: Debian's node exporter serves them, and the counts go on whatever becomes of the journal."""

import re

import pytest

FOLDER = "/var/lib/prometheus/node-exporter"
FILE = f"{FOLDER}/corvane.prom"
STATE = "/var/lib/corvane/metrics/state.json"


@pytest.fixture(scope="module")
def own_host(boot):
    """A host on which the package is installed and, at first, no node exporter."""
    host = boot()
    yield host
    host.stop()


def requests(text, command):
    return int(re.search(rf'^corvane_agent_requests_total{{command="{command}",result="ok"}} (\d+)$', text, re.MULTILINE)[1])


def findings(text):
    return [line for line in text.splitlines() if line.startswith("corvane_doctor_findings{")]


def written(host):
    """The file after another run of the unit."""
    host.ok(["systemctl", "start", "corv-metrics.service"])
    return host.get(FILE)


def success(text):
    return dict(re.findall(r'^corvane_collector_success{collector="(\w+)"} (\d)$', text, re.MULTILINE))


@pytest.mark.core
@pytest.mark.turn
def test_begins_by_itself_once_there_is_a_node_exporter(own_host):
    host = own_host
    assert host.ok(["systemctl", "is-active", "corv-metrics.path"]) == "active\n"
    assert host.run(["systemctl", "is-active", "corv-metrics.timer"]).out == "inactive\n"
    assert host.run(["journalctl", "-q", "-u", "corv-metrics.service", "-u", "corv-metrics.timer"]).out == ""

    host.ok(["apt-get", "-q", "install", "--yes", "prometheus-node-exporter"], env={"DEBIAN_FRONTEND": "noninteractive"})
    host.wait_for(lambda: host.exists(FILE), "the file of figures", 120)
    host.wait_for(lambda: "corvane_agent_up 1" in host.run(["curl", "-s", "http://127.0.0.1:9100/metrics"]).out,
                  "the node exporter's telling of them")
    served = host.ok(["curl", "-s", "http://127.0.0.1:9100/metrics"])
    assert re.search(r"^node_textfile_scrape_error 0$", served, re.MULTILINE)
    assert re.search(rf'^node_textfile_mtime_seconds{{file="{FILE}"}} ', served, re.MULTILINE)
    assert host.ok(["stat", "-c", "%A %U", FILE]) == "-rw-r--r-- root\n"
    assert host.ok(["ls", "-A", FOLDER]) == "corvane.prom\n"
    assert set(success(host.get(FILE)).values()) == {"1"}


@pytest.mark.core
@pytest.mark.turn
def test_the_unit_sees_what_root_sees_at_the_shell(own_host):
    host = own_host
    host.account()
    host.ok(["rm", "-f", STATE])  # so that the unit looks at everything anew
    of_unit = written(host)
    of_shell = host.ok(["corvctl", "metrics", "--fresh"])
    assert findings(of_unit) == findings(of_shell) != []
    assert success(of_unit) == success(of_shell)
    assert "corvane_accounts" in of_unit


def test_counts_go_on_over_restarts_and_what_the_journal_clears_away(own_host):
    host = own_host
    before = requests(written(host), "system.info")
    for _ in range(3):
        host.request("system.info")
    host.ok(["journalctl", "--sync"])
    assert requests(written(host), "system.info") == before + 3

    host.request("system.info")
    host.ok(["systemctl", "restart", "corv-agent"])
    host.request("system.info")
    host.ok(["journalctl", "--sync"])
    assert requests(written(host), "system.info") == before + 5

    # All that was counted goes, the entry of the cursor too; what comes after is counted once.
    host.ok(["journalctl", "--rotate"])
    host.ok(["journalctl", "--vacuum-files=1"])
    cursor = host.ok(["sed", "-n", 's/.*"cursor":"\\([^"]*\\)".*/\\1/p', STATE]).strip()
    assert cursor not in host.run(["journalctl", "-q", "-o", "export", "-u", "corv-agent"]).out
    host.request("system.info")
    host.ok(["systemctl", "restart", "systemd-journald"])
    host.request("system.info")
    host.ok(["journalctl", "--sync"])
    assert requests(written(host), "system.info") == before + 7
    assert requests(written(host), "system.info") == before + 7


@pytest.mark.long
def test_a_database_server_that_hangs_holds_up_nothing(own_host):
    host = own_host
    host.ok(["systemctl", "kill", "-s", "STOP", "postgresql@15-main"])
    try:
        done = host.run(["corvctl", "metrics", "--fresh"])
        assert done.code == 0
        assert "corvane_agent_up 1" in done.out
        assert re.search(r'^corvane_doctor_findings{check="PostgreSQL",level="fault"} 1$', done.out, re.MULTILINE)
    finally:
        host.ok(["systemctl", "kill", "-s", "CONT", "postgresql@15-main"])
    assert host.run(["pgrep", "-x", "psql"]).out == ""


def test_what_the_node_exporter_left_behind_harms_nothing(own_host):
    host = own_host
    host.ok(["mv", FOLDER, f"{FOLDER}.away"])
    try:
        done = host.run(["systemctl", "start", "corv-metrics.service"])
        assert done.code == 0
        assert host.run(["systemctl", "is-failed", "corv-metrics.service"]).out == "inactive\n"
    finally:
        host.ok(["mv", f"{FOLDER}.away", FOLDER])
