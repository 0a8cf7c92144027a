"""HTTPS for the accounts on a booted host, with an ACME authority of its own: certificates come, and nothing takes port 80 down."""

import json

import pytest
from certified import (  # noqa: F401 (pytest finds web and server here)
    AGAIN,
    LIVE,
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
    wait_for_certificate,
    web,
)
from hostfloor import ADDRESS

LIMIT = 240


@pytest.mark.core
def test_a_new_site_has_a_certificate_and_its_life_shows_on_both_ports(server):
    name, domain = certified(server)
    assert plain(server, domain) == 200
    answer = secure(server, domain)
    assert (answer.status, answer.version) == (200, "HTTP/2")
    assert secure(server, f"www.{domain}").status == 200
    assert listed(server, name) == ("served", "")

    assert server.request("hosting.suspend", username=name)["ok"]
    server.wait_for(lambda: plain(server, domain) == 503, "the suspension")
    assert secure(server, domain).status == 503
    assert server.request("hosting.resume", username=name)["ok"]
    server.wait_for(lambda: plain(server, domain) == 200, "the end of the suspension")
    assert secure(server, domain).status == 200

    assert server.request("hosting.delete", username=name, confirm=name)["ok"]
    # Whoever asks for a name that nobody has is refused, and sees no other site.
    server.wait_for(lambda: secure(server, domain).status == 403, "the site's end")
    assert "Apache Managed Domain Fallback" in secure(server, domain).issuer
    assert domain not in server.get(LIVE)


BOTH_PORTS = r"""
import socket, ssl, sys, threading, time
domain = sys.argv[1]
context = ssl._create_unverified_context()
seen = {}
def watch(port):
    while time.monotonic() < end:
        began = time.monotonic()
        try:
            with socket.create_connection(("127.0.0.1", port), 5) as plain:
                link = context.wrap_socket(plain, server_hostname=domain) if port == 443 else plain
                link.sendall(f"HEAD / HTTP/1.0\r\nHost: {domain}\r\n\r\n".encode())
                if b" 503 " in link.recv(200).split(b"\r\n")[0]:
                    seen[port] = began
                    return
        except OSError as error:
            print(port, error)
        time.sleep(0.002)
end = time.monotonic() + 60
threads = [threading.Thread(target=watch, args=(port,)) for port in (80, 443)]
for thread in threads: thread.start()
print("watching", flush=True)
for thread in threads: thread.join()
print(round(abs(seen[80] - seen[443]) * 1000))
"""


def test_a_suspension_shows_on_both_ports_within_25_ms(server):
    name, domain = certified(server)
    server.put("/root/both.py", BOTH_PORTS)
    apart = []
    for _ in range(3):
        out = server.ok(["sh", "-c", f"python3 /root/both.py {domain} >/root/both & sleep 0.3; corvctl account suspend {name} >/dev/null;"
                         " wait; cat /root/both"])
        apart.append(int(out.splitlines()[-1]))
        assert out.splitlines()[:-1] == ["watching"]  # and no connection failed
        assert server.request("hosting.resume", username=name)["ok"]
        server.wait_for(lambda: plain(server, domain) == 200, "the end of the suspension")
    assert min(apart) <= 25, apart


def test_a_name_that_does_not_lead_here_is_not_asked_for(server):
    name = server.free_name()
    domain = f"{name}.example"
    assert server.request("hosting.create", username=name, domain=domain, sshKey=server.key.public)["ok"]
    server.wait_for(lambda: "leadsHere" in str(json.loads(server.get(STATE))["names"].get(domain)), "the probe")
    state, remark = listed(server, name)
    assert state == "waiting"
    assert remark in ("it has no address", "no name server answers for it")
    assert not server.exists(f"{STORE}/staging/{domain}")
    assert plain(server, domain) == 200


