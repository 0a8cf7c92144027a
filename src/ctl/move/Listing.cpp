#include "ctl/move/Listing.h"

#include "common/Account.h"
#include "ctl/home/Beneath.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

constexpr auto kWebGroup = "www-data";
constexpr auto kWhole = "whole";
constexpr qsizetype kFields = 4; // kind, mode, group, path
constexpr int kListSeconds = 60;
constexpr qsizetype kLongestList = 268'435'456;
constexpr int kOctal = 8;
constexpr uint kModeBits = 07777;

std::optional<ArchiveEntry> parseEntry(const QByteArray &record)
{
    QList<QByteArray> fields;
    qsizetype at = 0;
    while (fields.size() < kFields - 1) {
        const qsizetype end = record.indexOf(' ', at);
        if (end < 0)
            return {};
        fields.append(record.mid(at, end - at));
        at = end + 1;
    }
    bool isMode = false;
    const uint mode = fields[1].toUInt(&isMode, kOctal);
    ArchiveEntry entry;
    entry.path = record.mid(at);
    if (!isMode || mode > kModeBits || entry.path.isEmpty() || insidePath(entry.path) != entry.path)
        return {};
    entry.mode = mode;
    entry.isFolder = fields[0] == "d";
    entry.isPlain = entry.isFolder || fields[0] == "f";
    entry.isLink = fields[0] == "l";
    entry.isWebs = fields[2] == kWebGroup;
    return entry;
}

} // namespace

QStringList listingCommand(const QString &account)
{
    const QString home = hosting::homePath(account);
    QStringList command = {u"cd"_s, u"/;"_s,   u"runuser"_s, u"-u"_s,        account,
                           u"--"_s, u"find"_s, home,         u"-mindepth"_s, u"1"_s};
    for (const QString &left : {u"tmp"_s, QString::fromLatin1(kComing), QString::fromLatin1(kReplaced)})
        command << u"-path"_s << home + u'/' + left << u"-prune"_s << u"-o"_s;
    return command << u"-printf"_s << u"'%y %m %g %P\\0'"_s << u"2>/dev/null;"_s << u"printf"_s << u"'whole\\0'"_s;
}

std::optional<QList<ArchiveEntry>> takeListing(Gate *list)
{
    const std::optional<QByteArray> text = list->remote().readAll(kListSeconds, kLongestList);
    return text ? parseListing(*text) : std::nullopt;
}

std::optional<QList<ArchiveEntry>> parseListing(const QByteArray &text)
{
    QList<ArchiveEntry> entries;
    qsizetype at = 0;
    QByteArray last;
    for (qsizetype end = text.indexOf('\0'); end >= 0; end = text.indexOf('\0', at)) {
        last = text.mid(at, end - at);
        at = end + 1;
        if (const std::optional<ArchiveEntry> entry = parseEntry(last))
            entries.append(*entry);
    }
    return at == text.size() && last == kWhole ? std::optional(entries) : std::nullopt;
}

} // namespace corv::ctl::moving
