"""The real ufw: what the agent makes of it reaches the packet filter, and nothing that it does shuts the administrator out."""

import re
from concurrent.futures import ThreadPoolExecutor

import pytest
from hostfloor import ADDRESS

LIMIT = 180

LOCK_OUT = {"ok": False, "error": "that rule lets you reach this server over SSH; deleting it from here could lock you out"}
NO_RULE = {"ok": False, "error": "no such rule (the list may have changed; reload)"}

# Lets the real tool do its work, and keeps the agent in it once the filter is on.
UFW = '/usr/sbin/ufw "$@"; code=$?; [ "$*" != "--force enable" ] || hold; exit $code'

CONNECT = "import socket, sys; socket.create_connection((sys.argv[1], int(sys.argv[2])), timeout=2)"


@pytest.fixture(scope="module")
def host(boot):
    """A host of its own: its filter would be in other tests' way."""
    return boot()


@pytest.fixture(scope="module")
def account(host):
    return host.account()


@pytest.fixture(scope="module")
def enabled(host, account):
    """Enables the firewall on a host without ufw, and logs in all the while: the replies and the logins' outputs."""
    seen = {"before": host.request("firewall.status"), "logins": [log_in(host, account)], "refused": []}
    with host.stand_in("ufw", UFW), ThreadPoolExecutor(1) as pool:
        reply = pool.submit(host.request, "firewall.enable")
        while not host.exists("/run/stand-ins/holding") and not reply.done():
            seen["logins"].append(log_in(host, account))
        assert not reply.done(), reply.result()
        seen["logins"].append(log_in(host, account))
        seen["refused"] = [port for port in (8081, 5432) if not reaches(host, port)]
        host.release()
        seen["reply"] = reply.result()
    seen["logins"].append(log_in(host, account))
    return seen


def log_in(host, account, port=22):
    done = host.outside(["ssh", "-F", "/dev/null", "-T", "-o", "BatchMode=yes", "-o", "StrictHostKeyChecking=no",
                         "-o", "UserKnownHostsFile=/dev/null", "-o", "LogLevel=ERROR", "-o", "ConnectTimeout=10",
                         "-p", str(port), "-i", str(account.key), f"{account.name}@{ADDRESS}", "echo in"])
    return done.out or done.err


def reaches(host, port):
    """Whether a connection from outside to the port comes about."""
    return host.outside(["/usr/bin/python3", "-c", CONNECT, ADDRESS, str(port)]).code == 0


def listen(host, port):
    """Has something on the host answer at a port."""
    host.ok(["systemd-run", "--quiet", "--collect", f"--unit=listen-{port}", "socat", f"TCP-LISTEN:{port},fork", "EXEC:echo"])
    host.wait_for(lambda: host.run(["ss", "-Hltn", f"sport = {port}"]).out, f"port {port} being listened at")


def rules(host):
    return host.request("firewall.status")["rules"]


def destinations(host):
    return [(rule["to"], rule["action"], rule["from"]) for rule in rules(host)]


def number_of(host, to, source="Anywhere"):
    return next(rule["number"] for rule in rules(host) if (rule["to"], rule["from"]) == (to, source))


def user_rules(host, program="iptables-save"):
    """The rules that ufw made of the administrator's, as the packet filter shows them."""
    return [line for line in host.ok([program]).splitlines() if re.match(r"-A ufw6?-user-input ", line)]


@pytest.mark.core
def test_enabling_installs_ufw_and_opens_ssh_and_the_web(host, enabled):
    assert enabled["before"] == {"ok": True, "installed": False, "sshPort": "22"}
    assert enabled["reply"] == {"ok": True, "allowed": ["22/tcp", "80/tcp", "443/tcp"]}
    assert host.ok(["dpkg-query", "-W", "-f=${Status}", "ufw"]) == "install ok installed"
    ports = ["22/tcp", "80/tcp", "443/tcp"]
    expected = [(port, "Anywhere") for port in ports] + [(f"{port} (v6)", "Anywhere (v6)") for port in ports]
    assert host.request("firewall.status") == {
        "ok": True, "installed": True, "sshPort": "22", "active": True,
        "rules": [{"number": number, "to": to, "action": "ALLOW IN", "from": source, "ssh": to.startswith("22/")}
                  for number, (to, source) in enumerate(expected, 1)],
    }


@pytest.mark.core
def test_ssh_logins_work_before_during_and_after_enabling(enabled):
    assert len(enabled["logins"]) >= 3
    assert set(enabled["logins"]) == {"in\n"}


