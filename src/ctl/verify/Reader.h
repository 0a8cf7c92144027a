#pragma once

#include "common/Fd.h"

#include <QString>
#include <QStringList>

namespace corv::ctl {

// The system's user under whom saved files are read, and the role under whom dumps are restored for a proof.
inline const QString kReaderName = QStringLiteral("corv_verify");

// A saved file, opened for reading; or why it cannot be, as the end of a sentence that begins with its name.
struct SavedFile
{
    Fd file;
    qint64 bytes = 0;
    QString fault; // empty where the file is open
};

// Opens a saved file. A link is none, nor is anything that is no regular file; one without a byte is not whole.
SavedFile openSaved(const QString &path);

// What setpriv is given to run a program under the user of that name, or as nobody where there is none of that name,
// without any right that root has.
QStringList readerCommand(const QStringList &program);

// What a program that read a file complained of, in one line, for whoever is told what is wrong with the file.
QString complaintIn(const QString &message);

} // namespace corv::ctl