@pytest.mark.parametrize("addresses, leads, said", [
    (["127.0.0.1", "10.213.0.2", "::1"], True, ""),
    (["127.0.0.1", "fd00::1"], False, "fd00::1 does not answer on port 80"),
    (["127.0.0.1", "10.213.0.1"], False, "10.213.0.1 does not answer on port 80"),
    ([f"127.0.1.{last}" for last in range(1, 18)], False, "it has more than 16 addresses"),
])
def test_a_name_leads_here_where_each_of_its_addresses_does(server, addresses, leads, said):
    name = server.free_name()
    domain = f"{name}.example"
    server.ok(["sh", "-c", 'name=$1; shift; for address; do echo "$address $name www.$name" >>/etc/hosts; done', "sh", domain, *addresses])
    assert server.request("hosting.create", username=name, domain=domain, sshKey=server.key.public)["ok"]
    server.wait_for(lambda: domain in json.loads(server.get(STATE))["names"], "the probe")
    seen = json.loads(server.get(STATE))["names"][domain]
    assert (seen["leadsHere"], seen["said"]) == (leads, said)


def test_a_www_name_that_leads_elsewhere_does_not_keep_the_bare_one_from_its_certificate(server):
    name, domain = certified(server, www=False)
    state, remark = listed(server, name)
    assert state == "served" and remark.startswith(f"www.{domain}: ")
    lead(server, f"www.{domain}", www=False)
    server.ok(AGAIN)
    server.wait_for(lambda: listed(server, name) == ("served", ""), "the www name")
    server.wait_for(lambda: secure(server, f"www.{domain}").status == 200, "the www name's site")


def damage_certificate(host, domain):
    host.ok(["sh", "-c", f"echo garbage >{STORE}/domains/{domain}/pubcert.p-256.pem"])


def damage_key(host, domain):
    host.ok(["openssl", "ecparam", "-genkey", "-name", "prime256v1", "-noout", "-out", f"{STORE}/domains/{domain}/privkey.p-256.pem"])


def empty_key(host, domain):
    host.ok(["sh", "-c", f": >{STORE}/domains/{domain}/privkey.p-256.pem"])


def overlap(host, domain):
    host.put("/etc/apache2/conf-enabled/theirs.conf", f"<MDomainSet theirs.example {domain}>\nMDMembers manual\n</MDomainSet>\n")


@pytest.mark.parametrize("damage", [damage_certificate, pytest.param(damage_key, marks=pytest.mark.core), pytest.param(empty_key, marks=long),
                                    pytest.param(overlap, marks=pytest.mark.core)])
def test_a_damage_of_one_takes_nobody_else_along(server, damage):
    first, second, third = (certified(server) for _ in range(3))
    damage(server, second[1])
    try:
        reload(server)
        assert is_up(server)
        for _, domain in (first, second, third):
            assert plain(server, domain) == 200
        assert secure(server, first[1]).status == 200
        assert secure(server, third[1]).status == 200
        state, remark = listed(server, second[0])
        assert state == "left out" and remark
        # The agent works on, and its request tells of no error.
        assert server.request("hosting.suspend", username=first[0]) == {"ok": True}
        server.wait_for(lambda: plain(server, first[1]) == 503, "the suspension")
        assert secure(server, first[1]).status == 503
        # What was refused is not tried again unchanged.
        assert json.loads(server.get(STATE))["rehearsals"] == 1
    finally:
        server.run(["rm", "-rf", "/etc/apache2/conf-enabled/theirs.conf", f"{STORE}/domains/{second[1]}"])


def damage_store(host):
    host.ok(["sh", "-c", f"cp {STORE}/md_store.json /root/ && echo garbage >{STORE}/md_store.json"])


def damage_settings(host):
    host.ok(["sh", "-c", "cp /etc/corvane/https-tls.conf /root/ && echo NoSuchDirective >>/etc/corvane/https-tls.conf"])


def remove_authority(host):
    host.ok(["mv", "/srv/pebble/cert.pem", "/root/cert.pem"])


@pytest.mark.core
@pytest.mark.parametrize("damage, mend", [
    (damage_store, f"cp /root/md_store.json {STORE}/"),
    (damage_settings, "cp /root/https-tls.conf /etc/corvane/"),
    (remove_authority, "mv /root/cert.pem /srv/pebble/cert.pem"),
])
def test_what_spoils_all_of_https_leaves_port_80_and_the_agent_alone(server, damage, mend):
    name, domain = certified(server)
    damage(server)
    try:
        reload(server)
        assert is_up(server) and plain(server, domain) == 200
        assert server.request("hosting.suspend", username=name) == {"ok": True}
        server.wait_for(lambda: plain(server, domain) == 503, "the suspension")
        assert server.request("hosting.resume", username=name) == {"ok": True}
    finally:
        server.ok(["sh", "-c", mend])
    server.run(["systemctl", "restart", "apache2"])
    assert is_up(server)
    server.wait_for(lambda: secure(server, domain).status == 200, "HTTPS again")


