#pragma once

#include "ctl/offsite/Restic.h"
#include "ctl/offsite/State.h"

#include <QJsonObject>
#include <QString>

#include <functional>

namespace corv::ctl {

// Says a line while the work goes on.
using Say = std::function<void(const QString &line)>;

// Copies the newest finished backup below the destination to the place, and forgets there what the settings no longer
// keep. What is there of it already is not copied again. Goes on after a failure; the new state has all of them. Call
// it with the lock.
OffsiteState copyNewest(const Repository &repository, const QString &destination, const OffsiteState &before,
                        const Say &say);

// The accounts whose home archives lie in the folder of a backup, by name.
QStringList homesIn(const QString &folder);

// Whether a backup whose manifest this is could not save an account's home whole: something else happened to it than
// that files were written to meanwhile.
bool isPartOnly(const QJsonObject &manifest, const QString &account);

// Whether a backup in that folder, whose manifest this is, could not save an account's database: what pg_dump had
// written until it failed stays there as a file.
bool isWithoutDatabase(const QJsonObject &manifest, const QString &folder, const QString &account);

// Removes restic's cache where it has become larger than it is worth.
void boundCache(const Repository &repository);

} // namespace corv::ctl
