"""corvctl account forward and forwarded: the old address of an account that has moved, on both servers.

The web server is one of these tests, in a network of their own: it answers a forward's mark as Apache would that has read the site's
file, and writes down what it is asked for. 192.0.2.7 leads to it too, as the new server, without being an address of this one."""

import json

import pytest
from corvctl import PATH, install

KEY = "0123456789abcdef0123456789abcdef"
ADDRESS = "192.0.2.7"
SITE = "/etc/apache2/sites-available/001-moved-shop.conf"
ENABLED = "/etc/apache2/sites-enabled/001-moved-shop.conf"
BELIEVED = "/etc/apache2/conf-available/corv-forwarded.conf"
BELIEVED_ENABLED = "/etc/apache2/conf-enabled/corv-forwarded.conf"
SUSPENDED = """\
# Managed by Corvane (account {0}). Edits here are overwritten.
<VirtualHost *:80>
    ServerName {1}
    ServerAlias www.{1}
    DocumentRoot /home/{0}/public_html
    ErrorLog ${{APACHE_LOG_DIR}}/{1}-error.log
    CustomLog ${{APACHE_LOG_DIR}}/{1}-access.log corv
    RewriteEngine On
    RewriteRule ^ - [R=503,L]
    ErrorDocument 503 "This site is temporarily unavailable."
</VirtualHost>
"""
WEB = r"""
import glob, http.server, os

class Web(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        with open("/web.log", "a") as log:
            log.write(f"{self.connection.getsockname()[0]} {self.headers['Host']} {self.path}\n")
        sites = "".join(open(path).read() for path in glob.glob("/etc/apache2/sites-enabled/001-*"))
        marked = f"    Redirect 204 {self.path}\n" in sites and not os.path.exists("/deaf")
        self.send_response(204 if marked else 404)
        self.end_headers()

    def log_message(self, *words):
        pass

server = http.server.HTTPServer(("0.0.0.0", 80), Web)
open("/web.up", "w").close()
server.serve_forever()
"""
RUN = r"""
ip link set lo up
[ -e /alone ] || ip route add local 192.0.2.7 dev lo
rm -f /web.up
python3 /web.py & web=$!
until [ -e /web.up ]; do sleep 0.01; done
corvctl "$@"
code=$?
kill $web
exit $code
"""
RUNNING = "systemctl --quiet is-active apache2"
SWITCH = 'shift; for m; do {} "/etc/apache2/mods-enabled/$m.load"; done'


@pytest.fixture
def old(sandbox):
    """The old server, where the account shop is suspended."""
    install(sandbox)
    sandbox.start()
    sandbox.write("/web.py", WEB)
    for folder in ("mods-enabled", "conf-available", "conf-enabled"):
        sandbox.mkdir(f"/etc/apache2/{folder}")
    for module in ("proxy", "corvane"):
        sandbox.write(f"/etc/apache2/mods-enabled/{module}.load", "")
    sandbox.answer("a2enmod", ..., shell=SWITCH.format("touch"))
    sandbox.answer("a2dismod", ..., shell=SWITCH.format("rm -f"))
    sandbox.add_account("shop", "shop.example")
    sandbox.write("/etc/apache2/sites-available/corv-shop.conf", SUSPENDED.format("shop", "shop.example"))
    sandbox.symlink("/etc/apache2/sites-enabled/corv-shop.conf", "../sites-available/corv-shop.conf")
    sandbox.mkdir("/run/corvane")
    sandbox.forget_calls()
    return sandbox


def run(sandbox, *words, input=None, env=None):
    how = {"input": input} if input is not None else {}
    return sandbox.run("unshare", "-n", "--wd=/", "sh", "-c", RUN, "sh", *words, env={"PATH": PATH, "HOME": "/root", **(env or {})}, **how)


def forward(sandbox, address=ADDRESS, *words, key=KEY, name="shop", **how):
    return run(sandbox, *words, "account", "forward", name, address, "--key-file", "-", input=f"{key}\n", **how)


def apache(sandbox):
    """What was done to Apache, in its order."""
    return [" ".join(call) for call in sandbox.argvs() if call[0] in ("a2enmod", "a2dismod", "apache2ctl", "systemctl")]


