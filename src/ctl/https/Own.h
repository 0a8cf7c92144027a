#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace corv::ctl {

// A certificate with its chain, and its key, both PEM, that somebody has brought.
struct Brought
{
    QString certificateFile;
    QString keyFile;
    QByteArray certificate; // empty where the file cannot be read
    QByteArray key;         // likewise
};

// Reads both once: they may lie in a home, whose owner can put others in their place at any time.
Brought readBrought(const QString &certificateFile, const QString &keyFile);

// Why these cannot be used for these names; empty where they can. Looked at are the dates, the names, and whether the
// key belongs to it. now is the time in seconds since 1970.
QString checkPair(const Brought &brought, const QStringList &names, qint64 now);

// Whether the chain leads to an authority that the system trusts.
bool isTrusted(const Brought &brought);

// Both, for one that an administrator has chosen.
QString checkOwn(const Brought &brought, const QStringList &names, qint64 now);

// Whether a name is one of those of a certificate, where "*." at the beginning stands for one label.
bool coversName(const QStringList &names, const QString &name);

// Keeps copies of both, and gives the name that the account's choices have for them; an empty one, with why in problem,
// where they cannot be written.
QString keepOwn(const QString &account, const Brought &brought, QString *problem);

} // namespace corv::ctl
