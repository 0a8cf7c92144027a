#include "https/Twin.h"

#include "common/Site.h"

#include <QStringList>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

const auto kBegins = "<VirtualHost *:80>\n"_ba;
const auto kEnds = "</VirtualHost>\n"_ba;

// acme-tls/1 is how the authority proves a name where port 80 is not reached. The lines of the log are Apache's own but
// for one word: of a request over HTTP/2 it writes "remote" where it writes "client" of all others, and fail2ban's
// filters look for the latter.
const auto kOnHttps = R"(    SSLEngine on
    Protocols h2 http/1.1 acme-tls/1
    ErrorLogFormat "[%{u}t] [%-m:%l] [pid %P:tid %{g}T] %E: [client\ %a] %M% ,\ referer\ %{Referer}i"
)"_ba;

// Two years are what browsers' own lists ask for. Sub-domains may belong to others, so they are left out.
const auto kStrict = R"(    Header always set Strict-Transport-Security "max-age=63072000"
)"_ba;

// A name that the authority would refuse, whose certificate Apache makes itself: no file is named that could go
// missing. Whoever asks for a name that nobody has is refused, and does not see the first account's site.
const auto kForOthers = R"(<MDomainSet corvane.invalid>
    MDMembers manual
    MDRenewMode manual
</MDomainSet>
<VirtualHost *:443>
    ServerName corvane.invalid
    SSLEngine on
    Protocols http/1.1 acme-tls/1
    <Location />
        Require all denied
    </Location>
)"_ba;

// Below what answers probes there is nothing of an account's, and its .htaccess is not asked.
const auto kBase = R"(MDStoreDir %1
MDCertificateAgreement accepted
MDMembers manual
MDMatchNames servernames
MDPrivateKeys P-256
MDStapling off
MDRenewMode auto
MDRetryDelay %2
MDRenewWindow %3
MDCheckInterval %5
MDMessageCmd /usr/libexec/corvane/corv-https message
Alias /.well-known/corv-probe/ %4/
<Directory %4>
    Options None
    AllowOverride None
    Require all granted
</Directory>
)"_L1;

// The body of the site on port 80: what is between its first and its last line.
QByteArray bodyOf(const AccountSite &site)
{
    const QByteArray text = hosting::vhost(site.account, site.domain, site.php, site.suspended).toUtf8();
    const qsizetype begin = text.indexOf(kBegins) + kBegins.size();
    return text.mid(begin, text.size() - kEnds.size() - begin);
}

} // namespace

QStringList namesOf(const Twin &twin)
{
    QStringList names{twin.site.domain};
    if (twin.www)
        names.append(u"www."_s + twin.site.domain);
    return names;
}

QByteArray twinText(const Twin &twin, const QByteArray &tls)
{
    QByteArray text = "# " + twin.site.account.toUtf8() + '\n';
    text += "<MDomainSet " + namesOf(twin).join(u' ').toUtf8() + ">\n    MDMembers manual\n";
    if (!twin.options.own.isEmpty()) {
        text += "    MDCertificateFile " + ownCertificatePath(twin.options.own).toUtf8() + '\n';
        text += "    MDCertificateKeyFile " + ownKeyPath(twin.options.own).toUtf8() + '\n';
    }
    if (!twin.renews)
        text += "    MDRenewMode manual\n";
    // Not before there is something to go to; and a suspended site says so on both ports.
    if (twin.options.redirect && twin.certified && !twin.site.suspended)
        text += "    MDRequireHttps temporary\n";
    text += "</MDomainSet>\n<VirtualHost *:443>\n";

    QByteArray body = bodyOf(twin.site);
    if (!twin.www)
        body.replace("    ServerAlias www." + twin.site.domain.toUtf8() + '\n', QByteArray());
    text += body + kOnHttps + tls;
    if (twin.options.hsts && twin.certified)
        text += kStrict;
    return text + kEnds;
}

QByteArray baseText(const Authority &authority, bool answersForOthers, const QByteArray &tls)
{
    QByteArray text = "# Made by corv-https before each start and reload of Apache; never edit.\n";
    text += QString(kBase)
                .arg(QLatin1StringView(kStore), authority.retry, authority.renewWindow, QLatin1StringView(kProbeFolder),
                     authority.check)
                .toUtf8();
    if (!authority.directory.isEmpty())
        text += "MDCertificateAuthority " + authority.directory.toUtf8() + '\n';
    if (!authority.caFile.isEmpty())
        text += "MDCACertificateFile " + authority.caFile.toUtf8() + '\n';
    if (!authority.contact.isEmpty())
        text += "MDContactEmail " + authority.contact.toUtf8() + '\n';
    if (!authority.bindingKeyFile.isEmpty())
        text += "MDExternalAccountBinding " + authority.bindingKeyFile.toUtf8() + '\n';
    return answersForOthers ? text + kForOthers + tls + kEnds : text;
}

} // namespace corv::https
