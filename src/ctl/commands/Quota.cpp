#include "ctl/Command.h"
#include "ctl/Session.h"
#include "ctl/commands/QuotaPackage.h"
#include "ctl/remote/Remote.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <unistd.h>

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

// dpkg may have to wait for whatever else installs packages; it does so for no longer than apt-get, which comes after
// it.
constexpr int kRemoteSeconds = 180;

constexpr auto kNotMade = "the package that enabling quotas asks for could not be made"_L1;
constexpr auto kNotNeeded = "no package had to be made"_L1;

// What preparing a server came to.
struct Preparation
{
    QString said;
    QString problem; // why nobody knows that it is prepared; empty where it is
    QString hint;    // what to do about that
    int status = kDone;
};

// Prepares this server, or the other one, which is none of the agent's affairs and needs root. Where the agent is asked
// by somebody else, or over there a key is good for its socket alone, the agent tells whether something is missing.
Preparation prepare(const Session &session)
{
    if (!session.options.hosts.empty()) {
        const Distant distant = runThere(
            session.options, {u"corvctl"_s, u"quota"_s, u"enable"_s, u"--prepare"_s, u"--plain"_s}, kRemoteSeconds);
        const QString said = QString::fromUtf8(distant.output).simplified();
        if (!distant.problem.isEmpty())
            return {{}, distant.problem, {}, distant.status};
        if (said.isEmpty())
            return {{}, u"nothing there tells whether a package is missing"_s, {}, kNoConnection};
        return {said, {}, {}, kDone};
    }
    if (::geteuid() != 0)
        return {{},
                u"packages are installed by root alone"_s,
                u"run it as root: sudo corvctl quota enable --prepare"_s,
                kNoConnection};
    const Prepared prepared = prepareQuotas();
    if (!prepared.problem.isEmpty())
        return {{}, kNotMade + u": "_s + prepared.problem, {}, kRefused};
    if (prepared.made.isEmpty())
        return {kNotNeeded, {}, {}, kDone};
    return {u"made and installed %1, an empty package: this kernel has quota_v2 itself"_s.arg(prepared.made),
            {},
            {},
            kDone};
}

int prepareOnly(const Session &session)
{
    if (session.options.printOnly)
        return fail(kWrongUsage, u"the package is made on the server itself, not by a request"_s);
    const Preparation prepared = prepare(session);
    if (prepared.status == kRefused)
        return refuse(session, prepared.problem);
    if (prepared.status != kDone)
        return fail(prepared.status, prepared.problem, prepared.hint);
    if (session.options.json)
        print("{\"ok\":true}\n");
    else
        printLine(escaped(prepared.said));
    return kDone;
}

int enable(Session &session, const Given &given)
{
    if (given.has("--prepare"))
        return prepareOnly(session);
    if (!session.options.printOnly) {
        const Preparation prepared = prepare(session);
        if (prepared.problem.contains(kNotMade))
            note(prepared.problem);
        else if (!prepared.said.isEmpty() && prepared.said != kNotNeeded)
            note(prepared.said);
    }
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
    return {
        "quota",
        "Hard disk quotas; corvctl account limit sets an account's limit",
        {},
        nullptr,
        {{"status", "Show whether quotas can be had and are on", {}, status},
         {"enable",
          "Switch quotas on: installs the tools, changes /etc/fstab, remounts",
          {{"--prepare", "only make the package that Debian has not, where it is needed; what -H runs", Kind::Flag}},
          enable}}};
}

} // namespace corv::ctl
