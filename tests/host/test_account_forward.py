"""The old address of an account that has moved: the old server leads its visitors on, over real ssh and through both Apaches."""

import base64
import hashlib
import json
import os
import re

import pytest
from hostfloor import ADDRESS, OUTSIDE
from moves import make_certificates, reaching

LIMIT = 300
# The addresses of two who visit; the servers see each other at OUTSIDE.
VISITOR, OTHER = "10.213.0.77", "10.213.0.78"
SHOW = """<?php
$body = file_get_contents('php://input');
echo json_encode(['address' => $_SERVER['REMOTE_ADDR'], 'host' => $_SERVER['HTTP_HOST'], 'method' => $_SERVER['REQUEST_METHOD'],
    'uri' => $_SERVER['REQUEST_URI'], 'length' => strlen($body), 'sum' => md5($body),
    'headers' => array_filter(getallheaders(), fn($name) => preg_match('/forward|corvane|max-f/i', $name), ARRAY_FILTER_USE_KEY)]);
"""
# Answers one WebSocket handshake with its key, and sends back what it gets.
ECHO = r"""
import base64, hashlib, socket
with socket.create_server(("127.0.0.1", 8123)) as server:
    print("up", flush=True)
    client, _ = server.accept()
    head = client.recv(65536).decode()
    key = next(line.split(": ")[1] for line in head.split("\r\n") if line.lower().startswith("sec-websocket-key"))
    accept = base64.b64encode(hashlib.sha1((key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11").encode()).digest()).decode()
    client.sendall(f"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: {accept}\r\n\r\n".encode())
    while data := client.recv(4096):
        client.sendall(data)
"""


def visit_from(host, address):
    """Gives those who visit the host one more address."""
    device = re.search(rf"(\S+)\s+inet {re.escape(OUTSIDE)}/", host.outside(["ip", "-o", "addr"]).out)[1]
    done = host.outside(["ip", "addr", "add", f"{address}/24", "dev", device])
    assert done.code == 0, done


@pytest.fixture(scope="module")
def old(boot):
    host = boot()
    visit_from(host, VISITOR)
    visit_from(host, OTHER)
    return host


@pytest.fixture(scope="module")
def new(boot, old):
    """The new server, which root of may log in as root of the old one. Each reaches the other at the address OUTSIDE."""
    host = boot()
    with reaching(host, old):
        yield host


def configuration(host):
    """What Apache's configuration consists of, but for the accounts' own sites."""
    return [line for line in host.ok(["ls", "-1R", "/etc/apache2"]).splitlines() if not line.startswith("corv-site")]


@pytest.fixture
def moved(old, new):
    """An account that is suspended on the old server and lives on the new one."""
    account = old.account()
    # The names are the same on both.
    new.remove_accounts()
    new._accounts.append((account.name, account.domain))
    assert new.request("hosting.create", username=account.name, domain=account.domain)["ok"]
    new.wait_until_served(account.name, account.domain)
    new.put(f"{account.home}/public_html/show.php", SHOW, owner=f"{account.name}:www-data")
    before = configuration(old), configuration(new)
    assert old.request("hosting.suspend", username=account.name)["ok"]
    old.wait_for(lambda: old.fetch(account.domain).status == 503, "the suspension")
    yield account
    for host in (old, new):
        host.run(["corvctl", "account", "forward", account.name, "off"])
        host.run(["corvctl", "account", "forwarded", account.name, "off"])
    assert before == (configuration(old), configuration(new))
    old.remove_accounts()
    new.remove_accounts()


def lead(new, account):
    done = new.run(["corvctl", "--json", "account", "forwarded", account.name, "--by", f"root@{OUTSIDE}"])
    assert done.code == 0, done
    return json.loads(done.out)


def show(old, domain, *options, path="/show.php", visitor=VISITOR):
    """What the site on the new server has seen of a visitor of the old one."""
    answer = old.fetch(domain, path, "--interface", visitor, *options)
    # Before an upload comes the word that it may.
    page = answer.body.rpartition("\r\n\r\n")[2]
    assert answer.status in (100, 200), answer
    return json.loads(page)


def log(host, account):
    return host.get(f"/var/log/apache2/{account.domain}-access.log")


