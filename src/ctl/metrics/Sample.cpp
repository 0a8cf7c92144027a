#include "ctl/metrics/Sample.h"

#include <QJsonObject>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

QJsonArray arrayOf(const QList<Sample> &samples)
{
    QJsonArray array;
    for (const Sample &sample : samples)
        array.append(QJsonObject{{u"metric"_s, sample.metric},
                                 {u"labels"_s, QJsonArray::fromStringList(sample.labels)},
                                 {u"value"_s, sample.value}});
    return array;
}

QList<Sample> samplesIn(const QJsonArray &array)
{
    QList<Sample> samples;
    for (const auto &value : array) {
        const QJsonObject object = value.toObject();
        if (!object.value("metric"_L1).isString() || !object.value("value"_L1).isDouble())
            continue;
        QStringList labels;
        for (const auto &label : object.value("labels"_L1).toArray())
            labels.append(label.toString());
        samples.append({object.value("metric"_L1).toString(), labels, object.value("value"_L1).toDouble()});
    }
    return samples;
}

} // namespace corv::ctl