def test_a_foreign_site_keeps_its_name(server):
    server.ok(["sh", "-c", "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout /root/k.pem -out /root/c.pem "
               "-days 30 -subj /CN=foreign 2>/dev/null"])
    name = server.free_name()
    domain = f"{name}.example"
    lead(server, domain)
    server.put("/etc/apache2/sites-enabled/theirs.conf",
               f"<VirtualHost *:443>\nServerName theirs.example\nServerAlias {domain}\nDocumentRoot /var/www/html\nSSLEngine on\n"
               "SSLCertificateFile /root/c.pem\nSSLCertificateKeyFile /root/k.pem\n</VirtualHost>\n")
    try:
        assert server.request("hosting.create", username=name, domain=domain, sshKey=server.key.public)["ok"]
        server.wait_for(lambda: listed(server, name) is not None, "the site in the list")
        assert listed(server, name) == ("left out", f"another site has {domain} on port 443")
        assert "CN=foreign" in secure(server, domain).issuer
        # Nor does another answer for names of nobody than before.
        assert "CN=foreign" in secure(server, "nobody.example").issuer
    finally:
        server.ok(["rm", "/etc/apache2/sites-enabled/theirs.conf"])


def test_a_certificate_that_goes_right_after_a_reload_ends_https_and_not_port_80(server):
    """Apache reads again after "systemctl reload" has returned; whoever removes something then gets past any trial."""
    name, domain = certified(server)
    server.ok(["sh", "-c", f"chmod 0600 {LIVE}; sed -i 's/MDRetryDelay .*/NoSuchDirective/' {LIVE}; kill -USR1 $(cat /run/apache2/apache2.pid)"])
    server.wait_for(lambda: "started without HTTPS" in server.journal("corv-https-rescue"), "the rescue")
    server.wait_for(lambda: is_up(server) and plain(server, domain) == 200, "port 80")
    assert listed(server, name) == ("left out", "Apache ended with the sites on port 443")
    server.ok(["corvctl", "https", "on"])
    server.wait_for(lambda: secure(server, domain) and secure(server, domain).status == 200, "HTTPS again")


@pytest.mark.core
def test_without_name_spaces_port_80_comes_back_by_itself(server):
    name, domain = certified(server)
    server.put("/run/systemd/system/apache2.service.d/closed.conf", "[Service]\nRestrictNamespaces=yes\n")
    server.ok(["systemctl", "daemon-reload"])
    try:
        server.ok(["systemctl", "restart", "apache2"])
        server.wait_for(lambda: secure(server, domain).status == 200, "HTTPS")
        assert json.loads(server.ok(["corvctl", "--json", "https", "status"]))["rehearsed"] is False
        damage_certificate(server, domain)
        server.run(["systemctl", "reload", "apache2"])
        server.wait_for(lambda: "started without HTTPS" in server.journal("corv-https-rescue"), "the rescue")
        server.wait_for(lambda: is_up(server) and plain(server, domain) == 200, "port 80")
    finally:
        server.ok(["sh", "-c", f"rm /run/systemd/system/apache2.service.d/closed.conf; systemctl daemon-reload; rm -rf {STORE}/domains/{domain}"])


def test_only_what_has_changed_is_tried(server):
    (first, one), (_, other) = certified(server), certified(server)
    server.ok(["systemctl", "start", "corv-https"])  # has all of it tried, and no order is under way any more
    assert server.request("hosting.suspend", username=first) == {"ok": True}
    tried = server.get("/run/corvane/https/trial.conf")
    assert f"ServerName {one}\n" in tried and other not in tried
    live = server.get(LIVE)
    assert f"ServerName {one}\n" in live and f"ServerName {other}\n" in live
    # Apache's own files count for all of them.
    server.put("/etc/apache2/conf-enabled/theirs.conf", "# nothing\n")
    try:
        reload(server)
        tried = server.get("/run/corvane/https/trial.conf")
        assert f"ServerName {one}\n" in tried and f"ServerName {other}\n" in tried
    finally:
        server.ok(["rm", "/etc/apache2/conf-enabled/theirs.conf"])


