#pragma once

#include <QByteArray>
#include <QString>

#include <optional>
#include <vector>

#include <sys/socket.h>

namespace corv::https {

// An address of a name, with port 80.
struct Address
{
    sockaddr_storage bytes = {};
    socklen_t size = 0;
    QString text;
};

// What the name servers know of a name: its addresses, or why there are none.
struct Addresses
{
    std::vector<Address> list;
    QString problem;
};
Addresses addressesOf(const QString &name);

// Sends the request there and gives what is answered, some kilobytes of it; nothing where there is no connection or no
// whole answer in so many milliseconds.
std::optional<QByteArray> askAddress(const Address &address, const QByteArray &request, int milliseconds);

} // namespace corv::https
