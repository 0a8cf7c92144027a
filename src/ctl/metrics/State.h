#pragma once

#include <QJsonObject>
#include <QString>

namespace corv::ctl {

// What is kept from one run to the next: how far the journal has been counted, and what is not collected at each run.
// The folder is root's alone, and there from the first run on.
inline const QString kMetricsFolder = QStringLiteral("/var/lib/corvane/metrics");

// Held by a run that is at work.
inline const QString kMetricsLock = QStringLiteral("/var/lib/corvane/metrics/lock");

// Makes the folder where it is missing. Returns why that cannot be; empty on success.
QString makeMetricsFolder();

// What is kept, an object for each collector by its name; empty where nothing is yet. Sets problem where a file is
// there that cannot be read or holds something else.
QJsonObject readMetricsState(QString *problem);

// Keeps it in place of what was. Returns why that cannot be; empty on success.
QString keepMetricsState(const QJsonObject &state);

} // namespace corv::ctl
