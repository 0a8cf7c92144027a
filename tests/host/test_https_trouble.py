"""What an authority, a name, a clock, a lack of memory and time itself can do to HTTPS on a booted host: nothing of it takes port 80 or
another account down, and when it is over all is well again by itself."""

import json
import pathlib
import time

import pytest
from certified import (  # noqa: F401 (pytest finds web and server here)
    AGAIN,
    LIVE,
    SETTINGS,
    STATE,
    STORE,
    certified,
    is_up,
    lead,
    listed,
    long,
    plain,
    reload,
    secure,
    server,
    start_authority,
    wait_for_authority,
    wait_for_certificate,
    web,
)

LIMIT = 240
APT = {"DEBIAN_FRONTEND": "noninteractive"}


def state(host):
    return json.loads(host.get(STATE))


def waiting(host, www=True):
    """An account whose names lead here, and whose certificate nobody waits for."""
    name = host.free_name()
    domain = f"{name}.example"
    lead(host, domain, www=www)
    assert host.request("hosting.create", username=name, domain=domain, sshKey=host.key.public)["ok"]
    return name, domain


@pytest.fixture
def between(server):
    """A function that has the authority answer in another way from now on."""
    server.put("/root/wrong_authority.py", (pathlib.Path(__file__).parent / "wrong_authority.py").read_text())
    server.ok(["sh", "-c", "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout /root/f.key "
               "-out /srv/pebble/foreign.pem -days 30 -subj /CN=foreign -addext subjectAltName=DNS:foreign.example 2>/dev/null"])
    server.ok(["systemd-run", "-q", "--unit=between", "python3", "/root/wrong_authority.py"])
    server.wait_for(lambda: server.run(["curl", "-ks", "https://127.0.0.1:14001/dir"]).code == 0, "the stand-in")
    server.put("/etc/corvane/https.conf", SETTINGS.replace("14000", "14001"))
    yield lambda mode: server.put("/srv/pebble/mode", mode)
    server.put("/etc/corvane/https.conf", SETTINGS)
    server.ok(["sh", "-c", "systemctl stop between; rm -f /srv/pebble/mode"])


BOUND = r"""
systemctl stop pebble
sed -i 's/"externalAccountBindingRequired":false/"externalAccountBindingRequired":true,"externalAccountMACKeys":{"server-1":"'"$1"'"}/' \
    /srv/pebble/pebble.json
systemd-run -q --unit=pebble -E PEBBLE_VA_NOSLEEP=1 -E PEBBLE_WFE_NONCEREJECT=0 \
    pebble -config /srv/pebble/pebble.json -dnsserver 127.0.0.1:8053
"""
HMAC = "zWNDZM6eQGHWpSRTPal5eIUYFTu7EajVIoguysqZ9wG44nMEtx3MUAsUDkMTQ12W"


def test_an_authority_that_has_to_know_the_server_is_told_who_asks(server):
    server.ok(["sh", "-ec", BOUND, "sh", HMAC])
    server.ok(["sh", "-c", f"rm -rf {STORE}/accounts/*"])
    server.put("/etc/corvane/https-binding.json", json.dumps({"kid": "server-1", "hmac": HMAC}), mode="0600")
    server.put("/etc/corvane/https.conf", SETTINGS + "binding=/etc/corvane/https-binding.json\n")
    try:
        wait_for_authority(server)
        name, domain = certified(server)
        assert listed(server, name) == ("served", "")
    finally:
        server.put("/etc/corvane/https.conf", SETTINGS)
        server.ok(["rm", "/etc/corvane/https-binding.json"])
        start_authority(server)


def test_wrong_answers_of_the_authority_are_told_and_hurt_nobody(server, between):
    _, other = certified(server)
    between("limited")
    name, domain = waiting(server)
    told = {}
    for mode in ("limited", "nonsense", "huge", "wordy", "flood", "foreign"):
        between(mode)
        before = state(server)["orders"].get(domain, {}).get("failures", 0)
        server.ok(AGAIN)
        server.wait_for(lambda: state(server)["orders"].get(domain, {}).get("failures", 0) > before, f"a failure: {mode}")
        told[mode] = state(server)["orders"][domain]["said"]
        assert is_up(server)
        assert [plain(server, one) for one in (domain, other)] == [200, 200]
        assert secure(server, other).status == 200
        assert listed(server, name)[0] == "waiting"
    assert "too many new orders recently" in told["limited"]
    assert all(told.values()), told
    assert max(map(len, told.values())) == len(told["wordy"]) == 300
    assert domain not in server.ok(["sh", "-c", f"cat {STORE}/domains/*/pubcert* | openssl storeutl -noout -text /dev/stdin"])

    between("")
    server.ok(AGAIN)
    wait_for_certificate(server, domain)


