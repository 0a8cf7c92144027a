"""The alerting rules and the dashboard: what they name is there, each rule fires when it should and not before."""

import json
import re
import subprocess

import pytest
from described import ROOT
from test_ctl_metrics import PROMTOOL, listed
from test_ctl_tasks import below

RULES = ROOT / "data/prometheus/corvane-alerts.yml"
DASHBOARD = ROOT / "data/grafana/corvane-dashboard.json"
TEXT = RULES.read_text()
ALERTS = re.findall(r"^ +- alert: (\w+)\n +expr: (.+)\n", TEXT, re.MULTILINE)
FOREIGN = {"node_textfile_mtime_seconds", "node_uname_info"}
DAY = 86400
HOUR = 3600
ON = 'instance="web1"'

# For each rule: the labels of its alert, and what the server tells while it is calm, and while it is not. A series is given as
# promtool takes it, from 1970 on, one value every ten minutes.
CASES = {
    "CorvaneAgentDown": ({}, [("corvane_agent_up{%s}" % ON, "1")], [("corvane_agent_up{%s}" % ON, "0")]),
    "CorvaneServiceDown": (
        {"service": "apache2"}, [('corvane_service_active{%s,service="apache2"}' % ON, "1")],
        [('corvane_service_active{%s,service="apache2"}' % ON, "0")]),
    "CorvaneSitesBroken": (
        {"check": "visitors", "level": "fault"},
        [('corvane_doctor_findings{%s,check="visitors",level="note"}' % ON, "3")],
        [('corvane_doctor_findings{%s,check="visitors",level="fault"}' % ON, "1")]),
    "CorvaneBackupTooOld": (
        {}, [("corvane_backup_last_completion_timestamp_seconds{%s}" % ON, str(9 * DAY))],
        [("corvane_backup_last_completion_timestamp_seconds{%s}" % ON, str(8 * DAY))]),
    "CorvaneBackupMissing": (
        {}, [("corvane_backup_last_completion_timestamp_seconds{%s}" % ON, "0"), ('corvane_accounts{%s,state="active"}' % ON, "0")],
        [("corvane_backup_last_completion_timestamp_seconds{%s}" % ON, "0"), ('corvane_accounts{%s,state="active"}' % ON, "1")]),
    "CorvaneBackupDamaged": (
        {}, [("corvane_backup_last_verification_faults{%s}" % ON, "0")], [("corvane_backup_last_verification_faults{%s}" % ON, "1")]),
    "CorvaneBackupDiskFull": (
        {}, [("corvane_backup_destination_free_bytes{%s}" % ON, "121"), ("corvane_backup_last_size_bytes{%s}" % ON, "100")],
        [("corvane_backup_destination_free_bytes{%s}" % ON, "119"), ("corvane_backup_last_size_bytes{%s}" % ON, "100")]),
    "CorvaneDiskFilesFew": (
        {"mount": "/home"},
        [('corvane_disk_free_files{%s,mount="/home"}' % ON, "6"), ('corvane_disk_files{%s,mount="/home"}' % ON, "100")],
        [('corvane_disk_free_files{%s,mount="/home"}' % ON, "4"), ('corvane_disk_files{%s,mount="/home"}' % ON, "100")]),
    "CorvaneMetricsOld": (
        {"file": "/x/corvane.prom"}, [('node_textfile_mtime_seconds{%s,file="/x/corvane.prom"}' % ON, str(10 * DAY - 60))],
        [('node_textfile_mtime_seconds{%s,file="/x/corvane.prom"}' % ON, str(10 * DAY - 3 * HOUR))]),
    "CorvaneMetricsMissing": (
        {}, [("node_uname_info{%s}" % ON, "1"), ("corvane_agent_up{%s}" % ON, "0")], [("node_uname_info{%s}" % ON, "1")]),
    "CorvaneAgentBusy": (
        {"command": "backup.restore"},
        [('corvane_agent_request_start_timestamp_seconds{%s,command="backup.restore"}' % ON, str(10 * DAY - HOUR))],
        [('corvane_agent_request_start_timestamp_seconds{%s,command="backup.restore"}' % ON, str(10 * DAY - 3 * HOUR))]),
    "CorvaneRequestsFail": (
        {"command": "files"}, [('corvane_agent_requests_total{%s,command="files",result="ok"}' % ON, "0+10x2000")],
        [('corvane_agent_requests_total{%s,command="files",result="failed"}' % ON, "0+10x2000")]),
    "CorvaneConnectionsRefused": (
        {}, [("corvane_agent_refused_connections_total{%s}" % ON, "500")],
        [("corvane_agent_refused_connections_total{%s}" % ON, "0+10x2000")]),
    "CorvaneDoctorFault": (
        {"check": "sshd"}, [('corvane_doctor_findings{%s,check="visitors",level="fault"}' % ON, "1")],
        [('corvane_doctor_findings{%s,check="sshd",level="fault"}' % ON, "1")]),
    "CorvaneBackupProblems": (
        {}, [("corvane_backup_last_problems{%s}" % ON, "0")], [("corvane_backup_last_problems{%s}" % ON, "1")]),
    "CorvaneBackupUnverified": (
        {}, [("corvane_backup_last_verification_timestamp_seconds{%s}" % ON, str(8 * DAY))],
        [("corvane_backup_last_verification_timestamp_seconds{%s}" % ON, "0")]),
    "CorvaneBackupUnproved": (
        {}, [("corvane_backup_last_proof_timestamp_seconds{%s}" % ON, str(9 * DAY))],
        [("corvane_backup_last_proof_timestamp_seconds{%s}" % ON, str(-12 * DAY))]),
    "CorvaneOffsiteTooOld": (
        {}, [("corvane_offsite_last_copy_timestamp_seconds{%s}" % ON, str(9 * DAY))],
        [("corvane_offsite_last_copy_timestamp_seconds{%s}" % ON, "0")]),
    "CorvaneOffsiteProblems": (
        {}, [("corvane_offsite_last_run_problems{%s}" % ON, "0"), ("corvane_offsite_last_drill_failed{%s}" % ON, "0")],
        [("corvane_offsite_last_run_problems{%s}" % ON, "0"), ("corvane_offsite_last_drill_failed{%s}" % ON, "1")]),
    "CorvaneCertificateExpired": (
        {"stage": "expired"}, [('corvane_https_sites{%s,stage="expired"}' % ON, "0")],
        [('corvane_https_sites{%s,stage="expired"}' % ON, "1")]),
    "CorvaneCertificateNotRenewed": (
        {"stage": "ending"}, [('corvane_https_sites{%s,stage="served"}' % ON, "1")],
        [('corvane_https_sites{%s,stage="ending"}' % ON, "1")]),
    "CorvaneUnitFailed": (
        {"unit": "corv-backup.service"}, [],
        [('corvane_unit_failure_timestamp_seconds{%s,unit="corv-backup.service"}' % ON, str(9 * DAY))]),
    "CorvaneAccountFull": (
        {"account": "shop"},
        [('corvane_account_used_bytes{%s,account="shop"}' % ON, "94"), ('corvane_account_limit_bytes{%s,account="shop"}' % ON, "100")],
        [('corvane_account_used_bytes{%s,account="shop"}' % ON, "96"), ('corvane_account_limit_bytes{%s,account="shop"}' % ON, "100")]),
    "CorvaneSecurityUpdates": (
        {"kind": "security"}, [('corvane_updates_pending{%s,kind="other"}' % ON, "7")],
        [('corvane_updates_pending{%s,kind="security"}' % ON, "7")]),
    "CorvaneRestartRequired": (
        {}, [("corvane_restart_required{%s}" % ON, "0")], [("corvane_restart_required{%s}" % ON, "1")]),
    "CorvaneFirewallOff": (
        {}, [("corvane_firewall_active{%s}" % ON, "0")], [("corvane_firewall_active{%s}" % ON, "1x1200 0x300")]),
    "CorvaneCollectorFails": (
        {"collector": "doctor"}, [('corvane_collector_success{%s,collector="doctor"}' % ON, "1")],
        [('corvane_collector_success{%s,collector="doctor"}' % ON, "0")]),
}


