"""corvctl metrics: what it prints of a server that is known, what it counts from the journal, and what it does not believe."""

import json
import re
import subprocess
import time
from pathlib import Path

import pytest
from corvctl import corvctl, install
from ground import agent_executable
from test_ctl_doctor import BACKUPS, SETTINGS, back_up, well  # noqa: F401 (a fixture)

ROOT = Path(__file__).resolve().parents[2]
PRINTED = Path(__file__).with_name("metrics.txt")
STATE = "/var/lib/corvane/metrics/state.json"
ASKED = ("ping", "security.status", "updates.status")
PROMTOOL = "/usr/bin/promtool"
CURSOR = "s={:032x};i={:x};b={:032x};m={:x};t={:x};x={:x}"


def metrics(box, *args, asks=ASKED, problems=()):
    """Runs it: its output. asks: what it asks of the agent; problems: the lines on standard error."""
    box.logs(*[f"agent: uid 0 ran {command} -> ok" for command in asks])
    code, out, err = corvctl(box, "metrics", *args)
    assert (code, err) == (0, "".join(f"corvctl: {line}\n" for line in problems))
    return out


def values(out):
    """Name with labels -> value, of a text of metrics."""
    return dict(line.rsplit(" ", 1) for line in out.splitlines() if not line.startswith("#"))


def requests(out):
    """The counts of requests that are not 0: (command, result) -> count."""
    found = re.findall(r'^corvane_agent_requests_total\{command="(.+)",result="(.+)"\} (\d+)$', out, re.MULTILINE)
    return {(command, result): int(count) for command, result, count in found if count != "0"}


def cursor(number, seconds=None):
    return CURSOR.format(1, number, 2, number, int((seconds or time.time()) * 1_000_000), number)


def entry(number, message, **fields):
    """A line of journalctl's, of the agent unless fields say otherwise."""
    agent = {"_SYSTEMD_UNIT": "corv-agent.service", "_UID": "0", "_EXE": "/usr/libexec/corvane/corv-agent"}
    return json.dumps({"__CURSOR": cursor(number, 1_790_000_000 + number), "MESSAGE": message, **agent, **fields}) + "\n"


def ran(number, command, result="ok", **fields):
    return entry(number, f"agent: uid 33 ran {command} -> {result}", **fields)


def journal_calls(box):
    return [call for call in box.argvs("journalctl") if "--output=json" in call]


@pytest.fixture
def server(well):  # noqa: F811
    """A server that is well, with a second account that is suspended, a backup that is verified, a firewall and bans."""
    box = well
    assert box.request("hosting.create", username="bob", domain="bob.example")["ok"] is True
    assert box.request("hosting.suspend", username="bob", domain="bob.example")["ok"] is True
    began = time.time() - 3600
    name = time.strftime("%Y-%m-%d_%H%M%S", time.gmtime(began + 1))
    accounts = [{"username": "alice", "homeBytes": 70_000, "dbBytes": 900}, {"username": "bob", "homeBytes": 5, "dbBytes": 6},
                {"username": 'x"} 1\nevil 2', "homeBytes": 7, "dbBytes": 8}, {"username": "gone", "homeBytes": 9, "dbBytes": 9}]
    box.write(f"{BACKUPS}/{name}/manifest.json", json.dumps({
        "name": name, "created": int(began), "seconds": 42, "accounts": accounts, "errors": ["alice: files: broken"]}))
    verdict = {"backup": name, "checked": int(began) + 60, "files": [
        {"file": "alice/home.tar.gz", "bytes": 1, "checked": int(began), "fault": "is damaged", "proved": 0},
        {"file": "alice/db.dump", "bytes": 1, "checked": int(began), "fault": "", "proved": int(began), "tables": 1, "rows": 2}]}
    box.write(f"{BACKUPS}/{name}.verified.json", json.dumps(verdict), mode=0o600)
    box.answer("repquota", out=f"#{box.path('/home/alice').stat().st_uid}  --  2048  0  4096  9  0  0\n")
    box.forget_calls()
    return box


def settled(out):
    """The text without what differs from run to run."""
    out = re.sub(r"^(corvane\w*_timestamp_seconds(\{.*\})?) (?!0$)\S+$", r"\1 SOME", out, flags=re.MULTILINE)
    return re.sub(r"^(corvane_backup_destination_free_bytes|corvane_disk_\w+\{.*\}|corvane_collector_duration_seconds\{.*\}) \S+$", r"\1 SOME", out,
                  flags=re.MULTILINE)


def test_prints_the_whole_server(server):
    out = metrics(server)
    assert settled(out) == PRINTED.read_text()
    assert 'evil' not in out and 'gone' not in out


