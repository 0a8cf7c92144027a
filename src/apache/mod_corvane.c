/*
 * mod_corvane: does this request stay within its account?
 *
 * The web server serves all accounts as one user, who may read what any of them publishes and connect to the pool of
 * each. What an account writes into its .htaccess files is therefore looked at here when all of it has been put
 * together, whatever way it took: before the first module acts on it, on the file that was found, and right before the
 * handler. Whether a request is an account's is told by the file that the server's own configuration leads to, before a
 * .htaccess can change it: one below the document root /home/NAME/public_html of a virtual host. All others are left
 * alone.
 *
 * docs/security.md says what is promised and what is left, docs/operations.md what the log line means.
 */
/* The server's other headers need it before them. */
#include "httpd.h"

#include "filters.h"
#include "logs.h"
#include "memory.h"

#include "apr_buckets.h"
#include "apr_hash.h"
#include "apr_strings.h"
#include "http_config.h"
#include "http_core.h"
#include "http_log.h"
#include "http_protocol.h"
#include "http_request.h"
#include "util_filter.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

module AP_MODULE_DECLARE_DATA corvane_module;
APLOG_USE_MODULE(corvane);

/* Whose document root some virtual host has. He is whom his home belonged to when the configuration was read. */
struct account
{
    const char *name;
    uid_t uid;
};

/* What is known of a request that is an account's; others have none. */
struct stay
{
    const struct account *account;
    int refused;
    /* The name of a filter that was taken away again, NULL for none. */
    const char *filter;
};

/* All accounts (struct account), by name. Written while the server reads its configuration. */
static apr_hash_t *accounts;

/* The loaded modules whose directives in a .htaccess are refused (module *). Written as above. */
static apr_array_header_t *strangers;

static ap_filter_rec_t *fileFilter;

/*
 * Modules whose directives a .htaccess may use: they keep within what an account may do, or lead only to what is looked
 * at below. Left out are, of the server's own, mod_proxy_fcgi (it can set PHP_ADMIN_VALUE after the last look), mod_lua
 * (runs code as the web server), mod_cern_meta (sends files as headers), mod_authnz_ldap and mod_session_crypto (run
 * programs), mod_authn_socache (ends the server's process where its cache is not switched on), those that read
 * databases in a format that was never meant for hostile files, and all that nobody here has read.
 */
static const char kKnownModules[] =
    " core.c mod_access_compat.c mod_actions.c mod_alias.c mod_auth_basic.c mod_auth_digest.c "
    "mod_auth_form.c mod_authn_anon.c mod_authn_core.c mod_authn_file.c "
    "mod_authz_core.c mod_authz_groupfile.c mod_authz_host.c mod_authz_owner.c mod_authz_user.c "
    "mod_autoindex.c mod_brotli.c mod_charset_lite.c mod_corvane.c mod_deflate.c mod_dir.c mod_env.c mod_expires.c "
    "mod_filter.c mod_headers.c mod_http2.c mod_include.c mod_mime.c mod_negotiation.c mod_request.c "
    "mod_rewrite.c mod_session.c mod_session_cookie.c mod_setenvif.c mod_speling.c mod_ssl.c "
    "mod_substitute.c mod_usertrack.c mod_version.c ";

/* Modules whose directives act while a .htaccess is being read, before anybody can look at it. */
static const char kRashModules[] = " mod_authnz_ldap.c mod_macro.c mod_session_crypto.c ";

/* Handlers that show the server or run programs as the web server, by their names and by types that stand for them. */
static const char kRefusedHandlers[] =
    " application/x-httpd-cgi application/x-httpd-status balancer-manager cgi-script dav-handler "
    "fcgid-script heartbeat http2-status jk-status ldap-status lua-script md-status perl-script "
    "server-info server-status wsgi-script ";

/* What answers for files and folders, and what only leads on to another request, which is looked at by itself. */
static const char kAllowedHandlers[] =
    " httpd/unix-directory form-login-handler form-logout-handler form-redirect-handler redirect-handler ";

/* Whether a word stands in a list of words, each between two spaces. */
static int isOneOf(const char *list, const char *word)
{
    const size_t length = word ? strlen(word) : 0;
    if (length == 0 || strchr(word, ' '))
        return 0;
    for (const char *at = strstr(list, word); at; at = strstr(at + 1, word)) {
        if (at[-1] == ' ' && at[length] == ' ')
            return 1;
    }
    return 0;
}

