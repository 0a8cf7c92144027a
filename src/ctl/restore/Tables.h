#pragma once

#include <QByteArray>
#include <QString>

namespace corv::ctl {

// How many tables a dump has, as the list of what is in it tells, which a program without any rights makes; 0 where
// that cannot be told.
int tablesIn(const QString &dump);

// The same from that list.
int countTables(const QByteArray &list);

// How many tables an account's database has, less those of extensions, asked with the account's own rights; 0 where
// that cannot be told.
int tablesOf(const QString &account);

} // namespace corv::ctl
