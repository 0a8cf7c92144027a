#include "ctl/commands/BackupVerdicts.h"

#include "common/Json.h"
#include "ctl/Session.h"
#include "ctl/remote/Remote.h"
#include "ctl/verify/Verdict.h"

#include <QDateTime>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kThereSeconds = 60;
constexpr auto kVerified = "verified"_L1;

QJsonObject verifiedIn(const Verdict &verdict)
{
    qint64 proved = 0;
    for (const FileVerdict &one : verdict.files)
        proved = std::max(proved, one.proved);
    QJsonObject object = {{u"checked"_s, verdict.checked},
                          {u"faults"_s, QJsonArray::fromStringList(faultsIn(verdict))}};
    if (proved != 0)
        object.insert(u"proved"_s, proved);
    return object;
}

// By name, as the other server tells them; none where it cannot.
QJsonObject verdictsThere(const Session &session)
{
    const Distant list = runThere(session.options, {u"corvctl"_s, u"--json"_s, u"backup"_s, u"list"_s}, kThereSeconds);
    QJsonObject all;
    for (const auto &value : parseObject(list.output).value("backups"_L1).toArray()) {
        const QJsonObject backup = value.toObject();
        if (backup.contains(kVerified))
            all.insert(backup.value("name"_L1).toString(), backup.value(kVerified));
    }
    return all;
}

} // namespace

QJsonArray withVerdicts(const Session &session, const QJsonObject &reply)
{
    const bool isHere = session.options.hosts.empty();
    const QJsonObject there = isHere ? QJsonObject() : verdictsThere(session);
    const QString destination = reply.value("destination"_L1).toString();
    QJsonArray all;
    for (const auto &value : reply.value("backups"_L1).toArray()) {
        QJsonObject backup = value.toObject();
        const QString name = backup.value("name"_L1).toString();
        backup.remove(kVerified); // of a manifest, which is no place for it
        if (const auto verdict = isHere ? readVerdict(destination, name) : std::nullopt)
            backup.insert(kVerified, verifiedIn(*verdict));
        else if (there.contains(name))
            backup.insert(kVerified, there.value(name));
        all.append(backup);
    }
    return all;
}

Cell verifiedOf(const QJsonObject &backup)
{
    const qint64 checked = backup.value(kVerified).toObject().value("checked"_L1).toInteger();
    if (checked == 0)
        return nothing();
    return {QDateTime::fromSecsSinceEpoch(checked).toString(u"yyyy-MM-dd"_s), QString::number(checked), Colour::None,
            false};
}

Cell faultsOf(const QJsonObject &backup)
{
    if (!backup.contains(kVerified))
        return nothing();
    Cell count = number(faultSentences(backup).size());
    count.colour = count.plain == "0"_L1 ? Colour::Good : Colour::Bad;
    return count;
}

QStringList faultSentences(const QJsonObject &backup)
{
    QStringList all;
    for (const auto &fault : backup.value(kVerified).toObject().value("faults"_L1).toArray())
        all.append(fault.toString());
    return all;
}

} // namespace corv::ctl
