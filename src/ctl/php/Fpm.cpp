#include "ctl/php/Fpm.h"

#include "common/Fd.h"
#include "common/TimedRun.h"
#include "ctl/doctor/PhpPools.h"
#include "ctl/doctor/SiteFacts.h"
#include "ctl/php/Sockets.h"
#include "ctl/screen/Escape.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <optional>

#include <sys/socket.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kToolMs = 60'000;
constexpr qint64 kLargestFile = 1'048'576;
// Not under /tmp, where everybody may write: what root has read is made where nobody else comes.
const auto kWorkFolder = u"/run/corvctl-XXXXXX"_s;

QString unitOf(const QString &version)
{
    return u"php%1-fpm"_s.arg(version);
}

QString systemctl(const QStringList &words, const QString &version)
{
    const Outcome outcome = runWithin(kToolMs, u"systemctl"_s, words + QStringList{unitOf(version)});
    if (outcome.succeeded)
        return {};
    const QString errors = oneSentence(QString::fromUtf8(outcome.errors));
    return u"systemctl %1 %2: %3"_s.arg(words.last(), unitOf(version), errors.isEmpty() ? u"failed"_s : errors);
}

bool write(const QString &path, const QByteArray &text)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size() && file.flush();
}

QStringList modulesOf(const QString &version)
{
    QStringList modules;
    const Outcome outcome = runWithin(kToolMs, u"php-fpm"_s + version, {u"-m"_s});
    for (const QByteArray &line : outcome.output.split('\n')) {
        const QString name = QString::fromUtf8(line).trimmed().toLower();
        if (outcome.succeeded && !name.isEmpty() && !name.startsWith(u'['))
            modules.append(name);
    }
    return modules;
}

} // namespace

bool isFpmRunning(const QString &version)
{
    return runWithin(kToolMs, u"systemctl"_s, {u"--quiet"_s, u"is-active"_s, unitOf(version)}).succeeded;
}

bool hasFpmFailed(const QString &version)
{
    return runWithin(kToolMs, u"systemctl"_s, {u"--quiet"_s, u"is-failed"_s, unitOf(version)}).succeeded;
}

QString reloadFpm(const QString &version)
{
    return systemctl({u"reload-or-restart"_s}, version);
}

QString askForReload(const QString &version)
{
    return systemctl({u"--no-block"_s, u"reload-or-restart"_s}, version);
}

QString askForStop(const QString &version)
{
    return systemctl({u"--no-block"_s, u"stop"_s}, version);
}

QString forgetFailures(const QString &version)
{
    return systemctl({u"reset-failed"_s}, version);
}

QString stopFpm(const QString &version)
{
    return systemctl({u"stop"_s}, version);
}

QString enableFpm(const QString &version, bool isEnabled)
{
    return systemctl({isEnabled ? u"enable"_s : u"disable"_s}, version);
}

QString testFpm(const QString &version, const QHash<QString, QByteArray> &pools)
{
    const QTemporaryDir work(kWorkFolder);
    const std::optional<QByteArray> own = readUpTo(u"/etc/php/%1/fpm/php-fpm.conf"_s.arg(version), kLargestFile);
    if (!own)
        return u"/etc/php/%1/fpm/php-fpm.conf cannot be read"_s.arg(version);
    bool isWritten = work.isValid() && write(work.filePath(u"main"_s),
                                             *own + "\ninclude=" + QFile::encodeName(work.path()) + "/*.conf\n");
    // Without any, the line would be told of as one that matches nothing.
    isWritten = isWritten && write(work.filePath(u"none.conf"_s), {});
    for (auto pool = pools.cbegin(); pool != pools.cend(); ++pool)
        isWritten = isWritten && write(work.filePath(pool.key() + u".conf"_s), pool.value());
    if (!isWritten)
        return u"cannot make a folder under /run"_s;

    const Outcome outcome =
        runWithin(kToolMs, u"php-fpm"_s + version, {u"-t"_s, u"--fpm-config"_s, work.filePath(u"main"_s)});
    if (outcome.succeeded)
        return {};
    // What counts stands in the lines with that word; a last one says that there was an error.
    for (const QByteArray &line : outcome.errors.split('\n')) {
        if (line.contains("ERROR"))
            return oneSentence(QString::fromUtf8(line.mid(line.indexOf("ERROR") + 5)).remove(u':').trimmed());
    }
    const QString errors = oneSentence(QString::fromUtf8(outcome.errors));
    return errors.isEmpty() ? u"php-fpm%1 -t failed"_s.arg(version) : errors;
}

QStringList missingModules(const QString &from, const QString &to)
{
    const QStringList had = modulesOf(from);
    const QStringList has = modulesOf(to);
    QStringList missing;
    for (const QString &module : had) {
        if (!has.isEmpty() && !has.contains(module) && !missing.contains(module))
            missing.append(module);
    }
    return missing;
}

QStringList servedBy(const QString &version, const QStringList &accounts)
{
    if (accounts.isEmpty())
        return {};
    const QByteArray main =
        runWithin(kToolMs, u"systemctl"_s, {u"show"_s, u"--value"_s, u"-p"_s, u"MainPID"_s, unitOf(version)}).output;
    QStringList served = accounts;
    served.removeIf([&](const QString &account) {
        const std::optional<Fd> connection = connectTo(socketOf(account));
        ucred peer = {};
        socklen_t length = sizeof peer;
        return !connection || ::getsockopt(connection->get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 ||
               peer.pid <= 0 || main.trimmed() != QByteArray::number(peer.pid);
    });
    return served;
}

} // namespace corv::ctl
