#include "ctl/doctor/Forwards.h"

#include "common/Account.h"
#include "ctl/doctor/SiteFacts.h"

#include <QCryptographicHash>
#include <QDir>
#include <QRegularExpression>

#include <algorithm>
#include <array>

#include <arpa/inet.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

const auto kSitePrefix = u"001-moved-"_s;
constexpr auto kAvailable = "/etc/apache2/sites-available/"_L1;
constexpr auto kEnabled = "/etc/apache2/sites-enabled/"_L1;
constexpr qint64 kLargestSite = 65'536;
constexpr qsizetype kMarkDigits = 16;
// Whom the new server's certificate is believed of. A section of the text hangs on the file's being there.
constexpr auto kAuthorities = "/etc/ssl/certs/ca-certificates.crt"_L1;

// %1 is the account's name, %2 the new server's address.
const auto kHead =
    u"# Managed by Corvane: the account %1 has moved to %2. \"corvctl account forward %1 off\" takes it away.\n"_s;

// %1 is the domain, %2 the address, %3 the header, %4 the scheme. The header of the visitor's address is set anew, so
// that nothing that he sent is handed on as ours. A connection that is kept may be closed by the other side while a
// form is being sent, which is then lost: hence one for each request.
const auto kBody = uR"(    ServerName %1
    ServerAlias www.%1
    ErrorLog ${APACHE_LOG_DIR}/%1-error.log
    CustomLog ${APACHE_LOG_DIR}/%1-access.log corv
    RequestHeader set %3 "expr=%{REMOTE_ADDR}"
    LimitRequestBody 0
    AllowEncodedSlashes NoDecode
    ProxyRequests Off
    ProxyPreserveHost On
    ProxyAddHeaders Off
    ProxyPass /.well-known/corv-forward/ !
    ProxyPass / %4://%2/ nocanon disablereuse=on upgrade=websocket
)"_s;

const auto kMark = uR"(    Redirect 204 %1
)"_s;

// Between a site's certificate and an authority that is known stands at least one other, and Apache would go one step.
const auto kOnHttps = uR"(    SSLEngine on
    SSLCertificateFile %1
    SSLCertificateKeyFile %2
    SSLProxyEngine on
    SSLProxyVerify require
    SSLProxyVerifyDepth 10
    SSLProxyCheckPeerName on
    SSLProxyCACertificateFile %3
)"_s;

// A file that is named and has gone missing would keep Apache from starting.
const auto kIfThere = uR"(<IfModule mod_ssl.c>
<IfFile "%1">
<IfFile "%2">
<IfFile "%3">
)"_s;
const auto kEndIfThere = u"</IfFile>\n</IfFile>\n</IfFile>\n</IfModule>\n"_s;

QString bracketed(const QString &address)
{
    return address.contains(u':') ? u'[' + address + u']' : address;
}

QString bodyOf(const Forward &forward, const QString &scheme)
{
    // Of one piece: an account's domain cannot hold a place for another argument.
    return kBody.arg(forward.domain, bracketed(forward.address), QString::fromLatin1(clientHeader(forward.key)),
                     scheme);
}

// All of it but the mark, which is made of this.
QString unmarked(const Forward &forward)
{
    QString text = kHead.arg(forward.account, forward.address);
    text += u"<VirtualHost *:80>\n"_s + bodyOf(forward, u"http"_s) + u"</VirtualHost>\n"_s;
    if (forward.certificate.isEmpty())
        return text;
    text += kIfThere.arg(forward.certificate, forward.certificateKey, kAuthorities);
    text += u"<VirtualHost *:443>\n"_s + bodyOf(forward, u"https"_s);
    text += kOnHttps.arg(forward.certificate, forward.certificateKey, kAuthorities);
    return text + u"</VirtualHost>\n"_s + kEndIfThere;
}

// Certificates lie in folders of root's, under names of its own making.
bool isPlainPath(const QString &path)
{
    static const QRegularExpression plain(QRegularExpression::anchoredPattern(u"(/[A-Za-z0-9][A-Za-z0-9._-]*)+"_s));
    return plain.match(path).hasMatch();
}

QString off(const QString &account)
{
    return u"corvctl account forward %1 off"_s.arg(shellWord(account));
}

} // namespace

QString forwardSite(const QString &account)
{
    return kSitePrefix + account;
}

QString forwardPath(const QString &account)
{
    return kAvailable + forwardSite(account) + u".conf"_s;
}

QString enabledForwardPath(const QString &account)
{
    return kEnabled + forwardSite(account) + u".conf"_s;
}

QString accountForwardedBy(const QString &site)
{
    const QString name = site.startsWith(kSitePrefix) ? site.mid(kSitePrefix.size()) : QString();
    return hosting::validUsername(name) ? name : QString();
}

QByteArray clientHeader(const QByteArray &key)
{
    return "X-Corvane-Client-" + key;
}

bool isForwardKey(const QByteArray &text)
{
    static const QRegularExpression key(QRegularExpression::anchoredPattern(u"[0-9a-f]{32}"_s));
    return key.match(QString::fromLatin1(text)).hasMatch();
}

