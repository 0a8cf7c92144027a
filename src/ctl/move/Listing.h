#pragma once

#include "ctl/home/Archive.h"
#include "ctl/move/Shell.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

namespace corv::ctl::moving {

// The folder of the home here that files come to before they are in place: nobody but the account reaches it.
inline constexpr auto kComing = ".corv-moving";
// The folder that what is here before goes into, and away with.
inline constexpr auto kReplaced = ".corv-moved";

// The words of the command that lists a home on the old server, for the shell there.
QStringList listingCommand(const QString &account);

// What the command printed, through its gate, which is open. Nothing where it is not whole.
std::optional<QList<ArchiveEntry>> takeListing(Gate *list);

// What it printed, of which nothing is believed but what a home may hold: paths below it, no group but the account's
// and the web server's. Nothing where it is not whole.
std::optional<QList<ArchiveEntry>> parseListing(const QByteArray &text);

} // namespace corv::ctl::moving