def test_visitors_of_the_old_address_get_the_new_site(old, new, moved):
    assert lead(new, moved) == {"ok": True, "account": moved.name, "domain": moved.domain, "address": OUTSIDE, "from": OUTSIDE,
                                "https": False, "httpsProblem": "", "logProblem": ""}
    for name in (moved.domain, f"www.{moved.domain}"):
        seen = show(old, name, path="/show.php?a=%2F..%2e&b=%C3%A4")
        assert (seen["host"], seen["method"], seen["uri"]) == (name, "GET", "/show.php?a=%2F..%2e&b=%C3%A4")
    # Names that nobody has, and other sites, are where they were.
    assert old.fetch("other.example").status == 200 and "ready" not in old.fetch("other.example").body
    assert json.loads(old.ok(["corvctl", "--json", "account", "show", moved.name]))["movedTo"] == OUTSIDE
    findings = [line for line in old.run(["corvctl", "--plain", "doctor"]).out.splitlines() if moved.name in line or moved.domain in line]
    assert findings == []


def test_a_large_upload_arrives_whole(old, new, moved):
    lead(new, moved)
    data = os.urandom(30 * 1024 * 1024)
    source = old._state / "upload"
    source.write_bytes(data)
    new.put(f"{moved.home}/public_html/.user.ini", "post_max_size = 64M\n", owner=f"{moved.name}:www-data")
    seen = show(old, moved.domain, "-X", "POST", "-H", "Content-Type: application/octet-stream", "-H", "Expect: 100-continue",
                "--data-binary", f"@{source}")
    assert (seen["length"], seen["sum"]) == (len(data), hashlib.md5(data).hexdigest())


def test_the_new_server_sees_the_visitors_address(old, new, moved):
    lead(new, moved)
    assert show(old, moved.domain, path="/show.php?one")["address"] == VISITOR
    assert show(old, moved.domain, path="/show.php?two", visitor=OTHER)["address"] == OTHER
    lines = new.wait_for(lambda: [line for line in log(new, moved).splitlines() if "show.php?" in line][1:] and log(new, moved), "log")
    assert [line.split()[0] for line in lines.splitlines() if "show.php?" in line] == [VISITOR, OTHER]
    # Nothing of the way shows to the application, and what others say of themselves is what they say to any server.
    assert show(old, moved.domain)["headers"] == []


def test_nobody_else_is_believed(old, new, moved):
    lead(new, moved)
    key = new.get("/var/lib/corvane/forwarded.key").strip()
    forged = ["-H", "X-Forwarded-For: 192.0.2.66", "-H", "X-Corvane-Client: 192.0.2.66", "-H", f"X-Corvane-Client-{'0' * 32}: 192.0.2.66"]
    # By the old server.
    assert show(old, moved.domain, *forged)["address"] == VISITOR
    assert show(old, moved.domain, "-H", f"X-Corvane-Client-{key}: 192.0.2.66")["address"] == VISITOR
    # From the old server's own address, as its tenants come, without the key.
    answer = new.fetch(moved.domain, "/show.php", *forged)
    assert json.loads(answer.body)["address"] == OUTSIDE
    # With the key, from elsewhere than the old server.
    visit_from(new, OTHER)
    answer = new.fetch(moved.domain, "/show.php", "--interface", OTHER, "-H", f"X-Corvane-Client-{key}: 192.0.2.66")
    assert json.loads(answer.body)["address"] == OTHER
    # The key is root's alone on both.
    assert old.run(["grep", "-rl", key, "/etc/apache2"], user="www-data").out == ""
    assert new.run(["grep", "-rl", key, "/etc/apache2", "/var/lib/corvane"], user="www-data").out == ""