def test_a_limit_of_the_authority_is_not_asked_again_by_any_reload(server, between):
    between("limited")
    server.put("/etc/corvane/https.conf", SETTINGS.replace("14000", "14001").replace("retry=2s", "retry=1h"))
    name, domain = waiting(server)
    server.wait_for(lambda: state(server)["orders"].get(domain, {}).get("failures", 0) > 0, "the limit")
    assert listed(server, name) == ("waiting", state(server)["orders"][domain]["said"])
    asked = state(server)["orders"][domain]
    for _ in range(3):
        reload(server)
    server.ok(["systemctl", "start", "corv-https"])
    assert state(server)["orders"][domain] == asked
    assert asked["nextAt"] == asked["failedAt"] + 3600
    assert f"<MDomainSet {domain} www.{domain}>\n    MDMembers manual\n    MDRenewMode manual\n" in server.get(LIVE)
    assert "New in 3 hours" in server.ok(["corvctl", "https", "status"])
    assert json.loads(server.ok(["corvctl", "--json", "https", "status"]))["failedInOneHour"] >= 1


def test_a_name_that_leaves_keeps_its_certificate_and_no_order_is_made_for_it(server):
    name, domain = certified(server)
    first = secure(server, domain).ends
    # The www name alone: nothing is asked for it any more.
    server.ok(["sed", "-i", f"s/ www.{domain}$//", "/etc/hosts"])
    for misses in (1, 2, 3):
        server.ok(AGAIN)
        server.wait_for(lambda: state(server)["names"][f"www.{domain}"]["misses"] >= misses, "the miss")
    server.wait_for(lambda: f"<MDomainSet {domain}>" in server.get(LIVE), "the name's end")
    assert secure(server, domain).status == 200
    assert listed(server, name)[1].startswith(f"www.{domain}: ")

    # Now all of it: what there is goes on being served until its end, for all names that it has, as to visitors whom another server
    # leads on. The list says why there will be no other.
    server.ok(["sed", "-i", f"/ {domain}$/d", "/etc/hosts"])
    for misses in (1, 2, 3):
        server.ok(AGAIN)
        server.wait_for(lambda: state(server)["names"][domain]["misses"] >= misses, "the miss")
    server.wait_for(lambda: f"<MDomainSet {domain} www.{domain}>\n    MDMembers manual\n    MDRenewMode manual\n" in server.get(LIVE),
                    "the order's end")
    assert secure(server, domain).status == plain(server, domain) == 200
    assert secure(server, domain).ends >= first
    shown = json.loads(server.ok(["corvctl", "--json", "account", "show", name]))
    assert shown["https"]["state"] == "served"
    assert shown["https"]["remark"]


FAKED = """
# A clock that is wrong for Apache, for what tries it and for what makes its sites.
cat >>/etc/apache2/envvars <<'ENDE'
export LD_PRELOAD=$(echo /usr/lib/*/faketime/libfaketime.so.1) FAKETIME=$(cat /root/faked) FAKETIME_DONT_FAKE_MONOTONIC=1
ENDE
for unit in apache2 corv-https; do
    mkdir -p /run/systemd/system/$unit.service.d
    printf '[Service]\\nEnvironment=LD_PRELOAD=%s FAKETIME=%s FAKETIME_DONT_FAKE_MONOTONIC=1\\n' \\
        /usr/lib/*/faketime/libfaketime.so.1 "$(cat /root/faked)" >/run/systemd/system/$unit.service.d/faked.conf
done
systemctl daemon-reload
"""
RIGHT = """
cp /root/envvars /etc/apache2/envvars
rm -f /run/systemd/system/apache2.service.d/faked.conf /run/systemd/system/corv-https.service.d/faked.conf
systemctl daemon-reload
"""


@pytest.mark.parametrize("faked", ["-365d", pytest.param("+365d", marks=long)])
def test_a_clock_that_is_wrong_by_a_year_takes_nothing_down_and_leaves_nothing_behind(server, faked):
    server.ok(["apt-get", "-q", "install", "--yes", "faketime"], env=APT)
    name, domain = certified(server)
    server.put("/root/faked", faked)
    server.ok(["sh", "-c", "cp /etc/apache2/envvars /root/envvars"])
    server.ok(["bash", "-c", FAKED])
    try:
        server.ok(["systemctl", "restart", "apache2"])
        off = int(server.ok(["sh", "-c", ". /etc/apache2/envvars; date +%s"])) - time.time()
        assert abs(abs(off) - 365 * 86400) < 60  # or nothing would be tried here
        assert is_up(server) and plain(server, domain) == 200
        assert secure(server, domain).status == 200
        assert server.request("hosting.suspend", username=name) == {"ok": True}
        server.wait_for(lambda: plain(server, domain) == 503, "the suspension")
        assert secure(server, domain).status == 503
        assert server.request("hosting.resume", username=name) == {"ok": True}
        late, other = waiting(server)
        server.run(["systemctl", "start", "corv-https"])
        assert plain(server, other) == 200
    finally:
        server.ok(["bash", "-c", RIGHT])
    server.ok(["systemctl", "restart", "apache2"])
    assert secure(server, domain).status == 200
    # Nobody waits a year for it, or presses a button: what comes now and then by the timer is enough.
    def is_served():
        server.run(["systemctl", "start", "corv-https"])
        return listed(server, late) == ("served", "")

    server.wait_for(is_served, "the certificate of the site from then", timeout=100)
    assert listed(server, name) == ("served", "")


