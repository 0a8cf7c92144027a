#include "ctl/notify/Failures.h"

#include "common/AtomicFile.h"
#include "ctl/screen/Terminal.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <algorithm>

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// pam_motd reads with the rights of whoever logs in: tenants are not told how the backups of the server go.
constexpr mode_t kMode = 0640;
constexpr auto kReaders = "adm";

} // namespace

bool isUnitName(const QString &text)
{
    static const QRegularExpression name(
        QRegularExpression::anchoredPattern(uR"([A-Za-z0-9][A-Za-z0-9:_.@-]{0,127}\.service)"_s));
    return name.match(text).hasMatch();
}

QString keepFailure(const QString &unit, const QString &line)
{
    const QString path = kFailureFolder + u'/' + unit;
    if (!isUnitName(unit) || !replaceFile(path, line.toUtf8() + '\n', kMode))
        return u"cannot write "_s + path;
    const ::group *readers = ::getgrnam(kReaders);
    if (readers && ::chown(QFile::encodeName(path).constData(), static_cast<uid_t>(-1), readers->gr_gid) != 0)
        return u"cannot give %1 to the group %2"_s.arg(path, QString::fromLatin1(kReaders));
    return {};
}

QList<Failed> failures()
{
    QList<Failed> all;
    for (const QString &name : QDir(kFailureFolder).entryList(QDir::Files, QDir::Name)) {
        struct stat status = {};
        if (isUnitName(name) && ::lstat(QFile::encodeName(kFailureFolder + u'/' + name).constData(), &status) == 0)
            all.append({name, status.st_mtime});
    }
    return all;
}

QString failureSentence(const Failed &failed, qint64 now)
{
    return u"%1 failed %2 ago and has not succeeded since"_s.arg(failed.unit,
                                                                 humanSeconds(std::max<qint64>(now - failed.time, 0)));
}

} // namespace corv::ctl
