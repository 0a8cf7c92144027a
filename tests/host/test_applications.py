"""What accounts write into .htaccess for well-known applications goes on working beside the module that keeps them apart, and what
the administrator has set up for the whole server is none of its business."""

import pytest

SHOW = "<?php echo 'php: ', $_SERVER['REQUEST_URI'], '|', $_GET['q'] ?? '', '|', $_SERVER['PATH_INFO'] ?? '';"

# In the manner of each kind of application; the words are this test's own.
FRONT_CONTROLLER = """
<IfModule mod_rewrite.c>
    RewriteEngine On
    RewriteBase /app/
    RewriteRule ^index\\.php$ - [L]
    RewriteCond %{REQUEST_FILENAME} !-f
    RewriteCond %{REQUEST_FILENAME} !-d
    RewriteRule . /app/index.php [L]
</IfModule>
"""
QUERY_CONTROLLER = """
DirectoryIndex index.php index.html index.htm
RewriteEngine on
RewriteRule "/\\.|^\\.(?!well-known/)" - [F]
RewriteCond %{REQUEST_FILENAME} !-f
RewriteCond %{REQUEST_FILENAME} !-d
RewriteCond %{REQUEST_URI} !=/favicon.ico
RewriteRule ^(.*)$ index.php?q=$1 [L,QSA]
<FilesMatch "\\.(engine|inc|install|module|sh|sql|tpl)$|^(\\..*|composer\\.(json|lock))$">
    Require all denied
</FilesMatch>
"""
PATH_INFO_CONTROLLER = """
Options -Indexes
AcceptPathInfo On
RewriteEngine On
RewriteCond %{HTTP:Authorization} .
RewriteRule .* - [E=HTTP_AUTHORIZATION:%{HTTP:Authorization}]
RewriteCond %{REQUEST_FILENAME} !-f
RewriteRule ^(.*)$ index.php/$1 [L]
"""
PUBLIC_FOLDER = """
<IfModule mod_negotiation.c>
    Options -MultiViews -Indexes
</IfModule>
RewriteEngine On
RewriteCond %{REQUEST_FILENAME} -d [OR]
RewriteCond %{REQUEST_FILENAME} -f
RewriteRule ^public/ - [L]
RewriteRule ^(?!public/)(.*)$ public/$1 [L]
"""
# Written for a PHP inside Apache, which is not here, and for Apache 2.2.
OLD_SETTINGS = """
<IfModule mod_php5.c>
    php_value upload_max_filesize 64M
    php_flag session.auto_start 0
</IfModule>
<IfModule mod_php.c>
    php_value memory_limit 256M
</IfModule>
<IfModule !mod_authz_core.c>
    Order deny,allow
    Deny from all
</IfModule>
AddType application/x-httpd-php80 .php .html5
"""
CACHING = """
<IfModule mod_expires.c>
    ExpiresActive On
    ExpiresDefault "access plus 1 month"
</IfModule>
<IfModule mod_headers.c>
    Header set X-Content-Type-Options nosniff
    <FilesMatch "\\.(css|js)$">
        Header set Cache-Control "max-age=31536000, public"
    </FilesMatch>
</IfModule>
<IfModule mod_deflate.c>
    AddOutputFilterByType DEFLATE text/plain text/css
</IfModule>
FileETag None
AddDefaultCharset utf-8
AddType image/webp .webp
"""
# Uploads that must never run: a handler that nobody answers to, and no PHP.
UPLOADS = """
SetHandler Nobody_Runs_What_Lies_Here
<Files *>
    SetHandler Nobody_Runs_What_Lies_Here_Either
</Files>
Options -ExecCGI -Indexes
RemoveHandler .php .phtml
"""
OWN_PASSWORDS = """
AuthType Basic
AuthName "members"
AuthUserFile /home/@NAME@/passwords
Require valid-user
"""
OWN_POOL = """
<FilesMatch "\\.phtml$">
    SetHandler "proxy:unix:/run/php/corv-@NAME@.sock|fcgi://localhost/"
</FilesMatch>
"""


@pytest.fixture(scope="module")
def site(running_host):
    """One account for the module, on a server with what such applications expect of Apache."""
    running_host.ok(["a2enmod", "-q", "headers", "expires"])
    running_host.ok(["systemctl", "restart", "apache2"])
    yield running_host.account()
    running_host.remove_accounts()


@pytest.fixture
def lay(running_host, site):
    """Writes files below the document root as the account; @NAME@ is its name."""

    def write(files):
        for path, text in files.items():
            running_host.put(f"{site.home}/public_html/{path}", text.replace("@NAME@", site.name), owner=site.name)

    running_host.ok(["sh", "-c", f"rm -rf {site.home}/public_html/* {site.home}/public_html/.ht*"])
    yield write


@pytest.fixture
def get(running_host, site):
    return lambda path, *options: running_host.fetch(site.domain, path, *options)


