#pragma once

#include "agent/Reply.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <limits>

namespace corv::hosting {

// Runs program (a name on PATH, or an absolute path) with exactly these arguments, without a shell, in a session of its
// own, and waits for its end: at most 5 s for its start and 10 minutes in all, after which it and all that it started
// is killed. input is its whole standard input. out, when given, receives its whole standard output, also when it
// fails, but not when it takes too long; with outputFile the output goes to that file instead, created or truncated.
//
// Returns an empty text on success, else one message: "PROGRAM: cannot start", "PROGRAM: took too long", or "PROGRAM
// failed: " and the end of its standard error (its exit code when it wrote nothing). Never logs.
QString run(const QString &program, const QStringList &args, const QByteArray &input = {}, QByteArray *out = nullptr,
            const QString &outputFile = {});

// The standard streams of a program that is in a user's hand, who may print and write what he likes.
struct Streams
{
    QByteArray input;                                        // the whole standard input,
    int inputFile = -1;                                      // or a file that is open for reading
    QByteArray *output = nullptr;                            // receives the standard output,
    qsizetype maxOutput = 0;                                 // but no more than so many bytes
    int outputFile = -1;                                     // or a file that is open for writing
    qint64 maxFileSize = std::numeric_limits<qint64>::max(); // bytes of any file that it writes
};

// As run, with these streams. A program that prints more than is received is killed, and counts as one that printed
// nothing and ended well.
QString runWith(const QString &program, const QStringList &args, const Streams &streams);

// The gate of every handler of an existing account. Stores the argument username through user, and returns an empty
// text when it is a valid name of a user of this system with the account marker, else the message to fail with.
QString checkExisting(const QJsonObject &args, QString *user);

// Runs the program and arguments in args as an account's user, input and out as in run. Returns the runner's message.
QString asUser(const QString &user, const QStringList &args, const QByteArray &input = {}, QByteArray *out = nullptr);

// The messages that are not empty, in order, joined with "; ".
QString joined(QStringList messages);

// hosting.create: makes an account (user, home, key, database, pool, site), or undoes what it had done and says why.
Reply create(const QJsonObject &args);

// hosting.suspend and hosting.resume: take an account's site, pool, logins and database role off-line, and back. Every
// step of the last stage is tried; its failures are reported together.
Reply suspend(const QJsonObject &args);
Reply resume(const QJsonObject &args);

// hosting.delete: copies an account's home and database to /var/backups/corvane, then removes the account. Nothing is
// removed without both copies; after them nothing stops the removal, and its failures are reported together.
Reply remove(const QJsonObject &args);

// hosting.usage: the bytes that each account uses, from the disk quotas where they are on, else measured by du.
Reply usage(const QJsonObject &args);

// hosting.getKeys and hosting.setKeys: the SSH public keys that let an account's user in, read and replaced with that
// user's own rights.
Reply getKeys(const QJsonObject &args);
Reply setKeys(const QJsonObject &args);

// hosting.resetDbPassword: gives an account's database role a new password, the only place where it is told.
Reply resetDbPassword(const QJsonObject &args);

// hosting.dbReadOnly: makes an account's database read-only, or writable again, and ends its connections so that it
// holds at once.
Reply dbReadOnly(const QJsonObject &args);

} // namespace corv::hosting
