"""The sandbox and its stand-ins themselves: what the other tests rely on."""

from sandbox import PSQL


def create(sandbox):
    return sandbox.request("hosting.create", username="alice", domain="example.org")


def test_nothing_of_the_machine_but_its_programs_is_inside(sandbox):
    assert sorted(entry.name for entry in sandbox.root.iterdir() if not entry.is_symlink()) == sorted(
        "dev etc home mnt opt proc root run srv standins sys tmp usr var".split()
    )
    assert sandbox.tree("/home") == {}
    assert [line.split(":")[0] for line in sandbox.read("/etc/passwd").splitlines()] == (
        "root daemon mail www-data backup postgres corv-web nobody".split()
    )


def test_undeclared_line_is_found(sandbox):
    sandbox.request("ping")
    sandbox.expected_log.pop()
    assert len(sandbox.finish()) == 1
    sandbox.logs("agent: uid 0 ran ping -> ok")


def test_missing_line_is_found(sandbox):
    sandbox.request("ping")
    sandbox.logs("agent: never said")
    assert len(sandbox.finish()) == 1
    sandbox.expected_log.pop()


def test_secret_in_arguments_is_found(sandbox):
    reply = create(sandbox)
    assert reply["dbPassword"] in sandbox.secrets
    sandbox.secret("corv-alice")
    assert "a2ensite was given the secret 'corv-alice' as an argument" in sandbox.finish()
    sandbox.secrets.remove("corv-alice")


def test_calls_under_runuser_are_recorded_with_their_user(sandbox):
    create(sandbox)
    (outer,) = sandbox.calls("runuser")
    (inner,) = sandbox.calls("psql")
    assert (outer.uid, inner.uid) == (0, 115)
    assert outer.argv == PSQL
    assert outer.stdin is None and inner.stdin.startswith(b"\\set u 'alice'\n")


def test_rules_choose_by_arguments_input_and_count(sandbox):
    sandbox.answer("tool", exit=1)
    sandbox.answer("tool", "a", ..., exit=2)
    sandbox.answer("tool", "a", "b*", exit=3)
    sandbox.answer("tool", "count", exit=4, calls=(2, 3))
    sandbox.answer("tool", "in", exit=5, holds=b"yes")
    run = lambda *args, **how: sandbox.run("/standins/bin/tool", *args, **how)[0]
    sandbox.allows_loose_calls("tool")
    assert [run(), run("x"), run("a"), run("a", "bc"), run("a", "bc", "d")] == [1, 1, 2, 3, 2]
    assert [run("count") for _ in range(4)] == [1, 4, 4, 1]
    assert [run("in", input="oh yes"), run("in", input="no")] == [5, 1]
    assert sandbox.calls("tool")[-2].stdin == b"oh yes"


def test_answers_have_output_files_and_signals(sandbox):
    sandbox.answer("tool", out="out\0", err=b"err\xff", write={"/tmp/made": "text"}, exit=7)
    sandbox.answer("tool", "die", signal=9)
    sandbox.answer("tool", "shell", ..., shell='echo "$0 $*"; exit 3')
    sandbox.allows_loose_calls("tool")
    code, out, err = sandbox.run("/standins/bin/tool")
    assert (code, out, err) == (7, "out\0", "err\udcff")
    assert sandbox.read("/tmp/made") == "text"
    assert sandbox.run("/standins/bin/tool", "die")[0] == -9
    assert sandbox.run("/standins/bin/tool", "shell", "x")[:2] == (3, "/standins/bin/tool shell x\n")


def test_real_tools_change_the_sandbox_only(sandbox):
    create(sandbox)
    assert sandbox.has_user("alice")
    assert "alice" not in open("/etc/passwd").read()