/* What follows a prefix in a text, NULL when the text is NULL or begins otherwise. */
static const char *after(const char *prefix, const char *text)
{
    const size_t length = strlen(prefix);
    return text && strncmp(text, prefix, length) == 0 ? text + length : NULL;
}

/* Where the name ends in a path that is or lies below /home/NAME/public_html, NULL in any other path. */
static const char *endOfName(const char *path)
{
    const char *const name = after("/home/", path);
    const char *const end = name ? strchr(name, '/') : NULL;
    const char *const below = after("/public_html", end);
    return below && (*below == '\0' || *below == '/') ? end : NULL;
}

static const struct account *accountOf(const char *path)
{
    const char *const end = endOfName(path);
    const char *const name = after("/home/", path);
    return end ? apr_hash_get(accounts, name, end - name) : NULL;
}

static struct stay *stayOf(const request_rec *r)
{
    return ap_get_module_config(r->request_config, &corvane_module);
}

/* Logs the reason and gives 403. The page for that is a request of its own; one line is enough when it is refused too.
 */
static int refuse(request_rec *r, struct stay *stay, const char *reason)
{
    const struct stay *const before = r->prev ? stayOf(r->prev) : NULL;
    stay->refused = 1;
    if (!before || !before->refused)
        ap_log_rerror(APLOG_MARK, APLOG_ERR, 0, r, "account %s: refused %s: %s", stay->account->name, r->uri, reason);
    return HTTP_FORBIDDEN;
}

/*
 * Whether a file of root's lies in an account's home. What root has elsewhere is the server's, such as settings with
 * passwords that the web server's group may read. A path in /proc/self/fd stands for an open file.
 */
static int isInHome(apr_pool_t *pool, const struct account *account, const char *path)
{
    char realHome[PATH_MAX];
    char realPath[PATH_MAX];
    if (!realpath(apr_pstrcat(pool, "/home/", account->name, NULL), realHome) || !realpath(path, realPath))
        return 0;
    const char *const below = after(realHome, realPath);
    return below && *below == '/';
}

/* The first module whose directives are refused and that a .htaccess, or a section in it, has directives of. */
static const module *strangerIn(const ap_conf_vector_t *conf)
{
    for (int i = 0; i < strangers->nelts; i++) {
        const module *const stranger = APR_ARRAY_IDX(strangers, i, const module *);
        if (ap_get_module_config(conf, stranger))
            return stranger;
    }

    const core_dir_config *const core = ap_get_core_module_config(conf);
    const apr_array_header_t *const sections[] = {core ? core->sec_file : NULL, core ? core->sec_if : NULL};
    for (size_t kind = 0; kind < 2; kind++) {
        for (int i = 0; sections[kind] && i < sections[kind]->nelts; i++) {
            const module *const stranger = strangerIn(APR_ARRAY_IDX(sections[kind], i, const ap_conf_vector_t *));
            if (stranger)
                return stranger;
        }
    }
    return NULL;
}

/* Takes from the request what would let a page in it run programs as the web server; the page itself is served. */
static void forbidPrograms(request_rec *r)
{
    const core_dir_config *const core = ap_get_core_module_config(r->per_dir_config);
    if (!(core->opts & OPT_INC_WITH_EXEC))
        return;
    core_dir_config *const without = apr_pmemdup(r->pool, core, sizeof *core);
    without->opts &= (allow_options_t)~OPT_INC_WITH_EXEC;
    /* The settings may be shared with other requests, hence a vector of our own. */
    r->per_dir_config = ap_merge_per_dir_configs(r->pool, r->per_dir_config, ap_create_per_dir_config(r->pool));
    ap_set_core_module_config(r->per_dir_config, without);
}

/* Whether something is the account's, or root's in the account's home. */
static int isOwn(apr_pool_t *pool, const struct account *account, apr_uid_t owner, const char *path)
{
    return owner == account->uid || (owner == 0 && isInHome(pool, account, path));
}

/* The folder in which a file was found missing, or that was itself asked for: modules that look for something like it
 * read its names. */
