#pragma once

#include <QJsonArray>
#include <QList>
#include <QString>
#include <QStringList>

namespace corv::ctl {

// One measured value of a metric: its name as in the table of metrics (Table.h), the values of its labels in the
// order of that table, and the value, in the unit that the name ends with.
struct Sample
{
    QString metric;
    QStringList labels;
    double value = 0;

    friend bool operator==(const Sample &, const Sample &) = default;
};

// As JSON and back. What is no sample is passed over.
QJsonArray arrayOf(const QList<Sample> &samples);
QList<Sample> samplesIn(const QJsonArray &array);

} // namespace corv::ctl
