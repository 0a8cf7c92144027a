"""What one sees of the accounts' TLS who looks at it as an attacker does, with Debian's testssl.sh: nothing above low."""

import json

import pytest
from certified import certified, prepare, reload

# It tries some three hundred ciphers and twenty attacks, one connection each.
LIMIT = 300
APT = {"DEBIAN_FRONTEND": "noninteractive"}
REPORT = "/root/scan.json"

# What the test's own authority brings about, and nothing that the server has chosen: nobody trusts it, and it has no lists.
OF_THE_AUTHORITY = ("cert_chain_of_trust", "cert_trust", "cert_ocspRevoked", "cert_crlDistributionPoints", "cert_revocation",
                    "cert_extlifeSpan", "cert_ocspURL")
# What the scanner says of itself. A session that is taken up again shows no certificate, and without one it calls each connection
# that ends before its client does one that has failed, as on a busy machine.
OF_THE_SCANNER = ("engine_problem", "sessionresumption_ticket", "sessionresumption_ID")
# Protocols, kinds of ciphers, forward secrecy, the server's preferences, headers and all known attacks.
PARTS = ["-p", "-s", "-f", "-P", "-S", "-h", "-U"]


@pytest.fixture(scope="module")
def host(boot):
    host = boot(https=True)
    prepare(host)
    host.ok(["apt-get", "-q", "install", "--yes", "testssl.sh"], env=APT)
    return host


def scan(host, domain, *options):
    """All findings of a scan, by their ids: severity and text."""
    host.run(["rm", "-f", REPORT])
    done = host.run(["testssl", "--quiet", "--warnings", "off", "--color", "0", "--nodns", "min", "--ip", "127.0.0.1",
                     "--jsonfile", REPORT, *options, f"https://{domain}/"], timeout=LIMIT)
    assert host.exists(REPORT), done.out + done.err
    return {one["id"]: (one["severity"], one["finding"]) for one in json.loads(host.get(REPORT))}


def above_low(findings):
    return {name: found for name, found in findings.items()
            if found[0] in ("MEDIUM", "HIGH", "CRITICAL", "FATAL", "WARN") and name not in OF_THE_AUTHORITY + OF_THE_SCANNER}


def test_a_scan_of_an_accounts_site_finds_nothing_above_low(host):
    name, domain = certified(host)
    host.ok(["corvctl", "account", "https", name, "on", "--hsts"])
    findings = scan(host, domain, *PARTS)
    assert len(findings) > 60  # or it has not looked
    assert above_low(findings) == {}
    # And it would have found something: what the settings do against BREACH is left out. NULL ciphers are none to try it with: Apache
    # takes them out of whatever it is told.
    settings = "/etc/corvane/https-tls.conf"
    usual = host.get(settings)
    host.put(settings, usual[:usual.index("<IfModule setenvif_module>")])
    try:
        reload(host)
        assert set(above_low(scan(host, domain, "--breach"))) == {"BREACH"}
    finally:
        host.put(settings, usual)
