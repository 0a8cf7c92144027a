"""An account's .htaccess: other accounts' PHP, other accounts' and the server's files, programs as the web server, visitors of all."""

import pytest
from hostfloor import ADDRESS
from tenants import Attempt, Tenants

# What another release's versions decide.
pytestmark = pytest.mark.core

LIMIT = 60

OTHER = "proxy:unix:/run/php/corv-@VICTIM@.sock|fcgi://localhost"
OWN = "proxy:unix:/run/php/corv-@ME@.sock|fcgi://localhost"
# Without it the victim's pool would run the attacker's page, but may not open it.
ANYWHERE = 'SetEnv PHP_ADMIN_VALUE "open_basedir=/"\n'
SECRET = "the victim's secret"

PROXY = "a proxy other than the account's own PHP"
FILE = "a file that is neither the account's nor root's in its home"
FOLDER = "a folder that is neither the account's nor root's in its home"
OUTSIDE = "a page from outside the account within its own"
ADMIN_VALUE = "PHP_ADMIN_VALUE from .htaccess"

PROGRAM = "#!/bin/sh\necho Content-Type: text/plain\necho\nid\n"


def as_another(htaccess, *, reason=PROXY, **more):
    """A page of the attacker's that runs in another account's pool."""
    return Attempt(ANYWHERE + htaccess, "php runs as @VICTIM@,", reason=reason, **more)


def everywhere(htaccess, *, reason=ADMIN_VALUE, **more):
    """A page in the attacker's own pool that has left the folder to which the pool holds it."""
    return Attempt(htaccess, "php runs as @ME@, basedir /;", reason=reason, **more)


def as_the_server(htaccess, reason, **more):
    """A program that runs as the web server."""
    return Attempt(htaccess, "uid=33(www-data)", reason=reason, **more)


def secret(htaccess, *, reason=FILE, **more):
    """The text of a file in the victim's home."""
    return Attempt(htaccess, SECRET, reason=reason, **more)


# A page that PHP-FPM runs, and of whose name the site's own settings say nothing.
PAGE = {"path": "y.phar", "files": {"y.phar": "<?php include __DIR__ . '/x.php';"}}
RULE = "RewriteEngine On\n"
BY_POOL = "fcgi://localhost/home/@ME@/public_html@HERE@/x.php"
LISTING = "Options +Indexes\nIndexOptions +FancyIndexing\n"
LINK = "/home/@VICTIM@/public_html"

PHP_OF_ANOTHER = {
    "SetHandler": as_another(f'SetHandler "{OTHER}"', **PAGE),
    "in FilesMatch": as_another(f'<FilesMatch "\\.php$">\nSetHandler "{OTHER}"\n</FilesMatch>'),
    "in Files": as_another(f'<Files "x.php">\nSetHandler "{OTHER}"\n</Files>'),
    "in If": as_another(f'<If "true">\nSetHandler "{OTHER}"\n</If>'),
    "in If in If": as_another(f'<If "true">\n<If "true">\nSetHandler "{OTHER}"\n</If>\n</If>'),
    "in If in Files": as_another(f'<Files x.php>\n<If "true">\nSetHandler "{OTHER}"\n</If>\n</Files>'),
    "in Else": as_another(f'<If "false">\n</If>\n<Else>\nSetHandler "{OTHER}"\n</Else>'),
    "in ElseIf": as_another(f'<If "false">\n</If>\n<ElseIf "true">\nSetHandler "{OTHER}"\n</ElseIf>'),
    "AddHandler": as_another(f'AddHandler "{OTHER}" .phar', **PAGE),
    "rewritten handler": as_another(f'{RULE}RewriteRule ^y.phar$ - "[H={OTHER}]"', **PAGE),
    "rewritten address": as_another(f'{RULE}RewriteRule ^y$ "unix:/run/php/corv-@VICTIM@.sock|{BY_POOL}" [P]', path="y"),
    "path by way of the parent": as_another(f'<If "true">\nSetHandler "{OTHER.replace("/php/", "/php/../php/")}"\n</If>'),
    "path with two slashes": as_another(f'<If "true">\nSetHandler "{OTHER.replace("/php/", "//php/")}"\n</If>'),
    "schemes in capitals": as_another(f'<If "true">\nSetHandler "{OTHER.replace("unix", "UNIX").replace("fcgi", "FCGI")}"\n</If>'),
    "another port": as_another(f'<If "true">\nSetHandler "{OTHER}:9"\n</If>'),
    "page of an error": as_another(f'ErrorDocument 404 @HERE@/y.phar\nAddHandler "{OTHER}" .phar', files=PAGE["files"], path="missing"),
    "index of a folder": as_another(f'DirectoryIndex x.php\n<If "true">\nSetHandler "{OTHER}"\n</If>', path=""),
    "included": as_another('Options +Includes\nAddOutputFilter INCLUDES .html\n<Files x.php>\n'
                           f'SetHandler "{OTHER}"\n</Files>', path="y.html",
                           files={"y.html": '<!--#include virtual="x.php" -->'}),
    "head of a listing": as_another(f'{LISTING}HeaderName x.php\nDirectoryIndex disabled\n<Files x.php>\nForceType text/html\n'
                                    f'SetHandler "{OTHER}"\n</Files>', path=""),
    "web server on the host": Attempt(f"{RULE}RewriteRule ^y$ http://127.0.0.1:8001/ [P]", "SimpleHTTP/", path="y", reason=PROXY),
    "web server by handler": Attempt('SetHandler "proxy:http://127.0.0.1:8001/"', "SimpleHTTP/", path="y", reason=PROXY),
}

