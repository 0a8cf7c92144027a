#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

#include <functional>
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
    int outputFile = -1;                                     // or a file that is open for writing,
    QString outputPath;                                      // or one that is created or truncated
    qint64 maxFileSize = std::numeric_limits<qint64>::max(); // bytes of any file that it writes
};

// What a program gets beside its arguments and streams; none of it shows outside.
struct Surroundings
{
    QMap<QString, QString> environment; // variables that are set for it, beside the agent's own
    qint64 stackBytes = 0;              // the limit of its stack; 0: the agent's own
    qint64 memoryBytes = 0;             // the limit of its memory with that; 0: the agent's own
    int milliseconds = 0;               // after which it is killed; 0: the ten minutes of run
    // Whether no link below /home leads anywhere for it (see common/OwnMounts.h): for what walks as root where accounts
    // may swap a folder for a link at any moment. Where the kernel cannot do that it runs all the same.
    bool linksLeadNowhere = false;
    std::function<bool()> goesOn; // asked twice a second while it runs; once it says no it is killed
    QByteArray loginDefs;         // the path of a file that it finds in the place of /etc/login.defs; empty: none
};

// As run, with these streams and surroundings. A program that prints more than is received is killed, and counts as one
// that printed nothing and ended well.
QString runWith(const QString &program, const QStringList &args, const Streams &streams,
                const Surroundings &surroundings = {});

// As run, for a tool that works as root in homes: in surroundings in which links there lead nowhere.
QString runInHomes(const QString &program, const QStringList &args, QByteArray *out = nullptr);

// Runs the program and arguments in args as an account's user, input and out as in run, but for 10 s at most: it is for
// tools that end at once, unless the user holds them up. Returns the runner's message.
QString asUser(const QString &user, const QStringList &args, const QByteArray &input = {}, QByteArray *out = nullptr);

// The messages that are not empty, in order, joined with "; ".
QString joined(QStringList messages);

} // namespace corv::hosting
