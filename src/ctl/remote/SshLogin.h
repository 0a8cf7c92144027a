#pragma once

#include <QByteArray>
#include <QString>

namespace corv::ctl {

// The port of this server by which the user of this process is logged in over SSH; empty where it is not over SSH.
QString sshLoginPort();

// The address from which that user is logged in over SSH; empty where it is not over SSH.
QString sshLoginAddress();

// The port from the text of the variable SSH_CONNECTION: the client's address and port, the server's address and port.
QString sshPortIn(const QByteArray &connection);

} // namespace corv::ctl
