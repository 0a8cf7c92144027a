"""The firewall: what is read out of ufw and sshd, what ufw is told, and what it must never be told."""

import json

import pytest

from recorded import SUITES, failure, recorded

SSHD = ["sshd", "-T"]
UFW_INSTALLED = ["dpkg-query", "-W", "-f=${Status}", "ufw"]
UFW_STATUS = ["ufw", "status", "numbered"]
ASKED = [SSHD, UFW_INSTALLED, UFW_STATUS]
INSTALL = ["env", "DEBIAN_FRONTEND=noninteractive", "apt-get", "install", "-yq", "ufw"]
DNS_ACTIVE = ["systemctl", "is-active", "--quiet", "pdns"]
SWITCH_ON = [["ufw", "default", "deny", "incoming"], ["ufw", "default", "allow", "outgoing"], ["ufw", "--force", "enable"]]

BAD_PORT = "port: 1 to 65535"
BAD_PROTOCOL = "protocol: tcp, udp or both"
BAD_SOURCE = "from: an address like 203.0.113.7 or a range like 203.0.113.0/24"
LOCK_OUT = "that rule lets you reach this server over SSH; deleting it from here could lock you out"
NO_RULE = "no such rule (the list may have changed; reload)"

IN, OUT = "ALLOW IN", "ALLOW OUT"
ANY, ANY6 = "Anywhere", "Anywhere (v6)"
# What ufw-rules holds, on both releases; with SSH on 22 and 2222.
RULES = [
    (1, "22/tcp", "LIMIT IN", f"{ANY}                   # not too often", True),
    (2, "2222/tcp", IN, ANY, True),
    (3, "OpenSSH", IN, ANY, True),
    (4, "80,443/tcp", IN, ANY, False),
    (5, "53", IN, ANY, False),
    (6, "6000:6010/tcp", IN, ANY, False),
    (7, "5432/tcp", IN, "203.0.113.0/24", False),
    (8, "22", IN, "203.0.113.7", True),
    (9, ANY, "DENY IN", "198.51.100.2", False),
    (10, "25/tcp", "REJECT IN", ANY, False),
    (11, "8080 on lo", IN, ANY, False),
    (12, "587/tcp", OUT, f"{ANY}                   (out)", False),
    (13, "192.0.2.1", "DENY OUT", f"{ANY}                   (out)", False),
    (14, "10.213.0.2 22/udp", IN, ANY, False),
    (15, "Anywhere on lo", "ALLOW", "FWD   Anywhere on lo", False),
    (16, "220/tcp", IN, f"{ANY}                   # not SSH; ALLOW IN  Anywhere", False),
    (17, "22/tcp (v6)", "LIMIT IN", f"{ANY6}              # not too often", True),
    (18, "2222/tcp (v6)", IN, ANY6, True),
    (19, "OpenSSH (v6)", IN, ANY6, True),
    (20, "80,443/tcp (v6)", IN, ANY6, False),
    (21, "53 (v6)", IN, ANY6, False),
    (22, "6000:6010/tcp (v6)", IN, ANY6, False),
    (23, "5432/tcp", IN, "2001:db8::/32", False),
    (24, "25/tcp (v6)", "REJECT IN", ANY6, False),
    (25, "8080 (v6) on lo", IN, ANY6, False),
    (26, "587/tcp (v6)", OUT, f"{ANY6}              (out)", False),
    (27, "Anywhere (v6) on lo", "ALLOW", "FWD   Anywhere (v6) on lo", False),
    (28, "220/tcp (v6)", IN, f"{ANY6}              # not SSH; ALLOW IN  Anywhere", False),
]


def as_objects(rules):
    return [dict(zip(("number", "to", "action", "from", "ssh"), rule)) for rule in rules]


def server(sandbox, suite="bookworm", sshd="sshd-two-ports", ufw="ufw-rules"):
    """A host with ufw, whose tools answer as recorded."""
    sandbox.answer("sshd", "-T", **recorded(suite, sshd))
    sandbox.answer("dpkg-query", ..., **recorded(suite, "dpkg-installed"))
    sandbox.answer("ufw", "status", "numbered", **recorded(suite, ufw))
    sandbox.answer("systemctl", "is-active", "--quiet", "pdns", **recorded(suite, "systemctl-is-active-unknown"))
    return sandbox


