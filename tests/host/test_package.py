"""The package's life on a host: accounts outlive it, a request outlives its upgrade."""

import pytest

MODULE = "libapache2-mod-corvane"
NONINTERACTIVE = {"DEBIAN_FRONTEND": "noninteractive"}
PANEL_SQL = ["runuser", "-u", "corv-web", "--", "psql", "-qtAX", "-v", "ON_ERROR_STOP=1", "-d", "corvane", "-c"]


@pytest.fixture(scope="module")
def own_host(boot, package):
    """A host that may be left without the package."""
    host = boot(bare=True)
    host.install(package)
    yield host
    host.stop()


def works(host, account):
    assert host.fetch(account.domain).status == 200
    host.put(f"{account.home}/public_html/p.php", "<?php echo get_current_user();", owner=account.name)
    assert host.fetch(account.domain, "/p.php").body == account.name
    assert host.ssh(account, "whoami").out == f"{account.name}\n"
    assert host.sql("SELECT 1", database=account.name, role=account.name, password=account.password).out == "1\n"
    assert host.ok(["apache2ctl", "configtest"]) == ""


@pytest.mark.core
def test_an_upgrade_lets_the_request_in_hand_finish_and_then_restarts(own_host, package):
    host = own_host
    name = host.free_name()
    began = host.main_process("corv-agent")
    with host.stand_in("useradd", 'hold; exec /usr/sbin/useradd "$@"'), host.connection() as client:
        running = host.main_process("corv-agent")
        assert running != began
        host.send(client, "hosting.create", username=name, domain=f"{name}.example")
        host.wait_for_hold()
        # Must come back although the agent cannot be restarted yet.
        host.ok(["apt-get", "-q", "install", "--reinstall", "--yes", f"/root/{package.name}"], env=NONINTERACTIVE)
        assert host.main_process("corv-agent") == running
        host.release()
        assert host.receive(client)["ok"] is True
        host.wait_for(lambda: host.main_process("corv-agent") not in ("0", running), "the restart after the upgrade")
        host.wait_for_unit("corv-agent")
    host.wait_until_served(name, f"{name}.example")
    assert host.fetch(f"{name}.example").status == 200
    assert host.request("ping") == {"ok": True, "version": "0.1"}


def test_an_upgrade_keeps_edited_settings(own_host, package):
    host = own_host
    settings = host.get("/etc/corvane/corvane.ini")
    host.put("/etc/corvane/corvane.ini", settings + "\n[health]\nservices=apache2\n")
    host.install(package)
    assert host.get("/etc/corvane/corvane.ini") == settings + "\n[health]\nservices=apache2\n"
    host.put("/etc/corvane/corvane.ini", settings)


@pytest.mark.core
def test_removal_purge_and_reinstallation_keep_accounts_and_backups(own_host, package):
    host = own_host
    account = host.account()
    host.put("/var/backups/corvane/auto/kept", "a backup")
    host.ok(["corvctl", "backup", "start", "--wait"])
    host.ok([*PANEL_SQL, "CREATE TABLE kept AS SELECT 'the panel' AS owner"])

    host.ok(["apt-get", "-q", "remove", "--yes", "corv-agent"], env=NONINTERACTIVE)
    assert not host.exists("/run/corvane/agent.sock")
    assert not host.exists("/usr/libexec/corvane/corv-agent")
    assert host.exists("/etc/corvane/corvane.ini")
    assert keeps_apart(host, account)
    works(host, account)

    host.ok(["apt-get", "-q", "purge", "--yes", "corv-agent"], env=NONINTERACTIVE)
    assert host.run(["ls", "-A", "/var/lib/corvane"]).out == ""
    for path in ("/etc/corvane", php_link(account.php), "/var/log/corvane", "/etc/apache2/conf-available/corv-logformat.conf",
                 "/etc/apache2/conf-enabled/corv-logformat.conf"):
        assert not host.exists(path), path
    assert host.get("/var/backups/corvane/auto/kept") == "a backup"
    assert host.ok([*PANEL_SQL, "SELECT owner FROM kept"]) == "the panel\n"
    host.ok(["systemctl", "reload", "apache2"])
    works(host, account)

    host.install(package)
    assert host.ok([*PANEL_SQL, "SELECT owner FROM kept"]) == "the panel\n"
    assert keeps_apart(host, account)
    works(host, account)
    reply = host.request("hosting.create", username=account.name, domain="again.example")
    assert reply == {"ok": False, "error": f"a user or group named '{account.name}' already exists on this server"}
    works(host, host.account())


def php_link(version):
    return f"/etc/php/{version}/fpm/conf.d/90-corvane.ini"


