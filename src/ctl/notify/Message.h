#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

namespace corv::ctl {

// What a message tells of. Its texts are as they came: what makes the message makes them fit.
struct Event
{
    QString host;
    QString unit;    // the service that failed; empty in a test
    QString result;  // systemd's word for how it ended
    qint64 time = 0; // in seconds since 1970
    QByteArray log;  // the end of its journal
};

// The message in one line of printable ASCII, the subject of a mail.
QString headline(const Event &event);

// The message for a person: printable, bounded, lines of at most 240 characters.
QString messageText(const Event &event);

// The message as a mail with its headers.
QByteArray mailText(const QStringList &recipients, const Event &event);

// The facts for a program, as variables of its environment.
QMap<QString, QString> facts(const Event &event);

// Whether a text can be given to a mailer as a recipient: a user's name or an address, of characters that mean nothing
// to a mailer's command line or to the headers of a mail.
bool isRecipient(const QString &text);

} // namespace corv::ctl