def test_promtool_takes_what_is_printed(server):
    done = subprocess.run([PROMTOOL, "check", "metrics"], input=metrics(server), capture_output=True, text=True, check=False)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def test_changes_nothing_but_what_it_keeps(server):
    metrics(server)  # the folder comes with the first run

    def everything():
        found = {top: server.tree(top) for top in ("/etc", "/home", "/var", "/run")}
        found["/var"].pop("/lib/corvane/metrics/state.json", None)
        return {top: {path: what for path, what in entries.items() if "corvane/metrics" not in path}
                for top, entries in found.items()}

    before = everything()
    metrics(server, "--fresh")
    assert everything() == before
    assert server.entry(STATE) == "0600 root:root"
    assert server.entry("/var/lib/corvane/metrics") == "0700 root:root"


def test_what_takes_its_time_is_collected_once_an_hour(server):
    metrics(server)
    server.forget_calls()
    out = metrics(server, asks=ASKED[:2])
    assert 'corvane_doctor_findings{check="sshd",level="fault"} 0' in out
    assert 'corvane_updates_pending{kind="security"} 0' in out
    assert server.argvs("apache2ctl") == []
    kept = json.loads(server.read(STATE))
    for name in ("doctor", "updates"):
        kept["collectors"][name]["success"] -= 3600
    server.write(STATE, json.dumps(kept), mode=0o600)
    metrics(server)
    assert server.argvs("apache2ctl") != []


def test_homes_are_not_measured(server):
    metrics(server, "--fresh")
    assert server.argvs("du") == []


def test_counts_on_from_where_it_was(server):
    server.answer("journalctl", "--quiet", "--no-pager", "--output=json", ...,
                  out=ran(1, "ping") + ran(2, "hosting.create", "failed") + entry(3, "agent: refused connection from uid 1002"))
    out = metrics(server)
    assert requests(out) == {("ping", "ok"): 1, ("hosting.create", "failed"): 1}
    assert values(out)["corvane_agent_refused_connections_total"] == "1"
    assert journal_calls(server)[0][5].startswith("--since=@")

    # The entry of the cursor comes first while the journal has it.
    server.answer("journalctl", "--quiet", "--no-pager", "--output=json", ...,
                  out=entry(3, "agent: refused connection from uid 1002") + ran(4, "ping"))
    out = metrics(server, asks=ASKED[:2])
    assert requests(out) == {("ping", "ok"): 2, ("hosting.create", "failed"): 1}
    assert values(out)["corvane_agent_refused_connections_total"] == "1"
    assert journal_calls(server)[1][5] == "--cursor=" + cursor(3, 1_790_000_003)
    assert journal_calls(server)[1][6:] == ["_SYSTEMD_UNIT=corv-agent.service", "_UID=0", "_EXE=/usr/libexec/corvane/corv-agent"]


def test_a_journal_that_was_cleared_away_loses_no_entry_that_is_left(server):
    server.answer("journalctl", "--quiet", "--no-pager", "--output=json", ..., out=ran(1, "ping"))
    metrics(server)
    # The one of the cursor is gone, and so is the next.
    server.answer("journalctl", "--quiet", "--no-pager", "--output=json", ..., out=ran(3, "ping") + ran(4, "ping"))
    assert requests(metrics(server, asks=ASKED[:2])) == {("ping", "ok"): 3}
    server.answer("journalctl", "--quiet", "--no-pager", "--output=json", ..., out="")
    assert requests(metrics(server, asks=ASKED[:2])) == {("ping", "ok"): 3}


def test_lines_of_others_count_nothing(server):
    forged = [
        ran(1, "ping", _UID="1002"), ran(2, "ping", _SYSTEMD_UNIT="session-3.scope"), ran(3, "ping", _EXE="/usr/bin/logger"),
        ran(4, "hosting.destroy"), ran(5, "ping", "perhaps"), entry(6, "agent: uid 0 ran ping -> ok\nagent: uid 0 ran ping -> ok"),
        entry(7, ["agent: uid 0 ran ping -> ok", "x"]), entry(8, 'agent: uid 33 sent unknown command \'x"} 1\'')]
    server.answer("journalctl", "--quiet", "--no-pager", "--output=json", ..., out="".join(forged) + "no entry at all\n")
    out = metrics(server)
    assert requests(out) == {}
    assert values(out)["corvane_agent_unknown_commands_total"] == "1"
    assert json.loads(server.read(STATE))["collectors"]["requests"]["keep"]["cursor"] == cursor(8, 1_790_000_008)


