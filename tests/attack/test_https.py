"""What a tenant can do to HTTPS: the store of certificates, who is asked for which name, the trial that each reload begins with."""

import pytest
from certified import AGAIN, certified, listed, plain, prepare, reload, secure

LIMIT = 300
PLACES = "/etc/corvane/https /etc/corvane/https.d /etc/corvane/https.conf /var/lib/corvane /run/corvane /usr/libexec/corvane"
# Whatever looks like Apache is signalled and looked into, and names in the open folders that a trial could use are taken.
HARASS = r"""
mkfifo /tmp/corv-https /tmp/corvane /tmp/https /dev/shm/corv-https /dev/shm/corvane 2>/dev/null
ln -s /etc/shadow /tmp/sites.conf; ln -s /etc/shadow /tmp/apache2.conf
while :; do
    pkill -KILL apache2; pkill -KILL corv-https; pkill -STOP -f corvane
    for pid in $(pgrep apache2; pgrep corv-https); do
        cat /proc/$pid/environ /proc/$pid/root/etc/corvane/https.conf 2>/dev/null >>~/seen
        ls /proc/$pid/fd /proc/$pid/root/proc 2>/dev/null >>~/seen
    done
done
"""


@pytest.fixture(scope="module")
def web(boot):
    """A host with HTTPS on, a victim whose site has a certificate, and an attacker."""
    host = boot(https=True)
    prepare(host)
    host.victim, host.victims_domain = certified(host)
    host.me = host.account().name
    yield host
    host.stop()


def test_no_key_is_read_and_nothing_of_it_is_written(web):
    """By the account's user and by whoever got hold of the web server's."""
    assert "PRIVATE KEY" in web.ok(["sh", "-c", f"find {PLACES} -type f -exec cat {{}} +"])
    for user in (web.me, "www-data"):
        seen = web.run(["sh", "-c", f"find {PLACES} -type f -readable 2>/dev/null"], user=user).out
        assert "PRIVATE KEY" not in web.run(["sh", "-c", f"find {PLACES} -type f -readable -exec cat {{}} + 2>/dev/null"], user=user).out, seen
    writable = web.run(["sh", "-c", f"find {PLACES} ! -type l -writable 2>/dev/null"], user=web.me).out
    assert writable == ""


@pytest.mark.parametrize("htaccess", [
    "RewriteEngine On\nRewriteRule ^ - [F]\n",
    "RewriteEngine On\nRewriteRule ^\\.well-known/ /answer [L]\n",
    "Redirect 302 /.well-known/ http://127.0.0.1:1/\n",
    "Require all denied\n",
    "ErrorDocument 404 answer\nErrorDocument 403 answer\n",
], ids=["all is forbidden", "another answer", "a redirect", "nobody is let in", "an answer for what is missing"])
def test_what_an_account_tells_the_web_server_keeps_nobody_elses_name(web, htaccess):
    web.put(f"/home/{web.me}/public_html/.htaccess", htaccess, owner=web.me)
    web.put(f"/home/{web.me}/public_html/.well-known/corv-probe/x", "mine", owner=web.me)
    try:
        web.ok(AGAIN)
        reload(web)
        assert secure(web, web.victims_domain).status == 200
        assert "mine" not in web.fetch(web.victims_domain, "/.well-known/corv-probe/x").body
        assert listed(web, web.victim)[0] == "served"
    finally:
        web.ok(["rm", "-rf", f"/home/{web.me}/public_html/.htaccess", f"/home/{web.me}/public_html/.well-known"])


def test_a_trial_is_out_of_reach(web):
    """Each reload tries the sites in a second Apache: who signals and looks into all that he can gets nothing and stops nothing."""
    web.put(f"/home/{web.me}/harass", HARASS, mode="0755", owner=web.me)
    unit = "harasser"
    web.ok(["systemd-run", "--quiet", "--collect", f"--unit={unit}", f"--uid={web.me}", "sh", f"/home/{web.me}/harass"])
    try:
        web.wait_for(lambda: web.exists("/tmp/corv-https"), "the attacker's beginning")
        main = web.main_process("apache2")
        for _ in range(5):
            reload(web)
            assert (plain(web, web.victims_domain, "/index.html"), secure(web, web.victims_domain).status) == (200, 200)
        assert web.main_process("apache2") == main
        reply = web.request("hosting.suspend", username=web.victim)
        assert reply == {"ok": True}
        web.wait_for(lambda: secure(web, web.victims_domain).status == 503, "the suspension on port 443")
        assert web.request("hosting.resume", username=web.victim) == {"ok": True}
        web.wait_for(lambda: secure(web, web.victims_domain).status == 200, "the site's return")
    finally:
        web.ok(["systemctl", "kill", "-s", "KILL", unit])
        web.ok(["sh", "-c", "rm -f /tmp/corv* /tmp/https /tmp/sites.conf /tmp/apache2.conf /dev/shm/corv*"])
    seen = web.run(["cat", f"/home/{web.me}/seen"]).out
    assert "contact=" not in seen and "authority" not in seen


def test_a_store_full_of_links_and_pipes_gives_nothing_away_and_holds_nothing_up(web):
    """Whoever has got hold of the web server's user may write there."""
    stores = web.ok(["sh", "-c", "find /etc/corvane/https /var/lib/corvane/https -user www-data -type d"]).split()
    assert stores
    # As one who still has the folder open, which nobody but root gets to by its name.
    web.ok(["sh", "-ec", "; ".join(f"mkfifo {each}/pipe; ln -s /etc/shadow {each}/link; ln -s /dev/zero {each}/zero; "
                                   f"chown -h www-data {each}/pipe {each}/link {each}/zero" for each in stores)])
    try:
        done = web.run(["corvctl", "--json", "https", "list"], timeout=60)
        assert done.code == 0 and "root:" not in done.out
        reload(web)
        assert (plain(web, web.victims_domain, "/index.html"), secure(web, web.victims_domain).status) == (200, 200)
    finally:
        web.run(["sh", "-c", "find /etc/corvane/https /var/lib/corvane/https -user www-data \\( -name pipe -o -name link -o -name zero \\) -delete"])
