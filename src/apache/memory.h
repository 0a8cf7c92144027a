#pragma once

/* The server's other headers need it before them. */
#include <httpd.h>

/*
 * Limits how much memory this process of the server's may take from now on, so that a request for which an account's
 * .htaccess takes all that there is ends this process and nothing else. Asked for at its beginning, before it has
 * threads. A limit that is lower already stays.
 */
__attribute__((visibility("hidden"))) void limitMemory(apr_pool_t *pool, server_rec *server);
