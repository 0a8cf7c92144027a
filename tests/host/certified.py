"""A booted host with HTTPS switched on and an ACME authority of its own on it, Debian's test server."""

import time
from dataclasses import dataclass

import pytest
from hostfloor import ADDRESS, HostError

STORE = "/etc/corvane/https/md"
STATE = "/var/lib/corvane/https/state.json"
LIVE = "/run/corvane/https/sites.conf"
AGAIN = ["/usr/libexec/corvane/corv-https", "again"]

AUTHORITY = r"""
mkdir -p /srv/pebble && cd /srv/pebble
systemctl stop pebble dnstest 2>/dev/null
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout key.pem -out cert.pem -days 30 -subj /CN=pebble \
    -addext subjectAltName=DNS:localhost,IP:127.0.0.1 2>/dev/null
cat >pebble.json <<END
{"pebble":{"listenAddress":"127.0.0.1:14000","managementListenAddress":"127.0.0.1:15000",
"certificate":"/srv/pebble/cert.pem","privateKey":"/srv/pebble/key.pem","httpPort":80,"tlsPort":443,"ocspResponderURL":"",
"externalAccountBindingRequired":false,"certificateValidityPeriod":$1}}
END
systemd-run -q --unit=dnstest pebble-challtestsrv -defaultIPv4 127.0.0.1 -defaultIPv6= -http01= -https01= -tlsalpn01= \
    -dns01 127.0.0.1:8053 -management 127.0.0.1:8055
systemd-run -q --unit=pebble -E PEBBLE_VA_NOSLEEP=1 -E PEBBLE_WFE_NONCEREJECT=0 \
    pebble -config /srv/pebble/pebble.json -dnsserver 127.0.0.1:8053
"""
SETTINGS = """[https]
authority=https://127.0.0.1:14000/dir
authority_ca=/srv/pebble/cert.pem
contact=admin@web1.test
retry=2s
check=2s
"""


@dataclass
class Secure:
    """An answer over HTTPS: status, headers and body as they came, the certificate's issuer and end, HTTP's version."""

    status: int
    text: str
    issuer: str
    ends: str
    version: str


def start_authority(host, seconds=90 * 86400):
    """Has a fresh authority run, whose certificates are good for so many seconds; it knows nobody from before. That of Debian 13
    has certificates that are good for less than some days renewed at once, again and again."""
    host.ok(["bash", "-c", AUTHORITY, "bash", str(seconds)])
    host.run(["sh", "-c", f"rm -rf {STORE}/accounts/*"])
    # Whoever asks before it listens has failed, and waits.
    wait_for_authority(host)


def wait_for_authority(host):
    host.wait_for(lambda: host.run(["curl", "-ks", "https://127.0.0.1:14000/dir"]).code == 0, "the authority")


def prepare(host):
    """Has the authority run, and HTTPS on."""
    host.ok(["apt-get", "-q", "install", "--yes", "pebble"], env={"DEBIAN_FRONTEND": "noninteractive"})
    start_authority(host)
    # Where it was started before the network had an IPv6 address, it listens for IPv4 alone, whatever it reads again.
    host.ok(["systemctl", "restart", "apache2"])
    host.put("/etc/corvane/https.conf", SETTINGS)
    host.ok(["corvctl", "https", "on"])


# What takes its time and shows little that the others do not.
long = pytest.mark.long


@pytest.fixture(scope="module")
def web(boot):
    """The host of a module, with HTTPS on."""
    host = boot(https=True)
    prepare(host)
    yield host
    host.stop()


@pytest.fixture
def server(web):
    """The host of the module; what a test makes of accounts and choices, and what it brought about, is gone after it."""
    yield web
    web.remove_accounts()
    web.ok(["sh", "-c", "rm -f /etc/corvane/https.d/*; systemctl reset-failed apache2; systemctl start apache2"])
    # Of a test that has removed the package nothing is left to do.
    web.run(AGAIN)
    web.ok(["systemctl", "reload", "apache2"])


def is_up(host):
    """Whether Apache runs; a reload of its own may just be under way."""
    return host.run(["systemctl", "is-active", "apache2"]).out.strip() in ("active", "reloading")


def lead(host, *domains, www=True):
    """Has the names lead to the host, as its name servers tell it."""
    for domain in domains:
        names = f"{domain} www.{domain}" if www else domain
        host.ok(["sh", "-c", f"echo '127.0.0.1 {names}' >>/etc/hosts"])


def certified(host, domain=None, **how):
    """An account whose site has a certificate of the authority."""
    name = host.free_name()
    domain = domain or f"{name}.example"
    lead(host, domain, **how)
    reply = host.request("hosting.create", username=name, domain=domain, sshKey=host.key.public)
    if reply.get("ok") is not True:
        raise HostError(f"hosting.create: {reply}")
    wait_for_certificate(host, domain)
    return name, domain


def wait_for_certificate(host, domain):
    def is_there():
        answer = secure(host, domain)
        return answer and answer.status != 503 and "Pebble" in answer.issuer

    try:
        # An order that a reload cut off counts as under way for a minute.
        host.wait_for(is_there, f"a certificate for {domain}", timeout=100)
    except HostError as error:
        raise HostError(f"{error}\n{host.get(STATE)}\n{host.journal('corv-https')}\n{host.journal('apache2')}") from error


def secure(host, domain, path="/", *options):
    """Fetches a page over HTTPS from outside; nothing where there is no connection."""
    done = host.outside(["curl", "-q", "-sSkiv", "--max-time", "30", "--resolve", f"{domain}:443:{ADDRESS}", *options,
                         f"https://{domain}{path}"])
    if done.code != 0:
        return None
    issuer, ends = (next((line for line in done.err.splitlines() if word in line), "") for word in ("issuer:", "expire date:"))
    head = done.out.split("\r\n", 1)[0].split()
    return Secure(int(head[1]), done.out, issuer, ends, head[0])


def plain(host, domain, path="/"):
    """The status over plain HTTP."""
    return host.fetch(domain, path).status


def reload(host):
    """Reloads Apache and waits until it has read its configuration: it says yes before it has."""
    log = "/var/log/apache2/error.log"
    before = host.run(["grep", "-c", "resuming normal operations", log]).out
    host.run(["systemctl", "reload", "apache2"])
    deadline = time.monotonic() + 5
    # Where it ends instead, the line never comes.
    while host.run(["grep", "-c", "resuming normal operations", log]).out == before and time.monotonic() < deadline:
        if host.run(["systemctl", "is-active", "apache2"]).out.strip() != "active":
            return
        time.sleep(0.05)


def listed(host, account):
    """What "corvctl https list" tells of an account: its state and the remark."""
    for line in host.ok(["corvctl", "--plain", "https", "list"]).splitlines():
        cells = line.split("\t")
        if cells[0] == account:
            return cells[2], cells[4]
    return None
