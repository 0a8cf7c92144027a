#include "ctl/Command.h"
#include "ctl/Session.h"
#include "ctl/screen/Table.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

int status(Session &session, const Given &)
{
    const Answer answer = ask(session, u"quota.status"_s);
    if (const std::optional<int> end = settled(session, answer))
        return *end;
    QList<Fact> facts = {{u"Homes are on"_s, text(answer.reply.value("mount"_L1).toString())},
                         {u"File system"_s, text(answer.reply.value("fsType"_L1).toString())},
                         {u"Quotas are on"_s, yesNo(answer.reply.value("enabled"_L1).toBool(), Colour::Good)},
                         {u"Can be had"_s, yesNo(answer.reply.value("supported"_L1).toBool())}};
    if (answer.reply.contains("reason"_L1))
        facts.append({u"Why not"_s, text(answer.reply.value("reason"_L1).toString())});
    printFacts(session, facts);
    return kDone;
}

int enable(Session &session, const Given &)
{
    const Answer answer = ask(session, u"quota.enable"_s);
    if (const std::optional<int> end = settled(session, answer))
        return *end;
    if (answer.reply.value("already"_L1).toBool())
        return settledWith(session, answer, u"quotas were on already"_s);
    QList<Fact> facts = {{u"Quotas are on for"_s, text(answer.reply.value("mount"_L1).toString())}};
    if (answer.reply.contains("fstabBackup"_L1))
        facts.append({u"Old /etc/fstab"_s, text(answer.reply.value("fstabBackup"_L1).toString())});
    printFacts(session, facts);
    return kDone;
}

} // namespace

Command quotaCommand()
{
    return {"quota",
            "Hard disk quotas; corvctl account limit sets an account's limit",
            {},
            nullptr,
            {{"status", "Show whether quotas can be had and are on", {}, status},
             {"enable", "Switch quotas on: installs the tools, changes /etc/fstab, remounts", {}, enable}}};
}

} // namespace corv::ctl
