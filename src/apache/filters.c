/*
 * A .htaccess adds filters by their names, the server's inner ones too, and Apache does not ask whether they were meant
 * for that.
 */
#include "filters.h"

#include "util_filter.h"

#include <strings.h>

/* One that a filter of mod_filter's may choose. Only that module says what it looks like, as it has done since 2.4.0.
 */
struct ap_filter_provider_t
{
    const void *condition;
    const char **types;
    ap_filter_rec_t *frec;
    ap_filter_provider_t *next;
};

/*
 * Filters of the server's own that work on what it gives them where it adds them itself. Added by name in a .htaccess
 * they have nothing to work on, and the process ends with all the requests in it.
 */
static const char *const kServersFilters[] = {"CORE", "OLD_WRITE", "REQTIMEOUT", "SSL/TLS Buffer", "SSL/TLS Filter"};

static int isServersFilter(const ap_filter_rec_t *filter)
{
    for (size_t i = 0; i < sizeof kServersFilters / sizeof *kServersFilters; i++) {
        if (strcasecmp(filter->name, kServersFilters[i]) == 0)
            return 1;
    }
    return 0;
}

/* One of mod_http2's, which has other ones from release to release. They work on what belongs to a stream of HTTP/2. */
static int isOfStreams(const ap_filter_rec_t *filter)
{
    return strncasecmp(filter->name, "H2_", 3) == 0;
}

/* Whether the server's process would not outlive this filter. */
static int isDeadly(const ap_filter_t *f)
{
    for (const ap_filter_provider_t *provider = f->frec->providers; provider; provider = provider->next) {
        if (isServersFilter(provider->frec) || isOfStreams(provider->frec))
            return 1;
    }
    if (!f->ctx && isServersFilter(f->frec))
        return 1;
    /* On a stream they are there by right, where mod_http2 has added them itself. */
    if (!f->c->master && isOfStreams(f->frec))
        return 1;
    /* The filters of mod_filter's are no registered ones. They look at a request, and a connection has none. */
    return f->frec->ftype >= AP_FTYPE_CONNECTION && ap_get_output_filter_handle(f->frec->name) != f->frec &&
           ap_get_input_filter_handle(f->frec->name) != f->frec;
}

/*
 * The same for one chain, of which the request, its protocol and its connection each have a beginning. The server's own
 * way to remove a filter of a connection leaves it where filters of the request lead to it.
 */
static const char *takeFrom(ap_filter_t **request, ap_filter_t **protocol, ap_filter_t **connection)
{
    const char *name = NULL;
    ap_filter_t *before = NULL;
    for (ap_filter_t *f = *request; f; f = f->next) {
        if (!isDeadly(f)) {
            before = f;
            continue;
        }
        name = f->frec->name;
        if (before)
            before->next = f->next;
        if (*request == f)
            *request = f->next;
        if (*protocol == f)
            *protocol = f->next;
        if (*connection == f)
            *connection = f->next;
    }
    return name;
}

const char *takeFiltersAway(request_rec *r)
{
    const char *const out = takeFrom(&r->output_filters, &r->proto_output_filters, &r->connection->output_filters);
    const char *const in = takeFrom(&r->input_filters, &r->proto_input_filters, &r->connection->input_filters);
    return out ? out : in;
}
