/*
 * A server that is reloaded opens all of its logs anew, and ends where one of them cannot be opened. A test of the
 * configuration opens none, so that whoever tests before he reloads learns of it when all sites are gone.
 */
#include "logs.h"

/* The server's other headers need it before them. */
#include "httpd.h"

#include "apr_hash.h"
#include "apr_strings.h"
#include "http_config.h"

#include <limits.h>
#include <string.h>
#include <strings.h>
#include <sys/resource.h>

/*
 * What the server has open beside its logs: listening sockets and pipes, and for the visitors their connections, files
 * and PHP's. With half a dozen left it comes up, but its processes end as soon as they start.
 */
static const rlim_t kOthers = 32;

struct logs
{
    apr_pool_t *pool;
    /* The names of the error logs: however many sites share one, it is opened once. Every other log is opened for each
     * line that names it. */
    apr_hash_t *errorLogs;
    rlim_t others;
};

static int isErrorLog(const ap_directive_t *directive)
{
    return strcasecmp(directive->directive, "ErrorLog") == 0;
}

static int isLog(const ap_directive_t *directive)
{
    static const char *const kOtherLogs[] = {"CustomLog", "ForensicLog", "GlobalLog", "TransferLog"};
    for (size_t i = 0; i < sizeof kOtherLogs / sizeof *kOtherLogs; i++) {
        if (strcasecmp(directive->directive, kOtherLogs[i]) == 0)
            return 1;
    }
    return isErrorLog(directive);
}

/* Counts a log; NULL, or what is wrong with its name. */
static const char *lookAtLog(struct logs *logs, const ap_directive_t *directive)
{
    const char *arguments = directive->args;
    const char *const path = ap_getword_conf(logs->pool, &arguments);
    if (isErrorLog(directive))
        apr_hash_set(logs->errorLogs, path, APR_HASH_KEY_STRING, path);
    else
        logs->others++;
    /* A program's line has no name. */
    if (*path == '|')
        return NULL;

    const char *const slash = strrchr(path, '/');
    const size_t length = strlen(slash ? slash + 1 : path);
    if (length <= NAME_MAX)
        return NULL;
    /* Without the name: whoever keeps the end of this alone is to learn the reason. */
    return apr_psprintf(logs->pool,
                        "%s line %d: the name of the log has %" APR_SIZE_T_FMT
                        " bytes, and no file's name has more than %d",
                        directive->filename, directive->line_num, length, NAME_MAX);
}

/* NULL, or what is wrong with the first log below a directive or behind it whose name is none. */
static const char *lookAt(struct logs *logs, const ap_directive_t *first)
{
    for (const ap_directive_t *directive = first; directive; directive = directive->next) {
        const char *const problem =
            isLog(directive) ? lookAtLog(logs, directive) : lookAt(logs, directive->first_child);
        if (problem)
            return problem;
    }
    return NULL;
}

const char *problemWithLogs(apr_pool_t *pool)
{
    struct logs logs = {pool, apr_hash_make(pool), 0};
    const char *const problem = lookAt(&logs, ap_conftree);
    if (problem)
        return problem;

    struct rlimit files;
    const rlim_t opened = apr_hash_count(logs.errorLogs) + logs.others;
    if (getrlimit(RLIMIT_NOFILE, &files) != 0 || files.rlim_cur == RLIM_INFINITY || opened + kOthers <= files.rlim_cur)
        return NULL;
    return apr_psprintf(pool,
                        "the sites have %lu logs, too many for a server that may have %lu files open: "
                        "APACHE_ULIMIT_MAX_FILES in /etc/apache2/envvars allows more, after a restart",
                        (unsigned long)opened, (unsigned long)files.rlim_cur);
}