MORE_FROM_PHP = {
    "SetEnv": everywhere(ANYWHERE),
    "SetEnvIf": everywhere("SetEnvIf Request_URI . PHP_ADMIN_VALUE=open_basedir=/"),
    "SetEnvIfNoCase": everywhere("SetEnvIfNoCase Host . PHP_ADMIN_VALUE=open_basedir=/"),
    "SetEnvIfExpr": everywhere('SetEnvIfExpr "true" PHP_ADMIN_VALUE=open_basedir=/'),
    "BrowserMatch": everywhere("BrowserMatch . PHP_ADMIN_VALUE=open_basedir=/"),
    "rewritten": everywhere(f"{RULE}RewriteRule ^x.php$ - [E=PHP_ADMIN_VALUE:open_basedir=/]"),
    "ProxyFCGISetEnvIf": everywhere('ProxyFCGISetEnvIf "true" PHP_ADMIN_VALUE "open_basedir=/"',
                                    reason="directives of mod_proxy_fcgi.c in .htaccess"),
    "ProxyFCGISetEnvIf in If in Files": everywhere(
        '<Files x.php>\n<If "true">\nProxyFCGISetEnvIf "true" PHP_ADMIN_VALUE "open_basedir=/"\n</If>\n</Files>',
        reason="directives of mod_proxy_fcgi.c in .htaccess"),
    "ProxyFCGISetEnvIf below an index": everywhere(
        "DirectoryIndex below/x.php", path="", reason="directives of mod_proxy_fcgi.c in .htaccess",
        files={"below/x.php": "<?php include dirname(__DIR__) . '/x.php';",
               "below/.htaccess": 'ProxyFCGISetEnvIf "true" PHP_ADMIN_VALUE "open_basedir=/"'}),
    "from the visitor's header": everywhere('SetEnvIf X-Wish "(.*)" PHP_ADMIN_VALUE=$1'),
    "PHP_ADMIN_FLAG": Attempt("SetEnv PHP_ADMIN_FLAG allow_url_include=on", "flag allow_url_include=on", path="y.php",
                              files={"y.php": "<?php echo 'flag ', $_SERVER['PHP_ADMIN_FLAG'];"},
                              reason="PHP_ADMIN_FLAG from .htaccess"),
    "PHP_VALUE": everywhere('SetEnv PHP_VALUE "open_basedir=/"', reason="PHP_VALUE from .htaccess"),
    "code of the machine": Attempt(
        'SetEnv PHP_VALUE "ffi.enable=1"', "code of the machine", path="y.php", reason="PHP_VALUE from .htaccess",
        files={"y.php": "<?php FFI::cdef('int write(int, const char *, size_t);'); echo 'code of the machine';"}),
    "library": Attempt('SetEnv PHP_VALUE "extension=/home/@ME@/library.so"', "the library is loaded", path="y.php",
                       files={"y.php": "<?php echo is_file('/home/@ME@/loaded') ? 'the library is loaded' : 'no';"},
                       reason="PHP_VALUE from .htaccess"),
    "included, run by the server's pool": Attempt(
        "Options +Includes\nAddOutputFilter INCLUDES .html\n"
        "SetEnv PHP_VALUE auto_prepend_file=/home/@ME@/public_html@HERE@/x.php",
        "php runs as www-data", path="y.html", files={"y.html": '<!--#include virtual="/tools/index.php" -->'}, reason=OUTSIDE),
    "index, run by the server's pool": Attempt(
        "DirectoryIndex /tools/index.php\nSetEnv PHP_VALUE auto_prepend_file=/home/@ME@/public_html@HERE@/x.php",
        "php runs as www-data", path="", reason=FILE),
    "fallback, run by the server's pool": Attempt(
        "FallbackResource /tools/index.php\nSetEnvIf Request_URI . PHP_VALUE=auto_prepend_file=/home/@ME@/public_html@HERE@/x.php",
        "php runs as www-data", path="missing", reason=FILE),
}


def shown(handler, loot):
    return Attempt(f"SetHandler {handler}", loot, path="y", reason=f"the handler {handler}")


