#pragma once

#include <QString>
#include <QStringList>

namespace corv::ctl {

// How accounts' sockets get from one FPM to another while visitors come.

// Has an FPM serve these accounts, whose pools lie in their places; lastPool is the file that it reads last of them. An
// FPM does not start over a socket that another serves, and the other keeps what it has until the names are taken away:
// that is done in the moment between the new one's reading of its pools and its making of sockets, some milliseconds.
// Where that moment cannot be had, it is for as long as the new one takes to read everything anew. Returns why it could
// not be, and in milliseconds for how long nobody served them.
QString takeOver(const QString &version, const QStringList &accounts, const QString &lastPool, qint64 *milliseconds);

// Has an FPM, whose pools are gone from its folder, let go of these accounts' sockets, while others serve them under
// the same names. perhaps are accounts of which it is not known whether it has them still. It is stopped where it is
// left without any pool. Returns why it could not be.
QString letGo(const QString &version, const QStringList &accounts, const QStringList &perhaps);

} // namespace corv::ctl
