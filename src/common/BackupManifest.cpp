#include "common/BackupManifest.h"

#include "common/Fd.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::backup {

QByteArray manifestText(const Manifest &manifest)
{
    QJsonArray accounts;
    for (const SavedAccount &account : manifest.accounts) {
        accounts.append(QJsonObject{{u"username"_s, account.user},
                                    {u"domain"_s, account.domain},
                                    {u"homeBytes"_s, account.homeBytes},
                                    {u"dbBytes"_s, account.dbBytes}});
    }
    return QJsonDocument(QJsonObject{{u"name"_s, manifest.name},
                                     {u"created"_s, manifest.created},
                                     {u"seconds"_s, manifest.seconds},
                                     {u"accounts"_s, accounts},
                                     {u"panelBytes"_s, manifest.panelBytes},
                                     {u"errors"_s, QJsonArray::fromStringList(manifest.errors)}})
        .toJson(QJsonDocument::Indented);
}

QJsonObject readManifest(const QString &folder, qint64 *budget)
{
    // Without O_NONBLOCK a FIFO of that name would hold the agent up for ever.
    const Fd manifest(::open(QFile::encodeName(folder + u"/manifest.json"_s).constData(),
                             O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (!manifest || ::fstat(manifest.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size > *budget)
        return {};

    QFile file;
    if (!file.open(manifest.get(), QIODevice::ReadOnly))
        return {};
    const QByteArray text = file.read(status.st_size);
    *budget -= text.size();
    return QJsonDocument::fromJson(text).object();
}

bool isHarmless(const QString &error)
{
    const QStringList lines = error.split(u'\n', Qt::SkipEmptyParts);
    return std::all_of(lines.cbegin(), lines.cend(),
                       [](const QString &line) { return line.endsWith("file changed as we read it"_L1); });
}

} // namespace corv::backup