def listing(*lines):
    return "Status: active\n\n     To                         Action      From\n" + "".join(line + "\n" for line in lines)


# Status


@pytest.mark.parametrize("suite", SUITES)
@pytest.mark.parametrize("sshd, ports", [("sshd-two-ports", "22, 2222"), ("sshd", "22"), ("sshd-broken", "22")])
def test_status_shows_every_rule_as_ufw_prints_it(sandbox, suite, sshd, ports):
    server(sandbox, suite, sshd)
    ssh = ports.split(", ")
    rules = [(*rule[:4], rule[4] and (not rule[1].startswith("2222") or "2222" in ssh)) for rule in RULES]

    reply = sandbox.request("firewall.status")

    assert reply == {"ok": True, "installed": True, "sshPort": ports, "active": True, "rules": as_objects(rules)}
    assert sandbox.argvs() == ASKED


@pytest.mark.parametrize("suite", SUITES)
@pytest.mark.parametrize("ufw, active", [("ufw-inactive", False), ("ufw-no-rules", True)])
def test_status_without_rules_has_an_empty_list(sandbox, suite, ufw, active):
    server(sandbox, suite, "sshd", ufw)
    assert sandbox.request("firewall.status") == {
        "ok": True, "installed": True, "sshPort": "22", "active": active, "rules": [],
    }


@pytest.mark.parametrize("suite", SUITES)
@pytest.mark.parametrize("package", ["dpkg-unknown", "dpkg-removed"])
def test_status_without_ufw_is_no_failure(sandbox, suite, package):
    server(sandbox, suite, "sshd")
    sandbox.answer("dpkg-query", ..., **recorded(suite, package))
    assert sandbox.request("firewall.status") == {"ok": True, "installed": False, "sshPort": "22"}
    assert sandbox.argvs() == [SSHD, UFW_INSTALLED]


@pytest.mark.parametrize("out, installed", [
    ("install ok installed", True),
    (" install ok installed\n", True),
    ("Install ok installed", False),
    ("install ok installed.", False),
    ("install ok unpacked", False),
    ("hold ok installed", False),
    ("", False),
])
def test_ufw_counts_as_installed_in_one_state_only(sandbox, out, installed):
    sandbox.answer("dpkg-query", ..., out=out)
    assert sandbox.request("firewall.status")["installed"] is installed


def test_what_a_failing_dpkg_query_says_counts_all_the_same(sandbox):
    sandbox.answer("dpkg-query", ..., out="install ok installed", err="warning", exit=1)
    assert sandbox.request("firewall.status")["installed"] is True


def test_the_ports_of_a_failing_sshd_count_all_the_same(sandbox):
    sandbox.answer("sshd", out="port 2200\n", err="cannot", exit=255)
    assert sandbox.request("firewall.status") == {"ok": True, "installed": False, "sshPort": "2200"}


@pytest.mark.parametrize("out, ports", [
    ("", "22"),
    ("Port 2222\nport\t2222\n port 2222\nports 2222\n", "22"),
    ("port 22\nport 2222\nport 22\n", "22, 2222, 22"),
    ("port  2222 \r\n", "2222"),
])
def test_ssh_ports_are_the_port_lines_of_the_daemon(sandbox, out, ports):
    sandbox.answer("sshd", out=out)
    assert sandbox.request("firewall.status") == {"ok": True, "installed": False, "sshPort": ports}


def test_a_missing_ssh_daemon_leaves_the_usual_port(sandbox):
    sandbox.remove_standin("sshd")
    assert sandbox.request("firewall.status") == {"ok": True, "installed": False, "sshPort": "22"}


def test_status_fails_as_ufw_does(sandbox):
    server(sandbox)
    sandbox.answer("ufw", "status", "numbered", out=listing("[ 1] 22/tcp  ALLOW IN  Anywhere"), err="ERROR: no\n", exit=1)
    assert sandbox.request("firewall.status") == {"ok": False, "error": "ufw failed: ERROR: no"}


def test_status_fails_where_ufw_cannot_start(sandbox):
    server(sandbox)
    sandbox.remove_standin("ufw")
    assert sandbox.request("firewall.status") == {"ok": False, "error": "ufw: cannot start"}


def test_status_ends_when_ufw_hangs(impatient):
    server(impatient)
    impatient.answer("ufw", "status", "numbered", hang=True)
    assert impatient.request("firewall.status") == {"ok": False, "error": "ufw: took too long"}


