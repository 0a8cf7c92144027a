#pragma once

/* The server's other headers need it before them. */
#include <httpd.h>

/*
 * Takes the filters from a request, and from its connection, that were added by a name in a .htaccess and that the
 * server's process would not outlive. It has to be asked before anything goes through them, the page of an error even.
 * Returns the name of one of them, NULL where there is none.
 */
__attribute__((visibility("hidden"))) const char *takeFiltersAway(request_rec *r);
