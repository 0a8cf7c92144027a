#pragma once

#include <QJsonObject>
#include <QString>

namespace corv::ctl {

class Given;
struct Session;

// The arguments of an operation on what the command line names.
QJsonObject fileArguments(const Given &given, const QString &operation);

// The last part of a path.
QString lastPart(const QString &path);

// Copies a download that waits in the transfer directory to the file local of this machine, or to standard output for
// "-", with a bar that speaks of what (escaped). Gives the exit status; what went wrong has been said.
int fetchDownload(const Session &session, const QJsonObject &download, const QString &local, const QString &what);

// file edit: a copy goes to the user's editor and is written back.
int editFile(Session &session, const Given &given);

// file put -r: a folder of this machine with all that is in it.
int putFolder(Session &session, const Given &given);

// file get -r: a folder of the account.
int getFolder(Session &session, const Given &given);

} // namespace corv::ctl
