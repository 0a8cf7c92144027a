#include "common/Text.h"

#include <QStringDecoder>

namespace corv {

QString shown(const QByteArray &bytes)
{
    QStringDecoder decoder(QStringDecoder::Utf8,
                           QStringDecoder::Flag::Stateless | QStringDecoder::Flag::ConvertInitialBom);
    return decoder(bytes);
}

} // namespace corv
