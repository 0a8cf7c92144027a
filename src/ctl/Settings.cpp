#include "ctl/Settings.h"

#include "common/Config.h"
#include "ctl/Session.h"

#include <QFile>
#include <QSettings>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

QByteArray socketPath(const Options &options)
{
    const QString usual = u"/run/corvane/agent.sock"_s;
    if (!options.socket.empty())
        return QByteArray::fromStdString(options.socket);

    QString path = QString::fromStdString(options.config);
    if (path.isEmpty())
        path = qEnvironmentVariable("CORV_CONFIG");
    if (path.isEmpty())
        path = u"/etc/corvane/corvane.ini"_s;
    const QSettings settings(path, QSettings::IniFormat);
    return QFile::encodeName(textSetting(settings, u"agent/socket"_s, usual));
}

} // namespace corv::ctl
