#include "ctl/screen/Busy.h"

#include "common/InHand.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Terminal.h"

#include <pwd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

QString userName(qint64 uid)
{
    const passwd *entry = ::getpwuid(static_cast<uid_t>(uid));
    return entry ? QString::fromLocal8Bit(entry->pw_name) : u"uid %1"_s.arg(uid);
}

} // namespace

QString named(const InHand &request)
{
    const QString what =
        request.account.isEmpty() ? request.command : u"%1 of %2"_s.arg(request.command, request.account);
    const qint64 seconds = (bootMilliseconds() - request.began) / 1000;
    return u"%1, for %2 since %3"_s.arg(what, userName(request.uid), humanSeconds(seconds));
}

QString busyWith(int agent)
{
    const std::optional<InHand> request = readInHand(kInHandPath);
    if (!request || request->agent != agent)
        return u"the agent is busy with another request"_s;
    return u"the agent is busy with %1"_s.arg(escaped(named(*request)));
}

} // namespace corv::ctl