def asked(sandbox):
    return sandbox.read("/web.log").splitlines() if sandbox.exists("/web.log") else []


def test_the_names_of_a_suspended_account_are_led_on(old):
    assert forward(old) == (0, "visitors of shop.example and www.shop.example are led on to 192.0.2.7, on port 80\n", "")
    assert old.entry(SITE) == "0600 root:root"
    assert old.entry(ENABLED) == "link -> ../sites-available/001-moved-shop.conf"
    text = old.read(SITE)
    assert f'    RequestHeader set X-Corvane-Client-{KEY} "expr=%{{REMOTE_ADDR}}"\n' in text
    assert "    ProxyPass / http://192.0.2.7/ nocanon disablereuse=on upgrade=websocket\n" in text
    assert apache(old) == [RUNNING, "apache2ctl configtest", "a2enmod -q proxy_http headers", "apache2ctl configtest", "systemctl reload apache2"]
    # The suspended site itself is as it was.
    assert old.read("/etc/apache2/sites-available/corv-shop.conf") == SUSPENDED.format("shop", "shop.example")


def test_it_tells_programs_where_the_new_server_finds_it_in_its_log(old):
    code, out, err = forward(old, ADDRESS, "--json")
    reply = json.loads(out)
    token = reply.pop("token")
    assert (code, err, len(token)) == (0, "", 32)
    assert reply == {"ok": True, "account": "shop", "domain": "shop.example", "address": ADDRESS, "https": False, "httpsProblem": ""}
    assert asked(old)[-2:] == [f"127.0.0.1 shop.example /.well-known/corv-moved/{token}",
                               f"{ADDRESS} shop.example /.well-known/corv-moved/from/{token}"]


def test_a_second_time_changes_nothing(old):
    forward(old)
    before = old.entry(SITE), old.read(SITE)
    old.forget_calls()
    assert forward(old)[0] == 0
    assert (apache(old), (old.entry(SITE), old.read(SITE))) == ([], before)


def test_the_one_that_this_comes_from(old):
    code, _, err = forward(old, "caller")
    assert (code, err) == (2, "corvctl: caller is for a command that comes over SSH\n")
    assert forward(old, "caller", env={"SSH_CONNECTION": f"{ADDRESS} 50000 192.0.2.1 22"})[0] == 0
    assert f"http://{ADDRESS}/" in old.read(SITE)


def test_the_end_leaves_nothing(old):
    before = old.tree("/etc/apache2")
    forward(old)
    old.forget_calls()
    assert run(old, "account", "forward", "shop", "off") == (0, "shop is not led on from here\n", "")
    assert old.tree("/etc/apache2") == before
    assert not old.exists("/var/lib/corvane/forward.modules")
    assert apache(old) == [RUNNING, "apache2ctl configtest", "apache2ctl configtest", "systemctl reload apache2",
                           "a2dismod -q headers", "apache2ctl configtest", "a2dismod -q proxy_http", "apache2ctl configtest",
                           "systemctl reload apache2"]
    old.forget_calls()
    assert run(old, "account", "forward", "shop", "off")[0] == 0
    assert apache(old) == []


def test_the_end_of_one_leaves_the_modules_to_another(old):
    old.add_account("blog", "blog.example")
    old.write("/etc/apache2/sites-available/corv-blog.conf", SUSPENDED.format("blog", "blog.example"))
    assert forward(old)[0] == forward(old, name="blog")[0] == 0
    assert run(old, "account", "forward", "shop", "off")[0] == 0
    assert old.exists("/etc/apache2/mods-enabled/proxy_http.load") and not old.exists(SITE)
    assert run(old, "account", "forward", "blog", "off")[0] == 0
    assert not old.exists("/etc/apache2/mods-enabled/proxy_http.load")
    assert old.exists("/etc/apache2/mods-enabled/proxy.load")


def test_the_end_comes_without_the_account_too(old):
    forward(old)
    assert old.run("userdel", "shop")[0] == 0
    assert run(old, "account", "forward", "shop", "off")[0] == 0
    assert not old.exists(SITE) and not old.exists(ENABLED)


def test_modules_that_something_else_has_come_to_need_stay(old):
    forward(old)
    old.answer("apache2ctl", "configtest", exit=1, err="Invalid command 'Header'\n", call=3)
    assert run(old, "account", "forward", "shop", "off")[0] == 0
    assert old.exists("/etc/apache2/mods-enabled/headers.load")


