#include "common/Config.h"

#include <QCommandLineParser>
#include <QFileInfo>
#include <QSettings>

using namespace Qt::Literals::StringLiterals;

namespace corv {

void addConfigOption(QCommandLineParser &parser)
{
    parser.addOption({{u"c"_s, u"config"_s}, u"Configuration file."_s, u"file"_s});
}

QString configPath(const QCommandLineParser &parser)
{
    QString path = parser.value(u"config"_s);
    if (path.isEmpty())
        path = qEnvironmentVariable("CORV_CONFIG");
    if (path.isEmpty())
        path = u"/etc/corvane/corvane.ini"_s;

    // A named file that is missing is never passed over for the next source: the agent would run as root with settings
    // that nobody chose.
    if (!QFileInfo(path).isFile()) {
        qCritical("config file not found: %s", qUtf8Printable(path));
        return {};
    }
    return path;
}

bool isList(const QVariant &value)
{
    // The second is what becomes of a list with a part that begins with "@", where that format keeps its own values.
    return value.typeId() == QMetaType::QStringList || value.typeId() == QMetaType::QVariantList;
}

QString textSetting(const QSettings &settings, const QString &key, const QString &defaultText)
{
    const QVariant value = settings.value(key, defaultText);
    return isList(value) ? value.toStringList().join(u',') : value.toString();
}

} // namespace corv