def test_a_ban_by_the_log_is_of_the_visitor(old, new, moved):
    """What fail2ban's own filter finds in the new server's log."""
    lead(new, moved)
    new.ok(["apt-get", "-q", "install", "--yes", "fail2ban"], env={"DEBIAN_FRONTEND": "noninteractive"})
    folder = f"{moved.home}/public_html/closed"
    new.put(f"{folder}/.htaccess", f"AuthType Basic\nAuthName x\nAuthUserFile {moved.home}/users\nRequire valid-user\n",
            owner=f"{moved.name}:www-data")
    new.ok(["chown", f"{moved.name}:www-data", folder])
    new.put(f"{moved.home}/users", "x:$apr1$x$y\n", owner=f"{moved.name}:www-data")
    assert old.fetch(moved.domain, "/closed/", "--interface", VISITOR, "-u", "mallory:x").status == 401
    log = f"/var/log/apache2/{moved.domain}-error.log"
    new.wait_for(lambda: "mallory" in new.get(log), "the refusal in the log")
    assert set(new.ok(["fail2ban-regex", "--out", "ip", log, "apache-auth"]).split()) == {VISITOR}


def test_a_websocket_goes_through(old, new, moved):
    lead(new, moved)
    new.put("/root/echo.py", ECHO)
    # The new server's own matter: what it does with the upgrade stands in a site of its administrator's.
    new.ok(["a2enmod", "-q", "proxy_http"])
    new.put("/etc/apache2/sites-enabled/000-ws.conf", f"<VirtualHost *:80>\nServerName {moved.domain}\n"
            "ProxyPass / http://127.0.0.1:8123/ upgrade=websocket\n</VirtualHost>\n")
    with new.background(["python3", "/root/echo.py"], stdout=-1) as echo:
        assert echo.stdout.readline() == b"up\n"
        new.ok(["systemctl", "reload", "apache2"])
        key = base64.b64encode(os.urandom(16)).decode()
        client = r"""
import socket, sys
with socket.create_connection((sys.argv[1], 80)) as client:
    client.settimeout(20)
    client.sendall(f"GET /ws HTTP/1.1\r\nHost: {sys.argv[2]}\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: {sys.argv[3]}\r\nSec-WebSocket-Version: 13\r\n\r\n".encode())
    head = b""
    while b"\r\n\r\n" not in head:
        head += client.recv(4096)
    print(head.decode().split("\r\n")[0])
    client.sendall(b"some bytes")
    print(client.recv(4096).decode())
"""
        try:
            done = old.outside(["/usr/bin/python3", "-c", client, ADDRESS, moved.domain, key])
            assert done.out.splitlines() == ["HTTP/1.1 101 Switching Protocols", "some bytes"], done
        finally:
            echo.kill()
            new.ok(["sh", "-c", "rm /etc/apache2/sites-enabled/000-ws.conf; a2dismod -q proxy_http; systemctl reload apache2"])


def test_https_is_led_on_with_the_accounts_certificate(old, new, moved, tmp_path):
    """Where the store of certificates has one; the new server is asked over HTTPS too, and has to be the one that it is."""
    make_certificates(tmp_path, moved.domain)
    certificate, key = ((tmp_path / name).read_text() for name in ("site.pem", "site.key"))
    authority = (tmp_path / "authority.pem").read_text()
    for host in (old, new):
        host.put(f"/etc/corvane/https/md/domains/{moved.domain}/pubcert.pem", certificate, mode="0600")
        host.put(f"/etc/corvane/https/md/domains/{moved.domain}/privkey.pem", key, mode="0600")
        host.ok(["sh", "-c", "a2enmod -q ssl && systemctl reload apache2"])
    new.put("/etc/apache2/sites-enabled/corv-sites-443.conf", f"""<VirtualHost *:443>
    ServerName {moved.domain}
    DocumentRoot {moved.home}/public_html
    SSLEngine on
    SSLCertificateFile /etc/corvane/https/md/domains/{moved.domain}/pubcert.pem
    SSLCertificateKeyFile /etc/corvane/https/md/domains/{moved.domain}/privkey.pem
    <Directory {moved.home}/public_html>
        Require all granted
    </Directory>
    <FilesMatch "\\.php$">
        SetHandler "proxy:unix:/run/php/corv-{moved.name}.sock|fcgi://localhost"
    </FilesMatch>
</VirtualHost>
""")
    new.ok(["systemctl", "reload", "apache2"])
    before = old.get("/etc/ssl/certs/ca-certificates.crt")
    try:
        # Nobody vouches for it yet.
        reply = lead(new, moved)
        assert not reply["https"] and reply["httpsProblem"].startswith("no authority that this server knows vouches for "), reply
        old.put("/etc/ssl/certs/ca-certificates.crt", before + authority)
        with old.reaching(new, 443):
            assert lead(new, moved)["https"]
            done = old.outside(["curl", "-q", "-sS", "--cacert", tmp_path / "authority.pem", "--interface", VISITOR, "--resolve",
                                f"{moved.domain}:443:{ADDRESS}", f"https://{moved.domain}/show.php"])
            assert json.loads(done.out)["address"] == VISITOR, done
        # The certificate goes: port 443 goes with it, and Apache stays.
        old.ok(["rm", f"/etc/corvane/https/md/domains/{moved.domain}/privkey.pem"])
        old.ok(["sh", "-c", "apache2ctl configtest && systemctl restart apache2"])
        assert show(old, moved.domain)["address"] == VISITOR
    finally:
        old.put("/etc/ssl/certs/ca-certificates.crt", before)
        new.ok(["rm", "/etc/apache2/sites-enabled/corv-sites-443.conf"])
        old.run(["corvctl", "account", "forward", moved.name, "off"])
        for host in (old, new):
            host.ok(["sh", "-c", "a2dismod -q ssl socache_shmcb; rm -r /etc/corvane/https; systemctl reload apache2"])