@pytest.mark.parametrize("args", [{}, {"rules": 1}, {"port": "22"}])
def test_status_ignores_its_arguments(sandbox, args):
    assert sandbox.request("firewall.status", args) == {"ok": True, "installed": False, "sshPort": "22"}


def test_status_holds_its_members_only(sandbox):
    server(sandbox, ufw="ufw-no-rules")
    with sandbox.connect() as client:
        client.send(b'{"cmd":"firewall.status"}\n')
        line = client.line()
    sandbox.took("firewall.status", json.loads(line))
    assert line == b'{"active":true,"installed":true,"ok":true,"rules":[],"sshPort":"22, 2222"}\n'


@pytest.mark.parametrize("line, number", [
    ("[ 1] 22/tcp                     ALLOW IN    Anywhere", 1),
    ("[2147483647] 80  DENY  Anywhere", 2147483647),
    ("[2147483648] 80  DENY  Anywhere", 0),
])
def test_a_rule_number_that_does_not_fit_is_0(sandbox, line, number):
    server(sandbox)
    sandbox.answer("ufw", "status", "numbered", out=listing(line))
    (rule,) = sandbox.request("firewall.status")["rules"]
    assert rule["number"] == number


def test_lines_that_are_no_rules_are_skipped(sandbox):
    server(sandbox)
    sandbox.answer("ufw", "status", "numbered", out=listing(
        "[ 1] 22/tcp ALLOW IN    Anywhere", "[x] 22/tcp  ALLOW IN  Anywhere", " [ 1] 22/tcp  ALLOW IN  Anywhere", ""))
    assert sandbox.request("firewall.status")["rules"] == []


# Enable


@pytest.mark.parametrize("suite", SUITES)
def test_enable_opens_ssh_and_the_web_before_the_switch(sandbox, suite):
    server(sandbox, suite)
    sandbox.answer("ufw", "allow", ..., **recorded(suite, "ufw-allow"))

    reply = sandbox.request("firewall.enable")

    allowed = ["22/tcp", "2222/tcp", "80/tcp", "443/tcp"]
    assert reply == {"ok": True, "allowed": allowed}
    assert sandbox.argvs() == [
        UFW_INSTALLED, SSHD, DNS_ACTIVE, *(["ufw", "allow", port] for port in allowed), *SWITCH_ON,
    ]


@pytest.mark.parametrize("suite", SUITES)
def test_enable_opens_the_port_of_a_running_dns_server(sandbox, suite):
    server(sandbox, suite)
    sandbox.answer("systemctl", "is-active", "--quiet", "pdns", **recorded(suite, "systemctl-is-active"))
    allowed = ["22/tcp", "2222/tcp", "80/tcp", "443/tcp", "53"]
    assert sandbox.request("firewall.enable") == {"ok": True, "allowed": allowed}
    assert sandbox.argvs("ufw") == [*(["ufw", "allow", port] for port in allowed), *SWITCH_ON]


def test_enable_installs_ufw_where_it_is_missing(sandbox):
    server(sandbox, sshd="sshd")
    sandbox.answer("dpkg-query", ..., **recorded("bookworm", "dpkg-unknown"))
    sandbox.add_standin("env")
    assert sandbox.request("firewall.enable") == {"ok": True, "allowed": ["22/tcp", "80/tcp", "443/tcp"]}
    assert sandbox.argvs()[:4] == [UFW_INSTALLED, INSTALL, SSHD, DNS_ACTIVE]


def test_enable_does_nothing_when_ufw_cannot_be_installed(sandbox):
    sandbox.answer("env", ..., exit=100, err="E: Unable to locate package ufw\n")
    assert sandbox.request("firewall.enable") == {"ok": False, "error": "env failed: E: Unable to locate package ufw"}
    assert sandbox.argvs() == [UFW_INSTALLED, INSTALL]


ENABLE_STEPS = [["allow", "22/tcp"], ["allow", "2222/tcp"], ["allow", "80/tcp"], ["allow", "443/tcp"], ["allow", "53"],
                *(step[1:] for step in SWITCH_ON)]


