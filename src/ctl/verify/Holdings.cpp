#include "ctl/verify/Holdings.h"

#include "common/Account.h"

#include <QJsonArray>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qsizetype kMostParts = 4;
constexpr qsizetype kDumpsOfAPart = 5; // that are worth a week of their own

// A number that a file has in each release and on each server, other than what a hash table uses.
quint32 numberOf(const QString &file)
{
    return qChecksum(file.toUtf8());
}

} // namespace

QList<Holding> holdingsIn(const QJsonObject &manifest)
{
    QList<Holding> all = {{Holding::Kind::Panel, u"panel.dump"_s, {}, manifest.value("panelBytes"_L1).toInteger(-1)},
                          {Holding::Kind::Settings, u"config.tar.gz"_s, {}, -1}};
    for (const auto &value : manifest.value("accounts"_L1).toArray()) {
        const QJsonObject account = value.toObject();
        const QString name = account.value("username"_L1).toString();
        if (!hosting::validUsername(name))
            continue;
        all.append({Holding::Kind::Home, u"accounts/%1-home.tar.gz"_s.arg(name), name,
                    account.value("homeBytes"_L1).toInteger(-1)});
        all.append({Holding::Kind::Database, u"accounts/%1-db.dump"_s.arg(name), name,
                    account.value("dbBytes"_L1).toInteger(-1)});
    }
    return all;
}

bool isDue(const Holding &holding, qsizetype dumps, qint64 week)
{
    const qsizetype parts = std::clamp<qsizetype>(dumps / kDumpsOfAPart, 1, kMostParts);
    return numberOf(holding.file) % static_cast<quint32>(parts) ==
           static_cast<quint64>(week) % static_cast<quint64>(parts);
}

} // namespace corv::ctl
