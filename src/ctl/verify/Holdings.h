#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>

namespace corv::ctl {

// One file that a backup has to hold.
struct Holding
{
    enum class Kind { Home, Database, Panel, Settings };
    Kind kind = Kind::Settings;
    QString file;      // below the backup's folder
    QString account;   // of Home and Database
    qint64 bytes = -1; // that the manifest says it has; -1 where it says nothing
};

// What a backup with this manifest has to hold, in the order in which a run makes it. What names no account is left
// out.
QList<Holding> holdingsIn(const QJsonObject &manifest);

// Whether it is a dump's turn to be restored for a proof in the week of that number: each is within four weeks, and all
// of a small server each week.
bool isDue(const Holding &holding, qsizetype dumps, qint64 week);

} // namespace corv::ctl
