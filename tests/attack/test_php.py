"""An account's PHP: what all pools of one PHP version share, first of all their cache of compiled scripts, and how one gets in the way
of all."""

import json

import pytest
from hostfloor import ADDRESS

# What another release's versions decide.
pytestmark = pytest.mark.core

LIMIT = 90

SECRET = "the victim's secret"
PRIVATE = "/home/@VICTIM@/public_html/config.php"
INCLUDE = f"@include '{PRIVATE}'; echo $password ?? 'nothing';"

# What stands in the attacker's page, and what it must not show.
ATTEMPTS = {
    "include": (INCLUDE, SECRET),
    "setting of a page": ("ini_set('opcache.validate_permission', '0');" + INCLUDE, SECRET),
    "list of the scripts": ("echo implode(' ', array_keys(@opcache_get_status(true)['scripts'] ?? []));", PRIVATE),
    "whether a script is there": (f"echo @opcache_is_script_cached('{PRIVATE}') ? 'it is there' : 'no';", "it is there"),
    "throwing a script out": (f"echo @opcache_invalidate('{PRIVATE}', true) ? 'thrown out' : 'no';", "thrown out"),
    "throwing all out": ("echo @opcache_reset() ? 'thrown out' : 'no';", "thrown out"),
}

# What somebody else sees to already, PHP itself or the kernel.
CLOSED = {
    "include by a link": ("@symlink('/home/@VICTIM@/public_html', '/home/@ME@/public_html/link');"
                          "@include '/home/@ME@/public_html/link/config.php'; echo $password ?? 'nothing';", SECRET),
    "include by the path for it": ("set_include_path('/home/@VICTIM@/public_html'); @include 'config.php';"
                                   "echo $password ?? 'nothing';", SECRET),
    "reading the file": (f"echo @file_get_contents('{PRIVATE}');", SECRET),
    "showing the file": (f"@highlight_file('{PRIVATE}');", SECRET),
    "compiling the file": (f"@opcache_compile_file('{PRIVATE}'); echo @file_get_contents('{PRIVATE}');", SECRET),
    "the memory of one's own process": ("$m = @fopen('/proc/self/mem', 'rb'); echo $m ? 'the memory' : 'no';", "the memory"),
}


class Sites:
    """The attacker and his victim, whose page has just been visited."""

    def __init__(self, host):
        self.host = host
        self.me = host.account()
        self.victim = host.account()
        page = f"{self.victim.home}/public_html"
        host.put(f"{page}/config.php", f'<?php $password = "{SECRET}";', mode="0600", owner=self.victim.name)
        host.put(f"{page}/index.php", "<?php include 'config.php'; echo 'welcome';", owner=self.victim.name)
        # PHP keeps nothing that was changed in the last two seconds.
        host.ok(["touch", "-d", "1 minute ago", f"{page}/config.php", f"{page}/index.php"])

    def fill(self, text):
        return text.replace("@ME@", self.me.name).replace("@VICTIM@", self.victim.name)

    def run(self, code):
        """What the attacker's page shows, right after a visit to the victim's."""
        self.host.put(f"{self.me.home}/public_html/page.php", f"<?php {self.fill(code)}", owner=self.me.name)
        assert self.host.fetch(self.victim.domain, "/index.php").body == "welcome"
        return self.host.fetch(self.me.domain, "/page.php").body

    def set_apart(self, apart):
        """Has PHP read the settings that keep accounts apart, or not."""
        if apart:
            self.host.ok(["/usr/libexec/corvane/php-settings"])
        else:
            self.host.ok(["rm", f"/etc/php/{self.me.php}/fpm/conf.d/90-corvane.ini"])
            self.host.ok(["systemctl", "reload", f"php{self.me.php}-fpm"])
        self.host.put(f"{self.me.home}/public_html/set.php", "<?php echo ini_get('opcache.validate_permission');", owner=self.me.name)
        self.host.wait_for(lambda: self.host.fetch(self.me.domain, "/set.php").body == str(int(apart)), "PHP's new settings")


@pytest.fixture(scope="module")
def sites(running_host, guarded):
    made = Sites(running_host)
    if not guarded:
        made.set_apart(False)
    yield made
    if not guarded:
        made.set_apart(True)
    running_host.remove_accounts()


@pytest.mark.parametrize("name", ATTEMPTS)
def test_a_way_through_the_cache_of_compiled_scripts(sites, guarded, name):
    code, loot = ATTEMPTS[name]
    assert (sites.fill(loot) in sites.run(code)) is not guarded


def test_no_settings_of_a_folder_open_the_cache(sites, guarded):
    ini = f"{sites.me.home}/public_html/.user.ini"
    sites.host.put(ini, "opcache.validate_permission=0\nopcache.restrict_api=\n", owner=sites.me.name)
    # PHP reads the file again only minutes later; a new process has not read it yet.
    sites.host.run(["pkill", "-KILL", "-u", sites.me.name, "php-fpm"])
    shown = sites.run("echo count(@opcache_get_status(true)['scripts'] ?? []) > 0 ? 'listed' : 'no', ' ';" + INCLUDE)
    sites.host.ok(["rm", ini])
    assert shown == ("no nothing" if guarded else f"listed {SECRET}")


