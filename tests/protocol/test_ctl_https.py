"""corvctl's commands for HTTPS: what they tell of what is kept, what they do to Apache, and which certificates they take."""

import json
import subprocess
import time

import pytest
from corvctl import corvctl

PROGRAM = "/usr/libexec/corvane/corv-https"
ENABLED = "/etc/apache2/sites-enabled/zz-corv-https.conf"
DAY = 86400
STATUS = ("system.info", "services.status", "system.disks", "security.status", "updates.status", "backup.status", "quota.status")


def site(domain, **more):
    return {"domain": domain, "names": [domain, f"www.{domain}"], "leftOut": "", "withoutWww": "", "refused": "", "refusedAt": 0, **more}


def name(leads, said=""):
    return {"leadsHere": leads, "said": said, "seenAt": 1, "nextAt": 1, "misses": 0}


def make_pair(folder, names, days, ca=None, more=()):
    """A certificate for these names, good for so many days from now, and its key; its own authority's unless one is given."""
    folder.mkdir(exist_ok=True)
    words = ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj", "/CN=Test CA",
             "-keyout", folder / "key.pem", "-out", folder / "cert.pem", "-days", str(days),
             "-addext", "subjectAltName=" + ",".join(f"DNS:{one}" for one in names), *more]
    if ca:
        words += ["-CA", ca / "cert.pem", "-CAkey", ca / "key.pem", "-addext", "basicConstraints=critical,CA:FALSE"]
    subprocess.run(words, check=True, capture_output=True)
    return folder / "cert.pem", folder / "key.pem"


@pytest.fixture
def server(sandbox, tmp_path):
    """A server with HTTPS on and an account for each thing that can be told of one."""
    for account in ("alice", "bobby", "carol", "david", "erika"):
        sandbox.add_account(account, f"{account}.example")
    for tool in ("a2enmod", "a2dismod", PROGRAM):
        sandbox.add_standin(tool)
    sandbox.write(ENABLED, "")
    sandbox.write("/etc/corvane/https.d/david", "off\n")
    state = {
        "sites": {"alice": site("alice.example"),
                  "bobby": site("bobby.example", names=["bobby.example"], withoutWww="192.0.2.1 is not this server"),
                  "carol": site("carol.example"), "david": site("david.example", names=[], leftOut="switched off"),
                  "erika": site("erika.example", names=[], leftOut="another site has erika.example on port 443")},
        "names": {"alice.example": name(True), "bobby.example": name(True), "carol.example": name(False, "it has no address")},
        "orders": {"alice.example": {"failures": 0, "said": "", "failedAt": 0, "nextAt": 0, "startedAt": int(time.time()) - 60}},
        "milliseconds": 217, "rehearsals": 1, "rehearsed": True, "at": int(time.time())}
    sandbox.write("/var/lib/corvane/https/state.json", json.dumps(state))
    for account, days in (("alice", 90), ("bobby", 80)):
        certificate, _ = make_pair(tmp_path / account, [f"{account}.example", f"www.{account}.example"], days)
        sandbox.write(f"/etc/corvane/https/md/domains/{account}.example/pubcert.p-256.pem", certificate.read_text())
    return sandbox


def test_lists_each_site_with_its_certificate_or_why_it_has_none(server):
    code, out, err = corvctl(server, "--json", "https", "list", start=False)
    assert (code, err) == (0, "")
    listed = json.loads(out)
    ends = [one.pop("validUntil", None) for one in listed["sites"]]
    assert [end and round((end - time.time()) / DAY) for end in ends] == [90, 80, None, None, None]

    def row(account, names, state, remark):
        domain = f"{account}.example"
        return {"username": account, "domain": domain, "names": [part + domain for part in names], "state": state, "remark": remark,
                "brought": False}

    assert listed == {"ok": True, "sites": [
        row("alice", ["", "www."], "served", ""),
        row("bobby", [""], "served", "www.bobby.example: 192.0.2.1 is not this server"),
        row("carol", ["", "www."], "waiting", "it has no address"),
        row("david", [], "off", ""),
        row("erika", [], "left out", "another site has erika.example on port 443")]}

    code, out, err = corvctl(server, "https", "list", start=False)
    lines = out.splitlines()
    assert lines[0].split() == ["ACCOUNT", "DOMAIN", "HTTPS", "UNTIL", "REMARK"]
    assert [line.split()[:3] for line in lines[3:4]] == [["carol", "carol.example", "waiting"]]


