#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

// What corv-https keeps between its runs, and corvctl shows. Times are seconds since the epoch.
namespace corv::https {

// What is known of an account's site.
struct SiteState
{
    QString domain;
    QStringList names;  // of its certificate; none where it is left out
    QString leftOut;    // why it is not on port 443, empty where it is
    QString withoutWww; // why the www name is not among the names, empty where it is or was not wanted
    // Where Apache did not come up with it: a print of what was tried, so that it is not tried again unchanged, and
    // when.
    QString refused;
    qint64 refusedAt = 0;

    bool operator==(const SiteState &) const = default;
};

// What was seen of a name when it was last asked from the outside.
struct NameState
{
    bool leadsHere = false;
    QString said; // what is wrong with it, empty where nothing is
    qint64 seenAt = 0;
    qint64 nextAt = 0; // when it is asked again
    int misses = 0;    // how often in a row it did not lead here

    bool operator==(const NameState &) const = default;
};

// What became of the orders for a certificate, by its first name.
struct OrderState
{
    int failures = 0;     // in a row
    QString said;         // what the authority said of the last
    qint64 failedAt = 0;  // when it was
    qint64 nextAt = 0;    // no further one before
    qint64 startedAt = 0; // when Apache was last told to get one; 0: it is not to

    bool operator==(const OrderState &) const = default;
};

struct State
{
    QMap<QString, SiteState> sites; // by account
    QMap<QString, NameState> names;
    QMap<QString, OrderState> orders; // by domain
    QMap<QString, int> warned;        // by domain: so many days before its certificate's end somebody was told
    QMap<QString, qint64> missed;     // what is kept for sites and accounts that are gone: since when
    QString none;                     // why there is no HTTPS at all, empty where there is
    int rescues = 0;                  // how often in a row Apache ended with what was generated
    qint64 rescuedUntil = 0;          // nothing is generated before
    bool rehearsed = true;            // false where the kernel does not let a whole Apache be tried beforehand
    int milliseconds = 0;             // that the last run took
    int rehearsals = 0;               // in it
    qint64 at = 0;                    // when it was

    bool operator==(const State &) const = default;
};

// Bytes of a file that a state is read from: that of 10,000 sites fits, whatever was said of their orders.
constexpr qsizetype kLargestState = qsizetype{64} * 1024 * 1024;

// Whether a file's bytes hold a state.
bool holdsState(const QByteArray &json);

// The state in a file's bytes; an empty one where they hold none.
State parseState(const QByteArray &json);

// What parseState reads as this state.
QByteArray stateText(const State &state);

} // namespace corv::https