static int onTheFolder(request_rec *r, struct stay *stay)
{
    const char *const end = strrchr(r->filename, '/');
    const char *const folder = r->finfo.filetype == APR_DIR || !end
                                   ? r->filename
                                   : apr_pstrmemdup(r->pool, r->filename, (apr_size_t)(end - r->filename));
    apr_finfo_t found = r->finfo;
    if ((found.filetype != APR_DIR || !(found.valid & APR_FINFO_USER)) &&
        apr_stat(&found, folder, APR_FINFO_USER, r->pool) != APR_SUCCESS)
        return refuse(r, stay, "the folder cannot be looked at");
    if (!isOwn(r->pool, stay->account, found.user, folder))
        return refuse(r, stay, "a folder that is neither the account's nor root's in its home");
    return OK;
}

/* Right after all configuration of the request has been put together: is it an account's, and who speaks in its
 * .htaccess? */
static int beforeAnyModule(request_rec *r)
{
    const struct account *const account = accountOf(r->filename);
    if (!account)
        return DECLINED;

    struct stay *const stay = apr_pcalloc(r->pool, sizeof *stay);
    stay->account = account;
    ap_set_module_config(r->request_config, &corvane_module, stay);

    for (const struct htaccess_result *read = r->htaccess; read; read = read->next) {
        const module *const stranger = read->htaccess ? strangerIn(read->htaccess) : NULL;
        if (stranger)
            return refuse(r, stay, apr_psprintf(r->pool, "directives of %s in .htaccess", stranger->name));
    }
    forbidPrograms(r);
    return r->finfo.filetype == APR_NOFILE || r->finfo.filetype == APR_DIR ? onTheFolder(r, stay) : OK;
}

/* What the endings of file names have added by now: a module that answers from here on would send its answer through
 * it. */
static int beforeTheFixups(request_rec *r)
{
    struct stay *const stay = stayOf(r);
    const char *const filter = stay ? takeFiltersAway(r) : NULL;
    return filter ? refuse(r, stay, apr_psprintf(r->pool, "the filter %s", filter)) : DECLINED;
}

/* What all other directives have added: filters are set up before the handler gets its turn. */
static void afterTheFilters(request_rec *r)
{
    struct stay *const stay = stayOf(r);
    if (stay)
        stay->filter = takeFiltersAway(r);
}

/* The file that was found, also where another module only looks for it and then opens it without a handler. */
static int onTheFile(request_rec *r)
{
    struct stay *const stay = stayOf(r);
    if (!stay || r->finfo.filetype == APR_NOFILE || !r->filename || *r->filename != '/')
        return DECLINED;

    /* A link that was only listed has not been followed yet. */
    apr_finfo_t found = r->finfo;
    if ((found.filetype == APR_LNK || !(found.valid & APR_FINFO_USER)) &&
        apr_stat(&found, r->filename, APR_FINFO_USER, r->pool) != APR_SUCCESS)
        return refuse(r, stay, "the file cannot be looked at");
    if (!isOwn(r->pool, stay->account, found.user, r->filename))
        return refuse(r, stay, "a file that is neither the account's nor root's in its home");
    return DECLINED;
}

/* Whether the request goes to PHP by the account's own pool and by nothing else. */
static int goesToOwnPool(const request_rec *r, const char *name)
{
    const char *const socket = apr_pstrcat(r->pool, "/run/php/corv-", name, ".sock", NULL);
    if (!r->proxyreq) {
        const char *const rest =
            after(apr_pstrcat(r->pool, "proxy:unix:", socket, "|fcgi://localhost", NULL), r->handler);
        return rest && (*rest == '\0' || strcmp(rest, "/") == 0);
    }

    /* A rewritten request: the proxy has by now taken the address apart, and connects to what it noted. */
    const char *const noted = apr_table_get(r->notes, "uds_path");
    return r->proxyreq == PROXYREQ_REVERSE && noted && strcmp(noted, socket) == 0 &&
           after(apr_pstrcat(r->pool, "proxy:fcgi://localhost/home/", name, "/", NULL), r->filename);
}

