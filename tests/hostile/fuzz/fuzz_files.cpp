// The two files that are not the agent's own word: the settings, which the administrator edits, and the manifests of
// backups, which may have come from elsewhere. The first byte of the input chooses: "s" settings, "m" a manifest as it
// lies there, "w" one that is written and read again.

#include "fuzz.h"

#include "common/BackupConfig.h"
#include "common/BackupManifest.h"
#include "common/Config.h"
#include "common/Fd.h"
#include "common/System.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSettings>
#include <QTemporaryDir>

#include <fcntl.h>

using namespace Qt::Literals::StringLiterals;
using namespace corv;
using namespace corv::fuzz;

namespace {

const QTemporaryDir &folder()
{
    static const QTemporaryDir made(u"/dev/shm/corv-fuzz-XXXXXX"_s);
    return made;
}

void put(const QString &name, const QByteArray &content)
{
    const Fd file(
        ::open(QFile::encodeName(folder().filePath(name)).constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    require(file && writeAll(file.get(), content), "the fuzzer's own folder can be written");
}

void checkSettings(const QByteArray &content)
{
    // A name of its own each time: the framework keeps what it has read under a name.
    static qint64 number = 0;
    const QString name = u"settings-%1"_s.arg(++number);
    put(name, content);
    {
        const QSettings settings(folder().filePath(name), QSettings::IniFormat);
        for (const QString &service : system::monitoredServices(settings)) {
            require(!service.isEmpty(), "a service has a name");
            requireSame(service, service.trimmed(), "a service's name has no blanks around it");
        }
        const backup::Config config = backup::load(settings);
        require(config.keepDays >= 1, "backups are kept for a day at least");
        requireSame(config.destination, QDir::cleanPath(config.destination), "the destination is clean");
        for (const QString &key : {u"agent/socket"_s, u"agent/socket_group"_s, u"agent/allowed_user"_s}) {
            const QString value = textSetting(settings, key, u"the default"_s);
            require(settings.contains(key) || value == u"the default"_s, "an absent key has its default");
        }
    }
    require(QFile::remove(folder().filePath(name)), "the settings are never taken away");
}

void checkManifest(const QByteArray &content)
{
    put(u"manifest.json"_s, content);
    qint64 budget = content.size();
    require(backup::readManifest(folder().path(), &budget) == QJsonDocument::fromJson(content).object(),
            "a manifest is the object in the file");
    require(budget == 0, "a manifest costs its size");
    budget = content.size() - 1;
    require(backup::readManifest(folder().path(), &budget).isEmpty(), "a manifest past the budget is not read");
    require(budget == content.size() - 1, "a manifest that is not read costs nothing");
}

void checkWritten(const QByteArray &bytes)
{
    const QStringList words = text(bytes).split(u'\n');
    backup::Manifest manifest;
    manifest.name = words.value(0);
    manifest.errors = words;
    manifest.accounts.append({words.value(1), words.value(2), bytes.size(), -1});
    const QByteArray written = backup::manifestText(manifest);
    put(u"manifest.json"_s, written);
    qint64 budget = written.size();
    const QJsonObject read = backup::readManifest(folder().path(), &budget);
    requireSame(QString::fromUtf8(QJsonDocument(read).toJson()), QString::fromUtf8(written), "a manifest comes back");
    // A byte-order mark at a text's beginning is lost on the way; no name or message has one.
    if (!text(bytes).contains(QChar::ByteOrderMark)) {
        requireSame(read.value(u"name"_s).toString(), words.value(0), "a backup's name comes back");
        require(read.value(u"errors"_s) == QJsonArray::fromStringList(words), "the errors come back");
        requireSame(read.value(u"accounts"_s)[0].toObject().value(u"domain"_s).toString(), words.value(2),
                    "a domain comes back");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray bytes(reinterpret_cast<const char *>(data) + 1, static_cast<qsizetype>(size - 1));
    switch (data[0]) {
    case 's':
        checkSettings(bytes);
        break;
    case 'm':
        checkManifest(bytes);
        break;
    case 'w':
        checkWritten(bytes);
        break;
    default:
        return -1; // not worth keeping
    }
    return 0;
}
