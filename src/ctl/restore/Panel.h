#pragma once

#include <QString>
#include <QStringList>

namespace corv::ctl {

// What a backup holds beside accounts.

// Loads the panel's database, all of it or nothing, with the rights of the role that it belongs to on this server.
// Returns why that cannot be, empty when it is done: also where others than root could have written the dump.
QString restorePanelDatabase(const QString &dump);

// Puts the panel's settings files of a backup in the place of those of this server, which are saved before, and has the
// agent read them. *kept gets the path of what was saved, empty where there was nothing. Returns why that cannot be.
// Sites and pools of accounts are not among them: accounts get theirs when they are made.
QString restoreSettings(const QString &archive, QString *kept);

// Those of an archive's members that are such files, by their names.
QStringList settingsMembers(const QStringList &members);

} // namespace corv::ctl