def test_a_front_controller_in_a_folder_gets_what_is_no_file(lay, get):
    lay({"app/.htaccess": FRONT_CONTROLLER, "app/index.php": SHOW, "app/style.css": "css"})
    assert get("/app/a/page/").body == "php: /app/a/page/||"
    assert get("/app/").body == "php: /app/||"
    assert get("/app/style.css").body == "css"


def test_a_front_controller_with_a_query_gets_the_path_and_hidden_files_stay_hidden(lay, get):
    lay({".htaccess": QUERY_CONTROLLER, "index.php": SHOW, "a.inc": "secret", ".git/config": "secret", "composer.json": "{}",
         "image.txt": "image"})
    assert get("/node/1").body == "php: /node/1|node/1|"
    assert [get(path).status for path in ("/a.inc", "/.git/config", "/composer.json", "/image.txt")] == [403, 403, 403, 200]


def test_a_controller_with_path_info_gets_the_path_and_the_visitors_authorization(lay, get):
    lay({".htaccess": PATH_INFO_CONTROLLER, "index.php": SHOW + " echo '|', $_SERVER['HTTP_AUTHORIZATION'] ?? 'none';"})
    assert get("/x/y").body == "php: /x/y||/x/y|none"
    assert get("/x/y", "-H", "Authorization: Bearer word").body == "php: /x/y||/x/y|Bearer word"


def test_an_application_below_a_public_folder_is_served_from_there(lay, get):
    lay({".htaccess": PUBLIC_FOLDER, "public/index.php": SHOW, "public/a.css": "css", "settings.txt": "secret"})
    assert get("/a.css").body == "css"
    assert get("/").body == "php: /||"
    assert get("/settings.txt").status == 404


def test_settings_for_another_php_are_passed_over(lay, get):
    lay({".htaccess": OLD_SETTINGS, "index.php": SHOW, "a.html5": "a page"})
    assert get("/").body == "php: /||"
    assert get("/a.html5").body == "a page"


def test_headers_expiry_and_compression_are_sent(lay, get):
    lay({".htaccess": CACHING, "a.css": "a" * 2000, "a.webp": "picture"})
    answer = get("/a.css", "--compressed")
    assert answer.body == "a" * 2000
    assert answer.headers["cache-control"] == "max-age=31536000, public"
    assert answer.headers["x-content-type-options"] == "nosniff"
    assert answer.headers["content-encoding"] == "gzip"
    assert "etag" not in answer.headers
    assert get("/a.webp").headers["content-type"] == "image/webp"


def test_a_folder_for_uploads_serves_everything_as_it_is(lay, get):
    lay({"uploads/.htaccess": UPLOADS, "uploads/a.txt": "text", "uploads/a.phtml": "<?php echo 'ran';"})
    assert get("/uploads/a.txt").body == "text"
    assert get("/uploads/a.phtml").body == "<?php echo 'ran';"


def test_a_page_with_the_accounts_own_passwords_opens_to_who_knows_one(running_host, site, lay, get):
    lay({"members/.htaccess": OWN_PASSWORDS, "members/a.txt": "for members", "members/a.php": SHOW})
    line = running_host.ok(["openssl", "passwd", "-apr1", "word"]).strip()
    running_host.put(f"{site.home}/passwords", f"ann:{line}\n", owner=f"{site.name}:www-data", mode="0640")
    assert get("/members/a.txt").status == 401
    assert get("/members/a.txt", "-u", "ann:other").status == 401
    assert get("/members/a.txt", "-u", "ann:word").body == "for members"
    assert get("/members/a.php", "-u", "ann:word").body == "php: /members/a.php||"


def test_pages_for_errors_are_the_accounts_own(lay, get):
    lay({".htaccess": "ErrorDocument 404 /missing.php\nErrorDocument 403 /no.html\n<Files secret>\nRequire all denied\n</Files>",
         "missing.php": SHOW, "no.html": "not for you", "secret": "secret"})
    assert (get("/nowhere").status, get("/nowhere").body) == (404, "php: /nowhere||")
    assert (get("/secret").status, get("/secret").body) == (403, "not for you")


def test_the_accounts_own_pool_may_be_named_in_either_way(lay, get):
    lay({".htaccess": OWN_POOL + 'RewriteEngine On\nRewriteRule ^rewritten$ '
         '"unix:/run/php/corv-@NAME@.sock|fcgi://localhost/home/@NAME@/public_html/a.php" [P]\n', "a.php": "<?php echo 'ran';",
         "folder/.user.ini": "user_agent = mine", "folder/b.php": "<?php echo ini_get('user_agent');"})
    assert get("/rewritten").body == "ran"
    assert get("/folder/b.php").body == "mine"


def test_a_listing_and_a_redirect_work(lay, get):
    lay({".htaccess": "Options +Indexes\nHeaderName head.html\nRedirect 301 /old /new\n", "folder/a.txt": "a",
         "folder/head.html": "<h1>mine</h1>"})
    listing = get("/folder/").body
    assert 'href="a.txt"' in listing
    assert "<h1>mine</h1>" in listing
    assert (get("/old").status, get("/old").headers["location"].endswith("/new")) == (301, True)