def test_a_state_that_cannot_be_used_is_told_of_and_learnt_anew(server):
    name, domain = certified(server)
    server.ok(["systemctl", "stop", "corv-https.path", "corv-https.timer", "corv-https.service"])
    try:
        for damage in ("echo garbage >", "truncate -s 65M "):
            server.ok(["sh", "-c", damage + STATE])
            done = server.run(AGAIN)
            assert (done.code, done.err) == (0, f"corv-https: {STATE} cannot be used; where names lead, and the pauses of orders, "
                                                "are not known any more\n")
            assert server.run(AGAIN).err == ""
    finally:
        server.ok(["systemctl", "start", "corv-https.path", "corv-https.timer"])
    server.wait_for(lambda: listed(server, name) == ("served", ""), "the state anew")
    assert state(server)["names"][domain]["leadsHere"]
    assert secure(server, domain).status == 200


TELL = "#!/bin/sh\ncat >>/root/told\n"


def test_somebody_is_told_in_time_that_a_certificate_ends(server):
    server.ok(["apt-get", "-q", "install", "--yes", "faketime"], env=APT)
    name, domain = certified(server)
    server.put("/usr/local/sbin/tell", TELL, mode="0755")
    usual = server.get("/etc/corvane/corvane.ini")
    server.put("/etc/corvane/corvane.ini", usual + "[notify]\ncommand=/usr/local/sbin/tell\n")
    try:
        # One for a year of which nine and a half days are left.
        server.ok(["sh", "-c", "faketime -f -8532h openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout /root/o.key "
                   f"-out /root/o.pem -days 365 -subj /CN=own -addext subjectAltName=DNS:{domain},DNS:www.{domain} 2>/dev/null"])
        server.ok(["env", "SSL_CERT_FILE=/root/o.pem", "corvctl", "account", "https", name, "on", "--cert", "/root/o.pem", "--key", "/root/o.key"])
        server.wait_for(lambda: "CN=own" in secure(server, domain).issuer, "the certificate that was brought")
        assert server.run(["systemctl", "start", "corv-https-ends"]).code == 1
        server.wait_for(lambda: server.exists("/root/told"), "the notification")
        day = server.ok(["sh", "-c", "date -u -d \"$(openssl x509 -in /root/o.pem -noout -enddate | cut -d= -f2)\" +%F"]).strip()
        said = f"the certificate of {domain} ends on {day}, in 9 day(s): a new one has to be brought"
        server.wait_for(lambda: said in server.get("/root/told"), "what is told")
        # Once is enough.
        server.ok(["systemctl", "start", "corv-https-ends"])
        assert server.get("/root/told").count(said) == 1
        assert listed(server, name) == ("ending", "a new one has to be brought")
        doctor = json.loads(server.run(["corvctl", "--json", "doctor"]).out)
        assert f"the certificate of {domain} ends soon: a new one has to be brought" in str(doctor["checks"])
    finally:
        server.put("/etc/corvane/corvane.ini", usual)
        server.ok(["sh", "-c", "rm -f /root/told /usr/local/sbin/tell"])


# Within a trial alone: there the run folder is one in memory, with what covers the store.
GREEDY = "if [ -d /run/apache2/upper ] || [ -d /run/apache2/store ]; then tail /dev/zero; fi\n"


def test_a_trial_that_takes_all_memory_is_ended_and_nothing_else_with_it(server):
    _, domain = certified(server)
    usual = server.get("/etc/apache2/envvars")
    began = time.monotonic()
    server.put("/etc/apache2/envvars", usual + GREEDY)
    try:
        reload(server)
        assert time.monotonic() - began < 60
        assert is_up(server) and plain(server, domain) == 200
        assert json.loads(server.ok(["corvctl", "--json", "https", "status"]))["problem"]
    finally:
        server.put("/etc/apache2/envvars", usual)
    reload(server)
    server.wait_for(lambda: secure(server, domain) and secure(server, domain).status == 200, "HTTPS again")
