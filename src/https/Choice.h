#pragma once

#include "common/HttpsState.h"
#include "https/Names.h"
#include "https/Proof.h"

#include <QByteArray>
#include <QDeadlineTimer>
#include <QList>
#include <QMap>
#include <QString>

namespace corv::https {

// One run: what goes in, and what became of it.
struct Run
{
    qint64 now = 0;
    QByteArray base;
    QList<Twin> twins;
    QList<QByteArray> texts; // of the twins
    QStringList prints;      // of the twins, before any of them is tried
    Proof proof;             // what need not be tried again
    State state;
    QDeadlineTimer deadline;
    bool storeIsFull = false;
    bool comesUp = false;   // all that is chosen was tried, now or before, as a whole Apache
    bool hasUnseen = false; // names that were never asked whether they lead here
    QString complaint;      // the last
};

// The text of the file that Apache includes, with the twins at these places.
QByteArray textOf(const Run &run, const QList<int> &places);

// Takes up the proof of the runs before, where it is younger than so many seconds and still holds; else begins one,
// with what Apache has of others. run has its base, the one with an answer for names of nobody. False where Apache's
// configuration is broken without any of ours.
bool readProof(Run *run, const QList<Candidate> &candidates, qint64 trustedSeconds);

// Whether Apache was lately seen not to come up with that twin as it is.
bool wasRefused(const Run &run, const QString &account, const QString &print);

// The places of the twins that Apache is known, or for want of time believed, to come up with; sites and the run's
// state are told why of all others. What was tried is kept for the runs after this one.
QList<int> choose(Run *run, QMap<QString, SiteState> *sites);

// Has the next run try everything.
void forgetProof();

} // namespace corv::https