def named(expression):
    """The metrics that an expression names."""
    bare = re.sub(r'"[^"]*"', "", expression)
    return set(re.findall(r"\b(?:corvane|node)_\w+", bare))


def severity(alert):
    return re.search(rf"alert: {alert}\n(?:.+\n)*? +severity: (\w+)", TEXT)[1]


def promtool(*args):
    done = subprocess.run([PROMTOOL, *args], capture_output=True, text=True, check=False)
    return done.returncode, done.stdout + done.stderr


def rule(alert):
    """The text of one rule."""
    return re.search(rf"^ +- alert: {alert}\n(?: {{8}}.*\n)+", TEXT, re.MULTILINE)[0]


def run_tests(tmp_path, alerts, tests):
    """Runs tests of rules, of these alone, at the end of the tenth day of 1970; promtool reads JSON as the YAML that it is."""
    rules, path = tmp_path / "rules.yml", tmp_path / "test.yml"
    rules.write_text("groups:\n  - name: some\n    rules:\n" + "".join(rule(alert) for alert in alerts))
    path.write_text(json.dumps({"rule_files": [str(rules)], "evaluation_interval": "1h", "tests": tests}))
    return promtool("test", "rules", str(path))


def series(given):
    return [{"series": name, "values": value if "x" in value else f"{value}x2000"} for name, value in given]


