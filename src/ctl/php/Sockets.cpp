#include "ctl/php/Sockets.h"

#include "common/Account.h"
#include "common/Paths.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kBetweenMs = 5;
constexpr int kRestoreUs = 200; // a site is without its name meanwhile
// Neither is the name of a socket that anybody asks for.
constexpr auto kAside = ".old"_L1;
constexpr auto kKept = ".kept"_L1;

bool rename(const QString &from, const QString &to)
{
    return std::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0;
}

bool link(const QString &path, const QString &second)
{
    return ::link(QFile::encodeName(path).constData(), QFile::encodeName(second).constData()) == 0;
}

// What a path itself names; 0 for nothing.
ino_t numberOf(const QString &path)
{
    struct stat status = {};
    return ::lstat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_ino : 0;
}

bool isListening(const QString &path)
{
    return connectTo(path).has_value();
}

} // namespace

QString socketOf(const QString &account)
{
    return u"/run/php/corv-%1.sock"_s.arg(account);
}

std::optional<Fd> connectTo(const QString &socketPath)
{
    const QByteArray path = QFile::encodeName(socketPath);
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

QStringList listeningAmong(QStringList accounts)
{
    accounts.removeIf([](const QString &account) { return !isListening(socketOf(account)); });
    return accounts;
}

QStringList asideAmong(QStringList accounts)
{
    accounts.removeIf([](const QString &account) { return !isListening(socketOf(account) + kAside); });
    return accounts;
}

QStringList backAmong(QStringList accounts)
{
    accounts.removeIf([](const QString &account) {
        const QString name = socketOf(account);
        return numberOf(name) == 0 || numberOf(name) != numberOf(name + kAside);
    });
    return accounts;
}

bool isAnyAside(const QStringList &accounts)
{
    return std::any_of(accounts.cbegin(), accounts.cend(),
                       [](const QString &account) { return exists(socketOf(account) + kAside); });
}

void putAside(const QStringList &accounts)
{
    for (const QString &account : accounts)
        (void)rename(socketOf(account), socketOf(account) + kAside); // whoever has none needs none
}

void putBack(const QStringList &accounts)
{
    for (const QString &account : accounts) {
        const QString name = socketOf(account);
        const QString second = name + kAside + kKept;
        (void)QFile::remove(second);
        if (link(name + kAside, second))
            (void)rename(second, name); // nothing but a folder there could prevent it
        (void)QFile::remove(second);    // a rename of one to itself leaves both
    }
}

void keepNames(const QStringList &accounts)
{
    for (const QString &account : accounts) {
        const QString name = socketOf(account);
        (void)QFile::remove(name + kKept);
        (void)link(name, name + kKept); // an account may have none
    }
}

void restoreNames(const QStringList &accounts)
{
    for (const QString &account : accounts) {
        if (!exists(socketOf(account)))
            (void)rename(socketOf(account) + kKept, socketOf(account)); // there may be none
    }
}

QStringList awaitNamesLost(const QStringList &accounts, int seconds)
{
    const QDeadlineTimer end(qint64(seconds) * 1000);
    QStringList left = accounts;
    for (;;) {
        left.removeIf([](const QString &account) {
            if (exists(socketOf(account)))
                return false;
            (void)rename(socketOf(account) + kKept, socketOf(account)); // none is kept of who was suspended meanwhile
            return true;
        });
        if (left.isEmpty() || end.hasExpired())
            return left;
        QThread::usleep(kRestoreUs);
    }
}

void forgetSockets(const QStringList &accounts)
{
    for (const QString &account : accounts) {
        (void)QFile::remove(socketOf(account) + kKept);
        (void)QFile::remove(socketOf(account) + kAside);
    }
}

Fd holdBack(const QString &path)
{
    Fd file(::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    // The signal that tells of who waits would end this process; it is looked for instead.
    if (!file || ::fcntl(file.get(), F_SETSIG, SIGURG) != 0 || ::fcntl(file.get(), F_SETLEASE, F_WRLCK) != 0)
        return {};
    return file;
}

bool isWaitedFor(const Fd &held)
{
    return ::fcntl(held.get(), F_GETLEASE) != F_WRLCK;
}

QStringList awaitReleased(const QStringList &accounts, int seconds)
{
    const QDeadlineTimer end(qint64(seconds) * 1000);
    QStringList left = accounts;
    for (;;) {
        // An FPM takes its sockets' files away with it.
        left.removeIf([](const QString &account) { return !exists(socketOf(account)); });
        if (left.isEmpty() || end.hasExpired())
            break;
        QThread::msleep(kBetweenMs);
    }
    // One that was killed has left them.
    return listeningAmong(left);
}

QStringList awaitListening(const QStringList &accounts, int seconds)
{
    const QDeadlineTimer end(qint64(seconds) * 1000);
    QStringList left = accounts;
    for (;;) {
        left.removeIf([](const QString &account) {
            const QString path = socketOf(account);
            return exists(path) && isListening(path);
        });
        if (left.isEmpty() || end.hasExpired())
            return left;
        QThread::msleep(kBetweenMs);
    }
}

} // namespace corv::ctl
