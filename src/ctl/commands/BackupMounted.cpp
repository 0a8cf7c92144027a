#include "common/BackupConfig.h"
#include "common/RequiredMount.h"
#include "ctl/Session.h"
#include "ctl/Settings.h"
#include "ctl/commands/Backup.h"
#include "ctl/doctor/Facts.h"
#include "ctl/screen/Escape.h"

#include <QDir>
#include <QSettings>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// What corv-backup.service runs first.
int mounted(Session &session, const Given &)
{
    if (session.options.printOnly || !session.options.hosts.empty())
        return fail(kWrongUsage, u"this works on the server itself, and asks its agent for nothing"_s);
    const QSettings settings(settingsPath(session.options), QSettings::IniFormat);
    const QString point = backup::requiredMount(settings);
    // What waits to be mounted by whoever looks at it is looked at.
    if (!point.isEmpty())
        (void)QDir(point + u"/."_s).exists();
    const QString problem = backup::mountProblem(point, backup::load(settings).destination,
                                                 textOf(u"/proc/self/mounts"_s).value_or(QByteArray()));
    if (!problem.isEmpty())
        return refuse(session, problem, u"mount "_s + point);
    if (session.options.json)
        print("{\"ok\":true}\n");
    else if (!session.options.plain && !point.isEmpty())
        printLine(escaped(u"%1 is mounted"_s.arg(point)));
    return kDone;
}

} // namespace

Command mountedCommand()
{
    return {"mounted", "Fail unless the disk that the setting require_mount names is mounted", {}, mounted};
}

} // namespace corv::ctl