THE_SERVER = {
    "server-status": shown("server-status", "Apache Server Status"),
    "server-info": shown("server-info", "Apache Server Information"),
    "ldap-status": shown("ldap-status", "LDAP Cache Information"),
    "balancer-manager": shown("balancer-manager", "Load Balancer Manager"),
    "AddHandler": Attempt("AddHandler server-status .txt", "Apache Server Status", path="y.txt", files={"y.txt": "mine"},
                          reason="the handler server-status"),
    "type": Attempt("ForceType application/x-httpd-status", "Apache Server Status", path="y.txt", files={"y.txt": "mine"},
                    reason="the handler application/x-httpd-status"),
    "type with a parameter": Attempt('AddType "application/x-httpd-status; a=b" .txt', "Apache Server Status", path="y.txt",
                                     files={"y.txt": "mine"}, reason="the handler application/x-httpd-status"),
    "rewritten handler": Attempt(f"{RULE}RewriteRule ^y$ - [H=server-status]", "Apache Server Status", path="y",
                                 reason="the handler server-status"),
    "rewritten type": Attempt(f"{RULE}RewriteRule ^y.txt$ - [T=application/x-httpd-status]", "Apache Server Status", path="y.txt",
                              files={"y.txt": "mine"}, reason="the handler application/x-httpd-status"),
    "page of an error": Attempt("ErrorDocument 404 @HERE@/y.txt\n<Files y.txt>\nSetHandler server-status\n</Files>",
                                "Apache Server Status", path="missing", files={"y.txt": "mine"},
                                reason="the handler server-status"),
}

PROGRAMS = {
    "cgi-script": as_the_server("Options +ExecCGI\nAddHandler cgi-script .cgi", "the handler cgi-script", path="y.cgi",
                                files={"y.cgi": PROGRAM}),
    "type": as_the_server("Options +ExecCGI\nForceType application/x-httpd-cgi", "the handler application/x-httpd-cgi",
                          path="y.cgi", files={"y.cgi": PROGRAM}),
    "in If in If": as_the_server('<If "true">\n<If "true">\nOptions +ExecCGI\nSetHandler cgi-script\n</If>\n</If>',
                                 "the handler cgi-script", path="y.cgi", files={"y.cgi": PROGRAM}),
    # The file is served as it is.
    "Action": as_the_server("Options +ExecCGI\nAction text/plain @HERE@/y.cgi\n<Files y.cgi>\nSetHandler cgi-script\n</Files>",
                            None, path="z.txt", files={"y.cgi": PROGRAM, "z.txt": "mine"}),
    # The page is served, what it wants to run is not, and Apache itself says so in the log.
    "SSI exec cmd": as_the_server("Options +Includes\nAddOutputFilter INCLUDES .html", None, path="y.html",
                                  files={"y.html": '<!--#exec cmd="id" -->'}),
    "SSI exec cmd in If": as_the_server('<If "true">\nOptions +Includes\nSetOutputFilter INCLUDES\n</If>', None, path="y.html",
                                        files={"y.html": '<!--#exec cmd="id" -->'}),
    "SSI exec cmd by FilterProvider": as_the_server(
        "Options +Includes\nFilterDeclare mine\nFilterProvider mine INCLUDES \"true\"\nFilterChain mine", None, path="y.html",
        files={"y.html": '<!--#exec cmd="id" -->'}),
    "SSI exec cmd by XBitHack": as_the_server("Options +Includes\nXBitHack on", None, path="y.html",
                                              files={"y.html": '<!--#exec cmd="id" -->'}),
    "SSI exec cgi": as_the_server("Options +Includes +ExecCGI\nAddOutputFilter INCLUDES .html", None, path="y.html",
                                  files={"y.html": '<!--#exec cgi="y.cgi" -->', "y.cgi": PROGRAM}),
    "SSI include virtual": as_the_server("Options +Includes +ExecCGI\nAddOutputFilter INCLUDES .html\nAddHandler cgi-script .cgi",
                                         "the handler cgi-script", path="y.html",
                                         files={"y.html": '<!--#include virtual="y.cgi" -->', "y.cgi": PROGRAM}),
    "lua-script": as_the_server("AddHandler lua-script .lua", "the handler lua-script", path="y.lua",
                                files={"y.lua": "function handle(r)\n r:puts(io.popen('id'):read('*a'))\n return 0\nend"}),
    "LuaHookFixups": as_the_server("LuaHookFixups /home/@ME@/public_html@HERE@/y.lua fix",
                                   "directives of mod_lua.c in .htaccess", path="y.txt",
                                   files={"y.txt": "mine", "y.lua": "function fix(r)\n r.headers_out['X'] = "
                                          "io.popen('id'):read('*l')\n return apache2.DECLINED\nend"}),
}

