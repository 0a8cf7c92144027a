"""corvctl php: accounts' pools move from one PHP version to another, whatever goes wrong, and follow what the agent passes by.

The stand-in for systemctl hands what it is asked to a thread here, which is both versions' FPM. As the real one, it keeps the
sockets of the pools that it still has, does not start over a pool of nobody or a socket's name that somebody serves, and removes the
name of a socket that it gives up, whose ever that is by then."""

import http.server
import json
import os
import shutil
import socket
import threading

import pytest
from corvctl import corvctl, on_terminal
from programs import wait_until

JOURNAL = "/var/lib/corvane/php-move.json"
POOL = "[corv-{0}]\nuser = {0}\nlisten = /run/php/corv-{0}.sock\n; as it was, to the byte\n"
ASK = """\
case "$1" in
show) echo 4711 ;; # of an FPM that serves none of the sockets
is-active|--quiet) for unit; do :; done
   if [ "$2" = is-failed ]; then test -e "/fpm/failed.$unit"; else test -e "/fpm/up.$unit"; fi ;;
--no-block) shift
   while ! mkdir /fpm/turn 2>/dev/null; do sleep 0.01; done
   echo "$1 $2" >/fpm/ask.new && mv /fpm/ask.new /fpm/ask
   { while [ -e /fpm/ask ]; do sleep 0.01; done; rmdir /fpm/turn; } >/dev/null 2>&1 & ;;
*) while ! mkdir /fpm/turn 2>/dev/null; do sleep 0.01; done
   echo "$1 $2" >/fpm/ask.new && mv /fpm/ask.new /fpm/ask
   while [ -e /fpm/ask ]; do sleep 0.01; done
   code=$(cat /fpm/code); rmdir /fpm/turn; exit "$code" ;;
esac
"""
TEST = """\
[ "$1" = -m ] && { cat "/fpm/modules.${0##*/}"; exit 0; }
grep -h ^include= "$3" | sed -n 's/^include=//p' | while read -r files; do cat $files; done | grep -q broken || exit 0
echo "[22-Nov-2026 16:26:48] ERROR: [pool x] broken" >&2
exit 78
"""


def pool_path(version, name, end=""):
    return f"/etc/php/{version}/fpm/pool.d/corv-{name}.conf{end}"


class Fpms:
    """The FPM of each version of PHP of a sandbox, from here."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        self.served = {}
        self.made = {}
        self.was_aside = []  # the names that were put aside when the last reading began
        self.asked = []
        self.deaf = set()  # versions that do not serve what they read
        self.ended = threading.Event()
        sandbox.mkdir("/fpm")
        sandbox.mkdir("/run/php")
        sandbox.answer("systemctl", shell=ASK)
        self.thread = threading.Thread(target=self.work, daemon=True)
        self.thread.start()

    def up(self, version, isUp=True):
        path = self.sandbox.path(f"/fpm/up.php{version}-fpm")
        path.touch() if isUp else path.unlink(missing_ok=True)
        self.sandbox.path(f"/fpm/failed.php{version}-fpm").unlink(missing_ok=True)

    def close(self):
        self.ended.set()
        self.thread.join()
        for version in list(self.served):
            self.stop(version)

    def work(self):
        ask = self.sandbox.path("/fpm/ask")
        while not self.ended.wait(0.003):
            if not ask.exists():
                continue
            verb, unit = ask.read_text().split()
            self.asked.append(f"{verb} {unit}")
            version = unit.removeprefix("php").removesuffix("-fpm")
            code = 0
            if verb == "stop":
                self.stop(version)
            elif verb == "reload-or-restart":
                code = self.read(version)
            self.sandbox.path("/fpm/code").write_text(str(code))
            ask.unlink()

    def read(self, version):
        folder = self.sandbox.path(f"/etc/php/{version}/fpm/pool.d")
        files = sorted(folder.glob("*.conf"))
        self.was_aside = sorted(path.name for path in self.sandbox.path("/run/php").glob("*.old"))
        for path in files:
            path.is_symlink() or path.read_bytes()  # which waits for a file that is held back
        wanted = [path.name[5:-5] for path in files if path.name.startswith("corv-")] if version not in self.deaf else []
        mine = self.served.setdefault(version, {})
        fresh = set(wanted) - set(mine)
        if not files or not all(map(self.sandbox.has_user, wanted)) or any(map(self.is_served, fresh)):
            self.end(version)
            return 1
        for name in set(mine) - set(wanted):
            mine.pop(name).close()
            self.sandbox.path(f"/run/php/corv-{name}.sock").unlink(missing_ok=True)
        for name in fresh:
            path = self.sandbox.path(f"/run/php/corv-{name}.sock")
            path.unlink(missing_ok=True)
            mine[name] = socket.socket(socket.AF_UNIX)
            mine[name].bind(str(path))
            mine[name].listen(64)
            self.made[version, name] = path.stat().st_ino
        self.up(version)
        return 0

    def is_served(self, name):
        with socket.socket(socket.AF_UNIX) as client:
            return client.connect_ex(str(self.sandbox.path(f"/run/php/corv-{name}.sock"))) == 0

    def end(self, version):
        """As one that fails: the names stay."""
        for one in self.served.pop(version, {}).values():
            one.close()
        self.up(version, False)
        self.sandbox.path(f"/fpm/failed.php{version}-fpm").touch()

    def stop(self, version):
        for name, one in self.served.pop(version, {}).items():
            one.close()
            self.sandbox.path(f"/run/php/corv-{name}.sock").unlink(missing_ok=True)
        self.up(version, False)

    def version_of(self, name):
        """The version to whose socket an account's name leads."""
        path = self.sandbox.path(f"/run/php/corv-{name}.sock")
        number = path.stat().st_ino if path.exists() else None
        return next((version for version, names in self.served.items()
                     if name in names and self.made[version, name] == number), None)

    def pools(self):
        """The accounts that each version serves."""
        return {version: sorted(names) for version, names in self.served.items() if names}


