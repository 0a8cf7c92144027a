#include "ctl/Settings.h"

#include "common/Config.h"
#include "ctl/Session.h"

#include <QFile>
#include <QSettings>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// Whether the settings file has a line that sets the socket. Reading it as settings costs more time than a whole
// request, and hardly any file has one.
bool namesSocket(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QList<QByteArray> lines = file.readAll().split('\n');
    return std::any_of(lines.begin(), lines.end(),
                       [](const QByteArray &line) { return line.left(line.indexOf('=')).trimmed() == "socket"; });
}

} // namespace

QString settingsPath(const Options &options)
{
    QString path = QString::fromStdString(options.config);
    if (path.isEmpty())
        path = qEnvironmentVariable("CORV_CONFIG");
    return path.isEmpty() ? u"/etc/corvane/corvane.ini"_s : path;
}

QByteArray socketPath(const Options &options)
{
    const QString usual = u"/run/corvane/agent.sock"_s;
    if (!options.socket.empty())
        return QByteArray::fromStdString(options.socket);

    const QString path = settingsPath(options);
    if (!namesSocket(path))
        return QFile::encodeName(usual);
    const QSettings settings(path, QSettings::IniFormat);
    return QFile::encodeName(textSetting(settings, u"agent/socket"_s, usual));
}

} // namespace corv::ctl