@pytest.mark.parametrize("damage", ["", "{", "[]", '{"form":1}', '{"form":2,"collectors":{}}', "\0" * 100])
def test_a_damaged_state_begins_anew_and_says_so(server, damage):
    server.answer("journalctl", "--quiet", "--no-pager", "--output=json", ..., out=ran(1, "ping"))
    metrics(server)
    server.write(STATE, damage, mode=0o600)
    out = metrics(server, problems=[f"state: {STATE} is damaged; all is counted anew"])
    assert requests(out) == {("ping", "ok"): 1}
    assert values(out)['corvane_collector_success{collector="state"}'] == "0"
    server.answer("journalctl", "--quiet", "--no-pager", "--output=json", ..., out="")
    assert values(metrics(server, asks=ASKED[:2]))['corvane_collector_success{collector="state"}'] == "1"


def test_damaged_counts_begin_anew_and_say_so(server):
    metrics(server)
    kept = json.loads(server.read(STATE))
    kept["collectors"]["requests"]["keep"]["counts"]["ok"] = {"ping": -5}
    server.write(STATE, json.dumps(kept), mode=0o600)
    out = metrics(server, asks=ASKED[:2],
                  problems=["requests: what was kept of the agent's requests is damaged; they are counted anew"])
    assert requests(out) == {}
    assert values(out)['corvane_collector_success{collector="requests"}'] == "0"


def test_a_clock_that_was_set_back_begins_anew(server):
    server.answer("journalctl", "--quiet", "--no-pager", "--output=json", ...,
                  out=json.dumps({**json.loads(ran(1, "ping")), "__CURSOR": cursor(1, time.time() + 86400)}) + "\n")
    metrics(server)
    server.answer("journalctl", "--quiet", "--no-pager", "--output=json", ..., out=ran(2, "ping"))
    out = metrics(server, asks=ASKED[:2],
                  problems=["requests: the clock was set back; the agent's requests are counted anew"])
    assert requests(out) == {("ping", "ok"): 1}
    assert journal_calls(server)[-1][5].startswith("--since=@")


def test_what_hangs_costs_its_own_figures_alone(server):
    server.answer("journalctl", "--quiet", "--no-pager", "--output=json", ..., hang=True)
    out = metrics(server, problems=["requests: the journal could not be read within 20 s"])
    found = values(out)
    assert found['corvane_collector_success{collector="requests"}'] == "0"
    assert found['corvane_collector_last_success_timestamp_seconds{collector="requests"}'] == "0"
    others = {name for name, value in found.items() if name.startswith("corvane_collector_success") and value == "1"}
    assert len(others) == 12


def test_who_still_waits_for_a_disk_is_not_joined_by_others(server):
    """The first process here lives as long as the server, as one that is stuck would."""
    metrics(server)
    kept = json.loads(server.read(STATE))
    began = server.run("cat", "/proc/1/stat")[1].rsplit(") ", 1)[1].split()[19]
    kept["collectors"]["backups"]["stuck"] = [{"pid": 1, "began": began}]
    server.write(STATE, json.dumps(kept), 0o600)
    told = "backups: the process 1 of a run before still waits for a disk or share that does not answer"
    for _ in range(2):
        out = values(metrics(server, asks=ASKED[:2], problems=[told]))
        assert out['corvane_collector_success{collector="backups"}'] == "0"
        assert "corvane_backup_destination_free_bytes" not in out


def test_who_has_the_number_of_one_that_was_stuck_keeps_nothing_from_being_told(server):
    metrics(server)
    kept = json.loads(server.read(STATE))
    kept["collectors"]["backups"]["stuck"] = [{"pid": 1, "began": "1"}]
    server.write(STATE, json.dumps(kept), 0o600)
    out = values(metrics(server, asks=ASKED[:2]))
    assert out['corvane_collector_success{collector="backups"}'] == "1"
    assert "corvane_backup_destination_free_bytes" in out
    assert "stuck" not in json.loads(server.read(STATE))["collectors"]["backups"]


def test_what_fails_is_said_and_not_left_out_silently(server):
    server.answer("journalctl", "--quiet", "--no-pager", "--output=json", ..., exit=1, err="Failed to open: no\n")
    server.answer("systemctl", "show", "--no-pager", ..., exit=1)
    out = metrics(server, problems=[
        "requests: journalctl failed: Failed to open: no",
        "services: systemctl tells nothing of apache2, postgresql, php8.2-fpm"])
    assert values(out)['corvane_collector_success{collector="services"}'] == "0"
    assert "corvane_service_active" not in out


def test_an_agent_that_is_off_is_down_and_the_rest_is_told(server):
    server.stop()
    code, out, err = corvctl(server, "metrics", start=False)
    assert code == 0
    assert values(out)["corvane_agent_up"] == "0"
    assert values(out)['corvane_collector_success{collector="security"}'] == "0"
    assert values(out)['corvane_accounts{state="active"}'] == "1"
    assert [line.split(":")[1] for line in err.splitlines()] == [" security", " updates"]