FILES = {
    "link to a file": secret("Options FollowSymLinks", path="y.txt", links={"y.txt": f"{LINK}/config.php"}),
    "link to a folder": secret("Options FollowSymLinks", path="y/page.html", links={"y": LINK}),
    "link of a link": secret("Options FollowSymLinks", path="y.txt", links={"z": LINK, "y.txt": "z/page.html"}),
    "link to the server's file": Attempt("Options FollowSymLinks", "password of the tools", path="y.txt",
                                         links={"y.txt": "/etc/tools.conf"}, reason=FILE),
    "listing of a folder": Attempt("Options FollowSymLinks Indexes\nDirectoryIndex disabled", "the-victims-folder", path="y/", links={"y": LINK},
                                   reason=FOLDER),
    "names that are spelled likewise": Attempt("Options FollowSymLinks\nCheckSpelling on", "/the-victims-folder", path="y/the-victims-foldr",
                                               links={"y": LINK}, reason=FOLDER),
    "names without their endings": Attempt("Options FollowSymLinks\nCheckSpelling on\nCheckBasenameMatch on", "/letter", path="y/letter.txt",
                                           links={"y": LINK}, reason=FOLDER),
    "foot of a listing": secret(f"{LISTING}Options FollowSymLinks Indexes\nDirectoryIndex disabled\nReadmeName y.txt", path="",
                                links={"y.txt": f"{LINK}/config.php"}),
    "foot of a listing named as a page of PHP": secret(
        f"{LISTING}Options FollowSymLinks Indexes\nDirectoryIndex disabled\nReadmeName y.php\n<Files y.php>\nForceType text/plain\n</Files>",
        path="", links={"y.php": f"{LINK}/config.php"}),
    "titles in a listing": secret(f"{LISTING}Options FollowSymLinks Indexes\nDirectoryIndex disabled\nIndexOptions +ScanHTMLTitles", path="",
                                  links={"y.html": f"{LINK}/page.html"}),
    "include": secret("Options FollowSymLinks Includes\nAddOutputFilter INCLUDES .html", path="y.html",
                      files={"y.html": '<!--#include file="y.txt" -->'}, links={"y.txt": f"{LINK}/config.php"}),
    "include virtual": secret("Options FollowSymLinks Includes\nAddOutputFilter INCLUDES .html", path="y.html",
                              files={"y.html": '<!--#include virtual="y.txt" -->'}, links={"y.txt": f"{LINK}/config.php"}),
    "negotiated": secret("Options FollowSymLinks MultiViews", path="y", links={"y.html": f"{LINK}/page.html"}),
    "send-as-is": secret("Options FollowSymLinks\nAddHandler send-as-is .txt", path="y.txt", links={"y.txt": f"{LINK}/letter"}),
    "rewritten": secret(f"Options FollowSymLinks\n{RULE}RewriteRule ^y$ y.txt", path="y", links={"y.txt": f"{LINK}/config.php"}),
    "page of an error": secret("Options FollowSymLinks\nErrorDocument 404 @HERE@/y.txt", path="missing",
                               links={"y.txt": f"{LINK}/config.php"}),
    "MetaFiles": secret("Options FollowSymLinks\nMetaFiles on\nMetaDir meta", path="y.txt", files={"y.txt": "mine"},
                        links={"meta/y.txt.meta": f"{LINK}/config.php"}, reason="directives of mod_cern_meta.c in .htaccess"),
    "handler of one's own": secret("Options FollowSymLinks\nSetHandler mine", path="y.txt",
                                   links={"y.txt": f"{LINK}/config.php"}),
}

# What somebody else sees to already, with and without the module: Apache itself or the kernel.
CLOSED = {
    "file() in Header": secret('Header set X "expr=%{file:/home/@VICTIM@/public_html/config.php}"', path="x.php"),
    "file() in If": secret("<If \"file('/home/@VICTIM@/public_html/config.php') =~ /secret/\">\n"
                           f'Header set X "{SECRET}"\n</If>', path="x.php"),
    "file() in ErrorDocument": secret('ErrorDocument 404 "%{file:/home/@VICTIM@/public_html/config.php}"', path="missing"),
    "file() in SSLRequire": Attempt(f'SSLRequire file("{LINK}/config.php") =~ m/secret/', "php runs as @ME@,"),
    "address of a file in a rule": secret(f"Options FollowSymLinks\n{RULE}RewriteRule ^y$ {LINK}/config.php [L]", path="y"),
    "link that belongs to another": secret("", path="y.txt", links={"y.txt": f"{LINK}/config.php"}),
    "link to a folder that belongs to another": secret("", path="y/page.html", links={"y": LINK}),
    "Alias": secret(f"Alias /y {LINK}", path="y/config.php"),
    "ProxyPass": as_another(f"ProxyPass /y {OTHER}", path="y"),
    "Include": secret(f"Include {LINK}/config.php"),
    "Dav": Attempt("Dav On", "WebDAV"),
    "ExtFilterDefine": as_the_server("ExtFilterDefine mine cmd=/usr/bin/id\nSetOutputFilter mine", None),
    "RewriteMap": as_the_server("RewriteMap mine prg:/usr/bin/id", None),
    "php_admin_value": everywhere("php_admin_value open_basedir /"),
    "PHP_ADMIN_VALUE as a header": everywhere('RequestHeader set PHP_ADMIN_VALUE "open_basedir=/"'),
    "environment across a redirect": Attempt(
        f"{RULE}SetEnv PHP_VALUE auto_prepend_file=/home/@ME@/public_html@HERE@/x.php\nRewriteRule ^y$ /tools/index.php [PT]",
        "php runs as www-data", path="y"),
}

