#include "ctl/doctor/AccountFacts.h"

#include "common/BackupFolders.h"
#include "common/BackupManifest.h"
#include "common/Fd.h"
#include "common/Json.h"
#include "common/Site.h"
#include "common/TimedRun.h"
#include "ctl/doctor/Facts.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
#include <QLocale>
#include <QTimeZone>

#include <algorithm>

#include <fcntl.h>
#include <lastlog.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kToolMs = 5'000; // a list is waited for by a person
constexpr qint64 kKibibyte = 1024;
constexpr qint64 kLargestManifest = 16'777'216;
constexpr qsizetype kUsedField = 2;
constexpr qsizetype kHardField = 4;

QString firstWord(const QByteArray &output)
{
    return QString::fromUtf8(output).simplified().section(u' ', 0, 0);
}

Used quotas()
{
    const QString point =
        firstWord(runWithin(kToolMs, u"findmnt"_s, {u"-n"_s, u"-o"_s, u"TARGET"_s, u"-T"_s, u"/home"_s}).output);
    if (point.isEmpty() || !runWithin(kToolMs, u"quotaon"_s, {u"-p"_s, u"-u"_s, point}).output.contains("is on"))
        return {};
    const Outcome report = runWithin(kToolMs, u"repquota"_s, {u"-u"_s, u"-n"_s, point});
    QHash<uid_t, QString> names;
    for (const hosting::User &user : hosting::users()) {
        if (hosting::hasMarker(user.comment))
            names.insert(user.uid, user.name);
    }
    return report.succeeded ? parseQuotas(report.output, names) : Used();
}

Used archives(const backup::Config &config)
{
    QString newest;
    for (const backup::Folder &folder : backup::foldersIn(config.destination)) {
        const QString name = QString::fromUtf8(folder.name);
        if (backup::isBackupName(name) && name > newest)
            newest = name;
    }
    if (newest.isEmpty())
        return {};
    qint64 budget = kLargestManifest;
    Used used;
    used.source = u"backup"_s;
    const QJsonObject manifest = backup::readManifest(config.destination + u'/' + newest, &budget);
    for (const auto &value : manifest.value("accounts"_L1).toArray()) {
        const QJsonObject account = value.toObject();
        used.bytes.insert(account.value("username"_L1).toString(), account.value("homeBytes"_L1).toInteger());
    }
    return used;
}

// By the unit, which is the journal's own word: any program may write such a line in the daemon's name. With the id: a
// former account may have had the name.
std::optional<qint64> lastLoginInJournal(const hosting::User &user)
{
    if (!hosting::validUsername(user.name))
        return {};
    const Outcome outcome =
        runWithin(kToolMs, u"journalctl"_s,
                  {u"--quiet"_s, u"--no-pager"_s, u"--output=short-unix"_s, u"--reverse"_s, u"--lines=1"_s,
                   u"--grep=^pam_unix\\(sshd:session\\): session opened for user %1\\(uid=%2\\) by "_s.arg(
                       user.name, QString::number(user.uid)),
                   u"_SYSTEMD_UNIT=ssh.service"_s});
    bool isNumber = false;
    const double seconds = firstWord(outcome.output).toDouble(&isNumber);
    return isNumber && outcome.succeeded ? std::optional(qint64(seconds)) : std::nullopt;
}

} // namespace

Used readUsed(const backup::Config &config)
{
    if (Used used = quotas(); !used.source.isEmpty())
        return used;
    return archives(config);
}

Used parseQuotas(const QByteArray &output, const QHash<uid_t, QString> &names)
{
    Used used;
    used.source = u"quotas"_s;
    for (const QByteArray &line : output.split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() <= kHardField || !fields[0].startsWith('#'))
            continue;
        bool isNumber = false;
        const QString name = names.value(fields[0].mid(1).toUInt(&isNumber));
        if (!isNumber || name.isEmpty())
            continue;
        used.bytes.insert(name, fields[kUsedField].toLongLong() * kKibibyte);
        if (const qint64 limit = fields[kHardField].toLongLong(); limit > 0)
            used.limits.insert(name, limit * kKibibyte);
    }
    return used;
}

QString stateOf(const AccountParts &account)
{
    if (!account.site)
        return u"no site"_s;
    const bool isOff = *account.site == hosting::vhost(account.name, account.domain, false, true).toUtf8();
    // Whether the user is kept out is told to root alone.
    if (::geteuid() == 0 && isOff != account.expired)
        return u"half suspended"_s;
    if (isOff)
        return u"suspended"_s;
    return account.siteEnabled ? u"on-line"_s : u"not enabled"_s;
}

std::optional<qint64> lastLogin(const hosting::User &user)
{
    const Fd file(::open("/var/log/lastlog", O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file)
        return lastLoginInJournal(user);
    lastlog entry = {};
    // A user behind the file's end has not logged in yet.
    const ssize_t count =
        ::pread(file.get(), &entry, sizeof entry, static_cast<off_t>(user.uid) * static_cast<off_t>(sizeof entry));
    return count == sizeof entry ? qint64(entry.ll_time) : 0;
}

std::optional<DatabaseSize> readDatabaseSize(const QString &account)
{
    if (!hosting::validUsername(account))
        return {};
    const Outcome outcome = runStatements(
        {u"SELECT json_build_object('bytes', pg_database_size(oid), 'readOnly', EXISTS (SELECT 1 FROM "
         u"pg_db_role_setting "
         "WHERE (setdatabase = d.oid OR setrole = datdba) AND 'default_transaction_read_only=on' = ANY (setconfig))) "
         "FROM pg_database d WHERE datname = '%1' AND datconnlimit <> -2"_s.arg(account)});
    const QJsonObject found = parseObject(outcome.output.trimmed());
    if (!found.contains("bytes"_L1))
        return {};
    return DatabaseSize{found.value("bytes"_L1).toInteger(), found.value("readOnly"_L1).toBool()};
}

std::optional<qint64> certificateEnd(const QString &path)
{
    return parseEnd(runWithin(kToolMs, u"openssl"_s, {u"x509"_s, u"-noout"_s, u"-enddate"_s, u"-in"_s, path}).output);
}

std::optional<qint64> parseEnd(const QByteArray &output)
{
    const QString text = QString::fromLatin1(output).simplified();
    if (!text.startsWith("notAfter="_L1) || !text.endsWith(" GMT"_L1))
        return {};
    QDateTime end = QLocale::c().toDateTime(text.mid(9).chopped(4), u"MMM d HH:mm:ss yyyy"_s);
    end.setTimeZone(QTimeZone::utc());
    return end.isValid() ? std::optional(end.toSecsSinceEpoch()) : std::nullopt;
}

} // namespace corv::ctl
