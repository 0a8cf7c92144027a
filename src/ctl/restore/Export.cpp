#include "ctl/restore/Export.h"

#include "common/Account.h"
#include "common/Archiver.h"
#include "common/AtomicFile.h"
#include "common/BackupManifest.h"
#include "common/Fd.h"
#include "common/Run.h"
#include "common/Tree.h"
#include "common/Trust.h"
#include "ctl/Interrupt.h"
#include "ctl/restore/Collect.h"
#include "ctl/restore/Kept.h"
#include "ctl/verify/Fault.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr mode_t kFileMode = 0600;
constexpr mode_t kFolderMode = 0700;
constexpr int kLongestMs = 12 * 3'600'000;
// What tar says of a file that was being written to while it was saved, which is saved all the same, and of one that
// its owner had removed by then.
constexpr std::array kHarmless = {"file changed as we read it"_L1, "File removed before we read it"_L1};

// Makes the folder where nobody else could put another in its place. Returns why it cannot be made, empty when it is.
QString makeFolder(const QString &folder)
{
    const QString parent = QFileInfo(folder).path();
    struct stat status = {};
    if (::stat(QFile::encodeName(parent).constData(), &status) != 0 || !S_ISDIR(status.st_mode))
        return u"%1 is no folder"_s.arg(parent);
    if (const QString foreign = foreignFolder(QDir::cleanPath(parent) + u"/."_s); !foreign.isEmpty())
        return u"others than root may write to %1"_s.arg(foreign);
    if (::mkdir(QFile::encodeName(folder).constData(), kFolderMode) != 0 ||
        ::mkdir(QFile::encodeName(folder + u"/accounts"_s).constData(), kFolderMode) != 0)
        return u"%1 cannot be made: %2"_s.arg(folder, QString::fromLocal8Bit(std::strerror(errno)));
    return {};
}

bool isHarmless(const QString &line)
{
    return std::any_of(kHarmless.cbegin(), kHarmless.cend(),
                       [&line](QLatin1StringView end) { return line.endsWith(end, Qt::CaseInsensitive); });
}

QString saveHome(const QString &account, const QString &file, QStringList *notes)
{
    hosting::Surroundings surroundings = hosting::archiverSurroundings();
    surroundings.milliseconds = kLongestMs;
    surroundings.goesOn = [] { return !interrupted(); };
    const QString problem =
        hosting::runWith(u"tar"_s, {u"-czf"_s, file, u"--exclude=%1/tmp"_s.arg(account), u"-C"_s, u"/home"_s, account},
                         {}, surroundings);
    const QStringList lines = problem.split(u'\n', Qt::SkipEmptyParts);
    if (!lines.isEmpty() && std::all_of(lines.cbegin(), lines.cend(), isHarmless)) {
        notes->append(u"some files were being written to, or removed, while they were saved"_s);
        return {};
    }
    return problem;
}

QString saveDatabase(const QString &account, const QString &file)
{
    hosting::Streams streams;
    streams.outputPath = file;
    hosting::Surroundings surroundings;
    surroundings.milliseconds = kLongestMs;
    surroundings.goesOn = [] { return !interrupted(); };
    return hosting::runWith(u"runuser"_s, {u"-u"_s, u"postgres"_s, u"--"_s, u"pg_dump"_s, u"-Fc"_s, account}, streams,
                            surroundings);
}

QString saveState(const QString &account, const QString &folder, const backup::Manifest &manifest)
{
    QString problem;
    for (const AccountState &state : collectStates(&problem)) {
        if (state.username == account && problem.isEmpty() &&
            replaceFile(folder + u'/' + kStateFile, stateLine(state), kFileMode) &&
            replaceFile(folder + u"/manifest.json"_s, backup::manifestText(manifest), kFileMode))
            return {};
    }
    return problem.isEmpty() ? u"its state cannot be written down"_s : problem;
}

QString checkArchives(const QString &account, const QString &home, const QString &dump)
{
    if (const auto fault = faultOfHome(home, account, {}))
        return u"%1 %2"_s.arg(home, *fault);
    if (const auto fault = faultOfDatabase(dump, account, {}))
        return u"%1 %2"_s.arg(dump, *fault);
    return {};
}

} // namespace

Exported exportAccount(const QString &account, const QString &folder)
{
    Exported done;
    done.problem = makeFolder(folder);
    if (!done.problem.isEmpty())
        return done;
    const InterruptGuard guard;
    QElapsedTimer clock;
    clock.start();
    // Made closed to others from the beginning on.
    const mode_t before = ::umask(S_IRWXG | S_IRWXO);
    const QString base = u"%1/accounts/%2"_s.arg(folder, account);
    const QString home = base + u"-home.tar.gz"_s;
    const QString dump = base + u"-db.dump"_s;
    done.problem = saveHome(account, home, &done.notes);
    if (done.problem.isEmpty() && !interrupted())
        done.problem = saveDatabase(account, dump);
    if (done.problem.isEmpty() && !interrupted())
        done.problem = checkArchives(account, home, dump);
    done.homeBytes = QFileInfo(home).size();
    done.dumpBytes = QFileInfo(dump).size();
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    if (done.problem.isEmpty() && !interrupted())
        done.problem = saveState(account, folder,
                                 {QFileInfo(folder).fileName(),
                                  now,
                                  clock.elapsed() / 1000,
                                  {{account, hosting::domainOf(account), done.homeBytes, done.dumpBytes}},
                                  0,
                                  {}});
    ::umask(before);
    if (interrupted())
        done.problem = u"it was interrupted"_s;
    // What is not whole is not to be taken for an export.
    if (!done.problem.isEmpty())
        (void)removeTree(AT_FDCWD, QFile::encodeName(folder).constData());
    return done;
}

} // namespace corv::ctl
