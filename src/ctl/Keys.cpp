#include "ctl/Keys.h"

#include <QCryptographicHash>
#include <QStringList>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

QList<PublicKey> parseKeys(const QString &text)
{
    QList<PublicKey> keys;
    for (const QString &line : text.split(u'\n')) {
        const QString trimmed = line.trimmed();
        if (trimmed.isEmpty() || trimmed.startsWith(u'#'))
            continue;

        const QStringList words = trimmed.split(u' ');
        qsizetype blob = 1;
        // All keys begin with the length of their type's name, three zero bytes of it.
        while (blob < words.size() && !words[blob].startsWith("AAAA"_L1))
            ++blob;
        if (blob >= words.size()) {
            keys.append({trimmed, u"no key"_s, {}});
            continue;
        }
        const QByteArray hash =
            QCryptographicHash::hash(QByteArray::fromBase64(words[blob].toLatin1()), QCryptographicHash::Sha256);
        keys.append({words.sliced(blob + 1).join(u' '), words[blob - 1] + (blob > 1 ? u" (options)"_s : QString()),
                     u"SHA256:"_s + QString::fromLatin1(hash.toBase64(QByteArray::OmitTrailingEquals))});
    }
    return keys;
}

} // namespace corv::ctl
