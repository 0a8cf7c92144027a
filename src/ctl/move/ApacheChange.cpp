#include "ctl/move/ApacheChange.h"

#include "common/AtomicFile.h"
#include "common/Paths.h"
#include "common/TimedRun.h"
#include "ctl/doctor/SiteFacts.h"
#include "ctl/screen/Escape.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QThread>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

constexpr int kToolMs = 60'000;
constexpr int kInForceMs = 10'000;
constexpr int kLookMs = 500;
constexpr int kBetweenMs = 50;
constexpr mode_t kFileMode = 0600;
constexpr mode_t kRecordMode = 0644;
constexpr qint64 kLargestFile = 1'048'576;

QString said(const QString &what, const Outcome &outcome)
{
    if (outcome.succeeded)
        return {};
    const QString errors = oneSentence(QString::fromUtf8(outcome.errors + outcome.output));
    return u"%1: %2"_s.arg(what, errors.isEmpty() ? u"failed"_s : errors);
}

QString testConfiguration()
{
    return said(u"apache2ctl configtest"_s, runWithin(kToolMs, u"apache2ctl"_s, {u"configtest"_s}));
}

QString reload()
{
    return said(u"systemctl reload apache2"_s, runWithin(kToolMs, u"systemctl"_s, {u"reload"_s, u"apache2"_s}));
}

bool isRunning()
{
    return runWithin(kToolMs, u"systemctl"_s, {u"--quiet"_s, u"is-active"_s, u"apache2"_s}).succeeded;
}

// What was switched on for changes of this kind.
QStringList readRecord(const QString &path)
{
    static const QRegularExpression name(QRegularExpression::anchoredPattern(u"[a-z0-9_]{1,32}"_s));
    QStringList modules =
        QString::fromUtf8(readUpTo(path, kLargestFile).value_or(QByteArray())).split(u'\n', Qt::SkipEmptyParts);
    modules.removeIf([](const QString &module) { return !name.match(module).hasMatch(); });
    return modules;
}

bool keepRecord(const QString &path, const QStringList &modules)
{
    if (modules.isEmpty())
        return !exists(path) || QFile::remove(path);
    return replaceFile(path, modules.join(u'\n').toUtf8() + '\n', kRecordMode);
}

// Switches on what is missing, and records it before: what is cut off between is switched off by the last to go.
QString switchOn(const ApacheChange &change, QStringList *switchedOn)
{
    for (const QString &module : change.modules) {
        if (!hasModule(module))
            switchedOn->append(module);
    }
    if (switchedOn->isEmpty())
        return {};
    QStringList record = readRecord(change.modulesRecord) + *switchedOn;
    record.removeDuplicates();
    if (!keepRecord(change.modulesRecord, record))
        return u"%1 cannot be written"_s.arg(change.modulesRecord);
    return said(u"a2enmod"_s, runWithin(kToolMs, u"a2enmod"_s, QStringList{u"-q"_s} + *switchedOn));
}

// Those that something else has come to need stay on. What they were switched on for has gone by now.
void switchOff(const QString &recordPath, const QStringList &modules)
{
    // The last that was switched on goes first: it may need those before.
    QStringList order = modules;
    std::reverse(order.begin(), order.end());
    for (const QString &module : order) {
        if (!hasModule(module))
            continue;
        if (runWithin(kToolMs, u"a2dismod"_s, {u"-q"_s, module}).succeeded && !testConfiguration().isEmpty())
            (void)runWithin(kToolMs, u"a2enmod"_s, {u"-q"_s, module});
    }
    QStringList record = readRecord(recordPath);
    record.removeIf([&](const QString &module) { return modules.contains(module); });
    (void)keepRecord(recordPath, record);
}

// Puts the file and its link where they belong, or takes both away.
bool place(const ApacheChange &change, const std::optional<QByteArray> &text, bool isEnabled)
{
    const QString target =
        u"../%1/%2"_s.arg(QFileInfo(QFileInfo(change.path).path()).fileName(), QFileInfo(change.path).fileName());
    if (text && !replaceFile(change.path, *text, kFileMode))
        return false;
    if (!isEnabled || !text) {
        if (exists(change.link) && !QFile::remove(change.link))
            return false;
        return text || !exists(change.path) || QFile::remove(change.path);
    }
    return QFileInfo(change.link).symLinkTarget() == QFileInfo(change.path).absoluteFilePath() ||
           ((!exists(change.link) || QFile::remove(change.link)) && QFile::link(target, change.link));
}

// Apache says yes to a reload before it has read anything, and may end while it does.
QString awaitForce(const ApacheChange &change)
{
    const QDeadlineTimer end(kInForceMs);
    QDeadlineTimer look(kLookMs);
    while (!change.isInForce()) {
        if (end.hasExpired())
            return u"Apache does not serve it"_s;
        if (look.hasExpired() && !isRunning())
            return u"Apache does not come up with it"_s;
        if (look.hasExpired())
            look.setRemainingTime(kLookMs);
        QThread::msleep(kBetweenMs);
    }
    return {};
}

} // namespace

bool hasModule(const QString &module)
{
    return QFile::exists(u"/etc/apache2/mods-enabled/%1.load"_s.arg(module));
}

QString changeApache(const ApacheChange &change)
{
    const std::optional<QByteArray> before = readUpTo(change.path, kLargestFile);
    const bool wasEnabled = exists(change.link);
    if (before == change.text && wasEnabled == change.text.has_value() && change.isInForce())
        return {};
    // One that was stopped is not started behind its administrator's back.
    if (!isRunning())
        return u"Apache does not run, so nothing was changed"_s;
    if (const QString problem = testConfiguration(); !problem.isEmpty())
        return u"Apache's configuration has an error already, so nothing was changed: "_s + problem;

    QStringList switchedOn;
    QString problem = change.text ? switchOn(change, &switchedOn) : QString();
    if (problem.isEmpty() && !place(change, change.text, true))
        problem = u"%1 cannot be written"_s.arg(change.path);
    if (problem.isEmpty())
        problem = testConfiguration();
    if (problem.isEmpty())
        problem = reload();
    if (problem.isEmpty())
        problem = awaitForce(change);
    if (problem.isEmpty()) {
        const QStringList unneeded = change.isLast && !change.text ? readRecord(change.modulesRecord) : QStringList();
        if (unneeded.isEmpty())
            return {};
        switchOff(change.modulesRecord, unneeded);
        return reload();
    }

    (void)place(change, before, wasEnabled);
    switchOff(change.modulesRecord, switchedOn);
    if (isRunning())
        (void)reload();
    else
        (void)runWithin(kToolMs, u"systemctl"_s, {u"restart"_s, u"apache2"_s});
    return problem;
}

} // namespace corv::ctl::moving
