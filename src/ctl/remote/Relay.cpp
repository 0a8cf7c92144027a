#include "ctl/remote/Relay.h"

#include "common/Json.h"
#include "ctl/Session.h"
#include "ctl/remote/Remote.h"
#include "ctl/screen/Escape.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

int relayThere(const Session &session, const QStringList &words, int seconds)
{
    const bool isJson = session.options.json;
    QStringList command = {u"corvctl"_s};
    if (isJson)
        command.append(u"--json"_s);
    const Distant done = runThere(session.options, command + words, seconds);
    const QByteArray line = done.output.trimmed();
    const bool isReply = isJson && parseObject(line).contains("ok"_L1);
    if (isReply)
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
    if (!done.problem.isEmpty())
        return fail(done.status, done.problem);
    if (isJson)
        return isReply ? kDone : fail(kNoConnection, u"what answers there is no corvctl of this kind"_s);
    if (!session.options.plain)
        printLine(escapedLines(QString::fromUtf8(line)));
    return kDone;
}

} // namespace corv::ctl