@pytest.fixture
def fpms(sandbox):
    """A sandbox with PHP 8.2 and 8.4 side by side, and in 8.2 alice, who is on-line, and bob, who is suspended."""
    sandbox.php("8.2", "8.4")
    for version in ("8.2", "8.4"):
        sandbox.write(f"/etc/php/{version}/fpm/php-fpm.conf", f"include=/etc/php/{version}/fpm/pool.d/*.conf\n")
        sandbox.write(f"/etc/php/{version}/fpm/pool.d/www.conf", "[www]\n")
        sandbox.write(f"/fpm/modules.php-fpm{version}", "[PHP Modules]\nCore\nPDO\n")
        sandbox.answer(f"php-fpm{version}", shell=TEST)
    fpms = Fpms(sandbox)
    for name, end in (("alice", ""), ("bob", ".suspended")):
        sandbox.add_account(name, f"{name}.example")
        sandbox.write(pool_path("8.2", name, end), POOL.format(name))
    site(sandbox, "alice")
    site(sandbox, "bob", suspended=True)
    for version in ("8.2", "8.4"):
        fpms.read(version)
    yield fpms
    fpms.close()


def take(sandbox, fpms):
    """As a move has it that was killed when the new version had taken alice over."""
    name = sandbox.path("/run/php/corv-alice.sock")
    name.rename(f"{name}.old")
    sandbox.write(pool_path("8.4", "alice"), POOL.format("alice"))
    fpms.read("8.4")
    assert fpms.version_of("alice") == "8.4"


def site(sandbox, name, suspended=False):
    """The site file as the agent writes it."""
    head = (f"# Managed by Corvane (account {name}). Edits here are overwritten.\n<VirtualHost *:80>\n    ServerName {name}.example\n"
            f"    ServerAlias www.{name}.example\n    DocumentRoot /home/{name}/public_html\n"
            f"    ErrorLog ${{APACHE_LOG_DIR}}/{name}.example-error.log\n    CustomLog ${{APACHE_LOG_DIR}}/{name}.example-access.log corv\n")
    off = ("    RewriteEngine On\n    RewriteRule ^ - [R=503,L]\n"
           '    ErrorDocument 503 "This site is temporarily unavailable."\n')
    on = (f"    DirectoryIndex index.php index.html\n    <Directory /home/{name}/public_html>\n"
          "        Options -Indexes +SymLinksIfOwnerMatch\n        AllowOverride All\n        Require all granted\n    </Directory>\n"
          f'    <FilesMatch "\\.php$">\n        SetHandler "proxy:unix:/run/php/corv-{name}.sock|fcgi://localhost"\n    </FilesMatch>\n')
    sandbox.write(f"/etc/apache2/sites-available/corv-{name}.conf", head + (off if suspended else on) + "</VirtualHost>\n")