@pytest.mark.parametrize("failing", range(len(ENABLE_STEPS)), ids=lambda step: " ".join(ENABLE_STEPS[step]))
def test_enable_stops_at_the_first_failure_and_undoes_nothing(sandbox, failing):
    server(sandbox)
    sandbox.answer("systemctl", ..., exit=0)
    sandbox.answer("ufw", *ENABLE_STEPS[failing], exit=1, err="ERROR: problem running\n")

    assert sandbox.request("firewall.enable") == {"ok": False, "error": "ufw failed: ERROR: problem running"}

    assert sandbox.argvs("ufw") == [["ufw", *step] for step in ENABLE_STEPS[: failing + 1]]


def test_the_filter_is_never_on_before_the_ssh_rules(sandbox):
    server(sandbox)
    sandbox.request("firewall.enable")
    calls = sandbox.argvs("ufw")
    assert max(calls.index(["ufw", "allow", port]) for port in ("22/tcp", "2222/tcp", "80/tcp", "443/tcp")) < min(
        calls.index(step) for step in SWITCH_ON)


# Disable


@pytest.mark.parametrize("suite", SUITES)
def test_disable_is_one_call(sandbox, suite):
    sandbox.answer("ufw", "disable", **recorded(suite, "ufw-disable"))
    assert sandbox.request("firewall.disable") == {"ok": True}
    assert sandbox.argvs() == [["ufw", "disable"]]


def test_disable_fails_as_ufw_does(sandbox):
    sandbox.answer("ufw", exit=3)
    assert sandbox.request("firewall.disable") == {"ok": False, "error": "ufw failed: exit code 3"}


def test_disable_without_ufw_says_so(sandbox):
    sandbox.remove_standin("ufw")
    assert sandbox.request("firewall.disable") == {"ok": False, "error": "ufw: cannot start"}


# Allow


TCP = ["allow", "proto", "tcp", "from"]


@pytest.mark.parametrize("args, words", [
    ({"port": 8080}, [*TCP, "any", "to", "any", "port", "8080"]),
    ({"port": 1}, [*TCP, "any", "to", "any", "port", "1"]),
    ({"port": 65535}, [*TCP, "any", "to", "any", "port", "65535"]),
    ({"port": 80.0}, [*TCP, "any", "to", "any", "port", "80"]),
    ({"port": 53, "proto": "udp"}, ["allow", "proto", "udp", "from", "any", "to", "any", "port", "53"]),
    ({"port": 53, "proto": "both"}, ["allow", "from", "any", "to", "any", "port", "53"]),
    ({"port": 53, "proto": None, "from": None}, [*TCP, "any", "to", "any", "port", "53"]),
    ({"port": 53, "from": ""}, [*TCP, "any", "to", "any", "port", "53"]),
    ({"port": 53, "from": " \t\n"}, [*TCP, "any", "to", "any", "port", "53"]),
    ({"port": 53, "from": " any "}, [*TCP, "any", "to", "any", "port", "53"]),
    ({"port": 5432, "proto": "both", "from": "203.0.113.0/24"},
     ["allow", "from", "203.0.113.0/24", "to", "any", "port", "5432"]),
    ({"port": 22, "from": " 203.0.113.7 "}, [*TCP, "203.0.113.7", "to", "any", "port", "22"]),
    ({"port": 22, "from": "203.0.113.7\n"}, [*TCP, "203.0.113.7", "to", "any", "port", "22"]),
    ({"port": 22, "from": "203.0.113.7/24"}, [*TCP, "203.0.113.7/24", "to", "any", "port", "22"]),
    ({"port": 22, "from": "203.0.113.7/255.255.255.0"}, [*TCP, "203.0.113.7/255.255.255.0", "to", "any", "port", "22"]),
    ({"port": 22, "from": "0.0.0.0/0"}, [*TCP, "0.0.0.0/0", "to", "any", "port", "22"]),
    ({"port": 22, "from": "2001:db8::1"}, [*TCP, "2001:db8::1", "to", "any", "port", "22"]),
    ({"port": 22, "from": "2001:DB8::/32"}, [*TCP, "2001:DB8::/32", "to", "any", "port", "22"]),
    ({"port": 22, "from": "::ffff:203.0.113.7"}, [*TCP, "::ffff:203.0.113.7", "to", "any", "port", "22"]),
])
def test_allow_tells_ufw_one_rule(sandbox, args, words):
    assert sandbox.request("firewall.allow", args) == {"ok": True}
    assert sandbox.argvs() == [["ufw", *words]]


