#include "ctl/verify/Verify.h"

#include "common/BackupManifest.h"
#include "common/InHand.h"
#include "ctl/Interrupt.h"
#include "ctl/verify/Proof.h"
#include "ctl/verify/Reader.h"

#include <QDeadlineTimer>
#include <QFileInfo>
#include <QThread>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kPatienceMs = 600'000;
constexpr unsigned kLookMs = 250;
constexpr qint64 kManifestBudget = 67'108'864;
constexpr qint64 kWeekSeconds = 604'800;

// What the programs do here takes processors and disks from the request that is in hand.
void giveWay()
{
    const QDeadlineTimer patience(kPatienceMs);
    while (readInHand(kInHandPath) && !patience.hasExpired() && !interrupted())
        QThread::msleep(kLookMs);
}

bool isDump(const Holding &holding)
{
    return holding.kind == Holding::Kind::Database || holding.kind == Holding::Kind::Panel;
}

std::optional<QString> faultOf(const Holding &holding, const QString &path, const Bounds &bounds)
{
    switch (holding.kind) {
    case Holding::Kind::Home:
        return faultOfHome(path, holding.account, bounds);
    case Holding::Kind::Database:
        return faultOfDatabase(path, holding.account, bounds);
    case Holding::Kind::Panel:
        return faultOfDatabase(path, u"corvane"_s, bounds);
    case Holding::Kind::Settings:
        break;
    }
    return faultOfArchive(path, bounds);
}

// Reads one file to its end, and restores it where that is wanted.
FileVerdict look(const Holding &holding, const Search &search)
{
    const QString path = u"%1/%2/%3"_s.arg(search.destination, search.backup, holding.file);
    FileVerdict found;
    found.file = holding.file;
    found.checked = search.now;
    const SavedFile saved = openSaved(path);
    found.bytes = saved.bytes;
    if (saved.fault.isEmpty() && holding.bytes >= 0 && saved.bytes != holding.bytes)
        found.fault = u"has %1 bytes, and %2 when it was made"_s.arg(QString::number(saved.bytes),
                                                                     QString::number(holding.bytes));
    else
        found.fault = faultOf(holding, path, search.bounds).value_or(QString());
    if (!search.deep || !isDump(holding) || !found.fault.isEmpty())
        return found;

    const Proof proof = proveDump(path, search.bounds);
    found.fault = proof.fault;
    found.note = proof.note;
    found.tables = proof.tables;
    found.rows = proof.rows;
    if (proof.note.isEmpty())
        found.proved = search.now;
    return found;
}

// Those that are to be looked at.
QList<Holding> wanted(const QList<Holding> &all, const Search &search)
{
    if (!search.deep || !search.dueAlone)
        return all;
    const auto dumps = std::count_if(all.cbegin(), all.cend(), isDump);
    QList<Holding> due;
    std::copy_if(all.cbegin(), all.cend(), std::back_inserter(due), [&](const Holding &holding) {
        return isDump(holding) && isDue(holding, dumps, search.now / kWeekSeconds);
    });
    return due;
}

// The folders on the way to a backup's files must be what they seem: root reads nothing that lies elsewhere.
bool isLinked(const QString &folder)
{
    return QFileInfo(folder).isSymLink() || QFileInfo(folder + u"/accounts"_s).isSymLink();
}

} // namespace

Verdict verifyBackup(const Search &search, QString *problem)
{
    const QString folder = search.destination + u'/' + search.backup;
    Verdict verdict = readVerdict(search.destination, search.backup).value_or(Verdict{search.backup, 0, {}});
    qint64 budget = kManifestBudget;
    const QJsonObject manifest = backup::readManifest(folder, &budget);
    QList<FileVerdict> found;
    FileVerdict list;
    list.file = u"manifest.json"_s;
    list.checked = search.now;
    if (isLinked(folder))
        list.fault = u"and the files beside it lie behind a link"_s;
    else if (!manifest.contains("accounts"_L1))
        list.fault = u"is missing or damaged: nothing tells what the backup has to hold"_s;
    found.append(list);

    const QList<Holding> all = list.fault.isEmpty() ? wanted(holdingsIn(manifest), search) : QList<Holding>();
    for (const Holding &holding : all) {
        giveWay();
        if (interrupted())
            break;
        if (search.progress)
            search.progress(holding.file, found.size() - 1, all.size());
        const FileVerdict one = look(holding, search);
        if (!interrupted())
            found.append(one);
    }
    // Cleared away meanwhile, by the run of a backup: no fault.
    if (!QFileInfo::exists(folder)) {
        *problem = u"the backup %1 is not there any more"_s.arg(search.backup);
        return verdict;
    }
    merge(found, &verdict);
    if (found.size() == all.size() + 1 && !(search.deep && search.dueAlone)) {
        verdict.checked = search.now;
        // What it was asked to hold once, and is not any more, is nothing to be told of.
        verdict.files.removeIf([&found](const FileVerdict &one) {
            return std::none_of(found.cbegin(), found.cend(),
                                [&one](const FileVerdict &fresh) { return fresh.file == one.file; });
        });
    }
    if (!keepVerdict(search.destination, verdict))
        *problem = u"cannot write "_s + verdictPath(search.destination, search.backup);
    return verdict;
}

} // namespace corv::ctl