def refused(old, problem, *args, **how):
    """Whether it refuses for that reason, and leaves Apache alone."""
    before = old.tree("/etc/apache2")
    assert forward(old, *args, **how) == (1, "", f"corvctl: {problem}\n")
    assert old.tree("/etc/apache2") == before


@pytest.mark.parametrize("address, problem", [
    ("web2.example", "web2.example is no address"),
    ("192.0.2.07", "192.0.2.07 is no address"),
    ("192.0.2.7/24", "192.0.2.7/24 is no address"),
    ("192.0.2.7\nProxyRequests On", "192.0.2.7\\nProxyRequests On is no address"),
    ("127.0.0.1", "127.0.0.1 is an address of this server"),
    ("127.1.2.3", "127.1.2.3 is an address of this server"),
    ("::1", "::1 is an address of this server"),
    ("0.0.0.0", "0.0.0.0 is an address of this server"),
])
def test_refuses_what_is_no_other_servers_address(old, address, problem):
    refused(old, problem, address)


def test_refuses_what_is_no_key(old):
    refused(old, "the key is not one of 32 hexadecimal digits", key="x" * 32)


def test_refuses_an_account_that_is_on_line(old):
    old.write("/etc/apache2/sites-available/corv-shop.conf", "<VirtualHost *:80>\n</VirtualHost>\n")
    refused(old, "shop is not suspended here, so its site is served by this server")


def test_refuses_an_account_that_is_not_there(old):
    refused(old, "no Corvane account named 'blog'", name="blog")


def test_refuses_a_domain_that_its_user_has_made_up(old):
    old.run("usermod", "-c", "Corvane account,shop", "shop")
    refused(old, "the comment of the user shop tells no valid domain")


def test_refuses_a_domain_that_another_account_has_or_had(old):
    old.add_account("blog", "shop.example")
    refused(old, "the account blog here has the domain shop.example too")


def test_refuses_to_give_accounts_a_proxy(old):
    old.path("/etc/apache2/mods-enabled/corvane.load").unlink()
    refused(old, "mod_proxy_http is needed, which accounts must not use: install libapache2-mod-corvane first")
    # One that is switched on already is the administrator's own matter.
    old.write("/etc/apache2/mods-enabled/proxy_http.load", "")
    assert forward(old)[0] == 0


def test_refuses_a_server_without_a_web_server(old):
    old.write("/alone", "")
    code, out, err = forward(old)
    assert (code, out) == (1, "") and err.startswith(f"corvctl: no web server answers at {ADDRESS}: ")
    assert not old.exists(SITE) and apache(old) == []


def test_a_configuration_that_is_broken_already_is_left_alone(old):
    old.answer("apache2ctl", "configtest", exit=1, err="AH00526: Syntax error\n")
    refused(old, "Apache's configuration has an error already, so nothing was changed: apache2ctl configtest: AH00526: Syntax error")
    assert apache(old) == [RUNNING, "apache2ctl configtest"]


def test_a_configuration_that_would_be_broken_is_taken_back(old):
    old.answer("apache2ctl", "configtest", exit=1, err="AH00526: Syntax error\n", call=2)
    refused(old, "apache2ctl configtest: AH00526: Syntax error")
    assert not old.exists("/var/lib/corvane/forward.modules")


def test_a_reload_that_fails_is_taken_back(old):
    old.answer("systemctl", "reload", "apache2", exit=1, err="Job for apache2.service failed.\n", call=1)
    refused(old, "systemctl reload apache2: Job for apache2.service failed.")


def test_what_does_not_come_into_force_is_taken_back(old):
    old.write("/deaf", "")
    refused(old, "Apache does not serve it")
    # It runs before, and no more then.
    old.answer("systemctl", "--quiet", "is-active", "apache2", exit=3, calls=(2, 99))
    old.forget_calls()
    refused(old, "Apache does not come up with it")
    assert apache(old)[-2:] == [RUNNING, "systemctl restart apache2"]


def test_an_apache_that_was_stopped_stays_so(old):
    old.answer("systemctl", "--quiet", "is-active", "apache2", exit=3)
    refused(old, "Apache does not run, so nothing was changed")
    assert apache(old) == [RUNNING]


