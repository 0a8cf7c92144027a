#pragma once

#include "common/HttpsState.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>

namespace corv::https {

// What came of asking a name from the outside in.
struct Probed
{
    bool leadsHere = false;
    QString said; // what is wrong, empty where nothing is
};

// Asks all addresses that each name has, IPv4 and IPv6, for a file that only this server has, over port 80 as an
// authority does. A name leads here where each of its addresses does: the authority takes any of them. Many are asked
// at a time, the first ones first; those that were not answered for after so many milliseconds are missing, which says
// nothing of them.
QMap<QString, Probed> probe(const QStringList &names, int milliseconds);

// Whether what a server answered is that file, whose content is token.
bool isAnswer(const QByteArray &answer, const QByteArray &token);

// What is known of a name after it was asked. One that led here is believed to do so until it did not three times in a
// row, so that an hour without a name server takes no name out of a certificate. The times between misses double.
NameState after(const NameState &before, const Probed &probed, qint64 now);

} // namespace corv::https
