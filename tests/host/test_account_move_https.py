"""An account with HTTPS moves to another server: its certificate is served there at once, before its names lead there."""

import json
import re

import pytest
from certified import STORE, certified, lead, prepare, secure
from hostfloor import ADDRESS, OUTSIDE
from moves import HOST, MOVES, make_certificates, move, reaching

LIMIT = 400
AUTHORITIES = "/etc/ssl/certs/ca-certificates.crt"


@pytest.fixture(scope="module")
def old(boot):
    """The server that has the accounts, with certificates of an authority that it knows."""
    host = boot(https=True)
    prepare(host)
    root = host.ok(["curl", "-sk", "https://127.0.0.1:15000/roots/0"])
    host.put(AUTHORITIES, host.get(AUTHORITIES) + root)
    return host


@pytest.fixture(scope="module")
def new(boot, old):
    """The one that they come to, with HTTPS; no name leads to it, and the authority is a stranger."""
    host = boot(https=True)
    host.ok(["systemctl", "restart", "apache2"])
    host.ok(["corvctl", "https", "on"])
    with reaching(host, old), old.reaching(host, 443):
        yield host


@pytest.fixture
def shop(old, new):
    """An account with a certificate for both of its names, and a page."""
    name, domain = certified(old)
    new._accounts.append((name, domain))
    old.put(f"/home/{name}/public_html/index.html", "<p>the shop", owner=f"{name}:www-data")
    yield name, domain
    for host in (old, new):
        host.run(["sh", "-c", f"corvctl account forward {name} off; corvctl account forwarded {name} off; rm -f {MOVES}/{name}.*"])
    new.remove_accounts()
    old.remove_accounts()


def serial(host, name):
    """The number of the certificate that a visitor of the name gets."""
    script = 'openssl s_client -connect "$1:443" -servername "$2" </dev/null 2>/dev/null | openssl x509 -noout -serial'
    return host.outside(["sh", "-c", script, "sh", ADDRESS, name]).out


def chosen(host, name):
    """What is chosen for an account there, less the copies' name."""
    return re.sub(r"^own .*\n", "own\n", host.get(f"/etc/corvane/https.d/{name}"), flags=re.MULTILINE)


def modes(host, domain):
    """Owners and modes of what the store has of a domain."""
    return host.ok(["sh", "-c", f"cd {STORE}; stat -c '%n %U %G %a' domains domains/{domain} domains/{domain}/p*.p-256.pem"])


def test_the_certificate_is_served_at_once_before_the_names_lead_there(old, new, shop):
    name, domain = shop
    old.ok(["corvctl", "account", "https", name, "on", "--redirect"])
    before = serial(old, domain)
    assert before.startswith("serial=")
    plan = json.loads(new.ok(["corvctl", "--json", "account", "move", name, HOST, "--dry-run"]))
    assert [check["text"] for check in plan["checks"] if check["about"] == "HTTPS"][0].startswith("its certificate comes along, good until ")
    done = move(new, name)
    assert (done.code, re.findall("not as it was.*", done.err)) == (0, []), done
    assert "its certificate comes from an authority that this server does not know" in done.err
    # Both names, on the new server and by way of the old one, which checks the new one's certificate.
    for one in (domain, f"www.{domain}"):
        assert serial(new, one) == before and serial(old, one) == before, one
        for host in (new, old):
            assert secure(host, one).text.endswith("<p>the shop"), (host.name, one)
    assert chosen(new, name) == chosen(old, name) and "redirect" in chosen(new, name)
    assert new.fetch(domain).status == 302
    assert modes(new, domain) == modes(old, domain)
    # Nothing of the key is left in between, or was said.
    key = old.get(f"{STORE}/domains/{domain}/privkey.p-256.pem").splitlines()[1]
    assert new.ok(["sh", "-c", f"grep -rlF -- '{key}' /etc/corvane /var/lib/corvane /run/corvane /var/log 2>/dev/null"]).split() == [
        f"{STORE}/domains/{domain}/privkey.p-256.pem"]
    assert key not in new.journal() and key not in old.journal() and key not in done.err + done.out
    # A start of Apache and a pass over all sites leave it in use.
    new.ok(["/usr/libexec/corvane/corv-https", "again"])
    new.ok(["systemctl", "restart", "apache2"])
    assert serial(new, domain) == before


@pytest.mark.long
def test_a_certificate_that_was_brought_comes_along(old, new, shop, tmp_path):
    name, domain = shop
    make_certificates(tmp_path, domain)
    for file in ("site.pem", "site.key", "authority.pem"):
        old.put(f"/root/{file}", (tmp_path / file).read_text(), mode="0600")
    old.ok(["env", "SSL_CERT_FILE=/root/authority.pem", "corvctl", "account", "https", name, "on", "--hsts", "--cert", "/root/site.pem",
            "--key", "/root/site.key"])
    own = old.wait_for(lambda: serial(old, domain) != "" and serial(old, domain), "the site with it")
    old.put(AUTHORITIES, old.get(AUTHORITIES) + (tmp_path / "authority.pem").read_text())
    done = move(new, name)
    assert done.code == 0, done
    assert serial(new, domain) == own and serial(old, domain) == own
    assert chosen(new, name) == chosen(old, name) and "own\n" in chosen(new, name) and "hsts\n" in chosen(new, name)
    copies = new.ok(["sh", "-c", f"stat -c '%U %G %a' /etc/corvane/https/own/{name}-*"]).splitlines()
    assert copies == ["root root 600"] * 2


@pytest.mark.long
def test_a_certificate_that_cannot_be_taken_is_said_and_the_site_moves(old, new, shop):
    name, domain = shop
    other = old.ok(["openssl", "ecparam", "-name", "prime256v1", "-genkey", "-noout"])
    old.put(f"{STORE}/domains/{domain}/privkey.p-256.pem", other)
    done = move(new, name)
    assert done.code == 1 and "its certificate, one is ordered here when its names lead here: what is there is not the key" in " ".join(
        done.err.split()), done
    assert new.fetch(domain).body == "<p>the shop"
    assert not new.exists(f"{STORE}/domains/{domain}/privkey.p-256.pem") or new.run(
        ["grep", "-cF", other.splitlines()[1], f"{STORE}/domains/{domain}/privkey.p-256.pem"]).out == "0\n"


@pytest.mark.long
def test_who_has_https_off_has_it_off_there(old, new, shop):
    name, domain = shop
    old.ok(["corvctl", "account", "https", name, "off"])
    lead(new, domain)
    done = move(new, name)
    assert done.code == 0, done
    assert "off\n" in chosen(new, name) and secure(new, domain) is None or "the shop" not in secure(new, domain).text
    assert new.fetch(domain).body == "<p>the shop" and OUTSIDE in new.get(f"{MOVES}/{name}.json")
