#include "ctl/doctor/Finding.h"

#include <QRegularExpression>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

QString shellWord(const QString &word)
{
    static const QRegularExpression plain(QRegularExpression::anchoredPattern(u"[A-Za-z0-9_./:=@%+,-]+"_s));
    if (plain.match(word).hasMatch())
        return word;
    // Without a backslash, which would be doubled where the command is shown.
    return u'\'' + QString(word).replace(u"'"_s, uR"('"'"')"_s) + u'\'';
}

} // namespace corv::ctl
