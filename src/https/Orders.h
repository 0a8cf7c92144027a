#pragma once

#include "common/HttpsState.h"

#include <QByteArray>
#include <QString>

#include <optional>

namespace corv::https {

// What Apache has written of its work for a certificate.
struct Job
{
    bool finished = false; // there is a new one, which the next reload puts into use
    int errors = 0;        // attempts that failed
    QString said;          // of the last of these, 300 characters at most
};

// The job in the bytes of Apache's file; nothing where they hold none.
std::optional<Job> parseJob(const QByteArray &json);

// The job for a domain that Apache is at, and in writtenAt when that was written. One that is too large to be read is
// one that failed.
std::optional<Job> readJob(const QString &domain, qint64 *writtenAt);

// Remembers what became of the orders of these domains since the state was made: Apache forgets its failures at each
// reload. retrySeconds is how long the first pause after a failure is; each further one is twice as long, a day at
// most. What was written later than now, by a clock that was wrong, is begun anew.
void noteJobs(State *state, const QStringList &domains, qint64 retrySeconds, qint64 now);

// Has Apache begin anew with an order that failed and whose pause is over: it would keep to a pause of its own.
void forgetJob(const QString &domain);

// Whether Apache has to be told of an order that can begin: the first one, or another attempt after one that failed.
bool isDue(const OrderState &order);

// How many of so many orders of first certificates, further attempts among them, may still be begun within three hours.
int roomForOrders(const State &state, int most, qint64 now);

// The seconds of a time as Apache reads it, "90s", "5m", "1h" or "2d".
qint64 secondsIn(const QString &time);

} // namespace corv::https