def pools(sandbox):
    """Where the pools of accounts lie, and whatever else a move may have left."""
    found = []
    for version in ("8.2", "8.4"):
        folder = sandbox.path(f"/etc/php/{version}/fpm/pool.d")
        found += sorted(f"{version} {path.name}" for path in folder.iterdir() if path.name != "www.conf")
    return found


def sockets(sandbox):
    return sorted(path.name for path in sandbox.path("/run/php").iterdir())


def move(sandbox, *words):
    return corvctl(sandbox, "--json", "php", "move", *(words or ("8.2", "8.4")), "--confirm", words[1] if words else "8.4",
                   start=False)


BEFORE = ["8.2 corv-alice.conf", "8.2 corv-bob.conf.suspended"]
AFTER = ["8.4 corv-alice.conf", "8.4 corv-bob.conf.suspended"]


def test_shows_what_there_is_and_what_to_do(sandbox, fpms):
    sandbox.start()
    sandbox.write(pool_path("8.2", "carol"), POOL.format("carol"))
    assert on_terminal(sandbox, "php", "status") == (0, """\
PHP  FPM   IN FORCE  ON-LINE  SUSPENDED  NOBODY'S
8.2  runs  no              1          1         1
8.4  runs  yes             0          0         0
corvctl: pools of users who are gone keep an FPM from starting
corvctl:   corvctl php follow
""")
    sandbox.path(pool_path("8.2", "carol")).unlink()
    assert corvctl(sandbox, "--plain", "php", "status") == (
        0, "8.2\truns\tno\t1\t1\t0\n8.4\truns\tyes\t0\t0\t0\n",
        "corvctl: nothing is moved unasked: alice, bob stay with PHP 8.2 until they are\ncorvctl:   corvctl php move 8.2 8.4\n")
    sandbox.remove_standin("php-fpm8.2")
    code, out, _ = corvctl(sandbox, "--json", "php", "status")
    assert (code, json.loads(out)) == (0, {
        "ok": True, "next": "corvctl php move 8.2 8.4", "problem": "PHP 8.2 is gone, so the sites of alice, bob have no PHP",
        "versions": [
            {"version": "8.2", "installed": False, "running": False, "inForce": False, "live": ["alice"], "parked": ["bob"],
             "nobodys": []},
            {"version": "8.4", "installed": True, "running": True, "inForce": True, "live": [], "parked": [], "nobodys": []}]})


def test_says_its_plan_and_moves_when_the_version_is_typed(sandbox, fpms):
    sandbox.start()
    sandbox.write(pool_path("8.2", "carol", ".suspended"), POOL.format("carol"))
    sandbox.write("/fpm/modules.php-fpm8.2", "[PHP Modules]\nCore\nPDO\npgsql\n")
    code, text = on_terminal(sandbox, "php", "move", "8.2", "8.4", "--confirm", "8.2")
    plan = """\
POOL                                              PLAN
alice                                             on-line
bob                                               suspended
/etc/php/8.2/fpm/pool.d/corv-carol.conf.suspended is removed: its user is gone
"""
    assert (code, " ".join(text.split())) == (2, " ".join((plan + """\
corvctl: PHP 8.4 lacks modules that PHP 8.2 has: pgsql
corvctl: PHP pages fail for some milliseconds, and never for longer than PHP 8.4 takes for a reload
corvctl: that is not the new version, so nothing was moved
""").split()))
    assert pools(sandbox) == ["8.2 corv-alice.conf", "8.2 corv-bob.conf.suspended", "8.2 corv-carol.conf.suspended"]

    code, out, err = move(sandbox)
    reply = json.loads(out)
    assert (code, err, reply.pop("milliseconds") >= 0) == (0, "", True)
    assert reply == {"ok": True, "from": "8.2", "to": "8.4", "moved": ["alice", "bob"],
                     "dropped": ["/etc/php/8.2/fpm/pool.d/corv-carol.conf.suspended"]}
    assert pools(sandbox) == AFTER
    assert sandbox.read(pool_path("8.4", "alice")) == POOL.format("alice")
    assert sandbox.entry(pool_path("8.4", "alice")) == "0644 root:root"
    assert fpms.asked == ["reload-or-restart php8.4-fpm", "reload-or-restart php8.2-fpm"]
    assert (fpms.pools(), fpms.version_of("alice")) == ({"8.4": ["alice"]}, "8.4")
    assert sockets(sandbox) == ["corv-alice.sock"]
    assert not sandbox.exists(JOURNAL)
    code, out, _ = move(sandbox)
    assert (code, json.loads(out)["error"]) == (1, "no account has a pool in PHP 8.2")


