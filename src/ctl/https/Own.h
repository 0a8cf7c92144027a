#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace corv::ctl {

// Why a certificate with its chain, and its key, both PEM, cannot be used for these names; empty where they can. Looked
// at are the dates, the names, whether the key belongs to it, and whether the chain leads to an authority that the
// system trusts. now is the time in seconds since 1970.
QString checkOwn(const QString &certificateFile, const QString &keyFile, const QStringList &names, qint64 now);

// Whether a name is one of those of a certificate, where "*." at the beginning stands for one label.
bool coversName(const QStringList &names, const QString &name);

// Keeps copies of both, and gives the name that the account's choices have for them; an empty one, with why in problem,
// where they cannot be written.
QString keepOwn(const QString &account, const QByteArray &certificate, const QByteArray &key, QString *problem);

} // namespace corv::ctl
