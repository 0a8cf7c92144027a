#include "common/Environment.h"

#include <QByteArray>

#include <cstring>

#include <unistd.h>

namespace corv {

void cleanEnvironment()
{
    qputenv("LC_ALL", "C.UTF-8");
    qunsetenv("LANGUAGE"); // gettext prefers it to LC_ALL
    for (char **entry = environ; *entry;) {
        const QByteArray name(*entry, static_cast<qsizetype>(std::strcspn(*entry, "=")));
        if (name.startsWith("PG") || name.startsWith("LD_")) {
            qunsetenv(name.constData());
            entry = environ; // unsetting moves the entries
        } else {
            ++entry;
        }
    }
}

} // namespace corv
