#include "ctl/commands/Ban.h"

#include "ctl/Command.h"
#include "ctl/Session.h"
#include "ctl/screen/Table.h"

#include <QJsonArray>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

void noteState(const QJsonObject &reply)
{
    if (!reply.value("installed"_L1).toBool())
        note(u"fail2ban is not installed; corvctl ban enable installs it"_s);
    else if (!reply.value("running"_L1).toBool())
        note(u"fail2ban does not run; corvctl ban enable starts it"_s);
}

int jails(Session &session, const Given &)
{
    const Answer answer = ask(session, u"fail2ban.status"_s);
    if (const std::optional<int> end = settled(session, answer))
        return *end;
    noteState(answer.reply);
    QList<Row> rows;
    for (const QJsonValue value : answer.reply.value("jails"_L1).toArray()) {
        const QJsonObject jail = value.toObject();
        rows.append({text(jail.value("name"_L1).toString()), number(jail.value("banned"_L1).toArray().size()),
                     number(jail.value("totalBanned"_L1).toInteger()), number(jail.value("failed"_L1).toInteger())});
    }
    printTable(session, {u"JAIL"_s, u"BANNED"_s, u"BANNED IN ALL"_s, u"FAILED NOW"_s}, rows);
    return kDone;
}

int list(Session &session, const Given &)
{
    const Answer answer = ask(session, u"fail2ban.status"_s);
    if (const std::optional<int> end = settled(session, answer))
        return *end;
    noteState(answer.reply);
    QList<Row> rows;
    for (const QJsonValue value : answer.reply.value("jails"_L1).toArray()) {
        const QJsonObject jail = value.toObject();
        for (const QJsonValue address : jail.value("banned"_L1).toArray())
            rows.append({text(jail.value("name"_L1).toString()), text(address.toString())});
    }
    printTable(session, {u"JAIL"_s, u"ADDRESS"_s}, rows);
    return kDone;
}

int lift(Session &session, const Given &given)
{
    const QString address = given.text("ADDRESS");
    return settledWith(session,
                       ask(session, u"fail2ban.unban"_s, {{u"jail"_s, given.text("JAIL")}, {u"ip"_s, address}}),
                       u"%1 may come again"_s.arg(address));
}

} // namespace

Command banCommand()
{
    return {
        "ban",
        "Addresses that are banned after failed logins (fail2ban)",
        {},
        nullptr,
        {{"list", "List the banned addresses", {}, list},
         {"jails", "List fail2ban's jails", {}, jails},
         {"enable", "Install fail2ban and switch on the jails for SSH and the panel's sign-in", {}, enableBans},
         {"add",
          "Ban an address until its jail's time is over",
          {{"ADDRESS", "an IPv4 or IPv6 address"}, {"--jail", "the jail that bans it; sshd without this", Kind::Value}},
          addBan},
         {"lift",
          "Lift the ban of an address",
          {{"JAIL", "the jail that bans it"}, {"ADDRESS", "the address"}},
          lift}}};
}

} // namespace corv::ctl
