#include "ctl/Command.h"
#include "ctl/Session.h"
#include "ctl/screen/Table.h"

#include <QJsonArray>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

Cell stateOf(const QJsonObject &service)
{
    if (!service.contains("loaded"_L1))
        return text(u"unknown"_s, Colour::Warning);
    if (!service.value("loaded"_L1).toBool())
        return text(u"not installed"_s, Colour::Bad);
    const bool active = service.value("active"_L1).toBool();
    return text(service.value("sub"_L1).toString(), active ? Colour::Good : Colour::Bad);
}

int list(Session &session, const Given &)
{
    const Answer answer = ask(session, u"services.status"_s);
    if (const std::optional<int> end = settled(session, answer))
        return *end;
    QList<Row> rows;
    for (const QJsonValue value : answer.reply.value("services"_L1).toArray()) {
        const QJsonObject service = value.toObject();
        const qint64 memory = service.value("memory"_L1).toInteger();
        rows.append({text(service.value("name"_L1).toString()), stateOf(service),
                     memory > 0 ? bytes(memory) : nothing(), timeIn(service, "since"_L1)});
    }
    printTable(session, {u"SERVICE"_s, u"STATE"_s, u"MEMORY"_s, u"SINCE"_s}, rows);
    return kDone;
}

int restart(Session &session, const Given &given)
{
    const Answer answer = ask(session, u"services.restart"_s, {{u"name"_s, given.text("SERVICE")}});
    const bool queued = answer.reply.value("queued"_L1).toBool();
    return settledWith(session, answer,
                       u"%1 %2"_s.arg(given.text("SERVICE"), queued ? u"restarts in a second"_s : u"was restarted"_s));
}

} // namespace

Command serviceCommand()
{
    return {"service",
            "The services that the agent watches",
            {},
            nullptr,
            {{"list", "List the services with their state", {}, list},
             {"restart",
              "Restart a service; Apache only if its configuration is valid",
              {{"SERVICE", "its name in the list"}},
              restart}}};
}

} // namespace corv::ctl