LEFT = r"""
cd /run/corvane/https/inbox && mkfifo sites again renewed && mkdir -p a/b && ln -s /root/precious a/b/link && ln -s /root/precious link
"""


def test_what_apaches_user_leaves_in_the_inbox_holds_nobody_up_and_deletes_nothing_else(server):
    server.ok(["sh", "-c", "mkdir -p /root/precious && touch /root/precious/file; systemctl stop corv-https.path"])
    try:
        server.ok(["sh", "-c", LEFT], user="www-data")
        name = server.free_name()
        # Its names were never asked for, of which a note is left there.
        assert server.request("hosting.create", username=name, domain=f"{name}.example", sshKey=server.key.public)["ok"]
        server.ok(["timeout", "20", "/usr/libexec/corvane/corv-https", "sync"])
    finally:
        server.ok(["systemctl", "start", "corv-https.path"])
    server.wait_for(lambda: server.ok(["ls", "/run/corvane/https/inbox"]) == "", "an empty inbox")
    assert server.exists("/root/precious/file")


def test_what_has_been_gone_for_a_week_is_deleted(server):
    name, domain = certified(server)
    own = f"gone1-{'a' * 64}"
    paths = [f"{STORE}/domains/gone.example/privkey.p-256.pem", f"{STORE}/archive/gone.example.12/privkey.p-256.pem",
             f"{STORE}/staging/never.example/job.json", "/etc/corvane/https.d/gone1", f"/etc/corvane/https/own/{own}.key"]
    kept = [f"{STORE}/domains/late.example/privkey.p-256.pem", f"{STORE}/archive/gone.example.net.1/privkey.p-256.pem"]
    server.ok(["sh", "-c", 'for path; do mkdir -p "${path%/*}" && touch "$path"; done', "sh", *paths, *kept])
    server.put("/etc/corvane/https.d/gone1", "off\n")
    state = json.loads(server.get(STATE))
    week = 7 * 86400
    now = int(server.ok(["date", "+%s"]))
    state["missed"] = {"late.example": now - week + 600,
                       **dict.fromkeys(("gone.example", "never.example", "/etc/corvane/https.d/gone1", f"/etc/corvane/https/own/{own}.key"), now - week)}
    server.put(STATE, json.dumps(state))
    server.ok(["/usr/libexec/corvane/corv-https", "work"])
    assert [path for path in paths if server.exists(path)] == []
    assert [path for path in kept if not server.exists(path)] == []
    server.ok(["sh", "-c", 'for path; do rm -r "${path%/*}"; done', "sh", *kept])
    assert secure(server, domain).status == 200
    assert server.exists(f"{STORE}/domains/{domain}/pubcert.p-256.pem")


WATCHERS = ("corv-https.path", "corv-https.timer")


def test_an_account_keeps_its_certificate_while_its_site_is_not_as_the_agent_writes_it(server):
    name, domain = certified(server)
    site = f"/etc/apache2/sites-enabled/corv-{name}.conf"
    # A run that has begun already would know the site, and count it as seen.
    server.ok(["systemctl", "stop", *WATCHERS, "corv-https.service"])
    server.ok(["sh", "-c", f"echo '# ours' >>{site}"])
    state = json.loads(server.get(STATE))
    state["missed"] = {domain: int(server.ok(["date", "+%s"])) - 7 * 86400}
    server.put(STATE, json.dumps(state))
    server.ok(["/usr/libexec/corvane/corv-https", "work"])
    assert server.exists(f"{STORE}/domains/{domain}/privkey.p-256.pem")
    server.ok(["sed", "-i", "--follow-symlinks", "$d", site])
    server.ok(["systemctl", "start", *WATCHERS])
    reload(server)
    assert secure(server, domain).status == 200 and listed(server, name) == ("served", "")


TOO_SHORT = r"""
cd /root && openssl req -x509 -newkey rsa:2048 -nodes -subj "/CN=House" -keyout house.key -out /usr/local/share/ca-certificates/house.crt -days 30 \
    -addext keyUsage=critical,keyCertSign 2>/dev/null &&
update-ca-certificates >/dev/null 2>&1 &&
openssl req -newkey rsa:1024 -nodes -subj "/CN=$1" -keyout short.key -out short.csr 2>/dev/null &&
printf 'subjectAltName=DNS:%s,DNS:www.%s\n' "$1" "$1" >short.ext &&
openssl x509 -req -in short.csr -CA /usr/local/share/ca-certificates/house.crt -CAkey house.key -CAcreateserial -days 20 -extfile short.ext \
    -out short.crt 2>/dev/null
"""