def test_visitors_are_with_the_old_version_until_the_new_one_has_read_its_pools(sandbox, fpms):
    """Only then are the names put aside, or it would not start."""
    seen = []
    read = fpms.read
    fpms.read = lambda version: (read(version), seen.append((version, fpms.was_aside)))[0]
    assert move(sandbox)[0] == 0
    assert seen == [("8.4", []), ("8.2", ["corv-alice.sock.old"])]


def test_a_new_version_that_does_not_run_is_started(sandbox, fpms):
    fpms.stop("8.4")
    assert move(sandbox)[0] == 0
    assert (pools(sandbox), fpms.pools(), fpms.version_of("alice")) == (AFTER, {"8.4": ["alice"]}, "8.4")


def test_each_pool_becomes_what_its_site_asks_for(sandbox, fpms):
    site(sandbox, "alice", suspended=True)
    site(sandbox, "bob")
    assert move(sandbox)[0] == 0
    assert pools(sandbox) == ["8.4 corv-alice.conf.suspended", "8.4 corv-bob.conf"]
    assert fpms.pools() == {"8.4": ["bob"]}


def test_a_version_without_another_pool_is_switched_off(sandbox, fpms):
    sandbox.path("/etc/php/8.2/fpm/pool.d/www.conf").unlink()
    assert move(sandbox)[0] == 0
    assert fpms.asked == ["reload-or-restart php8.4-fpm", "stop php8.2-fpm", "disable php8.2-fpm"]
    assert fpms.version_of("alice") == "8.4"


def test_what_the_new_version_does_not_take_is_not_moved(sandbox, fpms):
    sandbox.write(pool_path("8.2", "alice"), "[corv-alice]\nbroken\n")
    code, _, err = move(sandbox)
    assert (code, err) == (1, "corvctl: PHP 8.4 does not take the pools: [pool x] broken\n  nothing was moved\n")
    assert (pools(sandbox), fpms.asked, sandbox.exists(JOURNAL)) == (BEFORE, [], False)


def test_it_goes_back_when_the_new_version_does_not_serve(sandbox, fpms):
    fpms.deaf.add("8.4")
    sandbox.write("/etc/php/8.4/fpm/pool.d/www.conf", "[www]\n")
    code, _, err = move(sandbox)
    assert (code, err) == (1, "corvctl: PHP 8.4 does not serve alice\n  all accounts are back with PHP 8.2\n")
    assert (pools(sandbox), fpms.pools(), sandbox.exists(JOURNAL)) == (BEFORE, {"8.2": ["alice"]}, False)


@pytest.fixture
def web(sandbox, fpms):
    """The site of alice on a port of its own: a page under PHP 8.2, what the test says under 8.4."""
    answers = {"8.2": 200, "8.4": 200}

    class Page(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            answer = answers.get(fpms.version_of("alice"), 503)
            self.send_response(answer() if callable(answer) else answer)
            self.send_header("Location", "http://192.0.2.1/")  # followed by nobody
            self.end_headers()

        def log_message(self, *_):
            pass

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Page)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    sandbox.write("/etc/apache2/sites-enabled/corv-alice.conf",
                  f"<VirtualHost 127.0.0.1:{server.server_port}>\nServerName alice.example\n</VirtualHost>\n")
    yield answers
    server.shutdown()
    server.server_close()


def test_a_site_that_was_well_and_is_not_takes_all_back(sandbox, fpms, web):
    web["8.4"] = 500
    code, _, err = move(sandbox)
    assert (code, err) == (1, "corvctl: visitors of alice saw a page before, and see none now\n"
                              "  all accounts are back with PHP 8.2\n")
    assert (pools(sandbox), fpms.pools(), sandbox.exists(JOURNAL)) == (BEFORE, {"8.2": ["alice"]}, False)


@pytest.mark.parametrize("before, after", [(500, 500), (302, 302), (200, 404)])
def test_a_site_that_was_not_well_or_still_is_stays(sandbox, fpms, web, before, after):
    web.update({"8.2": before, "8.4": after})
    assert move(sandbox)[0] == 0
    assert pools(sandbox) == AFTER


def test_who_is_suspended_while_the_others_move_keeps_nobody_back(sandbox, fpms, web):
    def suspended():
        site(sandbox, "alice", suspended=True)
        return 503
    web["8.4"] = suspended
    assert move(sandbox)[0] == 0
    assert pools(sandbox) == ["8.4 corv-alice.conf.suspended", "8.4 corv-bob.conf.suspended"]


