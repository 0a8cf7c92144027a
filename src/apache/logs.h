#pragma once

#include <apr_pools.h>

/*
 * What would end the server while it opens the logs that its configuration names; NULL for nothing. It may be asked
 * once all of the configuration has been read. The answer, a sentence, lives as long as the pool.
 */
__attribute__((visibility("hidden"))) const char *problemWithLogs(apr_pool_t *pool);