def test_a_certificate_that_apache_refuses_leaves_the_site_with_the_one_that_it_has(server):
    name, domain = certified(server)
    server.ok(["sh", "-c", TOO_SHORT, "sh", domain])
    done = server.run(["corvctl", "account", "https", name, "on", "--cert", "/root/short.crt", "--key", "/root/short.key"])
    assert (done.code, done.err) == (
        1, f"corvctl: Apache does not come up with it: Apache does not start\n  {name} has what was chosen for it before\n")
    server.wait_for(lambda: secure(server, domain), "HTTPS")
    assert secure(server, domain).status == 200 and "Pebble" in secure(server, domain).issuer
    assert listed(server, name) == ("served", "")


KILLED = r"""
systemctl reload apache2 &
python3 - "$1" <<'END'
import glob, os, signal, sys, time
end, delay = time.monotonic() + 5, float(sys.argv[1])
while time.monotonic() < end:
    for path in glob.glob("/proc/[0-9]*/cmdline"):
        try:
            words = open(path, "rb").read().split(b"\0")
        except OSError:
            continue
        if words[0].endswith(b"/corv-https"):
            time.sleep(delay)
            try:
                os.kill(int(path.split("/")[2]), signal.SIGKILL)
            except ProcessLookupError:
                pass
            sys.exit()
END
wait
"""


APACHECTL = "/usr/sbin/apachectl"
COMES_UP = "/run/corvane/https/comes-up"
PROCESS = "/run/apache2/apache2.pid"


@pytest.mark.core
def test_what_has_just_come_up_is_not_read_twice_more(server):
    _, domain = certified(server)
    server.ok(["systemctl", "start", "corv-https"])
    server.ok(["mv", APACHECTL, f"{APACHECTL}.real"])
    server.put(APACHECTL, f'#!/bin/sh\necho "$*" >>/run/asked\n[ -e {PROCESS} ] || exit 1\nexec {APACHECTL}.real "$@"\n', mode="0755")
    try:
        reload(server)
        assert not server.exists("/run/asked") and not server.exists(COMES_UP)
        assert is_up(server) and secure(server, domain).status == 200
        # Until Apache has written down its process, right after a start, the signal would end it.
        server.ok(["mv", PROCESS, "/run/kept"])
        assert server.run(["systemctl", "reload", "apache2"]).code != 0
        server.ok(["mv", "/run/kept", PROCESS])
        assert server.get("/run/asked") == "graceful\n" and is_up(server)
        server.ok(["rm", "/run/asked"])
        # All else goes Apache's own way, which refuses what is broken, also where somebody has left the mark.
        server.put("/etc/apache2/conf-enabled/broken.conf", "NoSuchDirective\n")
        server.put(COMES_UP, "")
        assert server.run(["systemctl", "reload", "apache2"]).code != 0
        assert server.get("/run/asked") == "graceful\n" and not server.exists(COMES_UP)
        assert is_up(server) and secure(server, domain).status == 200
    finally:
        server.ok(["sh", "-c", f"rm -f /etc/apache2/conf-enabled/broken.conf /run/asked; mv {APACHECTL}.real {APACHECTL}"])


def test_apache_that_ended_is_started_also_when_the_sites_were_taken_away_meanwhile(server):
    name, domain = certified(server)
    server.ok(["sh", "-c", f": >{LIVE}; rm -f /run/corvane/https/started; kill -KILL $(cat /run/apache2/apache2.pid); "
               "systemctl stop apache2; systemctl start corv-https-rescue"])
    server.wait_for(lambda: is_up(server) and plain(server, domain) == 200, "port 80")
    # Once more at once is for reasons of its own.
    server.ok(["systemctl", "stop", "apache2"])
    server.ok(["sh", "-c", f": >{LIVE}; systemctl start corv-https-rescue"])
    assert not is_up(server)


