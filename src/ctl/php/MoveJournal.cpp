#include "ctl/php/MoveJournal.h"

#include "common/Account.h"
#include "common/AtomicFile.h"
#include "common/Json.h"
#include "ctl/doctor/PhpPools.h"
#include "ctl/doctor/SiteFacts.h"

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
                              {u"well"_s, QJsonArray::fromStringList(journal.well)},
                              {u"isServed"_s, journal.isServed}};
    return replaceFile(kPath, compactJson(text) + '\n', kFileMode);
}

std::optional<MoveJournal> readMove()
{
    const QJsonObject text = parseObject(readUpTo(kPath, kLargest).value_or(QByteArray()));
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
    for (const auto &value : text.value("well"_L1).toArray()) {
        const QString account = value.toString();
        if (hosting::validUsername(account))
            journal.well.append(account);
    }
    journal.isServed = text.value("isServed"_L1).toBool();
    // They become parts of paths and of units' names.
    const bool isOne = isPhpVersion(journal.from) && isPhpVersion(journal.to) && journal.from != journal.to;
    return isOne ? std::optional(journal) : std::nullopt;
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
