#include "ctl/Command.h"
#include "ctl/Input.h"
#include "ctl/Session.h"
#include "ctl/screen/Table.h"

#include <QJsonArray>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// From this share of a disk on, in percent, its fill is worth a colour.
constexpr qint64 kFilling = 80;
constexpr qint64 kFull = 95;

int info(Session &session, const Given &)
{
    const Answer answer = ask(session, u"system.info"_s);
    if (const std::optional<int> end = settled(session, answer))
        return *end;
    printFacts(session, {{u"Name"_s, text(answer.reply.value("hostname"_L1).toString())},
                         {u"System"_s, text(answer.reply.value("os"_L1).toString())},
                         {u"Kernel"_s, text(answer.reply.value("kernel"_L1).toString())},
                         {u"Processors"_s, number(answer.reply.value("cpus"_L1).toInteger())},
                         {u"Running for"_s, span(answer.reply.value("uptimeSeconds"_L1).toInteger())}});
    return kDone;
}

Cell fill(qint64 used, qint64 total)
{
    const qint64 percent = total > 0 ? 100 * used / total : 0;
    const Colour colour = percent >= kFull ? Colour::Bad : percent >= kFilling ? Colour::Warning : Colour::None;
    return {u"%1 %"_s.arg(percent), QString::number(percent), colour, true};
}

int disks(Session &session, const Given &)
{
    const Answer answer = ask(session, u"system.disks"_s);
    if (const std::optional<int> end = settled(session, answer))
        return *end;
    QList<Row> rows;
    for (const QJsonValue value : answer.reply.value("disks"_L1).toArray()) {
        const QJsonObject disk = value.toObject();
        const qint64 total = disk.value("total"_L1).toInteger();
        const qint64 avail = disk.value("avail"_L1).toInteger();
        rows.append({text(disk.value("mount"_L1).toString()), bytes(total), bytes(avail), fill(total - avail, total),
                     text(disk.value("type"_L1).toString()), text(disk.value("device"_L1).toString())});
    }
    printTable(session, {u"MOUNT"_s, u"SIZE"_s, u"FREE"_s, u"USED"_s, u"TYPE"_s, u"DEVICE"_s}, rows);
    return kDone;
}

// The agent compares the name: only it knows the one that counts.
int restart(Session &session, const Given &)
{
    const std::optional<QString> typed =
        confirmation(session, u"This restarts the whole server. Type its name (corvctl host info) to go on:"_s);
    if (!typed)
        return kWrongUsage;
    return settledWith(session, ask(session, u"system.reboot"_s, {{u"confirm"_s, *typed}}),
                       u"the server restarts in five seconds"_s);
}

} // namespace

Command hostCommand()
{
    return {"host",
            "The server itself",
            {},
            nullptr,
            {{"info", "Show the server's name, system and age", {}, info},
             {"disks", "List the mounted disks", {}, disks},
             {"restart", "Restart the server; asks for its name", {}, restart}}};
}

} // namespace corv::ctl
