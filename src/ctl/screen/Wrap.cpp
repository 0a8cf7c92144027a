#include "ctl/screen/Wrap.h"

#include "ctl/screen/Terminal.h"

namespace corv::ctl {

QStringList wrapped(const QString &text, int columns)
{
    if (columns <= 0)
        return {text};
    QStringList lines = {QString()};
    for (const QString &word : text.split(u' ')) {
        QString &line = lines.last();
        if (line.isEmpty())
            line = word;
        else if (displayWidth(line) + 1 + displayWidth(word) <= columns)
            line += u' ' + word;
        else
            lines.append(word);
    }
    return lines;
}

} // namespace corv::ctl