# What ends a process of Apache's, with the requests of all other visitors in it. Apache adds these filters itself, with what they
# work on; by name they come without it.
FILTERED = "FilterDeclare mine {}\nFilterProvider mine {} true\nFilterChain mine"
DEADLY = {
    **{f"SetOutputFilter {name}": f'SetOutputFilter "{name}"' for name in ("CORE", "OLD_WRITE", "ssl/tls filter")},
    **{f"SetInputFilter {name}": f'SetInputFilter "{name}"' for name in ("REQTIMEOUT", "SSL/TLS Filter", "SSL/TLS Buffer")},
    "among others": "SetOutputFilter INCLUDES;CORE;DEFLATE",
    "AddOutputFilter": "AddOutputFilter CORE .txt",
    "AddInputFilter": "AddInputFilter REQTIMEOUT .txt",
    "AddOutputFilter and a redirect": f"AddOutputFilter CORE .txt\n{RULE}RewriteRule ^y.txt$ /elsewhere [R]",
    "AddOutputFilter and a page of an error": f"AddOutputFilter CORE .txt\nErrorDocument 410 @HERE@/y.txt\n{RULE}RewriteRule ^x.php$ - [G]",
    "AddOutputFilterByType": "AddOutputFilterByType CORE text/plain",
    "in If in If": '<If "true">\n<If "true">\nSetOutputFilter CORE\n</If>\n</If>',
    "FilterProvider": FILTERED.format("RESOURCE", "CORE"),
    "FilterProvider behind another": "FilterDeclare mine\nFilterProvider mine DEFLATE false\nFilterProvider mine OLD_WRITE true\nFilterChain mine",
    "FilterProvider by a usual name": "FilterDeclare BYTYPE:DEFLATE\nFilterProvider BYTYPE:DEFLATE CORE true\nFilterChain BYTYPE:DEFLATE",
    "FilterDeclare CONNECTION": FILTERED.format("CONNECTION", "DEFLATE"),
    "FilterDeclare NETWORK": FILTERED.format("NETWORK", "DEFLATE"),
    "FilterDeclare by the name of Apache's": "FilterDeclare CORE CONNECTION\nFilterChain CORE",
    "included": "Options +Includes\nAddOutputFilter INCLUDES .html\nAddOutputFilter CORE .txt",
    **{f"SetOutputFilter {name}": f"SetOutputFilter {name}" for name in ("H2_C2_NET_CATCH_H1", "h2_c2_net_catch_h1", "H2_C2_WS_OUT")},
    "SetInputFilter H2_C2_REQUEST_IN": "SetInputFilter H2_C2_REQUEST_IN",
    **{f"FilterProvider {name}": FILTERED.format("", name) for name in ("H2_C2_NET_CATCH_H1", "H2_C2_NET_OUT", "H2_C2_WS_OUT")},
    "password from a cache that is off": "AuthType Basic\nAuthName mine\nAuthBasicProvider socache file\nAuthnCacheProvideFor file\n"
                                         "AuthUserFile /home/@ME@/public_html@HERE@/y.txt\nRequire valid-user",
}

# What is odd and must be answered all the same, with and without the module; with the module's own filter first of all.
ODD = {
    "the module's filter": "SetOutputFilter CORVANE",
    "the module's filter twice": "SetOutputFilter CORVANE;CORVANE\nAddOutputFilter CORVANE .txt .html .php",
    "the module's filter behind others": "Options +Includes\nSetOutputFilter INCLUDES;CORVANE;INCLUDES;DEFLATE;CORVANE",
    "the module's filter by type": "AddOutputFilterByType CORVANE text/plain text/html",
    **{f"the module's filter as {kind}": FILTERED.format(kind, "CORVANE")
       for kind in ("RESOURCE", "CONTENT_SET", "PROTOCOL", "TRANSCODE")},
    "the module's filter in the page of an error": "ErrorDocument 404 @HERE@/y.txt\nErrorDocument 403 @HERE@/y.html\nAddOutputFilter CORVANE .txt .html",
    "the module's filter on what comes from PHP": "<Files x.php>\nSetOutputFilter CORVANE\n</Files>",
    "the module's filter in": "SetInputFilter CORVANE",
    "a handler of the module's name": "SetHandler CORVANE",
    "a filter that nobody has": "SetOutputFilter mine\nSetInputFilter mine\nFilterChain mine",
    "filters of protocols": "SetOutputFilter HTTP_HEADER;CONTENT_LENGTH;BYTERANGE;HTTP_OUTERROR",
    "input of the protocol": "SetInputFilter HTTP_IN;CORE_IN",
    "proxy without an address": 'SetHandler "proxy:"',
    "proxy without a socket": 'SetHandler "proxy:unix:"',
    "proxy without a scheme": 'SetHandler "proxy:unix:|"',
    "rule to nowhere": f"{RULE}RewriteRule ^ unix: [P]",
    "rule to no host": f"{RULE}RewriteRule ^ fcgi:// [P]",
    "rule in a circle": f"{RULE}RewriteRule ^(.*)$ @HERE@/$1x [L]",
    "rule that looks ahead": f"{RULE}RewriteCond %{{LA-U:REMOTE_USER}}%{{LA-F:REMOTE_USER}} x\nRewriteRule ^ -",
    "page of an error in a circle": "ErrorDocument 404 @HERE@/none\nErrorDocument 403 @HERE@/none\nRequire all denied",
    "fallback in a circle": "FallbackResource @HERE@/none",
    "index of all kinds": "DirectoryIndex / @HERE@/ .. . x.php/y",
    "handlers of forms": "SetHandler form-login-handler",
    "redirect by hand": "SetHandler redirect-handler",
    "folder by hand": "SetHandler httpd/unix-directory",
    "listing of itself": f"{LISTING}DirectoryIndex disabled\nHeaderName @HERE@/\nReadmeName @HERE@/",
    "conditions on conditions": "<If \"-U '@HERE@/y.txt'\">\n<If \"-F '/home/@ME@/public_html@HERE@/y.txt'\">\n</If>\n</If>",
    "sections in sections": '<If "true">\n' * 60 + "</If>\n" * 60,
    "pages with unusual marks": "Options +Includes\nSetOutputFilter INCLUDES\nSSIStartTag a\nSSIEndTag a\nXBitHack full",
    "spelling and negotiation": "Options +MultiViews\nCheckSpelling on\nCheckCaseOnly off\nCheckBasenameMatch on",
    "types of all kinds": "DefaultType none\nForceType None\nModMimeUsePathInfo On\nAddEncoding x-gzip .txt\nAddLanguage x .txt",
    "limits": "LimitRequestBody 1\nLimitXMLRequestBody 1",
    "cache for passwords that is off": "AuthType Basic\nAuthName mine\nAuthBasicProvider socache\nRequire valid-user",
    "certificates without TLS": "SSLVerifyClient require\nSSLOptions +StdEnvVars +ExportCertData\nSSLUserName SSL_CLIENT_S_DN",
}