def test_what_keeps_all_sites_off_is_told_of_each(server):
    state = json.loads(server.read("/var/lib/corvane/https/state.json"))
    server.write("/var/lib/corvane/https/state.json", json.dumps({**state, "none": "Apache ended with the sites on port 443"}))
    sites = json.loads(corvctl(server, "--json", "https", "list", start=False)[1])["sites"]
    assert {one["username"]: one["remark"] for one in sites} == {
        "david": "", **dict.fromkeys(("alice", "bobby", "carol", "erika"), "Apache ended with the sites on port 443")}


def test_hostile_text_reaches_no_terminal(server):
    state = json.loads(server.read("/var/lib/corvane/https/state.json"))
    state["sites"]["carol"].update(names=[], leftOut="\x1b[2Jgone")
    server.write("/var/lib/corvane/https/state.json", json.dumps(state))
    assert "\x1b" not in corvctl(server, "https", "list", start=False)[1]


def test_tells_how_https_is_doing(server):
    code, out, err = corvctl(server, "https", "status", start=False)
    assert (code, err) == (0, "")
    facts = dict(line.split("  ", 1) for line in out.splitlines())
    facts = {key.strip(): value.strip() for key, value in facts.items()}
    assert facts.pop("First end") and facts.pop("Last reload")
    assert facts == {"HTTPS": "on", "Certificates": "2", "Waiting": "1", "Left out": "2", "New in 3 hours": "1",
                     "Failed in 1 hour": "0", "In 1 week": "2",
                     "Rehearsal": "before each reload", "It took": "217 ms"}


@pytest.mark.parametrize("host", [[], ["-H", "web1"]])
def test_the_servers_status_tells_of_certificates_and_of_what_is_wrong_with_them(server, host):
    server.answer("ssh", shell='shift 3; exec "$@"')
    server.allows_loose_calls("ssh")

    def https():
        said = corvctl(server, "--plain", *host, "status")[1]
        server.logs(*(f"agent: uid 0 ran {command} -> ok" for command in STATUS * (2 if host else 1)))
        return [line.split("\t")[1:] for line in said.splitlines() if line.startswith("https\t")]

    first = json.loads(corvctl(server, "--json", "https", "status", start=False)[1])["nextEnd"]
    ends = time.strftime("%Y-%m-%d %H:%M", time.localtime(first))
    assert https() == [["ok", f"2 of 5 sites have a certificate, the first ends {ends}"]]
    state = json.loads(server.read("/var/lib/corvane/https/state.json"))
    state["sites"]["carol"].update(names=[], leftOut="its key is no key", refused="a print")
    server.write("/var/lib/corvane/https/state.json", json.dumps(state))
    assert https() == [["attention", "carol.example is not on HTTPS: its key is no key"]]


def test_where_it_is_off_it_says_so(server):
    server.path(ENABLED).unlink()
    assert corvctl(server, "https", "status", start=False) == (0, "HTTPS  off\n", "")
    assert corvctl(server, "https", "list", start=False) == (
        1, "", "corvctl: HTTPS is off\n  corvctl https on switches it on\n")
    assert corvctl(server, "https", "off", start=False) == (1, "", "corvctl: HTTPS is off already\n")


