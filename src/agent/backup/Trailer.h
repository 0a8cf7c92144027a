#pragma once

#include <QByteArray>
#include <QString>

namespace corv::backup {

// What gzip has to say of bytes behind an archive, which it takes for a fault; empty where there are none, or where the
// archive cannot be read. For archives that tar has read to their end by way of a compressor that says nothing of them.
QString problemBehind(const QString &archive);

// Whether these are the last bytes of an archive that tar made and gzip, or its kind, packed in one piece. Zeros behind
// it are its own, as they are to gzip.
bool isEndOfArchive(const QByteArray &lastBytes);

} // namespace corv::backup
