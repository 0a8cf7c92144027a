#pragma once

#include <QString>
#include <QStringList>

namespace corv::ctl {

// What became of saving one account.
struct Exported
{
    QString problem;   // why it ended, empty when the folder is whole; it is gone then
    QStringList notes; // what is worth knowing of it all the same
    qint64 homeBytes = 0;
    qint64 dumpBytes = 0;
};

// Saves an account as it is now, while it is served, into a folder that is made for it: of a backup's form, with its
// state, root's alone. Both archives are read to their ends before it is said to be done. Call it as root.
Exported exportAccount(const QString &account, const QString &folder);

} // namespace corv::ctl
