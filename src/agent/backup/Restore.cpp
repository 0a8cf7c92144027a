#include "agent/backup/Backup.h"
#include "agent/hosting/Existing.h"
#include "agent/hosting/Psql.h"
#include "common/Account.h"
#include "common/BackupFolders.h"
#include "common/Child.h"
#include "common/Paths.h"
#include "common/Run.h"

#include <QFileInfo>
#include <QProcess>
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

constexpr qsizetype kErrorLength = 500;
// A consumer that floods its standard error must not fill root's memory; the end of it is what matters.
constexpr qsizetype kKeptErrorBytes = 1'048'576;

// Whether what the consumer of a stream complains of makes the restore fail.
enum class Complaints { Fail, Pass };

// Waits for the end of a program that has been started. False when it takes longer or could not be started.
bool hasFinished(QProcess &process, int milliseconds)
{
    return waitForEnd(process, milliseconds) && process.error() != QProcess::FailedToStart;
}

bool succeeded(const QProcess &process)
{
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

// Streams a file that root alone may read into a program that runs under lesser rights, straight from one process to
// the other. args: what runuser is given. Returns an empty text on success, else why it failed; what the consumer
// itself fails with counts only where its complaints do.
QString pipe(const QString &file, const QStringList &args, Complaints complaints)
{
    // Found out before the attempt, since a failed one costs the process object a descriptor (Qt 6.4).
    for (const QString &program : {u"cat"_s, u"runuser"_s}) {
        if (QStandardPaths::findExecutable(program).isEmpty())
            return u"took too long"_s;
    }

    QProcess consumer; // outlives the reader, which holds on to it
    QProcess reader;
    prepareChild(reader);
    prepareChild(consumer);
    reader.setStandardInputFile(QProcess::nullDevice());
    reader.setStandardErrorFile(QProcess::nullDevice());
    reader.setStandardOutputProcess(&consumer);
    consumer.setStandardOutputFile(QProcess::nullDevice());

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
        return u"took too long"_s;
    }

    if (!succeeded(reader))
        return u"cannot read the backup file"_s;
    if (succeeded(consumer) || complaints == Complaints::Pass)
        return {};
    return QString::fromUtf8(errors).trimmed().right(kErrorLength);
}

// The path of an account's file in a backup, empty when there is none. Neither it nor a folder of the backup may be a
// link: root reads nothing that lies elsewhere.
QString savedFile(const Config &config, const QString &backup, const QString &name)
{
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
    if (const QString error = pipe(archive,
                                   {u"-u"_s, user, u"--"_s, u"tar"_s, u"-xzf"_s, u"-"_s, u"-C"_s, target,
                                    u"--strip-components=1"_s, u"--no-same-owner"_s},
                                   Complaints::Fail);
        !error.isEmpty())
        return fail(u"unpacking stopped (over the disk limit?): "_s + error);

    return {{u"ok"_s, true}, {u"restoredTo"_s, target}};
}

QString runScript(const QString &user, const QString &statements)
{
    static const auto names = uR"(\set u '%1'
\set tmp '%1__restore'
\set old '%1__old'
)"_s;
    return hosting::psql((names.arg(user) + statements).toLatin1());
}

QString prepareScratch(const QString &user)
{
    return runScript(user, uR"(SELECT format('DROP DATABASE IF EXISTS %I WITH (FORCE)', :'tmp') \gexec
SELECT format('CREATE DATABASE %I OWNER %I', :'tmp', :'u') \gexec
SELECT format('REVOKE ALL ON DATABASE %I FROM PUBLIC', :'tmp') \gexec
)"_s);
}

QString dropScratch(const QString &user)
{
    return runScript(user, uR"(SELECT format('DROP DATABASE IF EXISTS %I WITH (FORCE)', :'tmp') \gexec
)"_s);
}

// Puts the scratch database in the live one's place. The script ends at its first failure: up to the first rename that
// leaves the live database as it was, after it under the name with __old.
QString swapScratchIn(const QString &user)
{
    return runScript(user, uR"(SELECT format('DROP DATABASE IF EXISTS %I WITH (FORCE)', :'old') \gexec
SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = :'u';
SELECT format('ALTER DATABASE %I RENAME TO %I', :'u', :'old') \gexec
SELECT format('ALTER DATABASE %I RENAME TO %I', :'tmp', :'u') \gexec
SELECT format('DROP DATABASE %I WITH (FORCE)', :'old') \gexec
)"_s);
}

Reply restoreDatabase(const QString &user, const QString &dump)
{
    if (dump.isEmpty())
        return fail(u"that backup has no database for "_s + user);
    if (const QString error = prepareScratch(user); !error.isEmpty())
        return fail(error);

    // pg_restore goes on after an error and exits non-zero for the least of them, such as a role that this server does
    // not have. What it brought back is worth more than none.
    if (const QString error = pipe(
            dump, {u"-u"_s, u"postgres"_s, u"--"_s, u"pg_restore"_s, u"-d"_s, user + u"__restore"_s}, Complaints::Pass);
        !error.isEmpty()) {
        (void)dropScratch(user); // the next restore drops what is left
        return fail(u"the restore failed, so the current database was left as it is: "_s + error);
    }

    if (const QString error = swapScratchIn(user); !error.isEmpty())
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
