#include "https/Addresses.h"

#include "common/Fd.h"

#include <QDeadlineTimer>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <netdb.h>
#include <poll.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

constexpr qsizetype kLongestAnswer = qsizetype{8} * 1024;

// Waits until the socket is ready for that, or the time is over.
bool waitFor(int descriptor, short what, const QDeadlineTimer &deadline)
{
    pollfd waiting{descriptor, what, 0};
    while (!deadline.hasExpired()) {
        const int ready = ::poll(&waiting, 1, static_cast<int>(deadline.remainingTime()));
        if (ready > 0)
            return true;
        if (ready < 0 && errno != EINTR)
            return false;
    }
    return false;
}

bool connectTo(const Fd &socket, const Address &address, const QDeadlineTimer &deadline)
{
    if (::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address.bytes), address.size) == 0)
        return true;
    int error = 0;
    socklen_t size = sizeof error;
    return errno == EINPROGRESS && waitFor(socket.get(), POLLOUT, deadline) &&
           ::getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}

} // namespace

Addresses addressesOf(const QString &name)
{
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    // Without search domains: one with a wildcard would make any name lead somewhere.
    (void)::setenv("LOCALDOMAIN", "", 1);
    // Whoever has a name has its name servers, too, and may let them be silent.
    (void)::setenv("RES_OPTIONS", "timeout:3 attempts:2", 1);
    const int error = ::getaddrinfo(name.toLatin1().constData(), "80", &hints, &found);
    if (error != 0)
        return {{}, error == EAI_AGAIN ? u"no name server answers for it"_s : u"it has no address"_s};
    Addresses addresses;
    for (const addrinfo *entry = found; entry; entry = entry->ai_next) {
        Address address;
        std::memcpy(&address.bytes, entry->ai_addr, entry->ai_addrlen);
        address.size = entry->ai_addrlen;
        char text[NI_MAXHOST] = {};
        if (::getnameinfo(entry->ai_addr, entry->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) == 0)
            address.text = QString::fromLatin1(text);
        addresses.list.push_back(address);
    }
    ::freeaddrinfo(found);
    return addresses;
}

std::optional<QByteArray> askAddress(const Address &address, const QByteArray &request, int milliseconds)
{
    const QDeadlineTimer deadline(milliseconds);
    const Fd socket(::socket(address.bytes.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket || !connectTo(socket, address, deadline))
        return std::nullopt;
    // It is shorter than any buffer of a connection that has just begun.
    if (::send(socket.get(), request.constData(), static_cast<size_t>(request.size()), MSG_NOSIGNAL) != request.size())
        return std::nullopt;
    QByteArray answer;
    while (answer.size() < kLongestAnswer) {
        char bytes[4096];
        if (!waitFor(socket.get(), POLLIN, deadline))
            return std::nullopt;
        const ssize_t count = ::read(socket.get(), bytes, sizeof bytes);
        if (count == 0)
            break;
        if (count < 0)
            return std::nullopt;
        answer.append(bytes, count);
    }
    return answer;
}

} // namespace corv::https
