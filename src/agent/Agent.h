#pragma once

#include "agent/Budget.h"
#include "agent/LocalServer.h"
#include "agent/Readiness.h"
#include "agent/Reply.h"
#include "agent/RequestFile.h"
#include "common/BackupConfig.h"

#include <QHash>
#include <QObject>
#include <QStringList>
#include <QTimer>

#include <functional>

namespace corv {

// The daemon: owns the socket, the connections and the command table. docs/protocol.md tells what goes over the socket.
class Agent : public QObject
{
    Q_OBJECT

public:
    // allowedUid: the one unprivileged user who may connect (root and the agent's own user always may). services: the
    // units that are shown and may be restarted. backups: the backup settings.
    Agent(quint32 allowedUid, QStringList services, backup::Config backups, QObject *parent);

    // Opens the socket at path, for its owner and group alone, and gives it to group unless that is empty. False, with
    // a critical log line, when either fails.
    bool listen(const QString &path, const QString &group);

    // Answers one request line, {"cmd":…,"args":{…}}, of the peer with that uid, and logs what became of it.
    Reply dispatch(const QByteArray &request, quint32 uid);

    // Gives clients a moment to take the replies that are still unsent, for the end of the process.
    void sendRest();

private:
    using Handler = std::function<Reply(const QJsonObject &args)>;

    void onNewConnection();
    void acceptLater();
    void admit(Fd client);

    LocalServer m_server;
    Readiness m_readiness;
    QTimer m_acceptAgain;
    Budget m_budget;
    qsizetype m_places; // for clients of one user
    quint32 m_allowedUid;
    QStringList m_services;
    backup::Config m_backups;
    QHash<QString, Handler> m_commands;
    RequestFile m_requestFile;
};

} // namespace corv