STEPS = [("php-fpm8.4", 1), ("php-fpm8.4", 2), ("php-fpm8.2", 1), ("php-fpm8.2", 2), *(("systemctl", call) for call in range(1, 8))]


@pytest.mark.parametrize("program, call", STEPS)
@pytest.mark.parametrize("acts", [False, True])
def test_killed_at_any_step_the_same_command_goes_on(sandbox, fpms, web, program, call, acts):
    script = ASK if program == "systemctl" else TEST
    how = {"shell": script} if acts else {"exit": 1}
    sandbox.answer(program, call=call, tell=9, **how)
    assert move(sandbox)[0] == -9
    # The stand-in went with it; what it has asked for is done all the same.
    wait_until(lambda: not sandbox.exists("/fpm/ask"), "the FPM")
    shutil.rmtree(sandbox.path("/fpm/turn"), ignore_errors=True)
    code, _, err = move(sandbox)
    assert (code, err) == (0, "")
    assert (pools(sandbox), fpms.pools(), sandbox.exists(JOURNAL)) == (AFTER, {"8.4": ["alice"]}, False)
    assert (fpms.version_of("alice"), sockets(sandbox)) == ("8.4", ["corv-alice.sock"])


def test_a_move_that_was_cut_off_is_told_of_and_ended_first(sandbox, fpms):
    sandbox.write(JOURNAL, json.dumps({"from": "8.2", "to": "8.4", "pools": [], "well": []}))
    sandbox.php_extra = sandbox.mkdir("/etc/php/8.1/fpm/pool.d")
    code, _, err = move(sandbox, "8.1", "8.4")
    assert (code, err) == (1, "corvctl: a move from PHP 8.2 to 8.4 was cut off and has to be ended first\n"
                              "  corvctl php move 8.2 8.4\n")
    assert "corvctl php move 8.2 8.4" in corvctl(sandbox, "php", "status", start=False)[2]
    assert corvctl(sandbox, "php", "follow", start=False)[0] == 0
    assert (pools(sandbox), sandbox.exists(JOURNAL)) == (AFTER, False)


@pytest.mark.parametrize("words, problem", [
    (("8.2", "8.2"), "that is the same version twice"),
    (("8.2", "8.9"), "PHP 8.9 has no folder of pools here"),
    (("7.4", "8.4"), "PHP 7.4 has no folder of pools here"),
    (("8.2", "../8.4"), "PHP ../8.4 has no folder of pools here"),
    (("8.4", "8.2"), "accounts are made, suspended and deleted in PHP 8.4 here, the highest version"),
])
def test_refuses_what_is_no_way(sandbox, fpms, words, problem):
    code, out, _ = move(sandbox, *words)
    assert (code, json.loads(out)["error"], pools(sandbox)) == (1, problem, BEFORE)


def follow(sandbox):
    return corvctl(sandbox, "php", "follow", start=False)


def test_side_by_side_nothing_is_moved_unasked(sandbox, fpms):
    assert follow(sandbox) == (0, "", "")
    assert (pools(sandbox), fpms.asked) == (BEFORE, [])


def test_what_the_agent_passes_by_follows_suspension_resumption_and_deletion(sandbox, fpms):
    site(sandbox, "alice", suspended=True)
    site(sandbox, "bob")
    sandbox.write(pool_path("8.2", "carol"), POOL.format("carol"))
    code, _, err = follow(sandbox)
    assert (code, err.splitlines()) == (0, [
        "corvctl: removed /etc/php/8.2/fpm/pool.d/corv-carol.conf, whose user is gone",
        "corvctl: put the pool of alice in PHP 8.2 aside, as the account is suspended",
        "corvctl: put the pool of bob in PHP 8.2 back, as the account is resumed"])
    assert pools(sandbox) == ["8.2 corv-alice.conf.suspended", "8.2 corv-bob.conf"]
    assert (fpms.asked, fpms.pools()) == (["reload-or-restart php8.2-fpm"], {"8.2": ["bob"]})


def test_the_version_in_force_is_the_agents_own_affair(sandbox, fpms):
    os.rename(sandbox.path(pool_path("8.2", "alice")), sandbox.path(pool_path("8.4", "alice")))
    site(sandbox, "alice", suspended=True)
    assert follow(sandbox) == (0, "", "")


