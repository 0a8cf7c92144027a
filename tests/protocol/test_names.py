"""Account names, domains, keys and the look-up of accounts, each through the command that checks it."""

import re

import pytest

KEY = "ssh-ed25519 " + "A" * 68
USERNAME = "username: 3 to 16 lowercase letters and digits, starting with a letter (not a reserved name)"
DOMAIN = "that is not a valid domain name"
BAD_KEY = "that does not look like one SSH public key (ssh-ed25519 AAAA… comment)"
# The first thing after all checks fails in these tests, so that what passes them leaves nothing behind.
PASSED = "useradd failed: exit code 1"

EXISTING = [
    "hosting.suspend",
    "hosting.resume",
    "hosting.delete",
    "hosting.getKeys",
    "hosting.setKeys",
    "hosting.resetDbPassword",
    "hosting.dbReadOnly",
    "files",
    "quota.set",
    "backup.restore",
]


def fails(sandbox, **args):
    sandbox.answer("useradd", exit=1)
    reply = sandbox.request("hosting.create", args)
    assert set(reply) == {"ok", "error"} and reply["ok"] is False
    if reply["error"] != PASSED:
        assert sandbox.calls() == []
    return reply["error"]


@pytest.mark.parametrize("name", ["abc", "a12", "z9z", "a234567890123456", "alice", "roots", "www2", "admins"])
def test_valid_username(sandbox, name):
    assert fails(sandbox, username=name, domain="example.org") == PASSED
    assert sandbox.argvs()[0][-1] == name


@pytest.mark.parametrize(
    "name",
    [
        "",
        "ab",
        "a2345678901234567",
        "1abc",
        "abc_d",
        "ab-c",
        "ab.c",
        "Abc",
        "abC",
        " abc",
        "abc ",
        "abc\n",
        "abc\0",
        "ab\0c",
        "-abc",
        "../abc",
        "abcé",
        "аbc",  # a Cyrillic letter
        "abc\u0661",  # a digit outside ASCII
        "ab\u212a",  # the Kelvin sign
        "$(id)",
        "a" * 100_000,
    ]
    + ["root", "admin", "www", "postgres", "corvane", "mail", "ftp", "nobody", "daemon", "backup"],
    ids=lambda name: ascii(name)[:24],
)
def test_invalid_or_reserved_username(sandbox, name):
    assert fails(sandbox, username=name, domain="example.org") == USERNAME


@pytest.mark.parametrize("value", [None, 5, True, ["alice"], {"name": "alice"}])
def test_username_that_is_no_text(sandbox, value):
    assert fails(sandbox, username=value, domain="example.org") == USERNAME


def test_missing_username(sandbox):
    assert fails(sandbox, domain="example.org") == USERNAME


LABEL = "a" * 63


@pytest.mark.parametrize(
    "given, normal",
    [
        ("example.org", "example.org"),
        (" WWW.Example.ORG ", "example.org"),
        ("\t\nexample.org\r\n", "example.org"),
        ("www.www.example.org", "www.example.org"),
        ("wWw.example.org", "example.org"),
        ("www.example", None),  # what is left has one label only
        ("www2.example.org", "www2.example.org"),
        ("example.o-g", "example.o-g"),
        ("a.bc", "a.bc"),
        ("a.b", None),
        ("1.co", "1.co"),
        ("xn--bcher-kva.example", "xn--bcher-kva.example"),
        ("a-b.c-d.ef", "a-b.c-d.ef"),
        (f"{LABEL}.org", f"{LABEL}.org"),
        (f"{LABEL}a.org", None),
        (f"a.{LABEL}", f"a.{LABEL}"),
        (f"a.{LABEL}a", None),
        (f"{LABEL}.{LABEL}.{LABEL}.{'a' * 57}.org", f"{LABEL}.{LABEL}.{LABEL}.{'a' * 57}.org"),  # 253
        (f"{LABEL}.{LABEL}.{LABEL}.{'a' * 58}.org", None),
        ("", None),
        (" ", None),
        ("localhost", None),
        ("example.1rg", None),
        ("example.123", None),
        ("127.0.0.1", None),
        ("-example.org", None),
        ("example-.org", None),
        ("exam_ple.org", None),
        ("exa mple.org", None),
        ("example..org", None),
        (".example.org", None),
        ("example.org.", None),
        ("example.org\nServerAlias evil", None),
        ("example.org\0", None),
        ("example.org,evil", None),
        ("example.org:80", None),
        ("*.example.org", None),
        ("exämple.org", None),
        ("\u212aelvin.org", None),  # must not become an ASCII k
        ("ＥＸＡＭＰＬＥ.org", None),
        ("${x}.org", None),
        ("%1.org", None),
    ],
    ids=lambda value: ascii(value)[:40],
)
def test_domain(sandbox, given, normal):
    if normal is None:
        assert fails(sandbox, username="alice", domain=given) == DOMAIN
    else:
        assert fails(sandbox, username="alice", domain=given) == PASSED
        assert sandbox.argvs()[0][-2] == f"Corvane account,{normal}"