def test_an_error_of_somebody_elses_at_a_start_ends_no_https_after_it_is_mended(server):
    name, domain = certified(server)
    server.put("/etc/apache2/conf-enabled/error.conf", "NobodyKnowsThis\n")
    try:
        server.run(["systemctl", "restart", "apache2"])
        server.wait_for(lambda: "Apache ended without HTTPS as well" in server.journal("corv-https-rescue"), "the second rescue")
        assert not is_up(server)
    finally:
        server.ok(["rm", "/etc/apache2/conf-enabled/error.conf"])
    server.ok(["systemctl", "reset-failed", "apache2"])
    server.ok(["systemctl", "start", "apache2"])
    server.wait_for(lambda: secure(server, domain), "HTTPS")
    assert secure(server, domain).status == 200 and listed(server, name) == ("served", "")


def test_a_kill_at_any_moment_leaves_apache_and_no_trial_behind(server):
    name, domain = certified(server)
    for hundredths in range(0, 30, 3):
        server.ok(["bash", "-c", KILLED, "bash", str(hundredths / 100)])
        assert is_up(server)
        assert plain(server, domain) == 200
        assert secure(server, domain).status == 200
    server.wait_for(lambda: server.run(["pgrep", "-fc", "apache2 -DFOREGROUND"]).out.strip() == "0", "the end of all trials")
    assert server.request("hosting.suspend", username=name) == {"ok": True}
    server.wait_for(lambda: plain(server, domain) == 503, "the suspension")
    assert secure(server, domain).status == 503


def test_a_kill_of_apache_at_any_moment_of_a_reload_is_over_by_itself(server):
    name, domain = certified(server)
    for hundredths in (0, 8, 16, 30):
        # The fifth end within ten seconds is one too many for systemd: then it is the rescue's affair, which is tried above.
        server.ok(["systemctl", "reset-failed", "apache2"])
        server.ok(["bash", "-c", 'systemctl reload apache2 & sleep "$1"; kill -KILL "$(cat /run/apache2/apache2.pid)"; wait', "bash",
                   str(hundredths / 100)])
        server.wait_for(lambda: is_up(server) and server.outside(["curl", "-sf", f"http://{ADDRESS}/"]).code == 0, "Apache")
        assert plain(server, domain) == 200
        server.wait_for(lambda: secure(server, domain) and secure(server, domain).status == 200, "HTTPS")
        assert listed(server, name) == ("served", "")


def test_a_full_disk_takes_no_site_down(server):
    name, domain = certified(server)
    try:
        server.ok(["sh", "-c", f"mkdir /root/kept && cp -a {STORE}/. /root/kept/ && "
                   f"mount -t tmpfs -o size=$(($(du -sk {STORE} | cut -f1) + 1024))k,mode=0755 tmpfs {STORE} && "
                   f"cp -a /root/kept/. {STORE}/ && (dd if=/dev/zero of={STORE}/full bs=4k 2>/dev/null || true)"])
        reload(server)
        assert is_up(server) and plain(server, domain) == 200
        assert secure(server, domain), server.journal("apache2")
        assert secure(server, domain).status == 200
        other = server.free_name()
        assert server.request("hosting.create", username=other, domain=f"{other}.example", sshKey=server.key.public)["ok"]
        server.wait_for(lambda: server.fetch(f"{other}.example", "/").status == 200, "the new site")
        assert is_up(server) and secure(server, domain).status == 200
    finally:
        server.ok(["sh", "-c", f"umount -l {STORE}; rm -r /root/kept"])


def test_while_the_authority_is_down_nobody_hammers_at_it_and_then_the_certificate_comes(server):
    server.ok(["systemctl", "stop", "pebble"])
    name = server.free_name()
    domain = f"{name}.example"
    lead(server, domain)
    try:
        assert server.request("hosting.create", username=name, domain=domain, sshKey=server.key.public)["ok"]
        server.wait_for(lambda: json.loads(server.get(STATE))["orders"].get(domain, {}).get("failures", 0) > 0, "the failure")
        assert plain(server, domain) == 200
        server.ok(["sed", "-i", "s/retry=2s/retry=1h/", "/etc/corvane/https.conf"])

        # Of further failures within an hour Apache says nothing to anybody: they are seen when it is looked.
        def is_paused():
            server.ok(["systemctl", "start", "corv-https"])
            order = json.loads(server.get(STATE))["orders"][domain]
            return order["nextAt"] >= order["failedAt"] + 3600

        server.wait_for(is_paused, "the pause after a failure", timeout=60)
        failures = json.loads(server.get(STATE))["orders"][domain]["failures"]
        for _ in range(3):
            reload(server)
        assert json.loads(server.get(STATE))["orders"][domain]["failures"] == failures
        assert f"<MDomainSet {domain} www.{domain}>\n    MDMembers manual\n    MDRenewMode manual\n" in server.get(LIVE)
    finally:
        server.ok(["sed", "-i", "s/retry=1h/retry=2s/", "/etc/corvane/https.conf"])
        start_authority(server)
    server.ok(AGAIN)
    wait_for_certificate(server, domain)