@pytest.mark.parametrize("port", [0, -1, 65536, 2.5, 1e10, 1e300, -1e300, "22", "", None, True, [22], {"port": 22}])
def test_allow_refuses_a_port(sandbox, port):
    assert sandbox.request("firewall.allow", port=port) == {"ok": False, "error": BAD_PORT}
    assert sandbox.argvs() == []


def test_allow_refuses_a_missing_port(sandbox):
    assert sandbox.request("firewall.allow") == {"ok": False, "error": BAD_PORT}


@pytest.mark.parametrize("proto", ["TCP", "", " tcp", "tcp\n", "tcp\0", "any", "-p", "icmp", 6, 0, True, False, ["tcp"], {}])
def test_allow_refuses_a_protocol(sandbox, proto):
    assert sandbox.request("firewall.allow", port=80, proto=proto) == {"ok": False, "error": BAD_PROTOCOL}
    assert sandbox.argvs() == []


BAD_SOURCES = [
    "example.org", "localhost", "203.0.113.300", "203.0.113", "127.1", "2130706433", "0x7f000001", "0x7f.0.0.1", "010.0.0.1",
    "10.00.0.1", "203.0.113.7.", "203..113.7", "+203.0.113.7", "-203.0.113.7", "--help", "-1", "-", "ANY", "Any", "anywhere",
    "any/0", "203.0.113.0/", "/32", "/", "203.0.113.0/33", "203.0.113.0/-1", "203.0.113.0/+24", "203.0.113.0/024",
    "203.0.113.0/24/8", "203.0.113.0 /24", "203.0.113.0/ 24", "203.0.113/24", "10/8", "203.0.113.0/255.0.255.0",
    "203.0.113.0/0377.0.0.0", "203.0.113.0/::ff00", "203.0.113.0/24 to any", "203.0.113.7,198.51.100.2",
    "203.0.113.1-203.0.113.7", "203.0.113.7:22", "2001:db8::/129", "2001:db8::/255.255.0.0", "2001:db8::g", "1::2::3", ":",
    "[::1]", "fe80::1%eth0", "::1%$(x)", "fe80::1%eth0/64", "::ffff:010.0.0.1", "::ffff:127.1", "203.0.113.\u0667",
    "203.0.113.7\0", "2\n03.0.113.7", "any\0", "$(reboot)", "203.0.113.7;reboot",
]


@pytest.mark.parametrize("source", [*BAD_SOURCES, 0, 1, 2130706433, True, False, [], ["203.0.113.7"], {}])
def test_allow_refuses_a_source(sandbox, source):
    assert sandbox.request("firewall.allow", {"port": 80, "from": source}) == {"ok": False, "error": BAD_SOURCE}
    assert sandbox.argvs() == []


@pytest.mark.parametrize("args, error", [
    ({"port": 0, "proto": "x", "from": "x"}, BAD_PORT),
    ({"port": 1, "proto": "x", "from": "x"}, BAD_PROTOCOL),
    ({"port": 1, "proto": "tcp", "from": "x"}, BAD_SOURCE),
])
def test_allow_checks_port_protocol_and_source_in_this_order(sandbox, args, error):
    assert sandbox.request("firewall.allow", args) == {"ok": False, "error": error}


@pytest.mark.parametrize("suite", SUITES)
def test_allow_fails_as_ufw_does(sandbox, suite):
    answer = recorded(suite, "ufw-bad-source")
    sandbox.answer("ufw", ..., **answer)
    assert sandbox.request("firewall.allow", port=80) == {"ok": False, "error": "ufw failed: ERROR: Bad source address"}
    assert failure("ufw", answer) == "ufw failed: ERROR: Bad source address"


def test_allow_does_not_ask_whether_ufw_is_there(sandbox):
    sandbox.remove_standin("ufw")
    assert sandbox.request("firewall.allow", port=80) == {"ok": False, "error": "ufw: cannot start"}
    assert sandbox.argvs() == []


# Delete