def keeps_apart(host, account):
    """Whether PHP both will be, and is, set to give compiled scripts to those alone who may read them."""
    host.put(f"{account.home}/public_html/set.php", "<?php echo ini_get('opcache.validate_permission');", owner=account.name)
    link = host.run(["readlink", php_link(account.php)]).out
    return link == "/etc/corvane/php-fpm.ini\n" and host.fetch(account.domain, "/set.php").body == "1"


def goes_on(host, unit):
    """Whether systemd lets a service go on when the kernel had to end one of its processes that took too much memory."""
    return host.ok(["systemctl", "show", "--value", "-p", "OOMPolicy", f"{unit}.service"]) == "continue\n"


@pytest.mark.core
def test_phps_settings_come_with_each_version_and_an_administrators_stay(own_host, package):
    host = own_host
    account = host.account()
    assert keeps_apart(host, account)

    assert goes_on(host, f"php{account.php}-fpm")
    assert goes_on(host, f"postgresql@{host.ok(['ls', '/etc/postgresql']).strip()}-main")

    host.publish("php9.9-fpm", "1", install=True, files={
        "/etc/php/9.9/fpm/conf.d/10-x.ini": "", "/usr/lib/systemd/system/php9.9-fpm.service": "[Service]\nExecStart=/bin/true\n"})
    # What the scripts of each package that brings a unit do.
    host.ok(["systemctl", "daemon-reload"])
    assert goes_on(host, "php9.9-fpm")
    assert host.ok(["readlink", php_link("9.9")]) == "/etc/corvane/php-fpm.ini\n"
    host.ok(["rm", php_link("9.9")])
    host.put(php_link("9.9"), "; the administrator's own\n")

    settings = host.get("/etc/corvane/php-fpm.ini")
    host.put("/etc/corvane/php-fpm.ini", settings + "opcache.revalidate_freq=9\n")
    began = host.main_process(f"php{account.php}-fpm")
    host.install(package)
    assert host.get("/etc/corvane/php-fpm.ini") == settings + "opcache.revalidate_freq=9\n"
    assert host.get(php_link("9.9")) == "; the administrator's own\n"
    host.put("/etc/corvane/php-fpm.ini", settings)

    # An upgrade from before there were any.
    host.ok(["rm", php_link(account.php)])
    host.ok(["systemctl", "reload", f"php{account.php}-fpm"])
    host.wait_for(lambda: host.fetch(account.domain, "/set.php").body == "0", "PHP as it comes")
    host.install(package)
    host.wait_for(lambda: keeps_apart(host, account), "PHP's new settings")
    assert host.main_process(f"php{account.php}-fpm") == began

    host.ok(["rm", php_link("9.9")])
    host.ok(["apt-get", "-q", "purge", "--yes", "php9.9-fpm"], env=NONINTERACTIVE)


def module_is_loaded(host):
    return "corvane_module" in host.ok(["apache2ctl", "-M"])


def test_apaches_module_outlives_an_upgrade_and_its_removal_leaves_apache_serving(own_host, package):
    host = own_host
    account = host.account()
    again = ["apt-get", "-q", "install", "--reinstall", "--yes", f"/root/{package.name.replace('corv-agent', MODULE)}"]
    host.put(f"{account.home}/public_html/.htaccess", "SetHandler server-status\n", owner=account.name)
    apache = host.main_process("apache2")
    assert module_is_loaded(host)
    assert host.fetch(account.domain).status == 403

    host.ok(again, env=NONINTERACTIVE)
    assert module_is_loaded(host)
    host.wait_for(lambda: host.fetch(account.domain).status == 403, "the module's answer after the upgrade")

    host.ok(["a2dismod", "-q", "corvane"])
    host.ok(again, env=NONINTERACTIVE)
    assert not module_is_loaded(host)
    host.ok(["a2enmod", "-q", "corvane"])

    host.ok(["apt-get", "-q", "remove", "--yes", MODULE], env=NONINTERACTIVE)
    assert not host.exists("/usr/lib/apache2/modules/mod_corvane.so")
    assert not host.exists("/etc/apache2/mods-enabled/corvane.load")
    host.ok(["apache2ctl", "configtest"])
    host.wait_for(lambda: "Server Status" in host.fetch(account.domain).body, "Apache without the module")
    assert host.main_process("apache2") == apache

    host.ok(again, env=NONINTERACTIVE)
    assert module_is_loaded(host)
    host.wait_for(lambda: host.fetch(account.domain).status == 403, "the module's answer after its return")
    host.ok(["apt-get", "-q", "purge", "--yes", MODULE], env=NONINTERACTIVE)
    assert not host.exists("/etc/apache2/mods-available/corvane.load")
    host.wait_for(lambda: "Server Status" in host.fetch(account.domain).body, "Apache without the module")
    host.install(package)
    assert module_is_loaded(host)