ALL = {f"{kind}: {name}": attempt
       for kind, attempts in {"php of another": PHP_OF_ANOTHER, "more from php": MORE_FROM_PHP, "the server": THE_SERVER,
                              "programs": PROGRAMS, "files": FILES}.items()
       for name, attempt in attempts.items()}


@pytest.fixture(scope="module")
def tenants(running_host, guarded, tmp_path_factory):
    made = Tenants(running_host, guarded=guarded)
    made.put_library(tmp_path_factory.mktemp("library"))
    yield made
    made.leave()


@pytest.mark.parametrize("name", CLOSED)
def test_a_way_that_is_closed_elsewhere(tenants, name):
    folder = tenants.prepare(CLOSED[name])
    tenants.renew_php()
    answer = tenants.get(f"/{folder}/{CLOSED[name].path}")
    assert tenants.fill(CLOSED[name].loot) not in f"{answer.headers} {answer.body}"


@pytest.mark.parametrize("name", ALL)
def test_a_way_through_htaccess(tenants, guarded, name):
    attempt = ALL[name]
    folder = tenants.prepare(attempt)
    if attempt in MORE_FROM_PHP.values():
        tenants.renew_php()
    before = tenants.refusals()

    answer = tenants.get(f"/{folder}/{attempt.path}", "-H", "X-Wish: open_basedir=/")

    got = tenants.fill(attempt.loot) in f"{answer.headers} {answer.body}"
    assert got is not guarded, f"{answer}\n{tenants.log()}"
    if guarded and attempt.reason:
        assert set(tenants.refusals()[len(before):]) == {attempt.reason}


def test_a_refusal_is_one_line_that_names_account_and_reason(tenants, guarded):
    folder = tenants.prepare(PHP_OF_ANOTHER["in If in If"])
    before = len(tenants.log().splitlines())

    answer = tenants.get(f"/{folder}/x.php")

    lines = tenants.log().splitlines()[before:]
    if guarded:
        assert answer.status == 403
        assert len(lines) == 1
        assert lines[0].endswith(f"] account {tenants.me.name}: refused /{folder}/x.php: {PROXY}")
    else:
        assert (answer.status, lines) == (200, [])


def test_a_page_for_the_refusal_that_is_refused_too_adds_no_line(tenants, guarded):
    folder = tenants.prepare(Attempt(f'ErrorDocument 403 @HERE@/x.php\n<If "true">\nSetHandler "{OTHER}"\n</If>', ""))
    before = tenants.refusals()
    answer = tenants.get(f"/{folder}/x.php")
    assert (answer.status, tenants.refusals()[len(before):]) == ((403, [PROXY]) if guarded else (200, []))


@pytest.mark.parametrize("site", ["the tools' own", "the default"])
def test_an_account_seen_through_another_host(tenants, guarded, site):
    """Where the administrator shows users' folders on every host, a .htaccess works there too."""
    folder = tenants.prepare(PHP_OF_ANOTHER["in FilesMatch"])
    before = tenants.everywhere_refused()
    answer = tenants.host.fetch(tenants.victim.domain if site == "the tools' own" else "nobody.example",
                                f"/~{tenants.me.name}/{folder}/x.php")
    assert (tenants.fill("php runs as @VICTIM@,") in answer.body) is not guarded, answer
    if guarded:
        assert tenants.everywhere_refused()[len(before):] == [PROXY]


