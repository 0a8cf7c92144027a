#include "ctl/home/Archive.h"

#include "common/Archiver.h"
#include "common/Fd.h"
#include "common/Run.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr auto kWebGroup = "www-data";
constexpr qsizetype kModeLetters = 10;
constexpr qint64 kLargestList = 4'294'967'296;
constexpr qint64 kLongestLine = 65'536;

// "drwxr-s---" as numbers; nothing for other letters.
std::optional<mode_t> parseMode(const QByteArray &letters)
{
    if (letters.size() != kModeLetters)
        return {};
    constexpr char kWanted[] = "rwxrwxrwx";
    constexpr mode_t kSpecial[] = {S_ISUID, S_ISGID, S_ISVTX};
    mode_t mode = 0;
    for (int i = 0; i < 9; ++i) {
        const char letter = letters[i + 1];
        const mode_t bit = static_cast<mode_t>(S_IRUSR) >> i;
        if (letter == kWanted[i] || letter == 's' || letter == 't')
            mode |= bit;
        else if (letter != '-' && letter != 'S' && letter != 'T')
            return {};
        if (std::strchr("sStT", letter) && letter != '\0')
            mode |= kSpecial[i / 3];
    }
    return mode;
}

// What tar writes as "\n", "\\" or "\303", as the bytes that they stand for.
QByteArray unescaped(const QByteArray &text)
{
    static constexpr char kNames[] = "abfnrtv";
    static constexpr char kBytes[] = "\a\b\f\n\r\t\v";
    QByteArray bytes;
    bytes.reserve(text.size());
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 >= text.size()) {
            bytes.append(text[i]);
            continue;
        }
        const char next = text[++i];
        const QByteArray digits = text.mid(i, 3);
        bool isOctal = false;
        const uint number = digits.size() == 3 ? digits.toUInt(&isOctal, 8) : 0;
        const char *const named = std::strchr(kNames, next);
        if (isOctal && number <= 0xFF) {
            bytes.append(static_cast<char>(number));
            i += 2;
        } else if (next == '\\' || next == ' ') {
            bytes.append(next);
        } else if (named && next != '\0') {
            bytes.append(kBytes[named - kNames]);
        } else {
            bytes.append('\\').append(next);
        }
    }
    return bytes;
}

// Whether a part of a path is no name of an entry, which whoever makes an archive by hand can have in it.
bool leadsElsewhere(const QByteArray &name)
{
    return name.isEmpty() || name == "." || name == ".." || name.contains('\0');
}

bool isAtOrBelow(const QByteArray &path, const QByteArray &top)
{
    return path == top || path.startsWith(top + '/');
}

bool isWanted(const QByteArray &path, const QList<QByteArray> &paths)
{
    return paths.isEmpty() || std::any_of(paths.cbegin(), paths.cend(), [&path](const QByteArray &other) {
               return isAtOrBelow(path, other) || other.startsWith(path + '/');
           });
}

} // namespace

std::optional<ArchiveEntry> parseArchiveLine(const QByteArray &line, const QByteArray &account)
{
    // MODE OWNER/GROUP SIZE DATE TIME NAME, blanks before the size.
    QList<QByteArray> fields;
    qsizetype at = 0;
    while (fields.size() < 5) {
        while (at < line.size() && line[at] == ' ')
            ++at;
        const qsizetype end = line.indexOf(' ', at);
        if (end < 0)
            return {};
        fields.append(line.mid(at, end - at));
        at = end;
    }
    const std::optional<mode_t> mode = parseMode(fields[0]);
    if (!mode)
        return {};
    const char kind = fields[0][0];
    QByteArray name = line.mid(at + 1);
    // A blank of a name is escaped, so that the arrow is the first of its kind.
    for (const auto &[of, arrow] : {std::pair{'l', QByteArray(" -> ")}, std::pair{'h', QByteArray(" link to ")}}) {
        if (const qsizetype found = name.indexOf(arrow); kind == of && found >= 0)
            name.truncate(found);
    }
    if (name.endsWith('/'))
        name.chop(1);
    if (!name.startsWith(account + '/'))
        return {};

    ArchiveEntry entry;
    entry.path = unescaped(name.sliced(account.size() + 1));
    const QList<QByteArray> names = entry.path.split('/');
    if (std::any_of(names.cbegin(), names.cend(), leadsElsewhere))
        return {};
    entry.mode = *mode;
    entry.isFolder = kind == 'd';
    entry.isPlain = entry.isFolder || kind == '-';
    entry.isLink = kind == 'l';
    entry.isWebs = fields[1].endsWith(QByteArray("/") + kWebGroup);
    return entry;
}

QString homeArchive(const QString &destination, const QString &backup, const QString &account)
{
    const QFileInfo folder(u"%1/%2"_s.arg(destination, backup));
    const QFileInfo accounts(folder.filePath() + u"/accounts"_s);
    const QFileInfo file(u"%1/%2-home.tar.gz"_s.arg(accounts.filePath(), account));
    const bool isLinked = folder.isSymLink() || accounts.isSymLink() || file.isSymLink();
    return file.isFile() && !isLinked ? file.filePath() : QString();
}

QList<ArchiveEntry> readArchive(const QString &archive, const QString &account, const QList<QByteArray> &paths,
                                QString *problem)
{
    // Into a file that has no name: the list of a large home is too much for memory, twice.
    QFile list;
    const int file = ::open("/var/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (file < 0 || !list.open(file, QIODevice::ReadWrite, QFileDevice::AutoCloseHandle)) {
        *problem = u"no file can be made in /var/tmp"_s;
        return {};
    }
    hosting::Streams streams;
    streams.outputFile = file;
    streams.maxFileSize = kLargestList;
    *problem = hosting::runWith(u"tar"_s, {u"-tvzf"_s, archive, u"--quoting-style=escape"_s, u"--quote-chars= "_s},
                                streams, hosting::archiverSurroundings());
    if (!problem->isEmpty())
        return {};

    QList<ArchiveEntry> entries;
    list.seek(0);
    while (!list.atEnd()) {
        QByteArray line = list.readLine(kLongestLine);
        if (line.endsWith('\n'))
            line.chop(1);
        const std::optional<ArchiveEntry> entry = parseArchiveLine(line, account.toLatin1());
        if (entry && isWanted(entry->path, paths))
            entries.append(*entry);
    }
    return entries;
}

} // namespace corv::ctl