def test_switching_it_on_reloads_apache_once(server):
    server.write("/etc/apache2/mods-enabled/ssl.load", "")
    code, out, err = corvctl(server, "https", "on", start=False)
    assert (code, out) == (0, "HTTPS is on for 5 site(s)\n")
    assert err == "corvctl: certificates come for names that lead here; corvctl https list shows how far they are\n"
    assert server.argvs() == [
        ["a2enmod", "-q", "md"], ["a2enmod", "-q", "http2"], ["a2enmod", "-q", "headers"],
        ["a2ensite", "-q", "zz-corv-https"], ["apache2ctl", "configtest"], ["corv-https", "again"],
        ["systemctl", "reload-or-restart", "apache2.service"],
        ["systemctl", "enable", "-q", "--now", "corv-https.path", "corv-https.timer", "corv-https-ends.timer"]]


def test_what_apache_does_not_take_is_taken_back(server):
    server.path(ENABLED).unlink()
    server.answer("apache2ctl", "configtest", exit=1, err="Syntax error on line 1")
    assert corvctl(server, "https", "on", start=False) == (1, "", "corvctl: apache2ctl failed: Syntax error on line 1\n")
    assert server.argvs()[-5:] == [["a2dissite", "-q", "zz-corv-https"]] + [
        ["a2dismod", "-q", "-f", module] for module in ("ssl", "md", "http2", "headers")]


@pytest.mark.parametrize("program, words", [
    ("apache2ctl", ["configtest"]), (PROGRAM, ["again"]), ("systemctl", ["reload-or-restart", "apache2.service"])],
    ids=["configtest", "again", "reload"])
def test_a_second_try_that_fails_leaves_what_is_in_force(server, program, words):
    for module in ("ssl", "md", "http2"):
        server.write(f"/etc/apache2/mods-enabled/{module}.load", "")
    server.answer(program.split("/")[-1], *words, exit=1, err="not now")
    assert corvctl(server, "https", "on", start=False) == (1, "", f"corvctl: {program} failed: not now\n")
    assert server.argvs("a2dissite") == []
    assert server.argvs("a2dismod") == [["a2dismod", "-q", "-f", "headers"]]


@pytest.mark.parametrize("directive", ["MDomain theirs.example", "  MDStoreDir md", "<MDomainSet theirs.example>", "mdcertificateagreement accepted"])
def test_who_manages_certificates_already_goes_on_alone(server, directive):
    server.write("/etc/apache2/conf-enabled/theirs.conf", f"# mine\n{directive}\n")
    assert corvctl(server, "https", "on", start=False) == (
        1, "", "corvctl: /etc/apache2/conf-enabled/theirs.conf has Apache manage certificates already, and there can be one store of "
        "them only\n")
    assert server.argvs() == []


def test_without_the_package_it_says_what_to_install(server):
    server.path(PROGRAM).unlink()
    assert corvctl(server, "https", "on", start=False) == (
        1, "", "corvctl: the package corv-https is not installed\n  apt-get install corv-https\n")


def test_switching_it_off_keeps_modules_and_certificates(server):
    assert corvctl(server, "https", "off", start=False) == (
        0, "HTTPS is off for all accounts; their certificates are kept\n", "")
    assert server.argvs() == [
        ["systemctl", "disable", "-q", "--now", "corv-https.path", "corv-https.timer", "corv-https-ends.timer"],
        ["a2dissite", "-q", "zz-corv-https"], ["systemctl", "reload-or-restart", "apache2.service"]]


@pytest.mark.parametrize("words", [["on"], ["off"], ["status"], ["list"]])
def test_it_is_done_on_the_server_itself(server, words):
    assert corvctl(server, "-H", "web2", "https", *words, start=False) == (
        2, "", "corvctl: HTTPS is Apache's affair on the server itself, not asked of the agent\n")


def test_what_is_chosen_for_an_account_is_kept_and_put_into_use(server):
    code, out, err = corvctl(server, "account", "https", "alice", "on", "--redirect", "--hsts", "--no-www", start=False)
    assert (code, out, err) == (0, "alice has HTTPS on\n", "")
    assert server.read("/etc/corvane/https.d/alice") == "# Written by corvctl account https.\nredirect\nhsts\nno-www\n"
    assert server.argvs() == [["systemctl", "reload-or-restart", "apache2.service"]]
    assert corvctl(server, "account", "https", "alice", "off", start=False)[:2] == (0, "alice has HTTPS off\n")
    assert server.read("/etc/corvane/https.d/alice") == "# Written by corvctl account https.\noff\n"