def test_writes_the_file_for_the_node_exporter(server):
    folder = "/var/lib/prometheus/node-exporter"
    server.mkdir(folder)
    server.write("/etc/victim", "mine\n")
    server.symlink(f"{folder}/corvane.prom", "/etc/victim")
    assert metrics(server, "--textfile", f"{folder}/corvane.prom") == ""
    assert server.entry(f"{folder}/corvane.prom") == "0644 root:root"
    assert settled(server.read(f"{folder}/corvane.prom")) == PRINTED.read_text()
    assert server.read("/etc/victim") == "mine\n"


def test_writes_through_no_link_on_the_way(server):
    server.mkdir("/var/lib/prometheus")
    server.symlink("/var/lib/prometheus/node-exporter", "/etc")
    server.logs(*[f"agent: uid 0 ran {command} -> ok" for command in ASKED])
    code, out, err = corvctl(server, "metrics", "--textfile", "/var/lib/prometheus/node-exporter/corvane.prom")
    assert (code, out) == (1, "")
    assert err == ("corvctl: there is a link or a file on the way to /var/lib/prometheus/node-exporter; "
                   "its true path has to be named\n")
    assert not server.exists("/etc/corvane.prom")


def test_an_account_of_a_name_that_no_account_has_is_no_label(server):
    passwd = server.read("/etc/passwd")
    server.write("/etc/passwd", passwd + 'a"}:x:4711:4711:Corvane account,evil.example:/home/evil:/bin/bash\n')
    server.logs(*[f"agent: uid 0 ran {command} -> ok" for command in ASKED])
    code, out, _ = corvctl(server, "metrics")
    assert code == 0
    assert 'a"}' not in out and 'a\\"}' not in out


def test_json_holds_the_same(server):
    text = values(metrics(server))
    line = json.loads(metrics(server, "--json", asks=ASKED[:2]))
    assert line["ok"] is True
    names = {sample["name"] + ("{" + ",".join(f'{key}="{sample["labels"][key]}"' for key in order(sample)) + "}"
                               if sample["labels"] else "") for sample in line["samples"]}
    assert names == set(text)


def order(sample):
    """The labels of a sample in the table's order."""
    return next(row[2] for row in listed() if row[0] == sample["name"]).split()


def listed():
    """The table of metrics as the client has it: (name, type, labels, help)."""
    out = subprocess.run([agent_executable().with_name("corvctl"), "--plain", "metrics", "--list"], capture_output=True, text=True, check=True).stdout
    return [tuple(line.split("\t")) for line in out.splitlines()]


def test_the_page_has_the_table_of_the_client():
    rows = re.findall(r"^\| `(corvane_\w+)` \| (\w+) \| (.+?) \| (.+) \|$", (ROOT / "docs/metrics.md").read_text(), re.MULTILINE)
    assert rows == [(name, kind, ", ".join(f"`{label}`" for label in labels.split()) or "-", told)
                    for name, kind, labels, told in listed()]


def test_lists_what_there_is_within_80_columns(server):
    code, out, err = corvctl(server, "metrics", "--list")
    assert (code, err) == (0, "")
    assert max(len(line) for line in out.splitlines()) <= 80
    assert out.startswith("corvane_agent_up\n  gauge: 1 if the agent answers or is at work on a request, 0 if not.\n")


def test_prints_the_requests_instead_of_sending_them(server):
    code, out, err = corvctl(server, "-n", "metrics")
    assert (code, err) == (0, "")
    assert [json.loads(line)["cmd"] for line in out.splitlines()] == list(ASKED)


def test_is_for_root_on_the_server_itself(server):
    assert corvctl(server, "-H", "web2", "metrics") == (
        2, "", "corvctl: that is done on the server itself, not from here\n  ssh web2 corvctl metrics ...\n")
    install(server)
    code, out, err = server.run("runuser", "-u", "alice", "--", "/usr/bin/corvctl", "metrics")
    assert (code, out, err) == (3, "", "corvctl: that takes root\n  run it as root: sudo corvctl metrics ...\n")


def test_settings_that_name_a_service_twice_do_not_spoil_the_file(server):
    server.write(SETTINGS, server.read(SETTINGS) + "[health]\nservices=apache2, apache2, postgresql\n")
    block = "LoadState=loaded\nActiveState=active\nSubState=running\n"
    server.answer("systemctl", "show", "--no-pager", ..., out="\n".join([block] * 4))
    out = metrics(server)
    assert out.count('corvane_service_active{service="apache2"}') == 1
