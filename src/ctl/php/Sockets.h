#pragma once

#include "common/Fd.h"

#include <QString>
#include <QStringList>

#include <optional>

namespace corv::ctl {

// The sockets by which Apache reaches the accounts' PHP. A name leads to one FPM at a time, and is given to another in
// one step: whoever has connected before stays with the first.

// The path of an account's socket.
QString socketOf(const QString &account);

// A connection to whoever listens at a path, none where nobody does. It makes an FPM start a process for the pool, so
// that it is not asked for again and again.
std::optional<Fd> connectTo(const QString &socketPath);

// The accounts that have a socket.
QStringList accountsWithSocket();

// Those of the accounts on whose socket somebody listens.
QStringList listeningAmong(QStringList accounts);

// Takes these accounts' sockets' names away, since an FPM does not start over one that another serves. Who serves them
// goes on doing so for whom he has, and is found by putBack, which gives the names to him again. They stay aside also
// then, so that whoever goes on after a kill sees whose the names were.
void putAside(const QStringList &accounts);
void putBack(const QStringList &accounts);

// Those of the accounts whose socket is aside, and still served; those whose name leads to it again as well.
QStringList asideAmong(QStringList accounts);
QStringList backAmong(QStringList accounts);

// Whether any of these accounts' sockets is aside, still served or not.
bool isAnyAside(const QStringList &accounts);

// Keeps the sockets that these names lead to, and gives the names back to them where they are lost: an FPM that lets go
// of a socket removes the name that it once had, whose ever it is by now.
void keepNames(const QStringList &accounts);
void restoreNames(const QStringList &accounts);

// Waits until each of these names was lost, seconds at most, and restores it at once. Returns those that have not been.
QStringList awaitNamesLost(const QStringList &accounts, int seconds);

// Forgets what was put aside, and what is kept.
void forgetSockets(const QStringList &accounts);

// Has whoever opens the file wait until what is returned is closed; the kernel ends that after three quarters of a
// minute (fs.lease-break-time), or with this process. None where somebody has it open, or the file system cannot do it.
Fd holdBack(const QString &path);

// Whether somebody waits for what is held back.
bool isWaitedFor(const Fd &held);

// Waits until nobody listens on any of these accounts' sockets any more, or until somebody listens on all of them:
// seconds at most. Returns the accounts for which that has not come.
QStringList awaitReleased(const QStringList &accounts, int seconds);
QStringList awaitListening(const QStringList &accounts, int seconds);

} // namespace corv::ctl
