#pragma once

#include <QList>
#include <QString>

namespace corv::ctl {

// One line of an authorized_keys file.
struct PublicKey
{
    QString comment;
    QString type;        // such as ssh-ed25519, with "(options)" behind it where the line limits what it may do
    QString fingerprint; // SHA256:..., as ssh-keygen -l writes it
};

// The keys of an authorized_keys text, without empty lines and comments. A line that holds none has itself as comment.
QList<PublicKey> parseKeys(const QString &text);

} // namespace corv::ctl
