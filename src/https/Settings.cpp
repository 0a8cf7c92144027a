#include "https/Settings.h"

#include "common/Config.h"

#include <QRegularExpression>
#include <QSettings>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

// A public authority takes 300 orders in three hours from one that it knows; renewals are to have room among them.
constexpr int kDefaultOrders = 150;
constexpr int kMostOrders = 10000;

// The value of a key where it is of that form, each of which is one word of Apache's; otherwise the default.
QString checked(const QSettings &file, QLatin1StringView key, const QString &form, const QString &defaultText,
                QString *problem)
{
    const QString value = textSetting(file, u"https/"_s + key, defaultText);
    if (value == defaultText || QRegularExpression(QRegularExpression::anchoredPattern(form)).match(value).hasMatch())
        return value;
    if (problem->isEmpty())
        *problem =
            u"https/%1 in %2 is not used: it is no value that it may have"_s.arg(key, QLatin1StringView(kSettingsFile));
    return defaultText;
}

} // namespace

Settings readSettings(const QSettings &file)
{
    Settings settings;
    QString *problem = &settings.problem;
    const QString path = u"/[A-Za-z0-9._/-]{1,255}"_s;
    Authority &authority = settings.authority;
    authority.directory = checked(file, "authority"_L1, u"https://[A-Za-z0-9._~:/\\[\\]-]{1,255}"_s, {}, problem);
    authority.caFile = checked(file, "authority_ca"_L1, path, {}, problem);
    authority.contact = checked(file, "contact"_L1, u"[A-Za-z0-9._+-]{1,64}@[A-Za-z0-9.-]{1,255}"_s, {}, problem);
    authority.bindingKeyFile = checked(file, "binding"_L1, path, {}, problem);
    authority.retry = checked(file, "retry"_L1, u"[1-9][0-9]{0,5}(s|m|h|d)"_s, u"1h"_s, problem);
    authority.renewWindow = checked(file, "renew_window"_L1, u"[1-9][0-9]{0,5}(s|m|h|d|%)"_s, u"33%"_s, problem);
    authority.check = checked(file, "check"_L1, u"[1-9][0-9]{0,5}(s|m|h|d)"_s, u"1h"_s, problem);
    settings.probes = checked(file, "probe"_L1, u"yes|no"_s, u"yes"_s, problem) == "yes"_L1;
    const QString orders = checked(file, "orders"_L1, u"[0-9]{1,5}"_s, QString::number(kDefaultOrders), problem);
    settings.orders = std::min(orders.toInt(), kMostOrders);
    return settings;
}

QByteArray tlsDirectives(const QByteArray &text)
{
    QByteArray directives;
    for (const QByteArray &line : text.split('\n')) {
        const QByteArray directive = line.trimmed();
        if (!directive.isEmpty() && !directive.startsWith('#'))
            directives += "    " + directive + '\n';
    }
    return directives;
}

} // namespace corv::https
