#include "common/Transfer.h"

#include <QRegularExpression>

using namespace Qt::Literals::StringLiterals;

namespace corv::files {

bool validTransferName(const QString &name)
{
    static const QRegularExpression pattern(QRegularExpression::anchoredPattern(u"[A-Za-z0-9_-]{16,64}"_s));
    return pattern.match(name).hasMatch();
}

} // namespace corv::files