def test_promtool_takes_the_rules():
    code, said = promtool("check", "rules", str(RULES))
    assert code == 0, said
    assert f"SUCCESS: {len(ALERTS)} rules found" in said


def test_each_rule_is_tried():
    assert sorted(CASES) == sorted(alert for alert, _ in ALERTS)
    assert {severity(alert) for alert in CASES} == {"page", "ticket"}


@pytest.mark.parametrize("alert", CASES)
def test_a_rule_fires_when_it_should_and_not_before(tmp_path, alert):
    labels, calm, wrong = CASES[alert]
    firing = {"__name__": "ALERTS", "alertname": alert, "alertstate": "firing", "instance": "web1",
              "severity": severity(alert), **labels}
    expected = "{" + ", ".join(f'{name}="{value}"' for name, value in sorted(firing.items())) + "}"
    expression = f'ALERTS{{alertname="{alert}",alertstate="firing"}}'

    def test(given, samples):
        return {"interval": "10m", "input_series": series(given),
                "promql_expr_test": [{"expr": expression, "eval_time": "10d", "exp_samples": samples}]}

    code, said = run_tests(tmp_path, [alert], [test(calm, []), test(wrong, [{"labels": expected, "value": 1}])])
    assert code == 0, said


def test_what_somebody_is_told_names_server_trouble_and_mend(tmp_path):
    tests = [{"interval": "10m", "input_series": series([(f"corvane_backup_last_completion_timestamp_seconds{{{ON}}}", str(8 * DAY))]),
              "alert_rule_test": [{"eval_time": "10d", "alertname": "CorvaneBackupTooOld", "exp_alerts": [{
                  "exp_labels": {"severity": "page", "instance": "web1"},
                  "exp_annotations": {
                      "summary": "web1: no backup for 2d 0h 0m 0s",
                      "description": "The nightly backup did not end, twice where it is one a day.",
                      "mend": "corvctl backup start --wait"}}]}]},
             {"interval": "10m", "input_series": series([(f'corvane_account_used_bytes{{{ON},account="shop"}}', "96"),
                                                        (f'corvane_account_limit_bytes{{{ON},account="shop"}}', "100")]),
              "alert_rule_test": [{"eval_time": "10d", "alertname": "CorvaneAccountFull", "exp_alerts": [{
                  "exp_labels": {"severity": "ticket", "instance": "web1", "account": "shop"},
                  "exp_annotations": {
                      "summary": "web1: shop has used 96% of its limit",
                      "description": "Uploads and mail of that account will fail.",
                      "mend": "corvctl account show shop"}}]}]}]
    code, said = run_tests(tmp_path, ["CorvaneBackupTooOld", "CorvaneAccountFull"], tests)
    assert code == 0, said


def test_each_rule_has_a_command_that_is_there(sandbox):
    mends = re.findall(r"^ +mend: (.+)$", TEXT, re.MULTILINE)
    assert len(mends) == len(ALERTS) == len(re.findall(r"^ +summary: ", TEXT, re.MULTILINE))
    topics, _ = below(sandbox)
    for mend in mends:
        words = mend.split()
        assert words[0] in ("corvctl", "systemctl", "journalctl"), mend
        if words[0] == "corvctl":
            assert words[1] in topics, mend
            commands, _ = below(sandbox, words[1])
            assert not commands or words[2] in commands, mend