@pytest.mark.parametrize("name", CLOSED)
def test_a_way_that_is_closed_elsewhere(sites, name):
    code, loot = CLOSED[name]
    assert loot not in sites.run(code)


def test_the_memory_of_ones_own_pool_is_closed_to_a_shell(sites):
    """Its process shares the cache's memory, where all others' scripts are."""
    sites.run("echo 'mine';")
    process = sites.host.ok(["pgrep", "-u", sites.me.name, "-f", "php-fpm: pool"]).split()[0]
    for file in ("mem", "maps", "environ"):
        done = sites.host.ssh(sites.me, f"head -c 1 /proc/{process}/{file}")
        assert (done.code, done.out) != (0, "x") and "Permission denied" in done.err, file


# How a visitor asks meanwhile: until he is ended, over a connection of its own each time; what got no page is told.
VISIT = r"""
import http.client, sys, time
address, name, path, seconds = sys.argv[1:]
end = time.monotonic() + float(seconds)
seen = {}
while time.monotonic() < end:
    connection = http.client.HTTPConnection(address, timeout=10)
    connection.request("GET", path, headers={"Host": name})
    status = connection.getresponse().status
    seen[status] = seen.get(status, 0) + 1
print(seen)
"""


def test_a_site_is_served_while_php_gets_the_settings(sites, guarded):
    """Pages that are not running at that moment are served as ever: the sockets stay."""
    if not guarded:
        return
    host = sites.host
    link = f"/etc/php/{sites.me.php}/fpm/conf.d/90-corvane.ini"
    host.ok(["rm", link])
    host.ok(["systemctl", "reload", f"php{sites.me.php}-fpm"])
    unit = ["systemd-run", "--quiet", "--collect", "--on-active=2", "/usr/libexec/corvane/php-settings"]
    host.ok(unit)
    seen = host.outside(["python3", "-c", VISIT, ADDRESS, sites.victim.domain, "/index.php", "5"]).out
    print(seen)
    host.wait_for(lambda: host.exists(link), "the settings")
    sites.set_apart(True)
    assert "200" in seen


WATCHER = "corv-php-watch"

# How he stops his own PHP while it writes into the cache: he has it compile what nobody has seen yet, again and again, watches which
# of his processes has the lock, and stops that one. What was stopped a moment too late goes on.
HOLD = r"""
import os, pathlib, signal, subprocess, sys, time, urllib.request
domain, address = sys.argv[1:]
folder = pathlib.Path.home() / "public_html"

def writer():
    for line in open("/proc/locks"):
        words = line.split()
        if words[1:4] == ["POSIX", "ADVISORY", "WRITE"] and is_mine(words[4]):
            return int(words[4])

def is_mine(pid):
    try:
        return f"\nUid:\t{os.getuid()}\t" in open(f"/proc/{pid}/status").read()
    except OSError:
        return False

for attempt in range(400):
    page = folder / f"many{attempt}.php"
    page.write_text("<?php\n" + "".join(f"function f{attempt}_{i}($a) {{ return $a + {i}; }}\n" for i in range(12000)))
    past = time.time() - 60
    os.utime(page, (past, past))
    visit = subprocess.Popen(["curl", "-s", "-m", "5", "-o", "/dev/null", "-H", f"Host: {domain}", f"http://{address}/{page.name}"])
    while visit.poll() is None:
        pid = writer()
        if pid is None:
            continue
        os.kill(pid, signal.SIGSTOP)
        if writer() == pid:
            print(pid, attempt)
            sys.exit()
        os.kill(pid, signal.SIGCONT)
    page.unlink()
sys.exit("it was never stopped in time")
"""


def has_lock(host, process):
    return f" WRITE {process} " in host.get("/proc/locks")


def test_no_account_holds_up_the_php_of_all_by_stopping_its_own(sites, guarded):
    host = sites.host
    if not guarded:
        host.ok(["systemctl", "stop", WATCHER])
    host.put("/usr/local/lib/hold.py", HOLD)
    sites.run("echo 'mine';")
    since = host.mark()
    held = host.ok(["python3", "/usr/local/lib/hold.py", sites.me.domain, "127.0.0.1"], user=sites.me.name).split()[0]
    try:
        locked = has_lock(host, held)
        # What is in the cache already is there for everybody, what is not is compiled first.
        page = f"{sites.victim.home}/public_html/new.php"
        host.put(page, "<?php echo 'welcome';", owner=sites.victim.name)
        host.ok(["touch", "-d", "1 minute ago", page])
        seen = host.outside(["curl", "-qs", "--max-time", "25", "-H", f"Host: {sites.victim.domain}", f"http://{ADDRESS}/new.php"]).out
        print(f"process {held}, which had the lock: {locked}; seen: {seen!r}")
        assert seen == ("welcome" if guarded else "")
        if guarded:
            host.wait_for(lambda: not host.exists(f"/proc/{held}"), "the end of the stopped process")
            assert (f"account {sites.me.name}: ended the PHP process {held}, which was stopped and may have held up all others"
                    in host.journal(WATCHER, since))
        else:
            assert locked and has_lock(host, held)
            assert len(mends(host, f"{sites.me.name} stopped a process of PHP")) == 1
    finally:
        host.run(["kill", "-KILL", held])
        host.ok(["systemctl", "start", WATCHER])


