#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

namespace corv::ctl {

// What became of the copies so far, kept on the server so that status and doctor need not ask the place.
struct OffsiteState
{
    QString copied;       // the newest backup that is there whole
    qint64 copiedAt = 0;  // when that was, in seconds since 1970
    qint64 ranAt = 0;     // the end of the last run
    qint64 seconds = 0;   // how long it took
    qint64 homes = 0;     // how many homes it found
    qint64 bytes = 0;     // of them, unpacked
    qint64 added = 0;     // bytes that were new to the place
    QStringList problems; // of the last run
    qint64 checkedAt = 0; // the end of the last check
    int part = 0;         // which part of the data that read
    QString checkProblem; // what was wrong
    int unread = 0;       // parts still to be read before what a check of all found is known to be well
    qint64 prunedAt = 0;  // when what is not needed was last taken away
    QString drilled;      // the account of the last drill
    qint64 drilledAt = 0; // its end
    QString drillProblem; // why it failed
};

inline const QString kStateFolder = QStringLiteral("/var/lib/corvane/offsite");

inline const QString kOffsiteLock = QStringLiteral("/var/lib/corvane/offsite/lock");

// The domain of the account that a drill makes, and whether an account of that name and domain is one.
QString domainOfDrill(const QString &name);
bool isOfDrill(const QString &name, const QString &domain);

// How many parts the data is read in, one a day: within a month all of it has been.
constexpr int kCheckParts = 30;

QJsonObject objectOf(const OffsiteState &state);
OffsiteState stateOf(const QJsonObject &object);

// The state that is kept; an empty one where there is none.
OffsiteState readOffsite();

// Keeps it. Returns why that cannot be; empty on success.
QString keepOffsite(const OffsiteState &state);

} // namespace corv::ctl
