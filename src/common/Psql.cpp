#include "common/Psql.h"

#include "common/Run.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {
namespace {

const auto kSuperuser = u"postgres"_s;
const auto kVariable = u"PGOPTIONS"_s;
// A tenant can keep hold of his role and of what is in his database for as long as he likes, and the agent does one
// thing at a time.
const auto kLocks = u"-clock_timeout=5s"_s;

} // namespace

QMap<QString, QString> psqlVariables(const QString &settings)
{
    const QString own = QString::fromLatin1(kSystemNamesOnly) + u' ' + kLocks;
    return {{kVariable, settings.isEmpty() ? own : own + u' ' + settings}};
}

QStringList psqlAs(const QString &user)
{
    return {u"-u"_s, user, u"--"_s, u"psql"_s, u"-qtAX"_s};
}

QStringList psqlUpToAnError()
{
    return {u"-v"_s, u"ON_ERROR_STOP=1"_s};
}

QString psqlInShell()
{
    return u"%1=%2 runuser %3"_s.arg(kVariable, QString::fromLatin1(kSystemNamesOnly), psqlAs(kSuperuser).join(u' '));
}

QString psql(const QByteArray &script)
{
    Streams streams;
    streams.input = script;
    Surroundings surroundings;
    surroundings.environment = psqlVariables();
    return runWith(u"runuser"_s, psqlAs(kSuperuser) + psqlUpToAnError(), streams, surroundings);
}

} // namespace corv::hosting