# Lets it go on for a moment time and again, so that it is not found stopped for long.
TOGGLE = "while kill -STOP $0; do sleep 0.4; kill -CONT $0; sleep 0.02; done"


def test_who_lets_his_process_go_on_for_moments_is_found_as_well(sites, guarded):
    if not guarded:
        return
    host = sites.host
    sites.run("echo 'mine';")
    process = host.ok(["pgrep", "-u", sites.me.name, "-f", "php-fpm: pool"]).split()[0]
    host.ok(["systemd-run", "--quiet", "--collect", "--unit=toggler", f"--uid={sites.me.name}", "sh", "-c", TOGGLE, process])
    try:
        host.wait_for(lambda: not host.exists(f"/proc/{process}"), "the end of the process that is stopped and goes on")
    finally:
        host.run(["systemctl", "stop", "toggler"])


# Keeps what is handed to it: a process of his session, which PHP's end does not reach.
KEEPER = """
import socket, time
server = socket.socket(socket.AF_UNIX)
server.bind("keeper.sock")
server.listen()
client, _ = server.accept()
kept = socket.recv_fds(client, 1, 1)[1]
client.sendall(b"kept")
time.sleep(1000)
"""

# Run by a page: hands over the socket at which his pool listens, which each program of a page's has from PHP.
GIVER = """
import os, socket
for number in map(int, os.listdir("/proc/self/fd")):
    try:
        one = socket.socket(fileno=os.dup(number))
        if one.getsockopt(socket.SOL_SOCKET, socket.SO_ACCEPTCONN):
            keeper = socket.socket(socket.AF_UNIX)
            keeper.connect("keeper.sock")
            socket.send_fds(keeper, [b"x"], [number])
            print(keeper.recv(9).decode())
    except OSError:
        pass
"""
GIVE = "chdir('/home/@ME@'); exec('cd /home/@ME@ && python3 giver.py 2>&1', $said); echo implode(' ', $said);"

# The administrator's mistake, at which PHP ends and leaves the names of its sockets.
BROKEN = "[broken]\nuser = nobody-of-that-name\nlisten = /run/php/broken.sock\npm = static\npm.max_children = 1\n"


def mends(host, problem):
    """The commands that the doctor gives for a problem."""
    checks = json.loads(host.run(["corvctl", "--json", "doctor"]).out)["checks"]
    return [finding["mend"] for check in checks for finding in check["findings"] if problem in finding["problem"]]


def test_no_process_of_an_account_keeps_php_from_ever_starting_again(sites):
    host = sites.host
    unit = f"php{sites.me.php}-fpm"
    sockets = f"/run/php/corv-{sites.me.name}.sock"
    broken = f"/etc/php/{sites.me.php}/fpm/pool.d/zz-broken.conf"
    for name, text in (("keeper.py", KEEPER), ("giver.py", GIVER)):
        host.put(f"{sites.me.home}/{name}", text, owner=sites.me.name)
    host.ok(["systemd-run", "--quiet", "--collect", "--unit=keeper", f"--uid={sites.me.name}", f"--working-directory={sites.me.home}",
             "python3", "keeper.py"])
    try:
        host.wait_for(lambda: host.exists(f"{sites.me.home}/keeper.sock"), "the keeper")
        # PHP 8.4 closes it in the programs that a page starts.
        handed_down = tuple(map(int, sites.me.php.split("."))) < (8, 4)
        assert sites.run(GIVE) == ("kept" if handed_down else "")
        host.put(broken, BROKEN)
        host.run(["systemctl", "reload", unit])
        host.wait_for(lambda: host.run(["systemctl", "is-active", unit]).out.strip() in ("failed", "inactive"), "PHP's end")
        host.ok(["rm", broken])
        assert host.exists(sockets)
        since = host.mark()
        is_refused = host.run(["sh", "-c", f"systemctl reset-failed {unit}; systemctl start {unit}"]).code != 0
        assert is_refused is handed_down
        if is_refused:
            assert "Another FPM instance seems to already listen" in host.journal(unit, since)
            commands = mends(host, f"the service {unit} does not run")
            assert len(commands) == 1
            host.ok(["sh", "-c", commands[0]])
        assert host.fetch(sites.victim.domain, "/index.php").body == "welcome"
        assert sites.run("echo 'mine';") == "mine"
    finally:
        host.run(["systemctl", "stop", "keeper"])
        host.run(["rm", "-f", broken, f"{sites.me.home}/keeper.sock"])
        host.run(["sh", "-c", f"systemctl is-active -q {unit} || (systemctl reset-failed {unit}; systemctl start {unit})"])