/*
 * What PHP-FPM must not be told by an account; NULL when there is nothing of it. PHP_VALUE is no better than the other
 * two: it too sets what the pool has fixed, stays with the process, and loads libraries, into a process that shares the
 * cache of compiled scripts with the pools of all accounts. What an account may set for itself goes into .user.ini.
 */
static const char *forbiddenSetting(const request_rec *r)
{
    static const char *const kNames[] = {"PHP_ADMIN_VALUE", "PHP_ADMIN_FLAG", "PHP_VALUE", "PHP_FLAG"};
    for (size_t i = 0; i < sizeof kNames / sizeof *kNames; i++) {
        if (apr_table_get(r->subprocess_env, kNames[i]))
            return kNames[i];
    }
    return NULL;
}

static int beforeTheHandler(request_rec *r)
{
    struct stay *const stay = stayOf(r);
    if (!stay) {
        /* What an account's page includes from elsewhere would get the account's environment with it, PHP's settings
         * too. */
        struct stay *const around = r->main ? stayOf(r->main) : NULL;
        return around ? refuse(r, around, "a page from outside the account within its own") : DECLINED;
    }

    if (stay->filter)
        return refuse(r, stay, apr_psprintf(r->pool, "the filter %s", stay->filter));
    if (r->proxyreq || after("proxy:", r->handler)) {
        if (!goesToOwnPool(r, stay->account->name))
            return refuse(r, stay, "a proxy other than the account's own PHP");
        const char *const setting = forbiddenSetting(r);
        return setting ? refuse(r, stay, apr_pstrcat(r->pool, setting, " from .htaccess", NULL)) : DECLINED;
    }

    if (isOneOf(kRefusedHandlers, r->handler))
        return refuse(r, stay, apr_psprintf(r->pool, "the handler %s", r->handler));
    /* Names that nobody answers to are in use to have a file served as it is, whatever its ending. So they are, whoever
     * is there. */
    if (!isOneOf(kAllowedHandlers, r->handler))
        r->handler = AP_DEFAULT_HANDLER_NAME;
    ap_add_output_filter_handle(fileFilter, NULL, r, r->connection);
    return DECLINED;
}

static int mayBeSent(apr_pool_t *pool, const struct account *account, apr_file_t *file)
{
    apr_os_file_t descriptor = -1;
    struct stat info;
    if (apr_os_file_get(&descriptor, file) != APR_SUCCESS || fstat(descriptor, &info) != 0)
        return 0;
    if (info.st_uid == account->uid)
        return 1;
    return info.st_uid == 0 && isInHome(pool, account, apr_psprintf(pool, "/proc/self/fd/%d", descriptor));
}

/*
 * The first of all filters: looks at the very files that a handler has opened and is about to send. A .htaccess can add
 * it too, any number of times and with a state of mod_filter's, so all that it knows is the request's.
 */
static apr_status_t onOpenFiles(ap_filter_t *f, apr_bucket_brigade *brigade)
{
    struct stay *const stay = f->r ? stayOf(f->r) : NULL;
    if (!stay)
        return ap_pass_brigade(f->next, brigade);
    for (apr_bucket *b = APR_BRIGADE_FIRST(brigade); b != APR_BRIGADE_SENTINEL(brigade); b = APR_BUCKET_NEXT(b)) {
        if (!APR_BUCKET_IS_FILE(b) || mayBeSent(f->r->pool, stay->account, ((const apr_bucket_file *)b->data)->fd))
            continue;
        const int status = refuse(f->r, stay, "a file that was exchanged while it was opened");
        apr_brigade_cleanup(brigade);
        APR_BRIGADE_INSERT_TAIL(brigade, ap_bucket_error_create(status, NULL, f->r->pool, brigade->bucket_alloc));
        APR_BRIGADE_INSERT_TAIL(brigade, apr_bucket_eos_create(brigade->bucket_alloc));
        break;
    }
    return ap_pass_brigade(f->next, brigade);
}

static int hasDirectivesForHtaccess(const module *m)
{
    for (const command_rec *command = m->cmds; command && command->name; command++) {
        if (command->req_override & OR_ALL)
            return 1;
    }
    return 0;
}

