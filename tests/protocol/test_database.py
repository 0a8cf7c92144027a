"""hosting.resetDbPassword and hosting.dbReadOnly."""

import re

import pytest

from programs import wait_until
from sandbox import PSQL

READ_ONLY = """\
\\set u 'alice'
SELECT format('ALTER DATABASE %I SET default_transaction_read_only = on', :'u') \\gexec
SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = :'u' AND pid <> pg_backend_pid();
"""
WRITABLE = """\
\\set u 'alice'
SELECT format('ALTER DATABASE %I RESET default_transaction_read_only', :'u') \\gexec
SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = :'u' AND pid <> pg_backend_pid();
"""
BOTH = pytest.mark.parametrize("command", ["resetDbPassword", "dbReadOnly"])


def failure(message):
    return {"ok": False, "error": message}


@pytest.fixture
def alice(sandbox):
    sandbox.add_account("alice")
    return sandbox


def test_gives_the_role_a_new_password_each_time(alice):
    passwords = []
    for _ in range(2):
        alice.forget_calls()
        reply = alice.request("hosting.resetDbPassword", username="alice")
        assert set(reply) == {"ok", "dbPassword"} and reply["ok"] is True
        assert re.fullmatch("[A-Za-z0-9_-]{24}", reply["dbPassword"])
        assert alice.argvs() == [PSQL]
        assert alice.scripts() == [
            f"\\set u 'alice'\n\\set pw '{reply['dbPassword']}'\n"
            "SELECT format('ALTER ROLE %I PASSWORD %L', :'u', :'pw') \\gexec\n"
        ]
        passwords.append(reply["dbPassword"])
    assert passwords[0] != passwords[1]


@pytest.mark.parametrize("value, script", [
    (True, READ_ONLY),
    (False, WRITABLE),
    ("true", WRITABLE),
    (1, WRITABLE),
    (None, WRITABLE),
    ([True], WRITABLE),
    ({"readOnly": True}, WRITABLE),
])
def test_only_true_makes_a_database_read_only(alice, value, script):
    for _ in range(2):
        alice.forget_calls()
        assert alice.request("hosting.dbReadOnly", username="alice", readOnly=value) == {"ok": True}
        assert alice.argvs() == [PSQL]
        assert alice.scripts() == [script]


def test_a_database_becomes_writable_without_an_argument(alice):
    assert alice.request("hosting.dbReadOnly", username="alice") == {"ok": True}
    assert alice.scripts() == [WRITABLE]


@BOTH
@pytest.mark.parametrize("errors, detail", [
    ("", "exit code 3"),
    ('ERROR:  role "alice" does not exist\n', 'ERROR:  role "alice" does not exist'),
])
def test_a_failing_script_is_told(alice, command, errors, detail):
    alice.answer("psql", out="never shown", err=errors, exit=3)
    assert alice.request("hosting." + command, username="alice", readOnly=True) == failure("runuser failed: " + detail)
    assert alice.argvs() == [PSQL]


@BOTH
def test_a_missing_runuser_is_told(alice, command):
    alice.remove_standin("runuser")
    assert alice.request("hosting." + command, username="alice") == failure("runuser: cannot start")


@BOTH
def test_a_hanging_database_is_told(impatient, alice, command):
    alice.answer("psql", hang=True)
    assert alice.request("hosting." + command, username="alice") == failure("runuser: took too long")
    wait_until(lambda: alice.agent.others() == [], "the end of what the tool left")


@BOTH
@pytest.mark.parametrize("username", ["postgres", "bob", "carol", "ALICE", "alice'; --", "", None, True])
def test_knows_accounts_alone(alice, command, username):
    alice.add_user("bob", "Robert")
    name = username if isinstance(username, str) else ""
    assert alice.request("hosting." + command, username=username) == failure(f"no Corvane account named '{name}'")
    assert alice.argvs() == []