@pytest.mark.parametrize("suite", SUITES)
@pytest.mark.parametrize("rule", RULES, ids=lambda rule: f"{rule[0]} {rule[1]}")
def test_delete_spares_every_ssh_rule_and_no_other(sandbox, suite, rule):
    server(sandbox, suite)
    number, _, _, _, ssh = rule
    if ssh:
        assert sandbox.request("firewall.delete", number=number) == {"ok": False, "error": LOCK_OUT}
        assert sandbox.argvs() == ASKED
    else:
        assert sandbox.request("firewall.delete", number=number) == {"ok": True}
        assert sandbox.argvs() == [*ASKED, ["ufw", "--force", "delete", str(number)]]


@pytest.mark.parametrize("number", [0, 29, -1, 1.5, "4", None, True, [4], 1e10, 4294967300, 1e300])
def test_delete_refuses_a_number_that_no_rule_has(sandbox, number):
    server(sandbox)
    assert sandbox.request("firewall.delete", number=number) == {"ok": False, "error": NO_RULE}
    assert sandbox.argvs() == ASKED


def test_delete_without_a_number_finds_no_rule(sandbox):
    server(sandbox)
    assert sandbox.request("firewall.delete") == {"ok": False, "error": NO_RULE}


def test_delete_takes_a_whole_number_written_as_a_fraction(sandbox):
    server(sandbox)
    assert sandbox.request("firewall.delete", number=4.0) == {"ok": True}
    assert sandbox.argvs("ufw")[-1] == ["ufw", "--force", "delete", "4"]


def test_delete_reads_the_rules_afresh_each_time(sandbox):
    server(sandbox)
    sandbox.answer("ufw", "status", "numbered", call=1, out=listing("[ 3] 8080/tcp  ALLOW IN  Anywhere"))
    sandbox.answer("ufw", "status", "numbered", call=2, out=listing("[ 3] 22/tcp  ALLOW IN  Anywhere"))
    assert sandbox.request("firewall.delete", number=3) == {"ok": True}
    assert sandbox.request("firewall.delete", number=3) == {"ok": False, "error": LOCK_OUT}
    assert sandbox.argvs("ufw") == [UFW_STATUS, ["ufw", "--force", "delete", "3"], UFW_STATUS]


@pytest.mark.parametrize("first, second, reply", [
    ("22/tcp", "80/tcp", {"ok": False, "error": LOCK_OUT}),
    ("80/tcp", "22/tcp", {"ok": True}),
])
def test_delete_judges_the_first_rule_of_a_number(sandbox, first, second, reply):
    server(sandbox)
    sandbox.answer("ufw", "status", "numbered", out=listing(
        f"[ 7] {first}  ALLOW IN  Anywhere", f"[ 7] {second}  ALLOW IN  Anywhere"))
    assert sandbox.request("firewall.delete", number=7) == reply


def test_delete_of_0_reaches_a_rule_whose_number_does_not_fit(sandbox):
    server(sandbox)
    sandbox.answer("ufw", "status", "numbered", out=listing("[99999999999] 80  ALLOW IN  Anywhere"))
    answer = recorded("bookworm", "ufw-delete-zero")
    sandbox.answer("ufw", "--force", "delete", "0", **answer)
    assert sandbox.request("firewall.delete", number=0) == {"ok": False, "error": "ufw failed: ERROR: Could not find rule '0'"}


@pytest.mark.parametrize("suite", SUITES)
def test_delete_fails_as_ufw_does(sandbox, suite):
    server(sandbox, suite)
    answer = recorded(suite, "ufw-delete-unknown")
    sandbox.answer("ufw", "--force", "delete", "4", **answer)
    assert sandbox.request("firewall.delete", number=4) == {"ok": False, "error": failure("ufw", answer)}


def test_delete_finds_no_rule_where_ufw_is_missing(sandbox):
    assert sandbox.request("firewall.delete", number=1) == {"ok": False, "error": NO_RULE}
    assert sandbox.argvs() == [SSHD, UFW_INSTALLED]


def test_delete_finds_no_rule_where_ufw_fails(sandbox):
    server(sandbox)
    sandbox.answer("ufw", "status", "numbered", exit=1, out=listing("[ 1] 80  ALLOW IN  Anywhere"))
    assert sandbox.request("firewall.delete", number=1) == {"ok": False, "error": NO_RULE}


def test_delete_spares_the_usual_port_where_sshd_cannot_tell(sandbox):
    server(sandbox, sshd="sshd-broken")
    assert sandbox.request("firewall.delete", number=1) == {"ok": False, "error": LOCK_OUT}