def test_a_broken_configuration_does_not_take_apache_down(old, new, moved):
    process = old.main_process("apache2")
    old.put("/etc/apache2/conf-enabled/broken.conf", "NoSuchDirective\n")
    before = old.ok(["ls", "/etc/apache2/sites-enabled", "/etc/apache2/mods-enabled"])
    done = new.run(["corvctl", "account", "forwarded", moved.name, "--by", f"root@{OUTSIDE}"])
    assert done.code == 1 and "has an error already, so nothing was changed" in done.err, done
    assert old.ok(["ls", "/etc/apache2/sites-enabled", "/etc/apache2/mods-enabled"]) == before
    old.ok(["rm", "/etc/apache2/conf-enabled/broken.conf"])
    assert old.main_process("apache2") == process and old.fetch(moved.domain).status == 503


def test_what_apache_ends_with_is_taken_back(old, new, moved):
    """The syntax is right with it, but Apache does not come up: a site without a certificate goes with it."""
    site = f"/etc/apache2/sites-enabled/001-moved-{moved.name}.conf"
    old.ok(["sh", "-c", "a2enmod -q ssl && systemctl reload apache2"])
    old.put("/etc/apache2/sites-enabled/002-x.conf",
            f"<IfFile {site}>\n<VirtualHost *:80>\nServerName x.example\nSSLEngine on\n</VirtualHost>\n</IfFile>\n")
    try:
        done = old.run(["corvctl", "account", "forward", moved.name, OUTSIDE, "--key-file", "-"], input="0" * 32 + "\n")
        # Debian 13 says so in its reload, Debian 12 has said yes by then.
        assert (done.code, done.out) == (1, "")
        assert done.err == "corvctl: Apache does not come up with it\n" or done.err.startswith("corvctl: systemctl reload apache2: Job"), done
        assert not old.exists(site) and not old.exists("/etc/apache2/mods-enabled/proxy_http.load")
        assert old.fetch(moved.domain).status == 503
    finally:
        old.ok(["sh", "-c", "rm /etc/apache2/sites-enabled/002-x.conf; a2dismod -q ssl socache_shmcb; systemctl reload apache2"])


def test_a_forward_of_an_account_that_is_gone_is_named_and_ended(old, new, moved):
    lead(new, moved)
    done = old.run(["corvctl", "account", "delete", moved.name, "--confirm", moved.name])
    assert done.code == 0 and f"corvctl account forward {moved.name} off" in done.err, done
    assert show(old, moved.domain)["address"] == VISITOR
    refused = old.run(["corvctl", "account", "create", moved.name, moved.domain])
    assert refused.code == 1 and f"the site 001-moved-{moved.name} already answers to {moved.domain}" in refused.err, refused
    assert f"corvctl account forward {moved.name} off" in old.run(["corvctl", "--plain", "doctor"]).out
    assert new.run(["corvctl", "account", "forwarded", moved.name, "off", "--by", f"root@{OUTSIDE}"]).code == 0
    assert "ready" not in old.fetch(moved.domain).body
