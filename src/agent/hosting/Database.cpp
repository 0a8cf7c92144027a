#include "agent/hosting/Database.h"

#include "agent/hosting/Existing.h"
#include "agent/hosting/Hosting.h"
#include "agent/postgres/Sessions.h"
#include "common/Psql.h"

#include <QRandomGenerator>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {
namespace {

constexpr qsizetype kPasswordBytes = 18;

} // namespace

QString randomPassword()
{
    QByteArray bytes(kPasswordBytes, '\0');
    std::generate(bytes.begin(), bytes.end(),
                  [] { return static_cast<char>(QRandomGenerator64::system()->generate()); });
    return QString::fromLatin1(bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

QByteArray createDatabaseScript(const QString &user, const QString &password)
{
    static const auto script = uR"(\set u '%1'
\set pw '%2'
SELECT format('CREATE ROLE %I LOGIN PASSWORD %L', :'u', :'pw') \gexec
SELECT format('CREATE DATABASE %I OWNER %I', :'u', :'u') \gexec
SELECT format('REVOKE ALL ON DATABASE %I FROM PUBLIC', :'u') \gexec
)"_s;
    return script.arg(user, password).toLatin1();
}

QByteArray dropDatabaseScript(const QString &user)
{
    static const auto script = uR"(\set u '%1'
SELECT format('DROP DATABASE IF EXISTS %I WITH (FORCE)', :'u') \gexec
SELECT format('DROP ROLE IF EXISTS %I', :'u') \gexec
)"_s;
    return script.arg(user).toLatin1();
}

QByteArray loginScript(const QString &user, bool allowed)
{
    static const auto script = uR"(\set u '%1'
SELECT format('ALTER ROLE %I %2', :'u') \gexec
)"_s;
    return script.arg(user, allowed ? u"LOGIN"_s : u"NOLOGIN"_s).toLatin1();
}

QByteArray passwordScript(const QString &user, const QString &password)
{
    static const auto script = uR"(\set u '%1'
\set pw '%2'
SELECT format('ALTER ROLE %I PASSWORD %L', :'u', :'pw') \gexec
)"_s;
    return script.arg(user, password).toLatin1();
}

QByteArray readOnlyScript(const QString &user, bool readOnly)
{
    static const auto script = uR"(\set u '%1'
SELECT format('ALTER DATABASE %I %2', :'u') \gexec
SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = :'u' AND pid <> pg_backend_pid();
)"_s;
    const QString change =
        readOnly ? u"SET default_transaction_read_only = on"_s : u"RESET default_transaction_read_only"_s;
    return script.arg(user, change).toLatin1();
}

Reply resetDbPassword(const QJsonObject &args)
{
    QString user;
    if (const QString problem = checkExisting(args, &user); !problem.isEmpty())
        return fail(problem);

    const QString password = randomPassword();
    postgres::endHolders(user);
    if (const QString error = psql(passwordScript(user, password)); !error.isEmpty())
        return fail(error);
    return {{u"ok"_s, true}, {u"dbPassword"_s, password}};
}

Reply dbReadOnly(const QJsonObject &args)
{
    QString user;
    if (const QString problem = checkExisting(args, &user); !problem.isEmpty())
        return fail(problem);
    const bool readOnly = args.value("readOnly"_L1).toBool();
    postgres::endHolders(user);
    return result(psql(readOnlyScript(user, readOnly)));
}

} // namespace corv::hosting