# How a file is put in the place of another again and again, as the attacker.
EXCHANGE = r"""
import ctypes, os, sys
libc = ctypes.CDLL(None)
os.chdir(sys.argv[1])
while True:
    libc.renameat2(-100, b"y.txt", -100, b"z.txt", 2)
"""

# How a visitor asks for it meanwhile: for so many seconds, over one connection at a time.
ASK = r"""
import http.client, sys, time
address, name, path, seconds = sys.argv[1:]
count = {}
end = time.monotonic() + float(seconds)
connection = http.client.HTTPConnection(address)
while time.monotonic() < end:
    try:
        connection.request("GET", path, headers={"Host": name})
        body = connection.getresponse().read()
    except (OSError, http.client.HTTPException):
        connection = http.client.HTTPConnection(address)
        continue
    kind = "secret" if b"secret" in body else "mine" if b"mine" in body else "other"
    count[kind] = count.get(kind, 0) + 1
print(*(count.get(kind, 0) for kind in ("secret", "mine", "other")))
"""

RACE_SECONDS = 10


def test_a_link_that_is_exchanged_while_it_is_asked_for(tenants, guarded):
    folder = tenants.prepare(Attempt("Options FollowSymLinks", SECRET, files={"z.txt": "mine " * 30},
                                     links={"y.txt": f"{LINK}/config.php"}))
    place = f"{tenants.me.home}/public_html/{folder}"
    with tenants.busy(["python3", "-c", EXCHANGE, place]):
        asked = tenants.host.outside(["python3", "-c", ASK, ADDRESS, tenants.me.domain, f"/{folder}/y.txt", str(RACE_SECONDS)])
    secrets, mine, other = (int(number) for number in asked.out.split())
    print(f"{secrets} secrets, {mine} of the attacker's own, {other} refused or cut off")
    assert mine > 100
    assert (secrets > 0) is not guarded


# What a visitor asks for in a folder, each over a connection of its own, plainly and for parts of it; tells how each was answered,
# 0 for not at all.
ASK_ALL = r"""
import http.client, sys
address, name, folder = sys.argv[1:]
GET = [("GET", path, None) for path in ("y.txt", "x.php", "y.html", "", "none/a")]
POST = [("POST", path, b"a=b" * 100) for path in ("y.txt", "x.php")]
for more in ({}, {"Range": "bytes=1-3,5-9", "Accept-Encoding": "gzip"}):
    for method, path, body in GET + POST:
        headers = {"Host": name, "Authorization": "Basic YTpi", "Content-Type": "application/x-www-form-urlencoded", **more}
        connection = http.client.HTTPConnection(address, timeout=20)
        try:
            connection.request(method, f"/{folder}/{path}", body, headers)
            answer = connection.getresponse()
            answer.read()
            print(answer.status)
        except (OSError, http.client.HTTPException):
            print(0)
"""
ASKED = 14
PASSWORD = "a:{SHA}6df9c8n4q0ZT0nLq0bVHnYJ3Q0I=\n" * 20


def answers(tenants, htaccess):
    """How visitors of a folder with that .htaccess are answered."""
    folder = tenants.prepare(Attempt(htaccess, "", files={"y.txt": PASSWORD, "y.html": '<!--#include virtual="y.txt" -->mine'}))
    asked = tenants.host.outside(["python3", "-c", ASK_ALL, ADDRESS, tenants.me.domain, folder], timeout=150)
    return [int(status) for status in asked.out.split()]


def ended(tenants):
    """How many of Apache's processes were ended by a signal so far."""
    return tenants.host.get("/var/log/apache2/error.log").count("exit signal")


@pytest.mark.parametrize("name", DEADLY)
def test_no_htaccess_ends_a_process_of_apache(tenants, guarded, name):
    before = ended(tenants)
    seen = answers(tenants, DEADLY[name])
    assert len(seen) == ASKED
    if guarded:
        assert 0 not in seen and 403 in seen, tenants.log()
        assert ended(tenants) == before
    else:
        tenants.host.wait_for(lambda: ended(tenants) > before, "the word of Apache about its process")
        assert 0 in seen


@pytest.mark.parametrize("name", ODD)
def test_an_odd_htaccess_is_answered(tenants, guarded, name):
    before = ended(tenants)
    seen = answers(tenants, ODD[name])
    assert len(seen) == ASKED and 0 not in seen, f"{seen}\n{tenants.log()}"
    # Without the module the attempts above leave processes that end badly later on.
    assert not guarded or ended(tenants) == before


# The filters of HTTP/2, which are there by right where a visitor speaks it.
OF_STREAMS = ["H2_C2_REQUEST_IN", "H2_C2_RESPONSE_OUT", "H2_C2_TRAILERS_OUT", "H2_C2_NET_IN", "H2_C2_NET_CATCH_H1", "H2_C2_NET_OUT", "H2_C2_WS_OUT"]
OVER_STREAMS = 'curl -s --http2-prior-knowledge --max-time 20 -o /dev/null -w "%{http_code} %{http_version}" --resolve "$1:80:$2" "http://$1/$3/x.php"'


