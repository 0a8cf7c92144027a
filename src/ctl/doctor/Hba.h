#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

// PostgreSQL's pg_hba.conf, so that a role reaches only the databases that it belongs to.
namespace corv::ctl {

// A database that is no account's, and who may log in to it.
struct Reach
{
    QString database;
    QStringList roles; // empty: every role
};

// What the change starts from.
struct HbaFacts
{
    QString file; // the path of pg_hba.conf
    QList<Reach> others;
};

// A line of the file and those that take its place.
struct HbaChange
{
    QByteArray before;
    QList<QByteArray> after;
};

// The statement whose answer parseHbaFacts reads, one line of JSON.
extern const QString kHbaQuery;
std::optional<HbaFacts> parseHbaFacts(const QByteArray &answer);

// What takes the place of each line that lets every role try every database, with its own way of logging in: lines for
// the superuser, for each role's own database, for a restore, for monitoring, and for the others. None where there is
// no such line. Names that cannot be written in the file are left out.
QList<HbaChange> hbaChanges(const QByteArray &text, const QList<Reach> &others);

// The file's text with these changes.
QByteArray withChanges(const QByteArray &text, const QList<HbaChange> &changes);

} // namespace corv::ctl
