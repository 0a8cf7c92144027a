"""An account's PHP: what all pools of one PHP version share, first of all their cache of compiled scripts."""

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