@pytest.mark.parametrize("kind", ["SetOutputFilter", "SetInputFilter"])
def test_a_visitor_who_speaks_http_2_is_answered_all_the_same(tenants, guarded, kind):
    before = ended(tenants)
    for htaccess in ["", *(f"{kind} {name}\n" for name in OF_STREAMS)]:
        folder = tenants.prepare(Attempt(htaccess, ""))
        for body in ([], ["-d", "a=b"]):
            seen = tenants.host.outside(["sh", "-c", f'{OVER_STREAMS} {" ".join(body)}', "sh", tenants.me.domain, ADDRESS, folder]).out
            assert seen == "200 2", f"{htaccess}: {tenants.log()}"
    assert not guarded or ended(tenants) == before


# The attacker's site on port 443, with the body that it has on port 80.
TLS = """
<VirtualHost *:443>
    ServerName @DOMAIN@
    DocumentRoot /home/@ME@/public_html
    ErrorLog ${APACHE_LOG_DIR}/@DOMAIN@-error.log
    <Directory /home/@ME@/public_html>
        Options -Indexes +SymLinksIfOwnerMatch
        AllowOverride All
        Require all granted
    </Directory>
    SSLEngine on
    SSLCertificateFile /root/attacked.pem
    SSLCertificateKeyFile /root/attacked.pem
</VirtualHost>
"""
CERTIFICATE = ("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout /root/attacked.pem -out /root/attacked.pem "
               "-days 30 -subj /CN=attacked 2>/dev/null")
MEBIBYTES = 300
UPLOAD = (f"head -c {MEBIBYTES * 1024 * 1024} /dev/zero | curl -qsk --http1.1 --max-time 50 -H Expect: -X POST -T - -o /dev/null "
          '-w "%{http_code}" --resolve "$1:443:$2" "https://$1/$3/y.txt"')
# The most memory that any process of Apache's had, in KiB.
PEAK = "for one in $(pgrep -x apache2); do sed -n 's/^VmHWM:\\s*\\([0-9]*\\) kB/\\1/p' /proc/$one/status; done | sort -n | tail -n 1"


def test_no_htaccess_has_apache_keep_whole_bodies_in_memory(tenants, guarded):
    host = tenants.host
    host.ok(["sh", "-c", CERTIFICATE])
    host.put("/etc/apache2/conf-enabled/attacked.conf", tenants.fill(TLS).replace("@DOMAIN@", tenants.me.domain))
    folder = tenants.prepare(Attempt("SSLVerifyClient require\nSSLRenegBufferSize 2000000000\n", "", files={"y.txt": "mine"}))
    try:
        host.ok(["systemctl", "restart", "apache2"])
        answer = host.outside(["sh", "-c", UPLOAD, "sh", tenants.me.domain, ADDRESS, folder]).out
        peak = int(host.ok(["sh", "-c", PEAK])) // 1024
    finally:
        host.ok(["rm", "/etc/apache2/conf-enabled/attacked.conf"])
        host.ok(["systemctl", "restart", "apache2"])
    print(f"answered with {answer}; {peak} MiB")
    assert (peak > MEBIBYTES) is not guarded
    if guarded:
        assert answer == "500"
        assert "SSLRenegBufferSize cannot occur within htaccess files" in tenants.log()


# A letter becomes so many bytes in one request. What is one rule more makes four times as much of it.
RULES = 15
GROWING = RULE + "RewriteRule ^ - [E=A:%{ENV:A}%{ENV:A}%{ENV:A}%{ENV:A}x]\n" * RULES
GROWN = 4 ** (RULES - 1)


def test_no_htaccess_has_one_request_take_the_servers_memory(tenants, guarded):
    host = tenants.host
    folder = tenants.prepare(Attempt(GROWING, "", files={"y.txt": "mine"}))
    # Fresh processes, so that the most that any of them had is this request's.
    host.ok(["systemctl", "restart", "apache2"])
    main = host.main_process("apache2")
    host.wait_for(lambda: host.run(["pgrep", "-x", "-P", main, "apache2"]).code == 0, "Apache's processes")
    before = ended(tenants)

    asked = host.outside(["curl", "-qs", "--max-time", "50", "-o", "/dev/null", "-w", "%{http_code}", "-H", f"Host: {tenants.me.domain}",
                          f"http://{ADDRESS}/{folder}/y.txt"])

    peak = int(host.ok(["sh", "-c", PEAK])) * 1024
    print(f"answered with {asked.out}; {peak // 1024 // 1024} MiB")
    assert asked.out == ("000" if guarded else "200")
    assert (peak > GROWN) is not guarded
    if guarded:
        # Its process ends, and the server goes on.
        host.wait_for(lambda: ended(tenants) > before, "the word of Apache about its process")
        assert host.main_process("apache2") == main
        assert host.fetch(tenants.victim.domain, "/config.php").status == 200
