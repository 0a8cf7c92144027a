#include "ctl/notify/Notify.h"

#include "common/Config.h"
#include "common/Run.h"
#include "common/TimedRun.h"
#include "common/Trust.h"

#include <QDateTime>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSettings>
#include <QStandardPaths>
#include <QSysInfo>

#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

const auto kMailer = u"sendmail"_s;
constexpr int kTellMs = 60'000;
constexpr int kAskMs = 30'000;
constexpr qsizetype kMostRecipients = 20;

// Why root should not run this file; empty where it may. Whoever could write it, or put another in its place, would be
// root at the next failure.
QString programProblem(const QString &path)
{
    struct stat status = {};
    if (!path.startsWith(u'/'))
        return u"'%1' is no absolute path"_s.arg(path);
    if (::stat(QFile::encodeName(path).constData(), &status) != 0)
        return u"there is no %1"_s.arg(path);
    if (!S_ISREG(status.st_mode) || (status.st_mode & S_IXUSR) == 0)
        return u"%1 is no program"_s.arg(path);
    if (!isRootsAlone(status))
        return u"%1 can be changed by others than root"_s.arg(path);
    const QString folder = foreignFolder(path);
    return folder.isEmpty() ? QString()
                            : u"%1 can be put elsewhere by others than root, who may write to %2"_s.arg(path, folder);
}

QString hand(const QString &program, const QStringList &args, const QByteArray &input,
             const QMap<QString, QString> &environment)
{
    hosting::Streams streams;
    streams.input = input;
    hosting::Surroundings surroundings;
    surroundings.environment = environment;
    surroundings.milliseconds = kTellMs;
    return hosting::runWith(program, args, streams, surroundings);
}

// The value of one property of a unit.
QString propertyOf(const QString &unit, const QString &name)
{
    const Outcome outcome = runWithin(kAskMs, u"systemctl"_s, {u"show"_s, u"--value"_s, u"-p"_s, name, u"--"_s, unit});
    return QString::fromUtf8(outcome.output).simplified();
}

// The end of what the unit's last run wrote. By the invocation and not by the unit, whose earlier runs are past; the
// field with the underscore is the journal's own word, which no process can forge.
QByteArray logOf(const QString &unit)
{
    static const QRegularExpression id(QRegularExpression::anchoredPattern(u"[0-9a-f]{32}"_s));
    const QString invocation = propertyOf(unit, u"InvocationID"_s);
    if (!id.match(invocation).hasMatch())
        return {};
    return runWithin(kAskMs, u"journalctl"_s,
                     {u"--quiet"_s, u"--no-pager"_s, u"--output=cat"_s, u"--lines=40"_s,
                      u"_SYSTEMD_INVOCATION_ID="_s + invocation})
        .output;
}

} // namespace

Ways waysIn(const QSettings &settings)
{
    static const QRegularExpression between(u"[,\\s]+"_s);
    Ways ways;
    for (const QString &word : textSetting(settings, u"notify/mail"_s).split(between, Qt::SkipEmptyParts)) {
        if (isRecipient(word) && ways.mail.size() < kMostRecipients)
            ways.mail.append(word);
        else
            ways.problems.append(u"the setting mail has '%1', which is no user and no address"_s.arg(word));
    }
    const QStringList command = QProcess::splitCommand(textSetting(settings, u"notify/command"_s));
    const QString problem = command.isEmpty() ? QString() : programProblem(command.first());
    if (problem.isEmpty())
        ways.command = command;
    else
        ways.problems.append(u"the setting command is of no use: "_s + problem);
    return ways;
}

QList<Missing> missingFor(const Ways &ways)
{
    if (ways.mail.isEmpty() || !QStandardPaths::findExecutable(kMailer).isEmpty())
        return {};
    return {{u"failures are to be mailed to %1, but there is no program sendmail"_s.arg(ways.mail.join(", "_L1)),
             u"apt-get install -y default-mta"_s}};
}

QList<Told> tell(const Ways &ways, const Event &event)
{
    QList<Told> all;
    // With -i a line with a single dot in it is no end. A recipient cannot be taken for an option.
    if (!ways.mail.isEmpty()) {
        all.append({u"mail"_s, ways.mail.join(", "_L1),
                    hand(kMailer, QStringList{u"-i"_s} + ways.mail, mailText(ways.mail, event), {})});
    }
    if (!ways.command.isEmpty()) {
        all.append({u"command"_s, ways.command.first(),
                    hand(ways.command.first(), ways.command.mid(1), messageText(event).toUtf8(), facts(event))});
    }
    return all;
}

Event eventOf(const QString &unit)
{
    Event event = testEvent();
    event.unit = unit;
    event.result = propertyOf(unit, u"Result"_s);
    // One that could not even be started, because something that it needs could not, tells of its last run.
    if (event.result == "success"_L1)
        event.result = u"dependency"_s;
    else
        event.log = logOf(unit);
    return event;
}

Event testEvent()
{
    return {QSysInfo::machineHostName(), {}, {}, QDateTime::currentSecsSinceEpoch(), {}};
}

} // namespace corv::ctl