def test_links_within_the_home_are_followed(running_host, site, lay, get):
    lay({".htaccess": "Options +FollowSymLinks", "a.txt": "a"})
    running_host.ok(["sh", "-c", f"mkdir -p ~/shared && echo kept >~/shared/b.txt && ln -s {site.home}/shared ~/public_html/storage"],
                    user=site.name)
    assert get("/storage/b.txt").body == "kept\n"


def test_roots_files_in_the_home_are_served(running_host, site, lay, get):
    lay({"a.txt": "restored by the administrator"})
    running_host.ok(["chown", "root:www-data", f"{site.home}/public_html/a.txt"])
    assert get("/a.txt").body == "restored by the administrator"


SERVERS_OWN = """
Alias /tools /usr/share/tools
<Directory /usr/share/tools>
    Require all granted
    Options FollowSymLinks
    <FilesMatch "\\.php$">
        SetHandler "proxy:unix:/run/php/php@PHP@-fpm.sock|fcgi://localhost"
    </FilesMatch>
</Directory>
ScriptAlias /programs/ /usr/lib/programs/
<Directory /usr/lib/programs>
    Require all granted
</Directory>
ProxyPass /service http://127.0.0.1:8001
<VirtualHost *:80>
    ServerName status.example
    DocumentRoot /var/www/html
    <Location />
        SetHandler server-status
        Require all granted
    </Location>
</VirtualHost>
"""


REWRITES = """<?php
$file = __DIR__ . '/cache.php';
if (isset($_GET['q'])) {
    file_put_contents($file, '<?php return ' . (int)$_GET['q'] . ';');
    if (function_exists('opcache_invalidate'))
        @opcache_invalidate($file, true);
}
echo 'made of ', include $file;
"""


def test_an_application_gets_the_code_that_it_has_just_written(running_host, site, lay, get):
    """Though no account may throw anything out of the cache that all share."""
    lay({"write.php": REWRITES, "cache.php": "<?php return 1;"})
    running_host.ok(["touch", "-d", "1 minute ago", f"{site.home}/public_html/cache.php"])
    assert get("/write.php").body == "made of 1"
    assert get("/write.php").body == "made of 1"
    assert get("/write.php?q=2").body == "made of 2"
    assert get("/write.php").body == "made of 2"
    assert get("/write.php?q=3").body == "made of 3"


@pytest.fixture(scope="module")
def servers_own(running_host, site):
    """What the administrator shows on all hosts: an application, a program, a service; and a host for the server's status."""
    host = running_host
    host.put("/usr/share/tools/index.php", "<?php echo 'run by ', posix_getpwuid(posix_geteuid())['name'];")
    host.put("/usr/share/tools/real.css", "the style", owner="www-data")
    host.ok(["ln", "-s", "/usr/share/tools/real.css", "/usr/share/tools/style.css"])
    host.put("/usr/lib/programs/hello", "#!/bin/sh\necho Content-Type: text/plain\necho\necho hello\n", mode="0755")
    host.put("/srv/service/index.html", "the service")
    host.ok(["systemd-run", "--quiet", "--collect", "--unit=own-service", "python3", "-m", "http.server", "--bind", "127.0.0.1",
             "--directory", "/srv/service", "8001"])
    host.put("/etc/apache2/conf-enabled/own.conf", SERVERS_OWN.replace("@PHP@", site.php))
    host.ok(["a2enmod", "-q", "cgid", "proxy_http"])
    host.ok(["systemctl", "restart", "apache2"])
    yield
    host.ok(["rm", "-r", "/etc/apache2/conf-enabled/own.conf", "/usr/share/tools", "/usr/lib/programs", "/srv/service"])
    host.ok(["systemctl", "stop", "own-service"])
    host.ok(["a2dismod", "-q", "-f", "cgid", "proxy_http"])
    host.ok(["systemctl", "restart", "apache2"])


@pytest.mark.parametrize(("path", "expected"), [
    ("/tools/index.php", "run by www-data"),
    ("/tools/style.css", "the style"),
    ("/programs/hello", "hello\n"),
    ("/service/index.html", "the service"),
])
def test_what_the_server_shows_on_every_host_is_left_alone(servers_own, lay, get, path, expected):
    lay({".htaccess": 'SetEnv PHP_VALUE "auto_prepend_file=/nowhere"\nSetHandler server-status'})
    assert get(path).body == expected


def test_a_host_that_is_no_accounts_is_left_alone(running_host, servers_own):
    assert "Apache Server Status" in running_host.fetch("status.example").body


def test_a_suspended_site_says_so(running_host, site, lay, get):
    lay({".htaccess": "SetHandler server-status"})
    assert running_host.request("hosting.suspend", username=site.name)["ok"]
    running_host.wait_for(lambda: get("/").status == 503, "the site being suspended")
    assert get("/").body == "This site is temporarily unavailable."
    assert running_host.request("hosting.resume", username=site.name)["ok"]
