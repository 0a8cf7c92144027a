#include "ctl/restore/Panel.h"

#include "common/Archives.h"
#include "common/Fd.h"
#include "common/Paths.h"
#include "common/Run.h"
#include "common/Trust.h"
#include "ctl/doctor/Facts.h"
#include "ctl/verify/Fault.h"

#include <QDateTime>
#include <QFile>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr auto kDatabase = "corvane"_L1;
constexpr mode_t kFolderMode = 0700;
constexpr int kLongestMs = 3'600'000;

// What the agent saves of the panel, less what belongs to accounts.
const QStringList kSettings = {u"etc/corvane"_s,
                               u"etc/apache2/sites-available/corvane.conf"_s,
                               u"etc/apache2/conf-available/corv-logformat.conf"_s,
                               u"etc/powerdns/pdns.d/corvane.conf"_s,
                               u"etc/fail2ban/jail.d/corvane.local"_s,
                               u"etc/fail2ban/filter.d/corv-web.conf"_s};

QString ownerOfDatabase()
{
    const Outcome outcome =
        runStatements({u"SELECT pg_get_userbyid(datdba) FROM pg_database WHERE datname = '%1'"_s.arg(kDatabase)});
    return QString::fromUtf8(outcome.output).trimmed();
}

} // namespace

QString restorePanelDatabase(const QString &dump)
{
    if (const QString refusal = refusalOfFile(dump); !refusal.isEmpty())
        return refusal;
    if (const auto fault = faultOfDatabase(dump, kDatabase, {}))
        return u"%1 %2"_s.arg(dump, *fault);
    const QString owner = ownerOfDatabase();
    const passwd *const user = ::getpwnam(owner.toLocal8Bit().constData());
    if (owner.isEmpty() || !user)
        return u"this server has no database %1, or its owner is no user of the system"_s.arg(kDatabase);
    if (user->pw_uid == 0 || owner == "postgres"_L1)
        return u"the database %1 belongs to %2, whom nothing may be loaded as"_s.arg(kDatabase, owner);
    const Fd file(::open(QFile::encodeName(dump).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!file)
        return u"%1 cannot be read"_s.arg(dump);
    hosting::Streams streams;
    streams.inputFile = file.get();
    hosting::Surroundings surroundings;
    surroundings.milliseconds = kLongestMs;
    return hosting::runWith(u"runuser"_s,
                            {u"-u"_s, owner, u"--"_s, u"pg_restore"_s, u"--clean"_s, u"--if-exists"_s, u"--no-owner"_s,
                             u"--single-transaction"_s, u"-d"_s, QString(kDatabase)},
                            streams, surroundings);
}

QStringList settingsMembers(const QStringList &members)
{
    QStringList found;
    for (const QString &member : members) {
        const QString path = member.endsWith(u'/') ? member.chopped(1) : member;
        for (const QString &setting : kSettings) {
            const bool isBelow =
                path.startsWith(setting + u'/') && !path.contains("/../"_L1) && !path.endsWith("/.."_L1);
            if (path == setting || isBelow)
                found.append(path);
        }
    }
    return found;
}

QString restoreSettings(const QString &archive, QString *kept)
{
    if (const QString refusal = refusalOfFile(archive); !refusal.isEmpty())
        return refusal;
    if (const auto fault = faultOfArchive(archive, {}))
        return u"%1 %2"_s.arg(archive, *fault);
    QByteArray list;
    if (const QString problem = hosting::run(u"tar"_s, {u"-tzf"_s, archive}, {}, &list); !problem.isEmpty())
        return problem;
    const QStringList members = settingsMembers(QString::fromUtf8(list).split(u'\n', Qt::SkipEmptyParts));
    if (members.isEmpty())
        return u"%1 holds no settings of the panel"_s.arg(archive);

    QStringList present = kSettings;
    present.removeIf([](const QString &path) { return !exists(u'/' + path); });
    if (!present.isEmpty()) {
        (void)::mkdir(QFile::encodeName(kArchives).constData(), kFolderMode);
        const QString now = QDateTime::currentDateTime().toString(u"yyyyMMdd-HHmmss"_s);
        *kept = u"%1/settings-before-%2.tar.gz"_s.arg(kArchives, now);
        const mode_t before = ::umask(S_IRWXG | S_IRWXO);
        const QString problem = hosting::run(u"tar"_s, QStringList{u"-czf"_s, *kept, u"-C"_s, u"/"_s} + present);
        ::umask(before);
        if (!problem.isEmpty())
            return problem;
    }
    const QStringList args = {u"-xzpf"_s, archive, u"-C"_s, u"/"_s, u"--no-recursion"_s};
    if (const QString problem = hosting::run(u"tar"_s, args + members); !problem.isEmpty())
        return problem;
    return hosting::run(u"systemctl"_s, {u"restart"_s, u"corv-agent.service"_s});
}

} // namespace corv::ctl