@pytest.fixture
def alone(sandbox, fpms):
    """PHP 8.4 in force with no pool but alice's, whose FPM has ended while she was suspended."""
    sandbox.path("/etc/php/8.4/fpm/pool.d/www.conf").unlink()
    fpms.read("8.4")
    sandbox.path(pool_path("8.2", "alice")).rename(sandbox.path(pool_path("8.4", "alice")))
    fpms.read("8.2")
    return fpms


def test_an_fpm_that_ended_with_its_last_pool_comes_back_with_the_next_one(sandbox, alone):
    """Even where a process of the account's has kept the socket, at which no FPM may find anybody."""
    left = socket.socket(socket.AF_UNIX)
    left.bind(str(sandbox.path("/run/php/corv-alice.sock")))
    left.listen()
    with left:
        code, _, err = follow(sandbox)
    assert (code, err) == (0, "corvctl: starting PHP 8.4, which ended without a pool and has one again\n")
    assert alone.asked == ["reset-failed php8.4-fpm", "reload-or-restart php8.4-fpm"]
    assert (alone.pools(), alone.version_of("alice")) == ({"8.4": ["alice"]}, "8.4")
    assert follow(sandbox) == (0, "", "")


@pytest.mark.parametrize("why", ["an administrator stopped it", "it has another pool", "it still has none"])
def test_an_fpm_that_did_not_end_for_want_of_a_pool_is_left_alone(sandbox, alone, why):
    if why == "an administrator stopped it":
        alone.stop("8.4")
    elif why == "it has another pool":
        sandbox.write("/etc/php/8.4/fpm/pool.d/www.conf", "[www]\n")
    else:
        sandbox.path(pool_path("8.4", "alice")).rename(sandbox.path(pool_path("8.4", "alice", ".suspended")))
    assert follow(sandbox) == (0, "", "")
    assert alone.asked == []


def test_an_fpm_whose_next_pool_is_broken_is_not_started(sandbox, alone):
    sandbox.write(pool_path("8.4", "alice"), "[corv-alice]\nbroken\n")
    assert follow(sandbox) == (1, "", "corvctl: PHP 8.4 does not start: [pool x] broken\n  corvctl php status shows what there is\n")
    assert alone.asked == []


def test_another_version_that_was_stopped_with_its_last_pool_comes_back_with_it(sandbox, fpms):
    sandbox.path("/etc/php/8.2/fpm/pool.d/www.conf").unlink()
    site(sandbox, "alice", suspended=True)
    assert follow(sandbox)[0] == 0
    assert (fpms.asked, fpms.pools()) == (["stop php8.2-fpm"], {})
    site(sandbox, "alice")
    code, _, err = follow(sandbox)
    assert (code, err) == (0, "corvctl: put the pool of alice in PHP 8.2 back, as the account is resumed\n")
    assert (fpms.asked[1:], fpms.pools()) == (["reload-or-restart php8.2-fpm"], {"8.2": ["alice"]})


def test_a_version_that_is_gone_is_moved_from_by_itself(sandbox, fpms):
    fpms.stop("8.2")
    sandbox.remove_standin("php-fpm8.2")
    code, _, err = follow(sandbox)
    assert (code, err.splitlines()[0]) == (0, "corvctl: moving 2 accounts from PHP 8.2 to 8.4")
    assert (pools(sandbox), fpms.pools()) == (AFTER, {"8.4": ["alice"]})
    assert fpms.asked == ["reload-or-restart php8.4-fpm"]


def test_what_is_not_the_agents_is_left_alone(sandbox, fpms):
    """A link, another's pool, and a name that no account can have."""
    sandbox.add_user("office", "The office")
    sandbox.write(pool_path("8.2", "office"), POOL.format("office"))
    sandbox.symlink(pool_path("8.2", "eve"), "/etc/shadow")
    sandbox.write(pool_path("8.2", "x"), "[x]\n")
    odd = ["8.2 corv-eve.conf", "8.2 corv-office.conf", "8.2 corv-x.conf"]
    assert follow(sandbox) == (0, "", "")
    assert pools(sandbox) == sorted(BEFORE + odd)


def test_without_the_users_nothing_seems_to_be_nobodys(sandbox, fpms):
    lines = sandbox.read("/etc/passwd")
    sandbox.write("/etc/passwd", "")
    code, _, err = follow(sandbox)
    sandbox.write("/etc/passwd", lines)
    assert (code, "cannot be read" in err, pools(sandbox)) == (1, True, BEFORE)


