#include "ctl/verify/Verdict.h"

#include "common/AtomicFile.h"
#include "common/BackupFolders.h"
#include "common/Fd.h"
#include "common/Json.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>

#include <algorithm>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr mode_t kMode = 0600;
constexpr qint64 kLargest = 67'108'864;
const auto kEnding = u".verified.json"_s;

QJsonObject objectOf(const FileVerdict &one)
{
    QJsonObject object = {
        {u"file"_s, one.file}, {u"bytes"_s, one.bytes}, {u"checked"_s, one.checked}, {u"fault"_s, one.fault}};
    if (one.proved != 0) {
        object.insert(u"proved"_s, one.proved);
        object.insert(u"tables"_s, one.tables);
        object.insert(u"rows"_s, one.rows);
    }
    if (!one.note.isEmpty())
        object.insert(u"note"_s, one.note);
    return object;
}

FileVerdict fileVerdictIn(const QJsonObject &object)
{
    return {object.value("file"_L1).toString(),     object.value("bytes"_L1).toInteger(),
            object.value("checked"_L1).toInteger(), object.value("fault"_L1).toString(),
            object.value("proved"_L1).toInteger(),  object.value("tables"_L1).toInt(),
            object.value("rows"_L1).toInteger(),    object.value("note"_L1).toString()};
}

} // namespace

QString verdictPath(const QString &destination, const QString &backup)
{
    return destination + u'/' + backup + kEnding;
}

std::optional<Verdict> readVerdict(const QString &destination, const QString &backup)
{
    if (!backup::isBackupName(backup))
        return {};
    const Fd found(::open(QFile::encodeName(verdictPath(destination, backup)).constData(),
                          O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (!found || ::fstat(found.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size > kLargest)
        return {};
    QFile file;
    if (!file.open(found.get(), QIODevice::ReadOnly))
        return {};
    const QJsonObject object = parseObject(file.read(kLargest));
    if (object.value("backup"_L1).toString() != backup)
        return {};
    return verdictIn(object);
}

bool keepVerdict(const QString &destination, const Verdict &verdict)
{
    return replaceFile(verdictPath(destination, verdict.backup), compactJson(objectOf(verdict)) + '\n', kMode);
}

void clearVerdicts(const QString &destination)
{
    for (const QString &name : QDir(destination).entryList({u'*' + kEnding}, QDir::Files)) {
        const QString backup = name.chopped(kEnding.size());
        if (backup::isBackupName(backup) && !QFileInfo::exists(destination + u'/' + backup))
            (void)QFile::remove(destination + u'/' + name); // the next one does it
    }
}

QJsonObject objectOf(const Verdict &verdict)
{
    QJsonArray files;
    for (const FileVerdict &one : verdict.files)
        files.append(objectOf(one));
    return {{u"backup"_s, verdict.backup},
            {u"checked"_s, verdict.checked},
            {u"faults"_s, QJsonArray::fromStringList(faultsIn(verdict))},
            {u"files"_s, files}};
}

Verdict verdictIn(const QJsonObject &object)
{
    Verdict verdict = {object.value("backup"_L1).toString(), object.value("checked"_L1).toInteger(), {}};
    for (const auto &value : object.value("files"_L1).toArray())
        verdict.files.append(fileVerdictIn(value.toObject()));
    return verdict;
}

QStringList faultsIn(const Verdict &verdict)
{
    QStringList faults;
    for (const FileVerdict &one : verdict.files) {
        if (!one.fault.isEmpty())
            faults.append(one.file + u' ' + one.fault);
    }
    return faults;
}

void merge(const QList<FileVerdict> &found, Verdict *verdict)
{
    for (const FileVerdict &fresh : found) {
        const auto known = std::find_if(verdict->files.begin(), verdict->files.end(),
                                        [&fresh](const FileVerdict &one) { return one.file == fresh.file; });
        if (known == verdict->files.end()) {
            verdict->files.append(fresh);
            continue;
        }
        // A proof stays one when the file is read again, as long as it is whole.
        FileVerdict merged = fresh;
        if (fresh.proved == 0 && fresh.note.isEmpty() && fresh.fault.isEmpty()) {
            merged.proved = known->proved;
            merged.tables = known->tables;
            merged.rows = known->rows;
            merged.note = known->note;
            merged.fault = known->proved != 0 ? known->fault : QString();
        }
        *known = merged;
    }
}

} // namespace corv::ctl
