/*
 * A rule of a .htaccess can write a variable four times into itself, and fifteen such rules have gigabytes made of one
 * letter before any module gets its turn again. What there is for one process has an end therefore.
 */
#include "memory.h"

#include "ap_mpm.h"
#include "http_config.h"
#include "http_log.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

APLOG_USE_MODULE(corvane);

enum { kMebibyte = 1024 * 1024, kLongestLine = 256 };

/* Behind how many numbers of statm the kernel tells what counts towards the limit, in pages. */
enum { kDataField = 5 };

/* What requests may take together in one process: an ordinary one's take some tens of MiB. */
static const rlim_t kLeastForRequests = (rlim_t)128 * kMebibyte;
static const rlim_t kMostForRequests = (rlim_t)512 * kMebibyte;

/* The stack of a thread where nobody says how large it is. Room for one counts, whether or not it is used. */
static const rlim_t kUsualStack = (rlim_t)8 * kMebibyte;

/* mod_http2 has up to three threads for two of the server's, and begins them when they are needed. */
static const rlim_t kStacksWithStreams = 3;

static rlim_t query(int what)
{
    int number = 0;
    return ap_mpm_query(what, &number) == APR_SUCCESS && number > 0 ? (rlim_t)number : 1;
}

/* What counts towards the limit in this process already, in bytes: the server's whole configuration first of all. */
static rlim_t memoryInUse(void)
{
    char line[kLongestLine];
    FILE *const file = fopen("/proc/self/statm", "re");
    if (!file)
        return 0;
    const char *at = fgets(line, sizeof line, file);
    (void)fclose(file);
    for (int i = 0; at && i < kDataField; i++) {
        at = strchr(at, ' ');
        at = at ? at + 1 : NULL;
    }
    return at ? (rlim_t)strtoul(at, NULL, 10) * (rlim_t)sysconf(_SC_PAGESIZE) : 0;
}

/* Half of the machine's memory for all processes together. One that has a single request takes no other's with it. */
static rlim_t memoryForRequests(rlim_t threads)
{
    const rlim_t half = (rlim_t)sysconf(_SC_PHYS_PAGES) * (rlim_t)sysconf(_SC_PAGESIZE) / 2;
    const rlim_t share = threads > 1 ? half / query(AP_MPMQ_MAX_DAEMONS) : half;
    if (share < kLeastForRequests)
        return kLeastForRequests;
    return share < kMostForRequests ? share : kMostForRequests;
}

void limitMemory(apr_pool_t *pool, server_rec *server)
{
    (void)pool;
    struct rlimit stack;
    struct rlimit limit;
    const rlim_t inUse = memoryInUse();
    if (inUse == 0 || getrlimit(RLIMIT_STACK, &stack) != 0 || getrlimit(RLIMIT_DATA, &limit) != 0)
        return;

    const rlim_t threads = query(AP_MPMQ_MAX_THREADS);
    const rlim_t stacks = ap_find_linked_module("mod_http2.c") ? threads * kStacksWithStreams : threads;
    const rlim_t stackSize = stack.rlim_cur == RLIM_INFINITY ? kUsualStack : stack.rlim_cur;
    const rlim_t most = inUse + stacks * stackSize + memoryForRequests(threads);
    if (limit.rlim_cur <= most)
        return;
    /* The lower of its two alone: a program that this process starts may have it lifted. */
    limit.rlim_cur = most;
    if (setrlimit(RLIMIT_DATA, &limit) != 0)
        ap_log_error(APLOG_MARK, APLOG_WARNING, errno, server, "the memory of this process cannot be limited");
}
