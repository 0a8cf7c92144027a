"""What visitors of the accounts' sites have of HTTPS on a booted host: the sites' own rules, uploads, WebSockets, and their address in the
log and with fail2ban."""

import pytest
from certified import certified, secure, web  # noqa: F401 (pytest finds web here)
from hostfloor import OUTSIDE

LIMIT = 240


@pytest.fixture(scope="module")
def site(web):
    """The name and domain of an account whose site has a certificate."""
    return certified(web)


def test_the_sites_own_rules_know_that_it_is_https_and_who_visits(web, site):
    name, domain = site
    web.put(f"/home/{name}/public_html/.htaccess",
               "RewriteEngine On\nRewriteCond %{HTTPS} !=on\nRewriteRule ^ https://%{HTTP_HOST}%{REQUEST_URI} [R=301,L]\n")
    answer = web.fetch(domain, "/page?x=1")
    assert (answer.status, answer.headers["location"]) == (301, f"https://{domain}/page?x=1")
    web.put(f"/home/{name}/public_html/page", "here")
    assert secure(web, domain, "/page?x=1").text.endswith("here")
    line = web.ok(["grep", "/page", f"/var/log/apache2/{domain}-access.log"]).splitlines()[-1]
    assert OUTSIDE in line.split()


def test_large_uploads_go_through(web, site):
    name, domain = site
    web.put(f"/home/{name}/public_html/size.php", "<?php $n = 0; $in = fopen('php://input', 'r'); while (!feof($in)) "
               "$n += strlen(fread($in, 65536)); echo $n;")
    made = web.outside(["sh", "-c", "head -c 50000000 /dev/zero >/tmp/corv-upload"])
    assert made.code == 0
    answer = secure(web, domain, "/size.php", "-H", "Expect:", "--data-binary", "@/tmp/corv-upload")
    web.outside(["rm", "/tmp/corv-upload"])
    assert (answer.version, answer.text.rsplit("\r\n", 1)[1]) == ("HTTP/2", "50000000")


ECHO = r"""
import base64, hashlib, socket
door = socket.create_server(("127.0.0.1", 9999))
while True:
    link, _ = door.accept()
    stream = link.makefile("rwb")
    lines = [line.strip() for line in iter(stream.readline, b"\r\n") if line]
    key = next((line.split(b": ", 1)[1] for line in lines if line.lower().startswith(b"sec-websocket-key: ")), b"")
    proof = base64.b64encode(hashlib.sha1(key + b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11").digest())
    stream.write(b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: " + proof + b"\r\n\r\n")
    stream.flush()
    while len(head := stream.read(2)) == 2:
        mask = stream.read(4)
        text = bytes(byte ^ mask[place % 4] for place, byte in enumerate(stream.read(head[1] & 127)))
        stream.write(bytes([head[0], len(text)]) + text)
        stream.flush()
"""

# As a browser does: beside the connections for pages, one of its own that speaks HTTP/1.1.
TALK = r"""
import base64, hashlib, socket, ssl, sys
context = ssl._create_unverified_context()
context.set_alpn_protocols(["http/1.1"])
link = context.wrap_socket(socket.create_connection(("10.213.0.2", 443), 20), server_hostname=sys.argv[1])
stream = link.makefile("rwb")
key = base64.b64encode(b"sixteen bytes of")
stream.write(b"GET /socket HTTP/1.1\r\nHost: " + sys.argv[1].encode() + b"\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
             b"Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: " + key + b"\r\n\r\n")
stream.flush()
lines = [line.strip() for line in iter(stream.readline, b"\r\n") if line]
proof = base64.b64encode(hashlib.sha1(key + b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11").digest())
assert lines[0].split()[1] == b"101" and b"sec-websocket-accept: " + proof.lower() in [line.lower() for line in lines], lines
for text in (b"one", b"another"):
    mask = b"\x01\x02\x03\x04"
    stream.write(bytes([0x81, 0x80 | len(text)]) + mask + bytes(byte ^ mask[place % 4] for place, byte in enumerate(text)))
    stream.flush()
    head = stream.read(2)
    print(head[0], stream.read(head[1]).decode())
"""


def test_a_websocket_of_the_servers_own_goes_through_beside_http_2(web, site):
    _, domain = site
    web.put("/root/echo.py", ECHO)
    web.ok(["systemd-run", "-q", "--unit=echo", "python3", "/root/echo.py"])
    # No .htaccess can have one: it would reach whatever listens here. This one is the administrator's.
    web.put("/etc/apache2/conf-enabled/theirs.conf", 'ProxyPass "/socket" "ws://127.0.0.1:9999/"\n')
    try:
        web.ok(["a2enmod", "-q", "proxy_wstunnel"])
        web.ok(["systemctl", "restart", "apache2"])
        assert secure(web, domain).version == "HTTP/2"
        talked = web.outside(["/usr/bin/python3", "-c", TALK, domain])
        assert (talked.code, talked.out) == (0, "129 one\n129 another\n"), talked.err
    finally:
        web.ok(["sh", "-c", "rm /etc/apache2/conf-enabled/theirs.conf; a2dismod -q proxy_wstunnel; systemctl stop echo; systemctl restart apache2"])


GUARDED = "AuthType Basic\nAuthName private\nAuthUserFile {home}/passwords\nRequire valid-user\n"
JAIL = "[apache-auth]\nenabled = true\nbackend = polling\nport = http,https\nlogpath = /var/log/apache2/*-error.log\n"


def test_who_guesses_passwords_over_https_is_banned_by_his_own_address(web, site):
    name, domain = site
    home = f"/home/{name}"
    web.put(f"{home}/public_html/private/.htaccess", GUARDED.format(home=home))
    web.put(f"{home}/public_html/private/page", "private")
    web.put(f"{home}/passwords", f"somebody:{web.ok(['openssl', 'passwd', '-apr1', 'right'])}", owner=f"{name}:www-data", mode="0640")
    assert secure(web, domain, "/private/page", "-u", "somebody:right").text.endswith("private")
    assert web.request("fail2ban.enable", timeout=300)["ok"]
    web.put("/etc/fail2ban/jail.d/zz-sites.local", JAIL)
    web.ok(["systemctl", "restart", "fail2ban"])

    def banned():
        jails = {jail["name"]: jail["banned"] for jail in web.request("fail2ban.status").get("jails", [])}
        return jails.get("apache-auth")

    web.wait_for(lambda: banned() == [], "the jail")
    try:
        for _ in range(5):
            assert secure(web, domain, "/private/page", "-u", "somebody:wrong").status == 401
        web.wait_for(lambda: banned() == [OUTSIDE], "the ban")
        assert secure(web, domain, "/", "--max-time", "5") is None
    finally:
        web.ok(["sh", "-c", f"rm /etc/fail2ban/jail.d/zz-sites.local; fail2ban-client set apache-auth unbanip {OUTSIDE}; systemctl stop fail2ban"])
    assert secure(web, domain).status == 200
