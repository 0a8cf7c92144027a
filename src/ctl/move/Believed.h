#pragma once

#include <QByteArray>
#include <QString>

namespace corv::ctl::moving {

// What is done on the new server: of requests that come from the old one, Apache takes what that tells of the
// visitor's address, so that logs, bans and applications see him. As root; one at a time.
//
// Tenants of the old server come from its address too, so the address alone would let each of them pretend to be
// whoever he likes. The name of the header holds a key, which root alone knows on both servers.

// The key, which is made where there is none; empty, with the reason in problem, where it cannot be.
QByteArray believedKey(QString *problem);

// Believes the server at that address, for the account's sake, instead of an earlier one of the same account. Refused
// where the administrator has settings of mod_remoteip of his own: there is one header for all. Returns what went
// wrong, empty for nothing.
QString believe(const QString &account, const QString &address);

// Ends that; with the last account the key goes too. Returns what went wrong, empty also where there was none.
QString believeNoMore(const QString &account);

} // namespace corv::ctl::moving
