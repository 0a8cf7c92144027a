#include "ctl/offsite/SettingsText.h"

#include <QList>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

QByteArray withSetting(const QByteArray &text, const QString &section, const QString &key, const QString &value)
{
    const QByteArray heading = '[' + section.toUtf8() + ']';
    const QByteArray name = key.toUtf8();
    const QByteArray line = name + "=\"" + value.toUtf8() + '"';
    QList<QByteArray> lines = text.split('\n');
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();

    qsizetype found = -1;
    bool isInside = false;
    QList<qsizetype> set;
    for (qsizetype i = 0; i < lines.size(); ++i) {
        const QByteArray trimmed = lines[i].trimmed();
        if (trimmed.startsWith('[')) {
            isInside = trimmed == heading;
            found = isInside ? i : found;
        } else if (isInside && lines[i].left(lines[i].indexOf('=')).trimmed() == name) {
            set.append(i);
        }
    }
    if (!set.isEmpty()) {
        // The last one counts; those before it would only mislead.
        lines[set.takeLast()] = line;
        while (!set.isEmpty())
            lines.removeAt(set.takeLast());
    } else if (found >= 0) {
        lines.insert(found + 1, line);
    } else {
        lines += {QByteArray(), heading, line};
    }
    return lines.join('\n') + '\n';
}

} // namespace corv::ctl
