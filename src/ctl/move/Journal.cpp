#include "ctl/move/Journal.h"

#include "common/Account.h"
#include "common/AtomicFile.h"
#include "common/Json.h"
#include "common/Paths.h"
#include "ctl/RestoreJournal.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QRegularExpression>

#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

constexpr mode_t kFileMode = 0600;
constexpr mode_t kFolderMode = 0700;
constexpr qint64 kLargest = 65'536;
constexpr auto kEnd = ".json"_L1;
const auto kLeft = u"left"_s; // see Verdict

} // namespace

QString lockOf(const QString &account)
{
    return u"/run/corvane/move-%1.lock"_s.arg(account);
}

QString moveFile(const QString &account, const QString &end)
{
    return u"%1/%2.%3"_s.arg(kMoves, account, end);
}

bool keepRecord(const Record &record)
{
    (void)::mkdir(QFile::encodeName(kMoves).constData(), kFolderMode);
    const QJsonObject text = {{u"account"_s, record.account},
                              {u"host"_s, record.host},
                              {u"domain"_s, record.domain},
                              {u"uid"_s, record.uid},
                              {u"begun"_s, record.begun},
                              {u"rehearsed"_s, record.rehearsed},
                              {u"back"_s, record.isBack},
                              {u"word"_s, record.word},
                              {u"done"_s, QJsonArray::fromStringList(record.done)}};
    return replaceFile(moveFile(record.account, u"json"_s), compactJson(text) + '\n', kFileMode);
}

bool keepDone(Record *record, const QString &step)
{
    if (!record->done.contains(step))
        record->done.append(step);
    return keepRecord(*record);
}

bool keepUndone(Record *record, const QStringList &steps)
{
    for (const QString &step : steps)
        record->done.removeAll(step);
    return keepRecord(*record);
}

std::optional<Record> readRecord(const QString &account)
{
    QFile file(moveFile(account, u"json"_s));
    if (!hosting::validUsername(account) || !file.open(QIODevice::ReadOnly))
        return {};
    const QJsonObject text = parseObject(file.read(kLargest));
    Record record;
    record.account = text.value("account"_L1).toString();
    record.host = text.value("host"_L1).toString();
    record.domain = text.value("domain"_L1).toString();
    record.uid = text.value("uid"_L1).toInteger();
    record.begun = text.value("begun"_L1).toInteger();
    record.rehearsed = text.value("rehearsed"_L1).toInteger();
    record.isBack = text.value("back"_L1).toBool();
    // It goes into the words of a shell.
    static const QRegularExpression word(QRegularExpression::anchoredPattern(u"[0-9a-f]{32}"_s));
    if (const QString kept = text.value("word"_L1).toString(); word.match(kept).hasMatch())
        record.word = kept;
    for (const auto &step : text.value("done"_L1).toArray())
        record.done.append(step.toString());
    return record.account == account && !record.host.isEmpty() ? std::optional(record) : std::nullopt;
}

QList<Record> records()
{
    QList<Record> all;
    for (const QString &file : QDir(kMoves).entryList({u'*' + kEnd}, QDir::Files, QDir::Name)) {
        if (const std::optional<Record> record = readRecord(file.chopped(kEnd.size())))
            all.append(*record);
    }
    return all;
}

void removeRecord(const QString &account)
{
    // The record last: what is left without one is nobody's.
    for (const QString &end : {u"dump"_s, u"state"_s, u"json"_s})
        (void)QFile::remove(moveFile(account, end));
}

bool hasLeft(const QString &account)
{
    return exists(moveFile(account, kLeft));
}

bool forgetLeft(const QString &account)
{
    const bool isForgotten = QFile::remove(moveFile(account, kLeft)) || !hasLeft(account);
    for (const QString &name : QDir(kMoves).entryList({account + u".by-*"_s}, QDir::Files))
        (void)QFile::remove(kMoves + u'/' + name);
    return isForgotten;
}

bool isMade(const Record &record)
{
    return isOwnCreation(record.account, record.domain, record.uid, record.begun);
}

} // namespace corv::ctl::moving