@pytest.mark.parametrize("suspended", [True, pytest.param(False, marks=long)])
def test_a_certificate_renews_by_itself_also_while_its_site_is_suspended(server, suspended):
    start_authority(server, 30)
    try:
        name, domain = certified(server)
        if suspended:
            assert server.request("hosting.suspend", username=name) == {"ok": True}
        status = 503 if suspended else 200
        server.wait_for(lambda: plain(server, domain) == status, "the site")
        first = secure(server, domain).ends
        server.wait_for(lambda: secure(server, domain).ends != first, "the renewal", timeout=60)
        assert secure(server, domain).status == plain(server, domain) == status
    finally:
        start_authority(server)


def test_what_is_chosen_for_an_account(server):
    name, domain = certified(server)
    server.ok(["corvctl", "account", "https", name, "on", "--redirect", "--hsts"])
    server.wait_for(lambda: server.fetch(domain, "/a?b").status == 302, "the redirection")
    assert server.fetch(domain, "/a?b").headers["location"] == f"https://{domain}/a?b"
    assert "strict-transport-security: max-age=63072000" in secure(server, domain).text.lower()
    server.ok(["corvctl", "account", "https", name, "off"])
    server.wait_for(lambda: plain(server, domain) == 200, "the redirection's end")
    assert listed(server, name) == ("off", "")


def test_an_error_of_somebody_elses_ends_no_https_and_brings_no_choice_later(server):
    name, domain = certified(server)
    server.put("/etc/apache2/conf-enabled/error.conf", "NobodyKnowsThis\n")
    try:
        assert server.run(["corvctl", "https", "on"]).code == 1
        refused = server.run(["corvctl", "account", "https", name, "on", "--redirect", "--hsts"])
        assert (refused.code, refused.err.splitlines()[-1]) == (1, f"  {name} has what was chosen for it before")
    finally:
        server.ok(["rm", "/etc/apache2/conf-enabled/error.conf"])
    reload(server)
    answer = secure(server, domain)
    assert answer and answer.status == 200 and "strict-transport-security" not in answer.text.lower()
    assert plain(server, domain) == 200
    assert listed(server, name) == ("served", "")


@pytest.mark.core
def test_switching_it_off_and_removing_the_package_leave_port_80(server):
    name, domain = certified(server)
    server.ok(["corvctl", "https", "off"])
    server.wait_for(lambda: secure(server, domain) is None, "the end of HTTPS")
    assert is_up(server) and plain(server, domain) == 200
    server.ok(["corvctl", "https", "on"])
    server.wait_for(lambda: secure(server, domain) and secure(server, domain).status == 200, "HTTPS")
    failures = "/var/lib/corvane/failures"
    server.ok(["touch", f"{failures}/corv-https.service", f"{failures}/corv-https-ends.service", f"{failures}/corv-backup.service"])
    server.ok(["apt-get", "-q", "remove", "--yes", "corv-https"], env={"DEBIAN_FRONTEND": "noninteractive"})
    assert server.ok(["sh", "-c", f"ls {failures}; rm {failures}/corv-backup.service"]) == "corv-backup.service\n"
    server.ok(["systemctl", "reload", "apache2"])
    assert is_up(server) and plain(server, domain) == 200
    server.ok(["systemctl", "restart", "apache2"])
    assert is_up(server) and plain(server, domain) == 200
    assert server.request("hosting.suspend", username=name) == {"ok": True}
    server.ok(["apt-get", "-q", "purge", "--yes", "corv-https"], env={"DEBIAN_FRONTEND": "noninteractive"})
    assert not server.exists("/etc/corvane/https")
    assert server.exists("/etc/corvane/corvane.ini")
