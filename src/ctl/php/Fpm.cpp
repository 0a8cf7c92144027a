#include "ctl/php/Fpm.h"

#include "common/Account.h"
#include "common/Fd.h"
#include "common/Paths.h"
#include "common/TimedRun.h"
#include "ctl/doctor/PhpPools.h"
#include "ctl/doctor/SiteFacts.h"
#include "ctl/screen/Escape.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>

#include <cerrno>
#include <cstring>
#include <optional>

#include <sys/socket.h>
#include <sys/un.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kToolMs = 60'000;
constexpr int kBetweenMs = 5; // sites are without PHP meanwhile
constexpr qint64 kLargestFile = 1'048'576;
// Not under /tmp, where everybody may write: what root has read is made where nobody else comes.
const auto kWorkFolder = u"/run/corvctl-XXXXXX"_s;

QString unitOf(const QString &version)
{
    return u"php%1-fpm"_s.arg(version);
}

QString socketOf(const QString &account)
{
    return u"/run/php/corv-%1.sock"_s.arg(account);
}

QString systemctl(const QString &verb, const QString &version)
{
    const Outcome outcome = runWithin(kToolMs, u"systemctl"_s, {verb, unitOf(version)});
    if (outcome.succeeded)
        return {};
    const QString errors = oneSentence(QString::fromUtf8(outcome.errors));
    return u"systemctl %1 %2: %3"_s.arg(verb, unitOf(version), errors.isEmpty() ? u"failed"_s : errors);
}

// A connection to whoever listens there, none where nobody does. It makes an FPM start a process for the pool, so that
// it is not asked for again and again.
std::optional<Fd> connectTo(const QString &account)
{
    const QByteArray path = QFile::encodeName(socketOf(account));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= static_cast<qsizetype>(sizeof address.sun_path))
        return {};
    std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
    // One whose queue is full has somebody who listens: it must not be waited for.
    Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket ||
        (::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 && errno != EAGAIN))
        return {};
    return socket;
}

bool isListening(const QString &account)
{
    return connectTo(account).has_value();
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

QString reloadFpm(const QString &version)
{
    return systemctl(u"reload-or-restart"_s, version);
}

QString stopFpm(const QString &version)
{
    return systemctl(u"stop"_s, version);
}

QString enableFpm(const QString &version, bool isEnabled)
{
    return systemctl(isEnabled ? u"enable"_s : u"disable"_s, version);
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

QStringList accountsWithSocket()
{
    QStringList accounts;
    for (QString name : QDir(u"/run/php"_s).entryList({u"corv-*.sock"_s}, QDir::System, QDir::Name)) {
        name = name.sliced(5).chopped(5);
        if (hosting::validUsername(name))
            accounts.append(name);
    }
    return accounts;
}

QStringList servedBy(const QString &version, const QStringList &accounts)
{
    if (accounts.isEmpty())
        return {};
    const QByteArray main =
        runWithin(kToolMs, u"systemctl"_s, {u"show"_s, u"--value"_s, u"-p"_s, u"MainPID"_s, unitOf(version)}).output;
    QStringList served = accounts;
    served.removeIf([&](const QString &account) {
        const std::optional<Fd> connection = connectTo(account);
        ucred peer = {};
        socklen_t length = sizeof peer;
        return !connection || ::getsockopt(connection->get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 ||
               peer.pid <= 0 || main.trimmed() != QByteArray::number(peer.pid);
    });
    return served;
}

QStringList awaitReleased(const QStringList &accounts, int seconds)
{
    const QDeadlineTimer end(seconds * 1000);
    QStringList left = accounts;
    for (;;) {
        // An FPM takes its sockets' files away with it.
        left.removeIf([](const QString &account) { return !exists(socketOf(account)); });
        if (left.isEmpty() || end.hasExpired())
            break;
        QThread::msleep(kBetweenMs);
    }
    // One that was killed has left them.
    left.removeIf([](const QString &account) { return !isListening(account); });
    return left;
}

QStringList awaitListening(const QStringList &accounts, int seconds)
{
    const QDeadlineTimer end(seconds * 1000);
    QStringList left = accounts;
    for (;;) {
        left.removeIf([](const QString &account) { return exists(socketOf(account)) && isListening(account); });
        if (left.isEmpty() || end.hasExpired())
            return left;
        QThread::msleep(kBetweenMs);
    }
}

} // namespace corv::ctl