bool isPlainAddress(const QString &text)
{
    const QByteArray bytes = text.toLatin1();
    std::array<char, INET6_ADDRSTRLEN> written = {};
    in6_addr address = {};
    for (const int family : {AF_INET, AF_INET6}) {
        if (::inet_pton(family, bytes.constData(), &address) == 1 &&
            ::inet_ntop(family, &address, written.data(), written.size()) && text == QLatin1StringView(written.data()))
            return true;
    }
    return false;
}

QByteArray forwardMark(const Forward &forward)
{
    const QByteArray print =
        QCryptographicHash::hash(unmarked(forward).toUtf8(), QCryptographicHash::Sha256).toHex().left(kMarkDigits);
    return "/.well-known/corv-forward/" + print;
}

QByteArray forwardText(const Forward &forward)
{
    const QString end = u"</VirtualHost>\n"_s;
    QString text = unmarked(forward);
    text.insert(text.indexOf(end), kMark.arg(QString::fromLatin1(forwardMark(forward))));
    return text.toUtf8();
}

std::optional<Forward> parseForward(const QString &account, const QByteArray &text)
{
    static const QRegularExpression parts(
        u"\n    ServerName (\\S+)\n.*\n    RequestHeader set X-Corvane-Client-(\\S+) .*"
        "\n    ProxyPass / http://\\[?([0-9a-f.:]+)\\]?/ "_s,
        QRegularExpression::DotMatchesEverythingOption);
    static const QRegularExpression certificate(
        u"\n    SSLCertificateFile (\\S+)\n    SSLCertificateKeyFile (\\S+)\n"_s);
    const QString all = QString::fromUtf8(text);
    // The first site's alone: what matches may be as long as it likes.
    const QRegularExpressionMatch match = parts.match(all.left(all.indexOf("</VirtualHost>"_L1)));
    if (!hosting::validUsername(account) || !match.hasMatch())
        return {};
    const QRegularExpressionMatch files = certificate.match(all);
    const Forward forward = {account,           match.captured(1), match.captured(3), match.captured(2).toLatin1(),
                             files.captured(1), files.captured(2)};
    const bool hasPaths =
        forward.certificate.isEmpty() || (isPlainPath(forward.certificate) && isPlainPath(forward.certificateKey));
    const bool isValid = hosting::isStoredDomain(forward.domain) && isPlainAddress(forward.address) &&
                         isForwardKey(forward.key) && hasPaths;
    return isValid && forwardText(forward) == text ? std::optional(forward) : std::nullopt;
}

QList<Forward> readForwards()
{
    QList<Forward> forwards;
    QStringList files =
        QDir(kEnabled).entryList({kSitePrefix + u"*.conf"_s}, QDir::Files | QDir::System, QDir::Unsorted);
    std::sort(files.begin(), files.end());
    for (const QString &file : files) {
        const QString account = accountForwardedBy(file.chopped(5));
        if (account.isEmpty())
            continue;
        const std::optional<QByteArray> text = readUpTo(kEnabled + file, kLargestSite);
        Forward edited;
        edited.account = account;
        forwards.append(parseForward(account, text.value_or(QByteArray())).value_or(edited));
    }
    return forwards;
}

QList<VirtualHost> withoutForwards(QList<VirtualHost> hosts)
{
    hosts.removeIf([](const VirtualHost &host) { return !accountForwardedBy(host.site).isEmpty(); });
    return hosts;
}

QList<Finding> checkForwards(const QList<Forward> &forwards, const QList<AccountSite> &accounts)
{
    QList<Finding> findings;
    for (const Forward &forward : forwards) {
        const auto own = std::find_if(accounts.cbegin(), accounts.cend(),
                                      [&](const AccountSite &one) { return one.name == forward.account; });
        const auto online = std::find_if(accounts.cbegin(), accounts.cend(), [&](const AccountSite &one) {
            return !one.suspended && one.domain == forward.domain;
        });
        const QString site = forwardSite(forward.account);
        if (forward.domain.isEmpty()) {
            findings.append({Level::Note, u"the site %1 is not as its making left it, or is not readable"_s.arg(site),
                             off(forward.account)});
        } else if (online != accounts.cend()) {
            findings.append(
                {Level::Fault,
                 u"the account %1 is on-line here, but visitors of %2 are led on to %3 by the site %4"_s.arg(
                     online->name, forward.domain, forward.address, site),
                 off(forward.account)});
        } else if (own == accounts.cend()) {
            findings.append(
                {Level::Note,
                 u"visitors of %1 are still led on to %2, to which the account %3 has moved that is gone"_s.arg(
                     forward.domain, forward.address, forward.account),
                 off(forward.account)});
        } else if (own->domain != forward.domain) {
            findings.append(
                {Level::Fault,
                 u"the site %1 leads visitors of %2 on to %3, but the account %4 has another domain here"_s.arg(
                     site, forward.domain, forward.address, forward.account),
                 off(forward.account)});
        }
    }
    return findings;
}

} // namespace corv::ctl
