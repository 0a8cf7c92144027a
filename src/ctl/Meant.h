#pragma once

#include <QString>
#include <QStringList>

#include <optional>

namespace corv::ctl {

struct Session;

// How many letters have to be added, taken away, changed or swapped with their neighbour to make one word of the other.
int distance(const QString &one, const QString &other);

// The word that was meant by what was typed: the only one among the nearest that differs in at most a third of its
// letters, or in one. Empty where there is none, or several are as near.
QString meant(const QString &typed, const QStringList &words);

// What to say of a name that is none of these: which was meant, or which is the only one there is. Empty where neither
// can be told. what: "account" or "backup".
QString meantHint(const QString &what, const QString &typed, const QStringList &names);

// The names of the accounts of the server that the session's options name. Nothing where they cannot be told.
std::optional<QStringList> accountNames(const Session &session);

} // namespace corv::ctl
