#include "ctl/doctor/OpenFiles.h"

#include "common/TimedRun.h"
#include "ctl/doctor/Facts.h"

#include <QDir>
#include <QRegularExpression>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kToolMs = 30'000;

// Each site has two logs open, and three with HTTPS.
constexpr qsizetype kFullPercent = 80;
constexpr qsizetype kPercent = 100;

// What Debian suggests in the file, and then as many times more.
constexpr qsizetype kMoreFiles = 65'536;
constexpr qsizetype kMoreTimes = 4;

} // namespace

qsizetype parseMostFiles(const QByteArray &limits)
{
    // The first number is the one in force, the second what it may be raised to.
    static const QRegularExpression pattern(u"^Max open files\\s+(\\d+)\\s"_s, QRegularExpression::MultilineOption);
    return qsizetype(pattern.match(QString::fromUtf8(limits)).captured(1).toLongLong());
}

std::optional<OpenFiles> readOpenFiles(const QString &service)
{
    const QByteArray main =
        runWithin(kToolMs, u"systemctl"_s, {u"show"_s, u"--value"_s, u"-p"_s, u"MainPID"_s, service}).output;
    const QString folder = u"/proc/%1/"_s.arg(main.trimmed().toInt());
    const qsizetype most = parseMostFiles(textOf(folder + u"limits"_s).value_or(QByteArray()));
    if (most == 0)
        return {};
    const QDir files(folder + u"fd"_s);
    return OpenFiles{files.entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size(), most};
}

QList<Finding> checkApacheFiles(const OpenFiles &files)
{
    if (files.open * kPercent <= files.most * kFullPercent)
        return {};
    return {
        {Level::Note,
         u"Apache has %1 files open, most of them the sites' logs, and may have %2; a reload with more ends it"_s
             .arg(files.open)
             .arg(files.most),
         u"echo \"APACHE_ULIMIT_MAX_FILES='ulimit -n %1'\" >>/etc/apache2/envvars && systemctl restart apache2"_s.arg(
             std::max(kMoreFiles, files.most * kMoreTimes))}};
}

} // namespace corv::ctl
