#include "ctl/php/MoveJournal.h"

#include "common/Account.h"
#include "common/AtomicFile.h"
#include "common/Json.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonObject>

#include <cstdio>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

const auto kPath = u"/var/lib/corvane/php-move.json"_s;
constexpr mode_t kFileMode = 0600;
constexpr qint64 kLargest = 16'777'216; // some hundred bytes for each account

} // namespace

bool keepMove(const MoveJournal &journal)
{
    QJsonArray pools;
    for (const MovingPool &pool : journal.pools)
        pools.append(QJsonObject{
            {u"account"_s, pool.account}, {u"wasParked"_s, pool.wasParked}, {u"becomesParked"_s, pool.becomesParked}});
    const QJsonObject text = {{u"from"_s, journal.from},
                              {u"to"_s, journal.to},
                              {u"pools"_s, pools},
                              {u"well"_s, QJsonArray::fromStringList(journal.well)}};
    return replaceFile(kPath, compactJson(text) + '\n', kFileMode);
}

std::optional<MoveJournal> readMove()
{
    QFile file(kPath);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QJsonObject text = parseObject(file.read(kLargest));
    MoveJournal journal;
    journal.from = text.value("from"_L1).toString();
    journal.to = text.value("to"_L1).toString();
    for (const auto &value : text.value("pools"_L1).toArray()) {
        const QJsonObject pool = value.toObject();
        const QString account = pool.value("account"_L1).toString();
        if (hosting::validUsername(account))
            journal.pools.append(
                {account, pool.value("wasParked"_L1).toBool(), pool.value("becomesParked"_L1).toBool()});
    }
    for (const auto &account : text.value("well"_L1).toArray())
        journal.well.append(account.toString());
    return journal.from.isEmpty() || journal.to.isEmpty() ? std::nullopt : std::optional(journal);
}

bool putUnreadableMoveAside()
{
    return std::rename(QFile::encodeName(kPath).constData(), QFile::encodeName(kPath + u".unreadable"_s).constData()) ==
           0;
}

void removeMove()
{
    (void)QFile::remove(kPath);
}

} // namespace corv::ctl
