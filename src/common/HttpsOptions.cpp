#include "common/HttpsOptions.h"

#include <QRegularExpression>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {

std::optional<SiteOptions> parseOptions(const QByteArray &text)
{
    static const QRegularExpression own(QRegularExpression::anchoredPattern(u"own ([a-z0-9]{3,16}-[0-9a-f]{64})"_s));
    SiteOptions options;
    for (const QByteArray &line : text.split('\n')) {
        const QString word = QString::fromUtf8(line.trimmed());
        if (word.isEmpty() || word.startsWith(u'#'))
            continue;
        if (word == "off"_L1)
            options.off = true;
        else if (word == "redirect"_L1)
            options.redirect = true;
        else if (word == "hsts"_L1)
            options.hsts = true;
        else if (word == "no-www"_L1)
            options.noWww = true;
        else if (const QRegularExpressionMatch match = own.match(word); match.hasMatch())
            options.own = match.captured(1);
        else
            return std::nullopt;
    }
    return options;
}

QByteArray optionsText(const SiteOptions &options)
{
    QByteArray text = "# Written by corvctl account https.\n";
    if (options.off)
        text += "off\n";
    if (options.redirect)
        text += "redirect\n";
    if (options.hsts)
        text += "hsts\n";
    if (options.noWww)
        text += "no-www\n";
    if (!options.own.isEmpty())
        text += "own " + options.own.toUtf8() + '\n';
    return text;
}

QString optionsPath(const QString &account)
{
    return QString::fromLatin1(kOptionsFolder) + u'/' + account;
}

QString ownCertificatePath(const QString &own)
{
    return u"%1/%2.crt"_s.arg(QLatin1StringView(kOwnFolder), own);
}

QString ownKeyPath(const QString &own)
{
    return u"%1/%2.key"_s.arg(QLatin1StringView(kOwnFolder), own);
}

} // namespace corv::https
