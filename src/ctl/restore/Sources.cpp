#include "ctl/restore/Sources.h"

#include "common/Account.h"
#include "common/Archives.h"
#include "common/BackupFolders.h"
#include "common/BackupManifest.h"
#include "common/Trust.h"
#include "ctl/restore/Kept.h"
#include "ctl/verify/Verdict.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qint64 kLargestManifest = 16'777'216;
constexpr auto kHomeEnd = "-home.tar.gz"_L1;
constexpr auto kDumpEnd = "-db.dump"_L1;

QString fileAt(const QString &path)
{
    const QFileInfo file(path);
    return file.isFile() && !file.isSymLink() ? path : QString();
}

// Where a folder has the archives: in accounts, as a backup has them, or, of a single account, in itself. Empty where
// that is a link.
QString insideOf(const QString &folder)
{
    const QFileInfo accounts(folder + u"/accounts"_s);
    if (accounts.isSymLink())
        return {};
    return accounts.isDir() ? accounts.filePath() : folder;
}

// What lies at the beginnings of names; nothing where neither archive does.
std::optional<Source> sourceAt(const QString &base, const QString &state)
{
    Source source;
    source.home = fileAt(base + kHomeEnd);
    source.dump = fileAt(base + kDumpEnd);
    source.state = fileAt(state);
    if (source.home.isEmpty() && source.dump.isEmpty())
        return {};
    source.homeBytes = QFileInfo(source.home).size();
    source.dumpBytes = QFileInfo(source.dump).size();
    source.made = QFileInfo(source.home.isEmpty() ? source.dump : source.home).lastModified().toSecsSinceEpoch();
    return source;
}

std::optional<Source> deletionOf(const DeletionArchives &archives)
{
    const QString name = archives.account + u'-' + archives.stamp;
    const QString base = QFileInfo(archives.home.isEmpty() ? archives.dump : archives.home).path() + u'/' + name;
    std::optional<Source> source = sourceAt(base, stateBeside(base));
    if (!source)
        return {};
    source->kind = Source::Kind::Deletion;
    source->from = name;
    source->account = archives.account;
    if (const QDateTime began = QDateTime::fromString(archives.stamp, u"yyyyMMdd-HHmmss"_s); began.isValid())
        source->made = began.toSecsSinceEpoch();
    return source;
}

// What the names of archives have in common, of one of them, of that itself, or of "BASE-*" as the agent writes it.
QString baseOf(const QString &path)
{
    for (const QString &end : {QString(kHomeEnd), QString(kDumpEnd), u'-' + kStateFile, u"-*"_s}) {
        if (path.endsWith(end))
            return path.chopped(end.size());
    }
    return path;
}

// What lies at a path: in a folder, or at the beginning of the archives' names. Nothing where that is not of the
// account.
std::optional<Source> sourceAtPath(const QString &account, const QString &from)
{
    if (QFileInfo(from).isDir())
        return sourceIn(QDir::cleanPath(QDir::current().absoluteFilePath(from)), account);
    const QString base = QDir::cleanPath(QDir::current().absoluteFilePath(baseOf(from)));
    const QString name = base.section(u'/', -1);
    if (name != account && !name.startsWith(account + u'-'))
        return {};
    std::optional<Source> source = sourceAt(base, stateBeside(base));
    if (source) {
        source->account = account;
        source->from = base;
    }
    return source;
}

// What was found out of a backup's archives of an account.
void addVerdict(const QString &destination, Source *source)
{
    const std::optional<Verdict> verdict = readVerdict(destination, source->from);
    QList<qint64> times;
    for (const QString &path : {source->home, source->dump}) {
        for (const FileVerdict &file : verdict.value_or(Verdict()).files) {
            if (path.isEmpty() || !path.endsWith(u'/' + file.file))
                continue;
            times.append(file.checked);
            if (source->fault.isEmpty() && !file.fault.isEmpty())
                source->fault = u"%1 %2"_s.arg(file.file, file.fault);
        }
    }
    const bool isBoth = times.size() == (source->home.isEmpty() ? 0 : 1) + (source->dump.isEmpty() ? 0 : 1);
    source->checked = isBoth ? *std::min_element(times.cbegin(), times.cend()) : 0;
}

} // namespace

