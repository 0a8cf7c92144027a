#include "agent/files/Names.h"

#include "common/FolderStream.h"
#include "common/Text.h"

#include <QList>
#include <QStringDecoder>

#include <cerrno>
#include <memory>
#include <optional>

#include <sys/stat.h>

namespace corv::files {
namespace {

const QByteArray kReplacement = QByteArrayLiteral("\xEF\xBF\xBD");

bool exists(const QByteArray &path)
{
    struct stat status = {};
    return ::lstat(path.constData(), &status) == 0;
}

// The one entry of a folder that is shown as name, nothing when there is none or more than one.
std::optional<QByteArray> onlyEntryShownAs(const QByteArray &folder, const QByteArray &name)
{
    const FolderStream stream(::opendir(folder.constData()));
    std::optional<QByteArray> found;
    while (const dirent *entry = stream ? ::readdir(stream.get()) : nullptr) {
        const QByteArray candidate(entry->d_name);
        if (shown(candidate).toUtf8() != name)
            continue;
        if (found)
            return {};
        found = candidate;
    }
    return found;
}

} // namespace

QByteArray storedPath(const QString &path)
{
    const QByteArray encoded = path.toUtf8();
    if (!encoded.contains(kReplacement) || exists(encoded))
        return encoded;

    QByteArray stored;
    for (const QByteArray &name : encoded.split('/').sliced(1)) {
        const bool isSearched = name.contains(kReplacement) && !exists(stored + '/' + name);
        stored += '/' + (isSearched ? onlyEntryShownAs(stored + '/', name).value_or(name) : name);
    }
    return stored;
}

} // namespace corv::files