static void learnAccount(apr_pool_t *pool, const char *documentRoot)
{
    const char *const end = endOfName(documentRoot);
    if (!end)
        return;
    const char *const name = after("/home/", documentRoot);
    struct account *const account = apr_palloc(pool, sizeof *account);
    struct stat home;
    account->name = apr_pstrmemdup(pool, name, (apr_size_t)(end - name));
    /* Without a home nothing is the account's. */
    account->uid = lstat(apr_pstrcat(pool, "/home/", account->name, NULL), &home) == 0 ? home.st_uid : (uid_t)-1;
    apr_hash_set(accounts, account->name, APR_HASH_KEY_STRING, account);
}

/* A test of the configuration comes here too, so that the agent learns before it reloads the server what would end it.
 */
static int beforeTheLogs(apr_pool_t *pool, apr_pool_t *log, apr_pool_t *scratch, server_rec *main)
{
    (void)pool;
    (void)log;
    (void)main;
    const char *const problem = problemWithLogs(scratch);
    if (!problem)
        return OK;
    /* Of no server's: whose log is the one to be opened is not told on the terminal. */
    ap_log_error(APLOG_MARK, APLOG_STARTUP | APLOG_ERR, 0, NULL, "%s", problem);
    return HTTP_INTERNAL_SERVER_ERROR;
}

static int learn(apr_pool_t *pool, apr_pool_t *log, apr_pool_t *scratch, server_rec *main)
{
    (void)log;
    (void)scratch;

    accounts = apr_hash_make(pool);
    for (const server_rec *s = main; s; s = s->next) {
        const core_server_config *const core = ap_get_core_module_config(s->module_config);
        learnAccount(pool, core->ap_document_root);
    }

    strangers = apr_array_make(pool, 8, sizeof(const module *));
    for (const module *m = ap_top_module; m; m = m->next) {
        if (isOneOf(kRashModules, m->name))
            ap_log_error(APLOG_MARK, APLOG_WARNING, 0, main,
                         "%s is enabled: its directives in an account's .htaccess act before they can be refused",
                         m->name);
        if (hasDirectivesForHtaccess(m) && !isOneOf(kKnownModules, m->name))
            APR_ARRAY_PUSH(strangers, const module *) = m;
    }
    return OK;
}

/*
 * Where a folder asks for a certificate of the visitor, mod_ssl first reads the body of his request into memory, up to
 * this size. It is the server's memory, so that only the server's own configuration says how much of it. Every module
 * that knows a directive is asked; mod_ssl itself sets it.
 */
static const char *onBufferSize(cmd_parms *command, void *settings, const char *size)
{
    (void)settings;
    (void)size;
    return ap_check_cmd_context(command, NOT_IN_HTACCESS);
}

static const command_rec directives[] = {
    AP_INIT_TAKE1("SSLRenegBufferSize", onBufferSize, NULL, OR_AUTHCFG,
                  "refused in .htaccess, and mod_ssl's elsewhere"),
    {.name = NULL},
};

static void hooks(apr_pool_t *pool)
{
    (void)pool;
    /* Behind the protocol, in front of whatever changes content: filters of that kind turn files into something else.
     */
    fileFilter = ap_register_output_filter("CORVANE", onOpenFiles, NULL, AP_FTYPE_RESOURCE - 1);
    ap_hook_check_config(beforeTheLogs, NULL, NULL, APR_HOOK_MIDDLE);
    ap_hook_post_config(learn, NULL, NULL, APR_HOOK_MIDDLE);
    ap_hook_child_init(limitMemory, NULL, NULL, APR_HOOK_REALLY_FIRST);
    ap_hook_post_perdir_config(beforeAnyModule, NULL, NULL, APR_HOOK_REALLY_FIRST);
    ap_hook_fixups(beforeTheFixups, NULL, NULL, APR_HOOK_REALLY_FIRST);
    ap_hook_fixups(onTheFile, NULL, NULL, APR_HOOK_REALLY_LAST);
    ap_hook_insert_filter(afterTheFilters, NULL, NULL, APR_HOOK_REALLY_LAST);
    ap_hook_handler(beforeTheHandler, NULL, NULL, APR_HOOK_REALLY_FIRST);
}

module AP_MODULE_DECLARE_DATA corvane_module = {
    STANDARD20_MODULE_STUFF, NULL, NULL, NULL, NULL, directives, hooks, AP_MODULE_FLAG_NONE,
};
