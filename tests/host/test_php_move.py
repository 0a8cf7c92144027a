"""Accounts that move from one PHP version to another, on a host where real requests are served throughout."""

import contextlib
import json
import subprocess
import threading
import time

import pytest

NEW = "9.8"
UNIT = f"php{NEW}-fpm"
ADDRESS = "10.213.0.2"
NONINTERACTIVE = {"DEBIAN_FRONTEND": "noninteractive"}

# Asks for the pages of these sites in turn, each with a connection of its own, and tells of each answer: when it was asked for, when
# it came, which site, its status.
POLL = """
import http.client, sys, time
names = sys.argv[2:]
while True:
    for name in names:
        began = time.monotonic()
        try:
            connection = http.client.HTTPConnection(sys.argv[1], timeout=5)
            connection.request("GET", "/index.php", headers={"Host": name})
            status = connection.getresponse().status
        except OSError:
            status = 0
        print(began, time.monotonic(), name, status, flush=True)
    time.sleep(0.005)
"""

# Another PHP version beside the release's: the same program under another name, with settings and a service of its own.
SECOND = r"""
set -e
old=$1 new=$2
cp /usr/sbin/php-fpm$old /usr/sbin/php-fpm$new
sed "s/php-fpm$old/php-fpm$new/g; s#/etc/php/$old#/etc/php/$new#g; s/^.*php-fpm-socket-helper.*$//" \
    /lib/systemd/system/php$old-fpm.service >/etc/systemd/system/php$new-fpm.service
for file in php-fpm.conf php.ini pool.d/www.conf; do
    sed -i "s#/etc/php/$old#/etc/php/$new#g; s#php$old-fpm#php$new-fpm#g" /etc/php/$new/fpm/$file
done
cp -a /etc/php/$old/fpm/conf.d/. /etc/php/$new/fpm/conf.d/
systemctl daemon-reload
systemctl enable --now php$new-fpm
"""


@pytest.fixture(scope="module")
def own_host(boot):
    return boot()


def add_second(host, old):
    """Has dpkg bring the settings of the second version, and starts it."""
    files = {f"/etc/php/{NEW}/fpm/{name}": host.get(f"/etc/php/{old}/fpm/{name}")
             for name in ("php-fpm.conf", "php.ini", "pool.d/www.conf")}
    files[f"/etc/php/{NEW}/fpm/conf.d/README"] = ""
    host.publish(UNIT, "1", files=files, install=True)
    host.ok(["sh", "-c", SECOND, "sh", old, NEW])
    host.wait_for(lambda: host.active(UNIT), "the second PHP")


def remove_second(host, account):
    program = f"/usr/sbin/php-fpm{account.php}"
    host.ok(["sh", "-c", f"[ ! -e {program}.old ] || mv {program}.old {program}"])
    host.run(["systemctl", "disable", "--now", UNIT])
    host.ok(["sh", "-c", f"rm -rf /etc/php/{NEW} /usr/sbin/php-fpm{NEW} /etc/systemd/system/{UNIT}.service"])
    host.run(["apt-get", "-q", "purge", "--yes", UNIT], env=NONINTERACTIVE)
    host.ok(["systemctl", "daemon-reload"])
    host.ok(["systemctl", "restart", f"php{account.php}-fpm"])


def make_account(host):
    account = host.account()
    host.put(f"{account.home}/public_html/index.php", "<?php echo 'page of ', get_current_user();", owner=account.name)
    return account


@pytest.fixture
def server(own_host):
    """Accounts in the release's PHP, with a second version beside it: the host and the accounts, the last of which is suspended."""
    host = own_host
    accounts = [make_account(host) for _ in range(3)]
    assert host.request("hosting.suspend", username=accounts[2].name) == {"ok": True}
    add_second(host, accounts[0].php)
    yield host, accounts
    host.remove_accounts()
    remove_second(host, accounts[0])


