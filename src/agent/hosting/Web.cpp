#include "agent/hosting/Web.h"

#include "common/Run.h"

#include <QFile>

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {

bool writeFile(const QString &path, const QByteArray &data, QFileDevice::Permissions perms)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    // Only the flush shows that the disk took it all.
    if (file.write(data) != data.size() || !file.flush())
        return false;
    file.close();
    return file.error() == QFileDevice::NoError && file.setPermissions(perms);
}

QString reloadWeb(const QString &php)
{
    if (const QString error = run(u"apache2ctl"_s, {u"configtest"_s}); !error.isEmpty())
        return error;
    if (const QString error = run(u"systemctl"_s, {u"reload"_s, u"apache2"_s}); !error.isEmpty())
        return error;
    if (php.isEmpty())
        return {};
    return run(u"systemctl"_s, {u"reload"_s, u"php%1-fpm"_s.arg(php)});
}

} // namespace corv::hosting
