#include "agent/backup/Trailer.h"

#include <QFile>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::backup {
namespace {

constexpr qsizetype kLengthBytes = 4;
constexpr quint32 kTarBlock = 512;
constexpr qsizetype kRead = 2 * kLengthBytes;

// A length, the lowest byte first.
quint32 lengthIn(const QByteArray &bytes)
{
    quint32 length = 0;
    for (qsizetype i = bytes.size() - 1; i >= 0; --i)
        length = length << 8 | static_cast<unsigned char>(bytes[i]);
    return length;
}

} // namespace

bool isEndOfArchive(const QByteArray &lastBytes)
{
    // The last four bytes are the length of what was packed, less its multiples of 4 GiB, and tar writes whole blocks.
    // Of other bytes as many as one in five hundred ends like that; of text, none.
    for (qsizetype end = lastBytes.size(); end >= kLengthBytes; --end) {
        if (lengthIn(lastBytes.mid(end - kLengthBytes, kLengthBytes)) % kTarBlock == 0)
            return true;
        if (lastBytes[end - 1] != '\0')
            return false;
    }
    return false;
}

QString problemBehind(const QString &archive)
{
    QFile file(archive);
    if (!file.open(QIODevice::ReadOnly) || !file.seek(std::max<qint64>(file.size() - kRead, 0)))
        return {};
    if (isEndOfArchive(file.read(kRead)))
        return {};
    return u"gzip: stdin: decompression OK, trailing garbage ignored\n"
           "tar: Child returned status 2\n"
           "tar: Error is not recoverable: exiting now"_s;
}

} // namespace corv::backup