def pools(host, version):
    """The accounts' pools in a version, those aside with a minus behind."""
    names = host.ok(["sh", "-c", f"cd /etc/php/{version}/fpm/pool.d && ls"]).split()
    return sorted(name.removeprefix("corv-").replace(".conf.suspended", "-").removesuffix(".conf") for name in names
                  if name.startswith("corv-"))


def page(host, account):
    answer = host.fetch(account.domain, "/index.php")
    return answer.status, answer.body


def version_of(host, account):
    """The version whose FPM serves an account."""
    for version in (account.php, NEW):
        listening = host.run(["sh", "-c", f"ss -lxp | grep corv-{account.name}.sock"]).out
        if f"pid={host.main_process(f'php{version}-fpm')}," in listening:
            return version
    return None


def status(host):
    return json.loads(host.ok(["corvctl", "--json", "php", "status"]))


@contextlib.contextmanager
def polling(host, accounts):
    """A block in which the pages of the accounts are asked for again and again; gives the answers, as POLL tells of them."""
    answers = []
    process = subprocess.Popen([*host._visiting(), "/usr/bin/python3", "-c", POLL, ADDRESS, *(a.domain for a in accounts)],
                               stdout=subprocess.PIPE, text=True)
    # The one in whose middle it was killed is no answer.
    reader = threading.Thread(target=lambda: answers.extend(line.split() for line in process.stdout if line.endswith("\n")))
    reader.start()
    try:
        host.wait_for(lambda: len(answers) >= 2 * len(accounts), "the first answers")
        yield answers
        seen = len(answers)
        host.wait_for(lambda: len(answers) >= seen + 2 * len(accounts), "the last answers")
    finally:
        process.kill()
        process.wait()
        reader.join()


def gaps(answers, domain):
    """For how long a site failed, each time, in seconds: from the first failing question to the first answer after it."""
    found, began = [], None
    for asked, answered, name, code in answers:
        if name != domain:
            continue
        if code != "200":
            began = began or float(asked)
        elif began:
            found.append(float(answered) - began)
            began = None
    assert began is None, "it fails still"
    return found


def reload_seconds(host, version):
    """How long an FPM takes for a reload, until it says that it is ready."""
    log = f"/var/log/php{version}-fpm.log"
    before = host.get(log).count("ready to handle connections")
    began = time.monotonic()
    host.ok(["systemctl", "reload", f"php{version}-fpm"])
    host.wait_for(lambda: host.get(log).count("ready to handle connections") > before, "the reload")
    return time.monotonic() - began


@pytest.mark.core
def test_every_site_outlives_the_move(server):
    host, (first, second, suspended) = server
    old = first.php
    reloading = max(reload_seconds(host, old), reload_seconds(host, NEW))
    before = pools(host, old)
    assert before == sorted([first.name, second.name, suspended.name + "-"])
    assert status(host)["next"] == f"corvctl php move {old} {NEW}"
    with polling(host, [first, second]) as answers:
        reply = json.loads(host.ok(["corvctl", "--json", "php", "move", old, NEW, "--confirm", NEW]))
    assert sorted(reply["moved"]) == sorted([first.name, second.name, suspended.name])
    assert (pools(host, old), pools(host, NEW)) == ([], before)
    longest = max(sum((gaps(answers, account.domain) for account in (first, second)), [0]))
    # A visitor's clock runs from his question on, which may have been on its way.
    poll = max(float(answered) - float(asked) for asked, answered, _, code in answers if code == "200")
    print(f"without PHP for {reply['milliseconds']} ms by its own word, {longest * 1000:.0f} ms by visitors "
          f"who waited {poll * 1000:.0f} ms at most; a reload takes {reloading * 1000:.0f} ms")
    assert longest <= reloading + 2 * poll
    for account in (first, second):
        assert page(host, account) == (200, f"page of {account.name}")
        assert version_of(host, account) == NEW
    assert status(host)["next"] == ""

    # From here on the agent sees them, and its commands work as ever.
    assert host.request("hosting.resume", username=suspended.name) == {"ok": True}
    host.wait_for(lambda: page(host, suspended) == (200, f"page of {suspended.name}"), "the resumed site")
    assert host.request("hosting.suspend", username=first.name) == {"ok": True}
    host.wait_for(lambda: page(host, first)[0] == 503, "the suspended site")
    assert host.active(f"php{old}-fpm") and host.active(UNIT)