@pytest.mark.core
def test_what_is_not_opened_is_shut_until_it_is(host, enabled):
    assert enabled["refused"] == [8081, 5432]
    listen(host, 8081)
    assert reaches(host, 80)
    assert not reaches(host, 8081)
    assert host.request("firewall.allow", port=8081, **{"from": "10.213.0.0/24"}) == {"ok": True}
    assert reaches(host, 8081)
    assert host.request("firewall.delete", number=number_of(host, "8081/tcp", "10.213.0.0/24")) == {"ok": True}
    assert not reaches(host, 8081)


@pytest.mark.core
@pytest.mark.parametrize("args, shown, filtered, filtered6", [
    ({"port": 3001}, [("3001/tcp", "Anywhere"), ("3001/tcp (v6)", "Anywhere (v6)")],
     ["-A ufw-user-input -p tcp -m tcp --dport 3001 -j ACCEPT"], ["-A ufw6-user-input -p tcp -m tcp --dport 3001 -j ACCEPT"]),
    ({"port": 3002, "proto": "udp"}, [("3002/udp", "Anywhere"), ("3002/udp (v6)", "Anywhere (v6)")],
     ["-A ufw-user-input -p udp -m udp --dport 3002 -j ACCEPT"], ["-A ufw6-user-input -p udp -m udp --dport 3002 -j ACCEPT"]),
    ({"port": 3003, "proto": "both"}, [("3003", "Anywhere"), ("3003 (v6)", "Anywhere (v6)")],
     ["-A ufw-user-input -p tcp -m tcp --dport 3003 -j ACCEPT", "-A ufw-user-input -p udp -m udp --dport 3003 -j ACCEPT"],
     ["-A ufw6-user-input -p tcp -m tcp --dport 3003 -j ACCEPT", "-A ufw6-user-input -p udp -m udp --dport 3003 -j ACCEPT"]),
    ({"port": 3004, "from": " 203.0.113.7 "}, [("3004/tcp", "203.0.113.7")],
     ["-A ufw-user-input -s 203.0.113.7/32 -p tcp -m tcp --dport 3004 -j ACCEPT"], []),
    ({"port": 3005, "from": "203.0.113.0/24", "proto": "both"}, [("3005", "203.0.113.0/24")],
     ["-A ufw-user-input -s 203.0.113.0/24 -p tcp -m tcp --dport 3005 -j ACCEPT",
      "-A ufw-user-input -s 203.0.113.0/24 -p udp -m udp --dport 3005 -j ACCEPT"], []),
    ({"port": 3006, "from": "203.0.113.0/255.255.255.128"}, [("3006/tcp", "203.0.113.0/25")],
     ["-A ufw-user-input -s 203.0.113.0/25 -p tcp -m tcp --dport 3006 -j ACCEPT"], []),
    ({"port": 3007, "from": "203.0.113.7/24"}, [("3007/tcp", "203.0.113.0/24")],
     ["-A ufw-user-input -s 203.0.113.0/24 -p tcp -m tcp --dport 3007 -j ACCEPT"], []),
    ({"port": 3008, "from": "2001:db8::1"}, [("3008/tcp", "2001:db8::1")],
     [], ["-A ufw6-user-input -s 2001:db8::1/128 -p tcp -m tcp --dport 3008 -j ACCEPT"]),
    ({"port": 3009, "from": "2001:DB8::/32", "proto": "udp"}, [("3009/udp", "2001:db8::/32")],
     [], ["-A ufw6-user-input -s 2001:db8::/32 -p udp -m udp --dport 3009 -j ACCEPT"]),
    ({"port": 65535, "from": "any"}, [("65535/tcp", "Anywhere"), ("65535/tcp (v6)", "Anywhere (v6)")],
     ["-A ufw-user-input -p tcp -m tcp --dport 65535 -j ACCEPT"], ["-A ufw6-user-input -p tcp -m tcp --dport 65535 -j ACCEPT"]),
], ids=lambda value: str(value.get("port")) if isinstance(value, dict) else "")
def test_an_allowed_port_reaches_the_packet_filter(host, enabled, args, shown, filtered, filtered6):
    assert host.request("firewall.allow", **args) == {"ok": True}
    port = str(args["port"])
    assert [(to, source) for to, _, source in destinations(host) if to.startswith(port)] == shown
    assert [line for line in user_rules(host) if f"dport {port} " in line] == filtered
    assert [line for line in user_rules(host, "ip6tables-save") if f"dport {port} " in line] == filtered6


def test_a_refused_source_changes_nothing(host, enabled):
    before = host.ok(["iptables-save"]).count("dport"), destinations(host)
    for source in ("203.0.113.300", "example.org", "0x7f000001", "010.0.0.1", "::1%eth0", "--help", 1, ["any"]):
        assert host.request("firewall.allow", port=4000, **{"from": source})["ok"] is False
    assert (host.ok(["iptables-save"]).count("dport"), destinations(host)) == before


