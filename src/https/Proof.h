#pragma once

#include "https/Names.h"

#include <QByteArray>
#include <QMap>
#include <QString>

namespace corv::https {

// What Apache has come up with: of this, only what has changed since has to be tried again. It is forgotten at each
// start of the system, and whenever Apache ends.
struct Proof
{
    QString base;                 // a print of all that is not a twin: what stands before them, and Apache's own files
    qint64 fullAt = 0;            // when all twins were last tried together
    qsizetype tried = 0;          // how many these were
    Others others;                // what Apache has of others on port 443
    QMap<QString, QString> twins; // by account: the print of the twin

    bool operator==(const Proof &) const = default;
};

// Whether a proof still holds for a run with this base and so many twins: it is younger than so many seconds, and there
// are not so many more twins that it would be another matter for Apache.
bool holds(const Proof &proof, const QString &base, qsizetype twins, qint64 now, qint64 seconds);

// A print that changes with any change of Apache's own files (those in /etc/apache2 but for the accounts' sites), of
// the server and its modules, and of the system's libraries. Accounts are those whose sites are left out of it.
QString printOfApache(const QStringList &accounts);

// The proof in a file's bytes; one that holds for nothing where they are none.
Proof parseProof(const QByteArray &json);

// What parseProof reads as this proof.
QByteArray proofText(const Proof &proof);

} // namespace corv::https