def test_those_that_there_are(old):
    assert run(old, "--json", "account", "forward") == (0, '{"forwards":[],"ok":true}\n', "")
    forward(old)
    old.symlink("/etc/apache2/sites-enabled/001-moved-blog.conf", "/etc/hostname")
    assert run(old, "--plain", "account", "forward") == (0, f"blog\tedited by hand\t\t\nshop\tshop.example\t{ADDRESS}\tno\n", "")
    code, out, _ = run(old, "--json", "account", "show", "shop")
    assert (code, json.loads(out)["movedTo"]) == (0, ADDRESS)
    old.logs("agent: uid 0 ran hosting.getKeys -> ok", "agent: uid 0 ran backup.status -> ok")


def test_it_is_done_by_root_on_the_server_itself(old):
    assert run(old, "-H", "web2", "account", "forward", "shop", "off")[0] == 2
    assert run(old, "account", "forward", "shop")[0] == 2
    assert run(old, "account", "forward", "shop", ADDRESS)[2].startswith("corvctl: the key of the new server is needed: ")


# On the new server


def test_an_old_server_is_believed(old):
    code, key, err = run(old, "account", "forwarded", "--key")
    assert (code, err, len(key)) == (0, "", 33)
    assert run(old, "account", "forwarded", "--key")[1] == key
    assert run(old, "account", "forwarded", "shop", "192.0.2.1") == (
        0, "what 192.0.2.1 leads on to here is logged with the visitors' own addresses\n", "")
    assert old.read(BELIEVED).splitlines()[1:] == [
        "<IfModule mod_remoteip.c>", f"    RemoteIPHeader X-Corvane-Client-{key.strip()}", "    # shop",
        "    RemoteIPInternalProxy 192.0.2.1", "</IfModule>"]
    assert (old.entry(BELIEVED), old.entry("/var/lib/corvane/forwarded.key")) == ("0600 root:root", "0600 root:root")
    assert old.entry(BELIEVED_ENABLED) == "link -> ../conf-available/corv-forwarded.conf"
    assert "a2enmod -q remoteip" in apache(old)
    assert run(old, "--plain", "account", "forwarded")[1] == "shop\t192.0.2.1\n"


def test_the_last_that_is_believed_takes_all_with_it(old):
    before = old.tree("/etc/apache2")
    for name, address in (("shop", "192.0.2.1"), ("blog", "192.0.2.2"), ("blog", "192.0.2.3")):
        assert run(old, "account", "forwarded", name, address)[0] == 0
    assert run(old, "--plain", "account", "forwarded")[1] == "blog\t192.0.2.3\nshop\t192.0.2.1\n"
    assert run(old, "account", "forwarded", "blog", "off")[0] == run(old, "account", "forwarded", "other", "off")[0] == 0
    assert old.exists(BELIEVED)
    assert run(old, "account", "forwarded", "shop", "off")[0] == 0
    assert old.tree("/etc/apache2") == before
    assert not old.exists("/var/lib/corvane/forwarded.key") and not old.exists("/var/lib/corvane/forwarded.modules")


def test_the_administrators_own_header_stays(old):
    old.write("/etc/apache2/conf-enabled/cdn.conf", "RemoteIPHeader CF-Connecting-IP\n")
    old.answer("apache2ctl", "-t", "-D", "DUMP_INCLUDES", out="Included configuration files:\n  (12) /etc/apache2/conf-enabled/cdn.conf\n")
    assert run(old, "account", "forwarded", "shop", "192.0.2.1") == (
        1, "", "corvctl: /etc/apache2/conf-enabled/cdn.conf has settings of mod_remoteip already, of which there can be one for all\n")
    assert not old.exists(BELIEVED)


@pytest.mark.parametrize("words, end", [
    (["shop", "0.0.0.0/0"], "0.0.0.0/0 is no address"),
    (["../x", "192.0.2.1"], "../x is no name of an account"),
])
def test_refuses_to_believe_what_is_no_server(old, words, end):
    assert run(old, "account", "forwarded", *words) == (1, "", f"corvctl: {end}\n")
    assert not old.exists(BELIEVED)
