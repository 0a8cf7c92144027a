#include "common/Environment.h"

#include <QByteArray>
#include <QStringList>

#include <cstring>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv {
namespace {

const auto kPath = u"PATH"_s;

} // namespace

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

QProcessEnvironment childEnvironment()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    QStringList folders = environment.value(kPath).split(u':');
    if (folders.removeAll(QString::fromLatin1(kToolsFolder)) > 0)
        environment.insert(kPath, folders.join(u':'));
    return environment;
}

QMap<QString, QString> toolsVariables()
{
    QStringList folders = qEnvironmentVariable("PATH").split(u':');
    const qsizetype tools = folders.indexOf(QString::fromLatin1(kToolsFolder));
    if (tools < 0)
        return {};
    folders.insert(tools, QString::fromLatin1(kPipesFolder));
    return {{kPath, folders.join(u':')}};
}

} // namespace corv
