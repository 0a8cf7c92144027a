#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>

#include <optional>

namespace corv::ctl {

// One line of the screen. Its text comes from the server as it is; the caller makes it fit to show.
struct StatusLine
{
    QString topic;
    QString text;
    bool needsAttention = false;
    bool isUnknown = false; // it says what cannot be told from where the caller is
};

// Replies of the agent, by command. One that failed holds its error.
using Replies = QJsonObject;

// What the replies to system.info, services.status, system.disks, security.status, updates.status, backup.status and,
// where it was asked, hosting.usage say of the server. accounts is their number, nothing where it cannot be read here;
// now is the time in seconds since 1970.
QList<StatusLine> statusLines(const Replies &replies, std::optional<qsizetype> accounts, qint64 now);

// The name of the newest backup in the reply to backup.status; empty for none.
QString newestBackup(const Replies &replies);

// Whether any line needs attention, or tells of what is not known, as the sentence that heads the screen.
QString statusHeading(const QString &host, const QList<StatusLine> &lines);

} // namespace corv::ctl
