#pragma once

#include "common/Fd.h"

#include <QByteArray>
#include <QString>

namespace corv {

// The listening end of a local stream socket. It is the system's own and not the framework's: that one would bring the
// network library and all that it stands on into every start of this executable, the file helper's at each click too.
class LocalServer
{
public:
    LocalServer() = default;
    LocalServer(const LocalServer &) = delete;
    LocalServer(LocalServer &&) = delete;
    LocalServer &operator=(const LocalServer &) = delete;
    LocalServer &operator=(LocalServer &&) = delete;
    // Takes the socket file away again.
    ~LocalServer();

    // Takes away what has the path, and listens there: for the owner and the group of the file alone, from its first
    // moment on. A path without a leading slash lies in the folder for temporary files. Returns the system's error text
    // when that fails, empty on success.
    QString listen(const QString &path);

    // The socket file's path as the file system knows it, once it listens.
    [[nodiscard]] const QByteArray &path() const
    {
        return m_path;
    }
    // Ready for reading when a client waits to be accepted.
    [[nodiscard]] int descriptor() const
    {
        return m_socket.get();
    }
    // The next client that waits. None, with errno set, when none does (EAGAIN) or it cannot be accepted.
    Fd accept();

private:
    Fd m_socket;
    QByteArray m_path;
};

} // namespace corv