def test_a_cut_off_move_that_cannot_go_on_is_undone(sandbox, fpms):
    """After the new version has taken over, after which a third version has come."""
    take(sandbox, fpms)
    alice = {"account": "alice", "wasParked": False, "becomesParked": False}
    sandbox.write(JOURNAL, json.dumps({"from": "8.2", "to": "8.4", "pools": [alice], "well": []}))
    sandbox.mkdir("/etc/php/8.5/fpm/pool.d")
    sandbox.answer("php-fpm8.5")
    code, _, err = follow(sandbox)
    assert (code, err) == (1, "corvctl: accounts are made, suspended and deleted in PHP 8.5 here, the highest version\n"
                              "  corvctl php status shows what there is\n")
    assert (pools(sandbox), fpms.pools(), sandbox.exists(JOURNAL)) == (BEFORE, {"8.2": ["alice"]}, False)
    assert (fpms.version_of("alice"), sockets(sandbox)) == ("8.2", ["corv-alice.sock"])


def test_without_a_way_back_a_site_that_does_not_get_on_stays_and_is_told_of(sandbox, fpms, web):
    web.update({None: 200, "8.4": 500})
    fpms.stop("8.2")
    sandbox.remove_standin("php-fpm8.2")
    code, _, err = move(sandbox)
    assert (code, err) == (1, "corvctl: visitors of alice saw a page before, and see none now\n"
                              "  corvctl php status shows where they are\n")
    assert (pools(sandbox), sandbox.exists(JOURNAL)) == (AFTER, False)


def test_a_version_that_does_not_run_yet_is_waited_for_and_tried_at_its_start(sandbox, fpms):
    sandbox.remove_standin("php-fpm8.2")
    for version in ("8.2", "8.4"):
        fpms.stop(version)
    timer = threading.Timer(1, fpms.read, ["8.4"])
    timer.start()
    code, _, err = follow(sandbox)
    timer.join()
    assert (code, err.splitlines()[0]) == (0, "corvctl: moving 2 accounts from PHP 8.2 to 8.4")
    assert (pools(sandbox), fpms.pools()) == (AFTER, {"8.4": ["alice"]})


@pytest.mark.parametrize("is_served", [True, False])
def test_cut_off_when_the_new_version_serves_already_it_is_ended(sandbox, fpms, web, is_served):
    take(sandbox, fpms)
    sandbox.write(pool_path("8.4", "bob", ".suspended"), POOL.format("bob"))
    moving = [{"account": name, "wasParked": name == "bob", "becomesParked": name == "bob"} for name in ("alice", "bob")]
    sandbox.write(JOURNAL, json.dumps({"from": "8.2", "to": "8.4", "pools": moving, "well": ["alice"], "isServed": is_served}))
    assert move(sandbox)[0] == 0
    assert (pools(sandbox), fpms.pools(), sandbox.exists(JOURNAL)) == (AFTER, {"8.4": ["alice"]}, False)
    assert (fpms.version_of("alice"), sockets(sandbox)) == ("8.4", ["corv-alice.sock"])
    # Where it is known that there is no way but on, nothing is done twice.
    assert fpms.asked == ["reload-or-restart php8.2-fpm"] if is_served else fpms.asked[0] == "reload-or-restart php8.4-fpm"


def test_cut_off_while_the_old_version_lets_go_the_names_come_back(sandbox, fpms, web):
    """It has removed the name, and nobody was there any more to give it back."""
    take(sandbox, fpms)
    os.link(sandbox.path("/run/php/corv-alice.sock"), sandbox.path("/run/php/corv-alice.sock.kept"))
    sandbox.path(pool_path("8.2", "alice")).unlink()
    fpms.read("8.2")
    assert sockets(sandbox) == ["corv-alice.sock.kept", "corv-alice.sock.old"]
    moving = [{"account": "alice", "wasParked": False, "becomesParked": False}]
    sandbox.write(JOURNAL, json.dumps({"from": "8.2", "to": "8.4", "pools": moving, "well": ["alice"], "isServed": True}))
    assert follow(sandbox)[0] == 0
    assert (fpms.pools(), fpms.version_of("alice"), sockets(sandbox)) == ({"8.4": ["alice"]}, "8.4", ["corv-alice.sock"])