def test_rules_name_only_metrics_that_are_printed():
    known = {row[0] for row in listed()} | FOREIGN
    for alert, expression in ALERTS:
        assert named(expression) <= known, alert
        assert named(expression), alert


def panels():
    return json.loads(DASHBOARD.read_text())["panels"]


def expressions():
    return [target["expr"] for panel in panels() for target in panel.get("targets", [])]


def test_the_dashboard_names_only_metrics_that_are_printed():
    known = {row[0] for row in listed()}
    assert len(expressions()) > 20
    for expression in expressions():
        assert named(expression) and named(expression) <= known, expression
    variables = json.loads(DASHBOARD.read_text())["templating"]["list"]
    assert named(variables[1]["definition"]) <= known


def test_promtool_takes_each_expression_of_the_dashboard(tmp_path):
    rules = tmp_path / "dashboard.yml"
    rules.write_text(json.dumps({"groups": [{"name": "dashboard", "rules": [
        {"record": f"panel:{number}", "expr": expression.replace("$__rate_interval", "20m").replace("$instance", "web1")}
        for number, expression in enumerate(expressions())]}]}))
    code, said = promtool("check", "rules", str(rules))
    assert code == 0, said
    assert f"SUCCESS: {len(expressions())} rules found" in said
    rules.write_text(json.dumps({"groups": [{"name": "x", "rules": [{"record": "x", "expr": "sum by ("}]}]}))
    assert promtool("check", "rules", str(rules))[0] != 0


def test_labels_of_the_expressions_are_those_of_the_metrics():
    known = {row[0]: set(row[2].split()) | {"instance"} for row in listed()}
    for expression in [*expressions(), *(text for _, text in ALERTS)]:
        for metric, matchers in re.findall(r"\b(corvane_\w+)\{([^}]*)\}", expression):
            assert set(re.findall(r"(\w+)(?:=~|!=|=)", matchers)) <= known[metric], expression


def test_the_panels_lie_side_by_side():
    taken = {}
    ids = [panel["id"] for panel in panels()]
    assert len(set(ids)) == len(ids)
    for panel in panels():
        place = panel["gridPos"]
        assert 0 <= place["x"] and place["x"] + place["w"] <= 24 and place["w"] > 0 and place["h"] > 0, panel["title"]
        for x in range(place["x"], place["x"] + place["w"]):
            for y in range(place["y"], place["y"] + place["h"]):
                assert taken.setdefault((x, y), panel["title"]) == panel["title"]


def test_the_dashboard_is_of_the_form_that_grafana_reads():
    """As far as that can be had without it: the members and their types of schema version 38."""
    dashboard = json.loads(DASHBOARD.read_text())
    types = {"title": str, "uid": str, "schemaVersion": int, "version": int, "tags": list, "time": dict, "templating": dict,
             "panels": list, "annotations": dict, "links": list, "refresh": str, "editable": bool, "graphTooltip": int}
    for name, kind in types.items():
        assert isinstance(dashboard[name], kind), name
    assert "id" not in dashboard and len(dashboard["uid"]) <= 40 and dashboard["schemaVersion"] == 38
    for panel in dashboard["panels"]:
        assert panel["type"] in ("row", "stat", "table", "timeseries", "bargauge"), panel["title"]
        if panel["type"] == "row":
            assert panel["panels"] == [] and panel["collapsed"] is False
            continue
        assert panel["datasource"] == {"type": "prometheus", "uid": "${datasource}"}
        steps = panel["fieldConfig"]["defaults"]["thresholds"]["steps"]
        assert steps[0]["value"] is None and all(step["value"] is not None for step in steps[1:])
        assert [step["value"] for step in steps[1:]] == sorted(step["value"] for step in steps[1:])
        refs = [target["refId"] for target in panel["targets"]]
        assert refs == [chr(ord("A") + number) for number in range(len(refs))]
        for target in panel["targets"]:
            assert target["instant"] is not target["range"]
            assert target["format"] == ("table" if panel["type"] == "table" else "time_series")
