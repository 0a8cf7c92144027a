#include "agent/host/Info.h"

#include <QFile>
#include <QSysInfo>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv {
namespace {

// The seconds since boot in the text of /proc/uptime, its first field; 0 where there is no number.
qint64 uptimeIn(const QByteArray &text)
{
    return static_cast<qint64>(text.split(' ').constFirst().toDouble());
}

qint64 uptimeSeconds()
{
    QFile file(u"/proc/uptime"_s);
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return uptimeIn(file.readAll());
}

} // namespace

Reply systemInfo(const QJsonObject &)
{
    return {{u"ok"_s, true},
            {u"hostname"_s, QSysInfo::machineHostName()},
            {u"os"_s, QSysInfo::prettyProductName()},
            {u"kernel"_s, QSysInfo::kernelVersion()},
            {u"cpus"_s, static_cast<qint64>(::sysconf(_SC_NPROCESSORS_ONLN))},
            {u"uptimeSeconds"_s, uptimeSeconds()}};
}

} // namespace corv
