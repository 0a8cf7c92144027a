"""A server with two tenants, one of whom attacks, and with every module of Apache enabled that makes that easier."""

import base64
import re
import subprocess
from contextlib import contextmanager
from dataclasses import dataclass, field

# What a page of the attacker's tells of the process that runs it, beside what the attempt wants of it.
WHO = "<?php echo 'php runs as ', posix_getpwuid(posix_geteuid())['name'], ', basedir ', ini_get('open_basedir'), ';';"

# Beyond what Debian and the agent enable.
MODULES = ["actions", "asis", "authn_socache", "authz_groupfile", "cern_meta", "cgid", "dav", "expires", "ext_filter", "headers", "http2",
           "imagemap", "include", "info", "ldap", "lua", "proxy_balancer", "proxy_http", "speling", "ssl", "userdir"]

# The administrator's own: an application that all hosts show, run by the distribution's pool, and a file for the web server.
TOOLS = """
Alias /tools /usr/share/tools
<Directory /usr/share/tools>
    Require all granted
    AllowOverride None
    <FilesMatch "\\.php$">
        SetHandler "proxy:unix:/run/php/php@PHP@-fpm.sock|fcgi://localhost"
    </FilesMatch>
</Directory>
ScriptAlias /programs/ /usr/lib/programs/
<Directory /usr/lib/programs>
    Require all granted
</Directory>
ProxyPass /service http://127.0.0.1:8001/
"""

LIBRARY = """
#include <fcntl.h>
__attribute__((constructor)) static void loaded(void)
{
    (void)open("/home/@ME@/loaded", O_CREAT | O_WRONLY, 0644);
}
"""


@dataclass
class Attempt:
    """One way: the attacker's files by name, of which a page asks for `path`, and what he must not read in the answer. `links`
    are made by him too; @ME@, @VICTIM@ and @PHP@ stand for names and version."""

    htaccess: str
    loot: str
    path: str = "x.php"
    files: dict = field(default_factory=dict)
    links: dict = field(default_factory=dict)
    # What the module's log line gives as the reason; None where another part of the server refuses.
    reason: str | None = None


class Tenants:
    """The attacker and his victim on a host."""

    def __init__(self, host, *, guarded=True):
        self.host = host
        self.me = host.account()
        self.victim = host.account()
        self._count = 0
        host.ok(["a2enmod", "-q", *MODULES])
        host.put("/usr/share/tools/index.php", "<?php echo 'the tools, run by ', posix_getpwuid(posix_geteuid())['name'];")
        host.put("/usr/share/tools/style.css", "the style of the tools")
        host.put("/usr/lib/programs/hello", "#!/bin/sh\necho Content-Type: text/plain\necho\necho the program, run by $(id -un)\n",
                 mode="0755")
        host.put("/etc/tools.conf", "password of the tools", mode="0640", owner="root:www-data")
        host.put("/etc/apache2/conf-enabled/tools.conf", self.fill(TOOLS))
        host.put(f"{self.victim.home}/public_html/config.php", "Note: the victim's secret\n", owner=self.victim.name)
        host.put(f"{self.victim.home}/public_html/letter", "Content-Type: text/plain\n\nthe victim's secret\n", owner=self.victim.name)
        host.put(f"{self.victim.home}/public_html/page.html", "<title>the victim's secret</title>", owner=self.victim.name)
        host.ok(["install", "-d", "-o", self.victim.name, f"{self.victim.home}/public_html/the-victims-folder"])
        host.put("/srv/service/index.html", "for the server alone")
        host.ok(["systemd-run", "--quiet", "--collect", "--unit=service-of-the-host", "python3", "-m", "http.server",
                 "--bind", "127.0.0.1", "--directory", "/srv/service", "8001"])
        # The attacker lets everybody in, so that a foreign process can read his pages.
        host.ok(["chmod", "0755", self.me.home, f"{self.me.home}/public_html"])
        if not guarded:
            host.ok(["a2dismod", "-q", "corvane"])
        host.ok(["systemctl", "restart", "apache2"])

    def fill(self, text):
        """A text with names in the place of their marks."""
        return (text.replace("@ME@", self.me.name).replace("@VICTIM@", self.victim.name).replace("@PHP@", self.me.php))

    def prepare(self, attempt):
        """Lays the attacker's files into a folder of their own below his document root, as him, and returns its name."""
        self._count += 1
        name = f"a{self._count}"
        files = {".htaccess": attempt.htaccess, "x.php": WHO, **attempt.files}
        script = ["set -e", f"mkdir -p ~/public_html/{name}", f"cd ~/public_html/{name}"]
        for file, target in attempt.links.items():
            script.append(f'mkdir -p "$(dirname {file})" && ln -s {self.fill(target)} {file}')
        self.host.ok(["sh", "-c", "\n".join(script)], user=self.me.name)
        for file, text in files.items():
            self.host.put(f"{self.me.home}/public_html/{name}/{file}", self.fill(text).replace("@HERE@", f"/{name}"),
                          mode="0755", owner=self.me.name)
        return name

    def renew_php(self):
        """Ends PHP's processes: they keep what earlier attempts have set."""
        for user in (self.me.name, "www-data"):
            self.host.run(["pkill", "-KILL", "-u", user, "php-fpm"])

    def get(self, path, *options):
        """What a visitor gets from the attacker's site."""
        return self.host.fetch(self.me.domain, path, *options)

    def refusals(self):
        """The reasons in the lines that the module has written so far into the attacker's error log."""
        return re.findall(rf"account {self.me.name}: refused \S+: (.*)$", self.log(), re.MULTILINE)

    def log(self):
        """The attacker's error log."""
        return self.host.get(f"/var/log/apache2/{self.me.domain}-error.log")

    def everywhere_refused(self):
        """The reasons in the module's lines in all error logs."""
        logs = self.host.ok(["sh", "-c", "cat /var/log/apache2/*error.log"])
        return re.findall(rf"account {self.me.name}: refused \S+: (.*)$", logs, re.MULTILINE)

    @contextmanager
    def busy(self, argv):
        """Runs a program of the attacker's for as long as the block lasts."""
        unit = "attacker"
        self.host.ok(["systemd-run", "--quiet", "--collect", f"--unit={unit}", f"--uid={self.me.name}", *argv])
        try:
            yield
        finally:
            self.host.ok(["systemctl", "stop", unit])

    def put_library(self, folder):
        """Compiles a library that leaves a file when it is loaded, and puts it into the attacker's home."""
        (folder / "library.c").write_text(self.fill(LIBRARY))
        library = folder / "library.so"
        subprocess.run(["gcc", "-shared", "-fPIC", "-o", library, folder / "library.c"], check=True)
        self.host.ok(["sh", "-c", f"base64 -d >{self.me.home}/library.so"], user=self.me.name,
                     input=base64.b64encode(library.read_bytes()).decode())

    def leave(self):
        """Takes away all of it."""
        self.host.remove_accounts()
        self.host.ok(["rm", "-rf", "/etc/apache2/conf-enabled/tools.conf", "/etc/tools.conf", "/usr/share/tools", "/usr/lib/programs"])
        self.host.ok(["systemctl", "stop", "service-of-the-host"])
        self.host.ok(["a2dismod", "-q", "-f", *MODULES])
        self.host.ok(["systemctl", "restart", "apache2"])