CHOICES = "/etc/corvane/https.d/alice"
RELOAD = ["systemctl", "reload-or-restart", "apache2.service"]


@pytest.mark.parametrize("before", [None, "no-www\n"], ids=["nothing", "something"])
def test_a_choice_that_was_refused_does_not_come_into_force_later(server, before):
    if before:
        server.write(CHOICES, before)
    server.answer(*RELOAD, exit=1, err="not now")
    assert corvctl(server, "--json", "account", "https", "alice", "on", "--hsts", start=False) == (
        1, '{"error":"systemctl failed: not now","ok":false}\n',
        "corvctl: systemctl failed: not now\n  alice has what was chosen for it before\n")
    assert (server.read(CHOICES) if server.exists(CHOICES) else None) == before
    # The second one ends what the first may have begun.
    assert server.argvs() == [RELOAD, RELOAD]


def test_a_refused_choice_that_cannot_be_taken_back_is_told(server):
    server.answer(*RELOAD, shell=f"rm {CHOICES} && mkdir -p {CHOICES}/x; echo not now >&2; exit 1")
    code, out, err = corvctl(server, "account", "https", "alice", "on", "--hsts", start=False)
    assert (code, out, err.splitlines()[1:]) == (
        1, "", [f"  what was chosen stands in {CHOICES}, and holds from the next reload of Apache"])


def test_a_choice_is_not_made_where_the_one_before_cannot_be_read(server):
    server.mkdir(CHOICES)
    assert corvctl(server, "account", "https", "alice", "on", start=False) == (
        1, "", f"corvctl: cannot read {CHOICES}, so nothing was changed\n")
    assert server.argvs() == []


@pytest.mark.parametrize("words, message", [
    (["nobody", "on"], (1, "", "corvctl: no Corvane account named 'nobody'\n  corvctl account list shows the accounts\n")),
    (["../alice", "on"], (1, "", "corvctl: no Corvane account named '../alice'\n  corvctl account list shows the accounts\n")),
    (["alice", "off", "--hsts"], (2, "", "corvctl: what is off has no options\n")),
    (["alice", "on", "--cert", "/root/c.pem"], (2, "", "corvctl: --cert and --key go together\n")),
])
def test_what_makes_no_sense_changes_nothing(server, words, message):
    assert corvctl(server, "account", "https", *words, start=False) == message
    assert not server.exists("/etc/corvane/https.d/alice") and server.argvs() == []


BOTH = ["alice.example", "www.alice.example"]


@pytest.fixture
def brought(server, tmp_path):
    """A function that has a certificate for these names used for alice, and gives how that ended."""
    root, _ = make_pair(tmp_path / "root", ["root.example"], 30)

    def bring(names=BOTH, days=30, trusted=True, key=None, more=(), **how):
        certificate, own_key = make_pair(tmp_path / "leaf", names, days, tmp_path / "root", more)
        server.write("/root/c.pem", certificate.read_text())
        server.write("/root/k.pem", key if key is not None else own_key.read_text(), 0o600)
        server.write("/root/ca.pem", root.read_text())
        env = {"SSL_CERT_FILE": "/root/ca.pem"} if trusted else {}
        return corvctl(server, "account", "https", "alice", "on", "--cert", "/root/c.pem", "--key", "/root/k.pem",
                       *how.get("words", []), start=False, env=env)

    return bring


@pytest.mark.skipif(b"-CA " not in subprocess.run(["openssl", "req", "-help"], capture_output=True, check=False).stderr,
                    reason="this openssl signs no request with another authority's key at once")