def test_it_goes_back_when_a_site_does_not_get_on_with_the_new_version(server):
    host, (first, second, suspended) = server
    host.put(f"{first.home}/public_html/index.php", f"""<?php
if (str_contains(file_get_contents('/proc/self/cmdline') . ini_get('error_log') . PHP_BINARY . php_ini_loaded_file(), '{NEW}'))
    http_response_code(500);
echo 'page of ', get_current_user();""", owner=first.name)
    host.ok(["rm", "-f", f"{first.home}/public_html/index.html"])
    before = pools(host, first.php)
    done = host.run(["corvctl", "php", "move", first.php, NEW, "--confirm", NEW])
    assert done.code == 1
    assert done.err.endswith(f"corvctl: visitors of {first.name} saw a page before, and see none now\n"
                             f"  all accounts are back with PHP {first.php}\n")
    assert (pools(host, first.php), pools(host, NEW)) == (before, [])
    for account in (first, second):
        assert (page(host, account), version_of(host, account)) == ((200, f"page of {account.name}"), first.php)


@pytest.mark.core
def test_suspension_resumption_and_deletion_reach_a_pool_that_the_agent_does_not_see(server):
    host, (first, second, suspended) = server
    old = first.php
    assert host.request("hosting.suspend", username=first.name) == {"ok": True}
    host.wait_for(lambda: first.name + "-" in pools(host, old), "the pool of the suspended account")
    host.wait_for(lambda: not host.exists(f"/run/php/corv-{first.name}.sock"), "the end of its socket")

    assert host.request("hosting.resume", username=suspended.name) == {"ok": True}
    host.wait_for(lambda: page(host, suspended) == (200, f"page of {suspended.name}"), "the resumed site")

    assert host.request("hosting.delete", username=second.name, confirm=second.name)["ok"] is True
    host.wait_for(lambda: pools(host, old) == sorted([first.name + "-", suspended.name]), "the end of the deleted one's pool")
    # A pool of nobody would have ended that FPM here.
    reload_seconds(host, old)
    assert host.active(f"php{old}-fpm")
    assert page(host, suspended) == (200, f"page of {suspended.name}")


@pytest.mark.core
def test_a_version_that_is_removed_is_moved_from_by_itself(server):
    host, (first, second, suspended) = server
    old = first.php
    began = host.mark()
    with polling(host, [first, second]):
        # As an upgrade of Debian does it: the program goes, its folder stays.
        host.ok(["sh", "-c", f"systemctl stop php{old}-fpm && mv /usr/sbin/php-fpm{old} /usr/sbin/php-fpm{old}.old && "
                             f"touch /etc/php && systemctl restart {UNIT}"])
        host.wait_for(lambda: pools(host, NEW) == sorted([first.name, second.name, suspended.name + "-"]), "the move")
        for account in (first, second):
            host.wait_for(lambda account=account: page(host, account) == (200, f"page of {account.name}"), "the page")
    assert f"moving 3 accounts from PHP {old} to {NEW}" in host.journal("corv-php", began)
    ended = "inactive\n"
    host.wait_for(lambda: host.ok(["systemctl", "show", "-P", "ActiveState", "corv-php.service"]) == ended, "the watcher's end")
    assert pools(host, old) == []
    report = json.loads(host.run(["corvctl", "--json", "doctor"]).out)
    assert [finding for check in report["checks"] if check["check"] in ("PHP", "leftovers", "visitors", "accounts")
            for finding in check["findings"]] == []
