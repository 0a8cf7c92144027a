#include "common/Account.h"
#include "common/Paths.h"
#include "ctl/Command.h"
#include "ctl/Session.h"
#include "ctl/commands/Account.h"
#include "ctl/commands/AccountSites.h"
#include "ctl/doctor/Forwards.h"
#include "ctl/move/Journal.h"
#include "ctl/remote/Remote.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kLookSeconds = 60;

// Whether an account has left the server that is asked. One where root cannot be asked tells nothing.
bool hasLeft(const Session &session, const QString &name)
{
    if (!hosting::validUsername(name) || session.options.printOnly)
        return false;
    if (session.options.hosts.empty())
        return moving::hasLeft(name);
    const QStringList look = {u"test"_s, u"-e"_s, moving::moveFile(name, u"left"_s), u"&&"_s, u"echo"_s, u"left"_s};
    return runThere(session.options, look, kLookSeconds).output == "left\n";
}

// Why an account is not resumed: another server has it, and both would serve it.
std::optional<int> refuseLeft(const Session &session, const Given &given, const QString &name)
{
    const bool isHere = session.options.hosts.empty();
    const QString host = isHere ? QString() : QString::fromStdString(session.options.hosts.front());
    if (given.has("--left") && !isHere)
        return fail(kWrongUsage, u"--left is given on the server that the account has left, not from here"_s,
                    u"ssh %1 corvctl account resume %2 --left"_s.arg(host, name));
    if (given.has("--left") || !hasLeft(session, name))
        return {};
    return refuse(session, u"%1 has left for another server, which has it now"_s.arg(name),
                  isHere ? u"corvctl account move %1 HOST --back, HOST being that one, brings it back with what has "
                           "changed there; --left resumes what is here"_s.arg(name)
                         : u"on %1, corvctl account move %2 HOST --back, HOST being that one, brings it back with what "
                           "has changed there; account resume %2 --left resumes what is there"_s.arg(host, name));
}

// Who means it gives up what tells that the account has left, once it is back on-line.
bool forgetLeft(const Given &given, const QString &name)
{
    return !given.has("--left") || !hosting::validUsername(name) || moving::forgetLeft(name);
}

} // namespace

int suspendAccount(Session &session, const Given &given)
{
    const QString name = given.text("ACCOUNT");
    const QStringList beside = findSitesBeside(session, name);
    warnOfSites(beside, name);
    const Answer answer = ask(session, u"hosting.suspend"_s, accountIn(given));
    const int status = settledWith(session, answer, u"%1 is suspended"_s.arg(name));
    if (answer.ok())
        tellOfSitesLeft(session, beside);
    return status;
}

int resumeAccount(Session &session, const Given &given)
{
    const QString name = given.text("ACCOUNT");
    if (const std::optional<int> end = refuseLeft(session, given, name))
        return *end;
    const Answer answer = ask(session, u"hosting.resume"_s, accountIn(given));
    const int status = settledWith(session, answer, u"%1 is on-line again"_s.arg(name));
    if (!answer.ok())
        return status;
    if (session.options.hosts.empty() && exists(enabledForwardPath(name)))
        note(u"its visitors are led on to another server all the same; to end that: corvctl account forward %1 off"_s
                 .arg(name));
    if (!forgetLeft(given, name))
        return fail(kRefused, u"that it has left still stands in %1, which cannot be written"_s.arg(moving::kMoves));
    return status;
}

} // namespace corv::ctl