def test_a_certificate_that_is_right_is_copied_and_used(server, brought):
    code, out, err = brought()
    assert (code, out) == (0, "alice has HTTPS on\n"), err
    words = server.read("/etc/corvane/https.d/alice").splitlines()
    own = words[1].removeprefix("own ")
    assert server.read(f"/etc/corvane/https/own/{own}.crt") == server.read("/root/c.pem")
    assert server.read(f"/etc/corvane/https/own/{own}.key") == server.read("/root/k.pem")
    assert server.entry(f"/etc/corvane/https/own/{own}.key") == "0600 root:root"


def test_a_certificate_that_apache_does_not_take_is_nobodys(server, brought):
    server.answer(*RELOAD, exit=1, err="not now")
    assert brought()[:2] == (1, "")
    assert not server.exists(CHOICES)


def leaves_out(server, at, account="alice", **more):
    """From now on a reload succeeds, and leaves this account's site out, as Apache does not come up with it."""
    state = json.loads(server.read("/var/lib/corvane/https/state.json"))
    state["sites"][account].update(names=[], leftOut="ee key too small", refused="a print", refusedAt=at)
    server.write("/root/refused.json", json.dumps({**state, "at": at, **more}))
    server.answer(*RELOAD, shell="cp /root/refused.json /var/lib/corvane/https/state.json")


@pytest.mark.parametrize("before", [None, "no-www\n"], ids=["nothing", "something"])
def test_a_certificate_that_leaves_the_site_out_is_taken_back(server, brought, before):
    if before:
        server.write(CHOICES, before)
    leaves_out(server, int(time.time()) + 60)
    problem = "Apache does not come up with it: ee key too small"
    assert brought() == (1, "", f"corvctl: {problem}\n  alice has what was chosen for it before\n")
    assert (server.read(CHOICES) if server.exists(CHOICES) else None) == before
    # The second one has the site on port 443 again.
    assert server.argvs()[-2:] == [RELOAD, RELOAD]


@pytest.mark.parametrize("how", [
    {"at": int(time.time()) - 60}, {"at": int(time.time()) + 60, "account": "bobby"},
    {"at": int(time.time()) + 60, "none": "Apache ended with the sites on port 443"},
], ids=["before this one", "of another account", "as all are"])
def test_what_was_refused_for_something_else_takes_no_choice_back(server, how):
    leaves_out(server, **how)
    assert corvctl(server, "account", "https", "alice", "on", "--redirect", start=False)[:2] == (0, "alice has HTTPS on\n")
    assert server.read(CHOICES) == "# Written by corvctl account https.\nredirect\n"
    assert server.argvs() == [RELOAD]


@pytest.mark.parametrize("how, problem", [
    ({"names": ["alice.example"]}, "it is not for www.alice.example, but for alice.example"),
    ({"trusted": False}, "its chain does not lead to an authority that this system trusts"),
    ({"more": ["-addext", "tlsfeature=status_request"]}, "it asks for stapling (Must-Staple), which is off here"),
    ({"key": "nonsense"}, "/root/k.pem holds no key without a password (PEM)"),
])
def test_a_certificate_that_is_wrong_is_not_used(server, brought, how, problem):
    assert brought(**how) == (1, "", f"corvctl: the certificate is not used: {problem}\n")
    assert not server.exists("/etc/corvane/https.d/alice")
    assert server.argvs() == []


def test_a_key_of_another_certificate_is_not_used(server, brought, tmp_path):
    _, other = make_pair(tmp_path / "other", BOTH, 30)
    assert brought(key=other.read_text()) == (
        1, "", "corvctl: the certificate is not used: /root/k.pem is not the key of this certificate\n")


def test_no_certificate_is_waited_for(server):
    server.run("mkfifo", "/root/c.pem")
    server.write("/root/k.pem", "")
    assert corvctl(server, "account", "https", "alice", "on", "--cert", "/root/c.pem", "--key", "/root/k.pem", start=False) == (
        1, "", "corvctl: the certificate is not used: /root/c.pem holds no certificate (PEM)\n")
