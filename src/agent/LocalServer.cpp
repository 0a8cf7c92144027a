#include "agent/LocalServer.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstring>
#include <optional>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

using namespace Qt::Literals::StringLiterals;

namespace corv {
namespace {

// Many clients may knock while a handler waits for apt-get.
constexpr int kBacklog = 4096;
// Less this, the socket's file is readable and writable to its owner and its group, and to nobody else.
constexpr mode_t kSocketMask = 0117;

QString systemError()
{
    return QString::fromUtf8(std::strerror(errno));
}

// The address of a path, nothing with errno set where none can be made of it. A NUL would cut it short.
std::optional<sockaddr_un> addressOf(const QByteArray &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.isEmpty() || path.contains('\0')) {
        errno = EINVAL;
        return {};
    }
    if (static_cast<size_t>(path.size()) >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return {};
    }
    std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
    return address;
}

// Binding makes the file with the mode that the mask leaves: there is no moment in which others could connect.
bool bindMasked(int socket, const sockaddr_un &address)
{
    const mode_t before = ::umask(kSocketMask);
    const int result = ::bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    const int problem = errno;
    ::umask(before);
    errno = problem;
    return result == 0;
}

} // namespace

LocalServer::~LocalServer()
{
    if (!m_path.isEmpty())
        (void)::unlink(m_path.constData()); // whoever starts next would take it away too
}

QString LocalServer::listen(const QString &path)
{
    const bool isName = !path.isEmpty() && !path.startsWith(u'/');
    const QByteArray file = QFile::encodeName(isName ? QDir::tempPath() + u'/' + path : path);
    const std::optional<sockaddr_un> address = addressOf(file);
    if (!address)
        return systemError();

    (void)::unlink(file.constData()); // a stale one; what cannot be taken away shows in a moment
    Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket || !bindMasked(socket.get(), *address))
        return systemError();
    m_path = file;
    if (::listen(socket.get(), kBacklog) != 0)
        return systemError();
    m_socket = std::move(socket);
    return {};
}

Fd LocalServer::accept()
{
    for (;;) {
        // cppcheck-suppress nullPointer ; nobody asks for the address
        Fd client(::accept4(m_socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
        // A signal, or a client that has given up meanwhile, says nothing of the next one.
        if (client || (errno != EINTR && errno != ECONNABORTED))
            return client;
    }
}

} // namespace corv
