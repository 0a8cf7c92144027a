#pragma once

#include "ctl/metrics/Sample.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

namespace corv::ctl {

// What a run collects of this server, as root.
struct Run
{
    QList<Sample> samples; // also of how each collector fared
    QJsonObject state;     // for the next run
    QStringList problems;  // a sentence for each collector that could not collect all
};

// Lets the collectors work, one after the other and each for a minute or two at most. settings is the path of the
// agent's settings file, socket where it listens, state what the last run left, now the time in seconds since 1970.
// What takes its time is collected once an hour, unless isFresh asks for all of it.
Run collect(const QString &settings, const QByteArray &socket, const QJsonObject &state, qint64 now, bool isFresh);

// How a collector fared, as samples: whether it succeeded and how long it took in seconds, and when it last did
// succeed, in seconds since 1970.
QList<Sample> fate(const QString &collector, bool isSuccess, double seconds, qint64 lastSuccess);

} // namespace corv::ctl
