#include "agent/backup/Backup.h"
#include "agent/backup/Relay.h"
#include "agent/backup/Scratch.h"
#include "agent/backup/Trailer.h"
#include "agent/hosting/Existing.h"
#include "agent/postgres/Server.h"
#include "common/Account.h"
#include "common/Apart.h"
#include "common/BackupFolders.h"
#include "common/Child.h"
#include "common/Environment.h"
#include "common/Paths.h"
#include "common/Run.h"

#include <QFileInfo>
#include <QMap>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>

#include <csignal>

using namespace Qt::Literals::StringLiterals;

namespace corv::backup {
namespace {

#ifdef CORV_SHORT_TIMEOUTS
constexpr int kConsumerMs = 2'000;
constexpr int kReaderMs = 1'000;
#else
constexpr int kConsumerMs = 3'600'000;
constexpr int kReaderMs = 5'000;
#endif

// Reads and writes of 64 KiB instead of 10: what tar unpacks comes through pipes, and each turn costs two processes.
const auto kTarOptions = u"--blocking-factor=128"_s;

constexpr qsizetype kErrorLength = 500;
// A consumer that floods its standard error must not fill root's memory; the end of it is what matters.
constexpr qsizetype kKeptErrorBytes = 1'048'576;

// How the two ends of a stream fared.
struct Stream
{
    bool tookTooLong = false;
    bool wasRead = false;     // the whole file
    bool wasConsumed = false; // the consumer ended well
    QString complaint;        // the end of what the consumer wrote to its standard error
};

// Waits for the end of a program that has been started. False when it takes longer or could not be started.
bool hasFinished(QProcess &process, int milliseconds)
{
    return waitForEnd(process, milliseconds) && process.error() != QProcess::FailedToStart;
}

bool succeeded(const QProcess &process)
{
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

void setEnvironment(QProcess &process, const QMap<QString, QString> &variables)
{
    QProcessEnvironment environment = process.processEnvironment();
    for (auto entry = variables.cbegin(); entry != variables.cend(); ++entry)
        environment.insert(entry.key(), entry.value());
    process.setProcessEnvironment(environment);
}

// Streams a file that root alone may read into a program that runs under lesser rights, straight from one process to
// the other. args: what runuser is given; environment: what it has beside the agent's.
Stream pipe(const QString &file, const QStringList &args, const QMap<QString, QString> &environment = {})
{
    // Found out before the attempt, since a failed one costs the process object a descriptor (Qt 6.4).
    for (const QString &program : {u"cat"_s, u"runuser"_s}) {
        if (QStandardPaths::findExecutable(program).isEmpty())
            return {true, false, false, {}};
    }

    QProcess consumer; // outlives the reader, which holds on to it
    QProcess reader;
    prepareChild(reader);
    prepareChild(consumer);
    reader.setStandardInputFile(QProcess::nullDevice());
    reader.setStandardErrorFile(QProcess::nullDevice());
    reader.setStandardOutputProcess(&consumer);
    consumer.setStandardOutputFile(QProcess::nullDevice());
    setEnvironment(consumer, environment);

    QByteArray errors;
    QObject::connect(&consumer, &QProcess::readyReadStandardError, &consumer, [&] {
        errors += consumer.readAllStandardError();
        if (errors.size() > 2 * kKeptErrorBytes)
            errors = errors.right(kKeptErrorBytes);
    });

    reader.start(u"cat"_s, {file});
    consumer.start(u"runuser"_s, args);
    const auto group = static_cast<pid_t>(consumer.processId());
    if (!hasFinished(consumer, kConsumerMs) || !hasFinished(reader, kReaderMs)) {
        killGroup(consumer);
        killGroup(reader);
        // What the consumer started may hold the stream open after its own end, which took its number from the object.
        if (group > 0)
            ::kill(-group, SIGKILL);
        return {true, false, false, {}};
    }
    return {false, succeeded(reader), succeeded(consumer), QString::fromUtf8(errors).trimmed().right(kErrorLength)};
}

// Why a stream failed; empty when it did not, or when the consumer alone did, and without a word.
QString problemOf(const Stream &stream)
{
    if (stream.tookTooLong)
        return u"took too long"_s;
    if (!stream.wasRead)
        return u"cannot read the backup file"_s;
    return stream.wasConsumed ? QString() : stream.complaint;
}

// The path of an account's file in a backup, empty when there is none, or the disk does not answer. Neither it nor a
// folder of the backup may be a link: root reads nothing that lies elsewhere.
QString savedFile(const Config &config, const QString &backup, const QString &name)
{
    if (!isAnswering(config.destination))
        return {};
    const QFileInfo folder(u"%1/%2"_s.arg(config.destination, backup));
    const QFileInfo accounts(folder.filePath() + u"/accounts"_s);
    const QFileInfo file(u"%1/%2"_s.arg(accounts.filePath(), name));
    const bool linked = folder.isSymLink() || accounts.isSymLink() || file.isSymLink();
    return file.isFile() && !linked ? file.filePath() : QString();
}

Reply restoreFiles(const QString &user, const QString &backup, const QString &archive)
{
    if (archive.isEmpty())
        return fail(u"that backup has no files for "_s + user);
    const QString name = u"restored-"_s + backup;
    const QString target = hosting::homePath(user) + u'/' + name;
    if (exists(target))
        return fail(name + u" exists already in the home folder"_s);

    // Made and filled under the account's own rights: whatever its owner puts in the way leads nowhere else.
    if (const QString error = hosting::asUser(user, {u"mkdir"_s, target}); !error.isEmpty())
        return fail(error);
    // The tar is ours although it runs as the account: no shell, and nothing of the account's, comes to see its PATH.
    const QMap<QString, QString> tools = toolsVariables();
    QMap<QString, QString> environment = tools;
    environment.insert(u"TAR_OPTIONS"_s, kTarOptions);
    const Stream stream = pipe(archive,
                               {u"-u"_s, user, u"--"_s, u"tar"_s, u"-xzf"_s, u"-"_s, u"-C"_s, target,
                                u"--strip-components=1"_s, u"--no-same-owner"_s},
                               environment);
    QString error = problemOf(stream);
    if (error.isEmpty() && !tools.isEmpty())
        error = problemBehind(archive); // which a compressor of ours keeps to itself
    if (!error.isEmpty())
        return fail(u"unpacking stopped (over the disk limit?): "_s + error);

    return {{u"ok"_s, true}, {u"restoredTo"_s, target}};
}

// Why what pg_restore did is not to take the live database's place, empty when it is.
//
// pg_restore goes on after an error and exits non-zero for the least of them, such as a role that this server does not
// have. What it brought back is worth more than none, so its own complaints do not count. A server that does not let it
// in, or a connection that ends early, has brought nothing or a part.
QString problemOfLoad(const Stream &stream, const Passage &passage)
{
    if (!stream.tookTooLong && passage.end == Passage::End::Refused)
        return passage.reason;
    if (stream.tookTooLong || !stream.wasRead)
        return problemOf(stream);
    if (passage.end == Passage::End::Broken)
        return passage.reason;
    // It never came as far as the server: the dump is none, or the way to the server did not bear.
    const bool hasLoadedNothing = passage.end == Passage::End::Unused && !stream.wasConsumed;
    if (hasLoadedNothing && !postgres::serverSocket().isEmpty())
        return stream.complaint.isEmpty() ? u"pg_restore did not begin"_s : stream.complaint;
    return {};
}

// Loads a dump into the scratch database, as the account's own role.
QString load(const QString &user, const QString &dump)
{
    Lesser relay;
    if (const QString problem = openRelay(user, &relay); !problem.isEmpty())
        return problem;
    letIntoScratch(user, true);
    const Stream stream = pipe(dump, {u"-u"_s, u"postgres"_s, u"--"_s, u"pg_restore"_s, u"-d"_s, user + u"__restore"_s},
                               relay.id < 0 ? QMap<QString, QString>() : relayEnvironment(user));
    const Passage passage = closeRelay(&relay);
    letIntoScratch(user, false);
    return problemOfLoad(stream, passage);
}

// Loads a dump into the scratch database and leaves nobody in it, nor a way for the account's role to get in. Returns
// why it may not be swapped in, empty when it may. taken: see shutOwnerOut.
QString fillScratch(const QString &user, const QString &dump, QByteArray *taken)
{
    // Others could come into it until its rights were taken from them: whoever did must not stay.
    if (const QString problem = clearScratch(user); !problem.isEmpty())
        return problem;
    if (const QString problem = checkFresh(user); !problem.isEmpty())
        return problem;
    if (const QString problem = load(user, dump); !problem.isEmpty())
        return problem;
    if (const QString problem = shutOwnerOut(user, taken); !problem.isEmpty())
        return problem;
    return clearScratch(user);
}

Reply restoreDatabase(const QString &user, const QString &dump)
{
    static const auto kept = u"the restore failed, so the current database was left as it is: "_s;
    if (dump.isEmpty())
        return fail(u"that backup has no database for "_s + user);
    if (const QString problem = checkBefore(user); !problem.isEmpty())
        return fail(kept + problem);
    if (const QString error = prepareScratch(user); !error.isEmpty())
        return fail(error);

    QByteArray taken;
    if (const QString problem = fillScratch(user, dump, &taken); !problem.isEmpty()) {
        (void)dropScratch(user); // the next restore drops what is left
        return fail(kept + hosting::joined({problem, letOwnerIn(user, taken)}));
    }

    const QString swapped = swapScratchIn(user);
    if (const QString error = hosting::joined({swapped, letOwnerIn(user, taken)}); !error.isEmpty())
        return fail(u"restored, but swapping it in failed: "_s + error);
    return result({});
}

} // namespace

Reply restore(const Config &config, const QJsonObject &args)
{
    QString user;
    if (const QString problem = hosting::checkExisting(args, &user); !problem.isEmpty())
        return fail(problem);
    const QString backup = args.value("backup"_L1).toString();
    if (!isBackupName(backup))
        return fail(u"no such backup"_s);
    const QString what = args.value("what"_L1).toString();
    if (what != "files"_L1 && what != "database"_L1)
        return fail(u"what: files or database"_s);

    if (what == "files"_L1)
        return restoreFiles(user, backup, savedFile(config, backup, user + u"-home.tar.gz"_s));
    return restoreDatabase(user, savedFile(config, backup, user + u"-db.dump"_s));
}

} // namespace corv::backup