@pytest.mark.core
def test_an_open_port_can_be_shut_again(host, enabled):
    host.request("firewall.allow", port=3100)
    assert host.request("firewall.delete", number=number_of(host, "3100/tcp")) == {"ok": True}
    assert host.request("firewall.delete", number=number_of(host, "3100/tcp (v6)", "Anywhere (v6)")) == {"ok": True}
    assert [to for to, _, _ in destinations(host) if to.startswith("3100")] == []
    assert "dport 3100 " not in host.ok(["iptables-save"]) + host.ok(["ip6tables-save"])


@pytest.fixture
def two_ports(host):
    """An SSH daemon that listens on 22 and 2222."""
    host.put("/etc/ssh/sshd_config.d/ports.conf", "Port 22\nPort 2222\n")
    host.ok(["systemctl", "restart", "ssh"])
    yield
    host.ok(["rm", "/etc/ssh/sshd_config.d/ports.conf"])
    host.ok(["systemctl", "restart", "ssh"])


@pytest.mark.long
def test_no_ssh_rule_of_any_form_can_be_deleted_and_all_others_can(host, account, enabled, two_ports):
    assert log_in(host, account, 2222) != "in\n"
    assert host.request("firewall.enable") == {"ok": True, "allowed": ["22/tcp", "2222/tcp", "80/tcp", "443/tcp"]}
    assert log_in(host, account, 2222) == "in\n"
    for rule in ("allow OpenSSH", "allow 22", "allow 2222/udp", "limit proto tcp from 203.0.113.9 to any port 22",
                 "allow proto tcp from 10.213.0.0/24 to any port 2222", "allow from 2001:db8::/32 to any port 22",
                 "deny from 198.51.100.9 to any port 22", "allow 220/tcp", "allow 8022"):
        host.ok(["ufw", *rule.split()])
    ssh = [
        ("22/tcp", "Anywhere"), ("2222/tcp", "Anywhere"), ("OpenSSH", "Anywhere"), ("22", "Anywhere"), ("2222/udp", "Anywhere"),
        ("22/tcp", "203.0.113.9"), ("2222/tcp", "10.213.0.0/24"), ("22", "198.51.100.9"), ("22/tcp (v6)", "Anywhere (v6)"),
        ("2222/tcp (v6)", "Anywhere (v6)"), ("OpenSSH (v6)", "Anywhere (v6)"), ("22 (v6)", "Anywhere (v6)"),
        ("2222/udp (v6)", "Anywhere (v6)"), ("22", "2001:db8::/32"),
    ]
    assert sorted((rule["to"], rule["from"]) for rule in rules(host) if rule["ssh"]) == sorted(ssh)

    before = host.ok(["ufw", "status", "numbered"])
    for rule in rules(host):
        if rule["ssh"]:
            assert host.request("firewall.delete", number=rule["number"]) == LOCK_OUT
    assert host.ok(["ufw", "status", "numbered"]) == before

    # An administrator who deletes whatever the panel lets go still gets in.
    while others := [rule["number"] for rule in rules(host) if not rule["ssh"]]:
        assert host.request("firewall.delete", number=others[0]) == {"ok": True}
    assert sorted((to, source) for to, _, source in destinations(host)) == sorted(ssh)
    assert [log_in(host, account, port) for port in (22, 2222)] == ["in\n", "in\n"]
    assert not reaches(host, 80)


def test_a_number_that_is_not_there_is_refused(host, enabled):
    count = len(rules(host))
    for number in (0, count + 1, -1, 2**31):
        assert host.request("firewall.delete", number=number) == NO_RULE


def test_rules_that_a_kill_left_in_part_are_loaded_again(host, account, enabled):
    def rules_there():
        return sorted(line for line in host.ok(["iptables", "-S"]).splitlines() if " ufw-" in line)
    before = rules_there()
    host.ok(["iptables", "-F", "ufw-before-input"])  # as a run of ufw that ended with the agent leaves it
    host.ok(["systemctl", "kill", "--signal=SIGKILL", "--kill-whom=main", "corv-agent"])
    host.wait_for(lambda: rules_there() == before, "all rules")
    host.wait_for_unit("corv-agent")
    assert log_in(host, account) == "in\n"


def test_disabling_keeps_the_rules_for_the_next_time(host, account, enabled):
    assert host.request("firewall.enable")["ok"] is True
    before = destinations(host)
    assert host.request("firewall.disable") == {"ok": True}
    assert host.request("firewall.status") == {
        "ok": True, "installed": True, "sshPort": "22", "active": False, "rules": []}
    listen(host, 8082)
    assert reaches(host, 8082)
    assert host.request("firewall.enable")["ok"] is True
    assert destinations(host) == before
    assert not reaches(host, 8082)
    assert log_in(host, account) == "in\n"