std::optional<Source> sourceIn(const QString &folder, const QString &account)
{
    const QString inside = insideOf(folder);
    if (inside.isEmpty() || !hosting::validUsername(account))
        return {};
    std::optional<Source> source = sourceAt(inside + u'/' + account, folder + u'/' + kStateFile);
    if (!source)
        return {};
    source->from = folder;
    source->account = account;
    qint64 budget = kLargestManifest;
    const QJsonObject manifest = backup::readManifest(folder, &budget);
    for (const auto &value : manifest.value("accounts"_L1).toArray()) {
        const QJsonObject saved = value.toObject();
        if (saved.value("username"_L1).toString() == account)
            source->domain = saved.value("domain"_L1).toString();
    }
    if (const qint64 created = manifest.value("created"_L1).toInteger(); created > 0)
        source->made = created;
    return source;
}

QList<Source> sourcesOf(const backup::Config &config, const QString &account)
{
    QList<Source> sources;
    for (const backup::Folder &folder : backup::foldersIn(config.destination)) {
        const QString name = QString::fromLatin1(folder.name);
        if (!backup::isBackupName(name) || backup::timeOf(name) == 0)
            continue;
        if (std::optional<Source> source = sourceIn(config.destination + u'/' + name, account)) {
            source->kind = Source::Kind::Backup;
            source->from = name;
            source->made = backup::timeOf(name);
            addVerdict(config.destination, &*source);
            sources.append(*source);
        }
    }
    for (const DeletionArchives &archives : deletionArchives(kArchives, account)) {
        if (const std::optional<Source> source = deletionOf(archives))
            sources.append(*source);
    }
    std::stable_sort(sources.begin(), sources.end(),
                     [](const Source &one, const Source &other) { return one.made > other.made; });
    // The archives of a deletion do not tell the domain; the newest backup does.
    QString domain;
    for (const Source &source : sources) {
        if (domain.isEmpty())
            domain = source.domain;
    }
    for (Source &source : sources) {
        if (source.domain.isEmpty())
            source.domain = domain;
    }
    return sources;
}

std::optional<Source> findSource(const backup::Config &config, const QString &account, const QString &from,
                                 QString *problem)
{
    std::optional<Source> source;
    if (!from.contains(u'/')) {
        for (const Source &one : sourcesOf(config, account)) {
            if (one.from == baseOf(from))
                source = one;
        }
    }
    // An export takes a bare name for a path too.
    if (!source)
        source = sourceAtPath(account, from);
    if (!source)
        *problem = u"%1 holds nothing of %2"_s.arg(from, account);
    else
        *problem = refusalOf(*source);
    return problem->isEmpty() ? source : std::nullopt;
}

QStringList accountsKnown(const backup::Config &config)
{
    QStringList names;
    for (const backup::Folder &folder : backup::foldersIn(config.destination)) {
        const QString name = QString::fromLatin1(folder.name);
        if (backup::isBackupName(name) && backup::timeOf(name) != 0)
            names += accountsIn(config.destination + u'/' + name);
    }
    for (const DeletionArchives &archives : deletionArchives(kArchives, QString()))
        names.append(archives.account);
    names.removeDuplicates();
    names.sort();
    return names;
}

QStringList accountsIn(const QString &folder)
{
    QStringList names;
    for (const QString &file : QDir(insideOf(folder)).entryList(QDir::Files | QDir::NoSymLinks, QDir::Name)) {
        for (const QString &end : {QString(kHomeEnd), QString(kDumpEnd)}) {
            const QString name = file.endsWith(end) ? file.chopped(end.size()) : QString();
            if (hosting::validUsername(name) && !names.contains(name))
                names.append(name);
        }
    }
    return names;
}

QString refusalOf(const Source &source)
{
    for (const QString &path : {source.home, source.dump, source.state}) {
        const QString refusal = path.isEmpty() ? QString() : refusalOfFile(path);
        if (!refusal.isEmpty())
            return refusal;
    }
    return {};
}

} // namespace corv::ctl
