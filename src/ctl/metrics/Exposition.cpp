#include "ctl/metrics/Exposition.h"

#include "ctl/metrics/Table.h"

#include <QHash>
#include <QSet>

#include <array>
#include <charconv>
#include <cmath>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr char16_t kReplacement = 0xFFFD;

QByteArray numberText(double value)
{
    // Without an exponent, as long as that is exact: times and sizes are read by people, too.
    constexpr double kExact = 9'007'199'254'740'992.0;
    if (value == std::trunc(value) && std::abs(value) <= kExact)
        return QByteArray::number(static_cast<qint64>(value));
    std::array<char, 32> text = {};
    const auto *const end = std::to_chars(text.data(), text.data() + text.size(), value).ptr;
    return {text.data(), end - text.data()};
}

// The name and labels of a sample, which no two of them may share.
QByteArray seriesOf(const Metric &metric, const QStringList &names, const Sample &sample)
{
    QStringList pairs;
    for (qsizetype i = 0; i < names.size(); ++i)
        pairs.append(u"%1=\"%2\""_s.arg(names[i], labelValue(sample.labels[i])));
    const QString labels = pairs.isEmpty() ? QString() : u'{' + pairs.join(u',') + u'}';
    return metric.name + labels.toUtf8();
}

} // namespace

QString labelValue(const QString &text)
{
    QString value;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text[i];
        if (c == u'\\' || c == u'"')
            value += QString(u'\\') + c;
        else if (c == u'\n')
            value += "\\n"_L1;
        else if (c.isHighSurrogate() && i + 1 < text.size() && text[i + 1].isLowSurrogate())
            value += QString(c) + text[++i];
        else
            value += c.category() == QChar::Other_Control || c.isSurrogate() ? QChar(kReplacement) : c;
    }
    return value;
}

QByteArray exposition(const QList<Sample> &samples)
{
    QHash<QString, QList<const Sample *>> byName;
    for (const Sample &sample : samples)
        byName[sample.metric].append(&sample);

    QByteArray text;
    for (const Metric &metric : allMetrics()) {
        const QString name = QString::fromLatin1(metric.name);
        const QStringList labels = QString::fromLatin1(metric.labels).split(u' ', Qt::SkipEmptyParts);
        QByteArray lines;
        QSet<QByteArray> seen;
        for (const Sample *sample : byName.value(name)) {
            if (sample->labels.size() != labels.size() || !std::isfinite(sample->value))
                continue;
            const QByteArray series = seriesOf(metric, labels, *sample);
            if (seen.contains(series))
                continue;
            seen.insert(series);
            lines += series + ' ' + numberText(sample->value) + '\n';
        }
        if (!lines.isEmpty())
            text += "# HELP " + QByteArray(metric.name) + ' ' + metric.help + "\n# TYPE " + metric.name + ' ' +
                    metric.type + '\n' + lines;
    }
    return text;
}

} // namespace corv::ctl