def test_cut_off_while_it_goes_back_it_goes_back(sandbox, fpms):
    """The name leads to the old version again, and the new one has not let go of its own yet."""
    take(sandbox, fpms)
    name = sandbox.path("/run/php/corv-alice.sock")
    name.unlink()
    os.link(sandbox.path("/run/php/corv-alice.sock.old"), name)
    moving = [{"account": "alice", "wasParked": False, "becomesParked": False}]
    sandbox.write(JOURNAL, json.dumps({"from": "8.2", "to": "8.4", "pools": moving, "well": ["alice"]}))
    sandbox.mkdir("/etc/php/8.5/fpm/pool.d")
    sandbox.answer("php-fpm8.5")
    assert follow(sandbox)[0] == 1
    assert (pools(sandbox), fpms.pools(), fpms.version_of("alice"), sockets(sandbox)) == (
        BEFORE, {"8.2": ["alice"]}, "8.2", ["corv-alice.sock"])


def test_without_a_way_back_nothing_is_left_where_nobody_looks(sandbox, fpms):
    fpms.stop("8.2")
    sandbox.remove_standin("php-fpm8.2")
    fpms.deaf.add("8.4")
    code, _, err = move(sandbox)
    assert (code, err.splitlines()[0]) == (1, "corvctl: PHP 8.4 does not serve alice")
    assert (pools(sandbox), sandbox.exists(JOURNAL)) == (AFTER, False)


def test_a_cut_off_move_that_cannot_go_on_keeps_what_the_new_version_has(sandbox, fpms):
    """The old version is gone, and a third has come: alice is moved, bob is not."""
    fpms.stop("8.2")
    sandbox.remove_standin("php-fpm8.2")
    sandbox.write(pool_path("8.4", "alice"), POOL.format("alice"))
    sandbox.write(pool_path("8.4", "bob", ".suspended.moving"), POOL.format("bob"))
    fpms.read("8.4")
    moving = [{"account": name, "wasParked": name == "bob", "becomesParked": name == "bob"} for name in ("alice", "bob")]
    sandbox.write(JOURNAL, json.dumps({"from": "8.2", "to": "8.4", "pools": moving, "well": []}))
    sandbox.mkdir("/etc/php/8.5/fpm/pool.d")
    sandbox.answer("php-fpm8.5")
    assert follow(sandbox)[0] == 1
    assert (pools(sandbox), fpms.pools(), sandbox.exists(JOURNAL)) == (
        ["8.2 corv-bob.conf.suspended", "8.4 corv-alice.conf"], {"8.4": ["alice"]}, False)


@pytest.mark.parametrize("text", ["{", '{"from": "../8.2", "to": "8.4"}', '{"from": "8.4", "to": "8.4"}', '{"from": "8.2", "to": 8}'])
def test_what_is_left_of_a_move_and_cannot_be_read_starts_nothing_again(sandbox, fpms, text):
    sandbox.write(JOURNAL, text)
    assert follow(sandbox) == (
        1, "", "corvctl: what a move was about cannot be read; it lies in php-move.json.unreadable\n"
        "  corvctl php status shows what there is\n")
    assert (sandbox.exists(JOURNAL), sandbox.read(f"{JOURNAL}.unreadable"), pools(sandbox)) == (False, text, BEFORE)
    assert follow(sandbox) == (0, "", "")


def test_a_fifo_in_place_of_what_a_move_was_about_is_not_waited_for(sandbox, fpms):
    os.mkfifo(sandbox.path(JOURNAL))
    assert follow(sandbox)[0] == 1
    assert not sandbox.exists(JOURNAL)


@pytest.mark.parametrize("is_served", [True, False])
def test_what_a_damaged_journal_says_costs_no_pool(sandbox, fpms, is_served):
    """Names that no account has, a path, and an account that the new version does not have."""
    odd = [{"account": name} for name in ("../alice", "", "nobodyshere", "alice")] + [7, None]
    sandbox.write(JOURNAL, json.dumps({"from": "8.2", "to": "8.4", "pools": odd, "well": ["../x", 3], "isServed": is_served}))
    code, _, err = follow(sandbox)
    assert code == 0, err
    assert (pools(sandbox), sandbox.exists(JOURNAL)) == (BEFORE if is_served else AFTER, False)
    # What has nothing to let go of is not asked to: nobody would wait for that before the pools come.
    assert fpms.asked[:1] == [f"reload-or-restart php8.{2 if is_served else 4}-fpm"]
    assert fpms.asked.count("reload-or-restart php8.4-fpm") == (0 if is_served else 1)
    assert fpms.version_of("alice") == ("8.2" if is_served else "8.4")
