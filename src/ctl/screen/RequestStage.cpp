#include "ctl/screen/RequestStage.h"

#include "common/Archives.h"
#include "ctl/screen/Terminal.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <optional>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

struct Part
{
    qint64 done = 0;   // bytes
    qint64 total = -1; // negative where it is not known
};

// The archive of a deletion that has begun no earlier than so many seconds ago.
std::optional<Part> archiveOf(const QString &account, int seconds)
{
    const QDateTime began = QDateTime::currentDateTime().addSecs(-seconds - 1);
    const QFileInfoList archives =
        QDir(kArchives).entryInfoList({account + u"-*-home.tar.gz"_s}, QDir::Files, QDir::Time);
    if (archives.isEmpty() || archives.constFirst().lastModified() < began)
        return {};
    return Part{archives.constFirst().size(), -1};
}

// Where a process has got to in a file of its own, by the file's end; nothing where it has none of that name.
std::optional<Part> readBy(const QString &process, const QString &end)
{
    for (const QFileInfo &entry : QDir(process + u"/fd"_s).entryInfoList(QDir::Files | QDir::System)) {
        if (!entry.symLinkTarget().endsWith(end))
            continue;
        QFile place(u"%1/fdinfo/%2"_s.arg(process, entry.fileName()));
        if (!place.open(QIODevice::ReadOnly))
            return {};
        // Its first line: "pos:" and a number.
        return Part{place.readLine().mid(4).trimmed().toLongLong(), entry.size()};
    }
    return {};
}

// How much a restore has read of its file, which the agent has a process named cat read.
std::optional<Part> restoreOf(const QJsonObject &args)
{
    const bool isDatabase = args.value("what"_L1) == "database"_L1;
    const QString end =
        u"/%1/accounts/%2"_s.arg(args.value("backup"_L1).toString(), args.value("username"_L1).toString()) +
        (isDatabase ? u"-db.dump"_s : u"-home.tar.gz"_s);
    for (const QString &process : QDir(u"/proc"_s).entryList({u"[1-9]*"_s}, QDir::Dirs)) {
        QFile name(u"/proc/%1/comm"_s.arg(process));
        if (!name.open(QIODevice::ReadOnly) || name.readLine() != "cat\n")
            continue;
        if (const std::optional<Part> part = readBy(u"/proc/"_s + process, end))
            return part;
    }
    return {};
}

} // namespace

QString requestStage(const QString &command, const QJsonObject &args, int seconds)
{
    const std::optional<Part> part = command == "hosting.delete"_L1
                                         ? archiveOf(args.value("username"_L1).toString(), seconds)
                                     : command == "backup.restore"_L1 ? restoreOf(args)
                                                                      : std::nullopt;
    if (!part || part->done <= 0)
        return {};
    const auto rate = static_cast<double>(part->done) / std::max(seconds, 1);
    const QString speed = humanBytes(static_cast<qint64>(rate)) + u"/s"_s;
    if (part->total < part->done)
        return u"archived %1, %2"_s.arg(humanBytes(part->done), speed);
    const auto left = static_cast<qint64>(static_cast<double>(part->total - part->done) / rate);
    return u"read %1 of %2, %3, %4 left"_s.arg(humanBytes(part->done), humanBytes(part->total), speed,
                                               humanSeconds(left));
}

} // namespace corv::ctl
