#pragma once

#include "ctl/metrics/Sample.h"

#include <QByteArray>
#include <QList>
#include <QString>

namespace corv::ctl {

// The samples in Prometheus' text format, by metric in the order of the table, each with its HELP and TYPE. A reader
// throws a whole file away for one line that is wrong, so that what would make it so is left out: a sample of no metric
// of the table, with more or fewer labels than that has, that is no number, or for which there is one already.
QByteArray exposition(const QList<Sample> &samples);

// A label's value as it stands between quotation marks: backslashes, quotation marks and line feeds are escaped; other
// control characters, which could steer a terminal, and halves of pairs become U+FFFD.
QString labelValue(const QString &text);

} // namespace corv::ctl