@pytest.mark.parametrize("value", [None, 5, True, ["example.org"], {}])
def test_domain_that_is_no_text(sandbox, value):
    assert fails(sandbox, username="alice", domain=value) == DOMAIN


BODY = "A" * 40


@pytest.mark.parametrize(
    "key",
    [
        f"ssh-ed25519 {BODY}",
        f"ssh-rsa {BODY}",
        f"ecdsa-sha2-nistp256 {BODY}",
        f"ecdsa-sha2-nistp384 {BODY}",
        f"ecdsa-sha2-nistp521 {BODY}",
        f"sk-ssh-ed25519@openssh.com {BODY}",
        f"sk-ecdsa-sha2-nistp256@openssh.com {BODY}",
        f"ssh-ed25519 {BODY}=",
        f"ssh-ed25519 {BODY}===",
        f"ssh-ed25519 {'a+/9' * 500}",
        f"ssh-ed25519 {BODY} ",
        f"ssh-ed25519 {BODY} me@home ~!",
        f"ssh-ed25519 {BODY} {'c' * 200}",
        f"\n ssh-ed25519 {BODY} trimmed\t\n",
        "",
        " \n",
        None,
        5,
        [KEY],
    ],
    ids=lambda key: str(key)[:30] + str(len(str(key))),
)
def test_key_that_passes(sandbox, key):
    assert fails(sandbox, username="alice", domain="example.org", sshKey=key) == PASSED


@pytest.mark.parametrize(
    "key",
    [
        "x",
        "ssh-ed25519",
        f"ssh-ed25519 {BODY[1:]}",
        f"ssh-ed25519 {BODY}====",
        f"ssh-ed25519  {BODY}",
        f"ssh-ed25519\t{BODY}",
        f"ssh-dss {BODY}",
        f"SSH-ed25519 {BODY}",
        f"ecdsa-sha2-nistp224 {BODY}",
        f"sk-ssh-ed25519@opensshXcom {BODY}",
        f"ssh-ed25519 {BODY}-",
        f"ssh-ed25519 {BODY} {'c' * 201}",
        f"ssh-ed25519 {BODY} é",
        f"ssh-ed25519 {BODY} a\tb",
        f"ssh-ed25519 {BODY} a\nssh-rsa {BODY}",
        f"ssh-ed25519 {BODY} a\rb",
        f"ssh-ed25519 {BODY} a\0b",
        f"ssh-ed25519 {BODY}\u2028x",
        f'command="id" ssh-ed25519 {BODY}',
        f"# comment\nssh-ed25519 {BODY}",
        f"ssh-ed25519 {BODY}\nssh-ed25519 {BODY}",
    ],
    ids=lambda key: ascii(key)[-30:],
)
def test_key_that_is_refused(sandbox, key):
    assert fails(sandbox, username="alice", domain="example.org", sshKey=key) == BAD_KEY


def test_passwords_differ_and_are_24_safe_characters(sandbox):
    found = set()
    for number in range(3):
        reply = sandbox.request("hosting.create", username=f"alice{number}", domain=f"e{number}.org")
        found.add(reply["dbPassword"])
        assert re.fullmatch("[A-Za-z0-9_-]{24}", reply["dbPassword"])
    assert len(found) == 3


# The look-up of accounts, by every command that begins with it


NO_ACCOUNTS = [
    "root",
    "postgres",
    "backup",
    "www-data",
    "bob",  # a user without the marker
    "carol",  # the marker in another case
    "david",  # the marker, but not first
    "nosuch",
    "",
    "al",
    "Alice",
    " alice",
    "alice ",
    "alice\n",
    "alice\0",
    "alice/",
    "../alice",
    "-alice",
    "é",
    "x" * 32,
    "x" * 33,
    "x" * 40,
    "%1",
]


@pytest.mark.parametrize("existing", EXISTING)
def test_name_that_is_no_account_is_refused_and_nothing_done(sandbox, existing):
    sandbox.add_account("alice")
    sandbox.add_user("bob", "Bob,example.org")
    sandbox.add_user("carol", "corvane account,example.org")
    sandbox.add_user("david", " Corvane account,example.org")
    for name in NO_ACCOUNTS:
        error = f"no Corvane account named '{name[:32]}'"
        assert sandbox.request(existing, username=name) == {"ok": False, "error": error}
    for value in (None, 5, True, ["alice"], {"username": "alice"}):
        assert sandbox.request(existing, username=value) == {"ok": False, "error": "no Corvane account named ''"}
    assert sandbox.calls() == []


@pytest.mark.parametrize("comment", ["Corvane account,example.org", "Corvane account", "Corvane accountant,x"])
@pytest.mark.parametrize("existing", ["hosting.getKeys", "quota.set"])
def test_account_is_whoever_has_the_marker(sandbox, existing, comment):
    sandbox.add_user("alice", comment)
    assert "no Corvane account" not in sandbox.request(existing, username="alice").get("error", "")
