#include "ctl/doctor/Php.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr auto kNoValue = "no value"_L1;

// What is set elsewhere against the package's settings can only be shown.
QString mendOf(const PhpState &state, const QString &setting)
{
    if (!state.readsOurs)
        return u"/usr/libexec/corvane/php-settings"_s;
    return u"grep -rn -F %1 /etc/corvane/php-fpm.ini /etc/php/%2/fpm"_s.arg(setting, state.version);
}

QList<Finding> checkCache(const PhpState &state)
{
    QList<Finding> findings;
    if (state.settings.value(u"opcache.validate_permission"_s) != "On"_L1) {
        findings.append(
            {Level::Fault,
             u"the cache of PHP %1 gives each account what the pages of all others hold"_s.arg(state.version),
             mendOf(state, u"opcache.validate_permission"_s)});
    }
    const QString folder = state.settings.value(u"opcache.restrict_api"_s, kNoValue);
    if (folder == kNoValue || folder.startsWith("/home"_L1)) {
        findings.append({Level::Note,
                         u"each account can list the scripts of all others in the cache of PHP %1, and empty it"_s.arg(
                             state.version),
                         mendOf(state, u"opcache.restrict_api"_s)});
    }
    const QString files = state.settings.value(u"opcache.file_cache"_s, kNoValue);
    if (files != kNoValue) {
        findings.append({Level::Note,
                         u"PHP %1 keeps compiled scripts in %2: an account that may write there can exchange those of "
                         "others"_s.arg(state.version, files),
                         u"grep -rn -F opcache.file_cache /etc/php/%1/fpm"_s.arg(state.version)});
    }
    return findings;
}

} // namespace

QHash<QString, QString> parsePhpInfo(const QByteArray &output)
{
    QHash<QString, QString> settings;
    for (const QByteArray &line : output.split('\n')) {
        // NAME => value in force => value for the whole server
        const QStringList parts = QString::fromUtf8(line).split(" => "_L1);
        if (parts.size() == 3)
            settings.insert(parts[0], parts[2]);
    }
    return settings;
}

QList<Finding> checkPhp(const PhpState &state)
{
    QList<Finding> findings;
    // Without the extension, or with it switched off, nothing is kept; no page can switch it on.
    if (state.settings.value(u"opcache.enable"_s) == "On"_L1)
        findings += checkCache(state);
    if (state.settings.value(u"apc.enabled"_s) == "On"_L1) {
        findings.append({Level::Fault,
                         u"PHP %1 has the extension apcu, through which each account reads and changes what the others "
                         "keep in it"_s.arg(state.version),
                         u"phpdismod -v %1 -s fpm apcu && systemctl reload php%1-fpm"_s.arg(state.version)});
    }
    return findings;
}

} // namespace corv::ctl
