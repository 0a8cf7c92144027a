#include "ctl/doctor/Deletions.h"

#include "ctl/screen/Terminal.h"

#include <QHash>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

QList<Finding> checkRefusedDeletions(const QList<DeletionArchives> &archives, const QStringList &accounts, qint64 now)
{
    QHash<QString, QList<DeletionArchives>> refused;
    for (const DeletionArchives &one : archives) {
        // Of an account that is gone they may be the only copy.
        if (!one.isWhole && one.changed < now && accounts.contains(one.account))
            refused[one.account].append(one);
    }
    QList<Finding> findings;
    for (const QString &account : accounts) {
        QStringList files;
        qint64 bytes = 0;
        for (const DeletionArchives &one : refused.value(account)) {
            for (const QString &file : {one.home, one.dump, one.state}) {
                if (!file.isEmpty())
                    files.append(shellWord(file));
            }
            bytes += one.bytes;
        }
        if (files.isEmpty())
            continue;
        findings.append({Level::Note,
                         u"deletions of the account %1 that were refused have left archives of %2"_s.arg(
                             account, humanBytes(bytes)),
                         u"rm "_s + files.join(u' ')});
    }
    return findings;
}

} // namespace corv::ctl
