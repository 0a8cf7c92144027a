#pragma once

#include <QList>
#include <QString>

namespace corv::ctl {

// What failed and has not succeeded since: one file for each unit, whose text shows at the login of root and of the
// group adm. The unit itself removes its file when it succeeds.

// Where the files lie.
inline const QString kFailureFolder = QStringLiteral("/var/lib/corvane/failures");
inline const QString kBackupUnit = QStringLiteral("corv-backup.service");

struct Failed
{
    QString unit;
    qint64 time = 0; // in seconds since 1970
};

// Whether the text is the name of a service as systemd writes it, and no path.
bool isUnitName(const QString &text);

// Keeps the failure of a unit, in place of an earlier one, with the line for the login. Returns why that cannot be;
// empty on success.
QString keepFailure(const QString &unit, const QString &line);

// The failures that are kept, by their units' names; none where the caller may not read them.
QList<Failed> failures();

// A failure as a sentence for status and doctor, where now is the time in seconds since 1970.
QString failureSentence(const Failed &failed, qint64 now);

} // namespace corv::ctl
