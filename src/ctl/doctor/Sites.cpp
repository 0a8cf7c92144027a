#include "ctl/doctor/Sites.h"

#include "common/Account.h"
#include "common/Site.h"
#include "ctl/doctor/Forwards.h"
#include "ctl/doctor/SiteNames.h"

#include <QRegularExpression>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// No server has more; a file that claims so is not worth the memory.
constexpr qsizetype kMostHosts = 1000;
constexpr qsizetype kMostNames = 1000;

// The words of a directive, as Apache parts them: at blanks, but for those in quotes.
QStringList wordsOf(const QString &line)
{
    static const QRegularExpression word(uR"re("((?:[^"\\]|\\.)*)"|'((?:[^'\\]|\\.)*)'|(\S+))re"_s);
    QStringList words;
    QRegularExpressionMatchIterator found = word.globalMatch(line);
    while (found.hasNext()) {
        const QRegularExpressionMatch match = found.next();
        words.append(match.captured(1) + match.captured(2) + match.captured(3));
    }
    return words;
}

// A host name without what a ServerName may have around it: a scheme before, a port behind.
QString plainName(const QString &name)
{
    static const QRegularExpression around(u"^[a-z]+://|:\\d+$"_s);
    return name.toLower().remove(around);
}

// The accounts whose home or pool a directive leads to. Logs and certificates may lie anywhere.
QStringList accountsIn(const QString &directive, const QString &line)
{
    static const QStringList harmless = {u"errorlog"_s, u"customlog"_s, u"transferlog"_s};
    static const QRegularExpression place(
        u"/home/([a-z][a-z0-9]{2,15})(?![\\w.-])|/run/php/corv-([a-z][a-z0-9]{2,15})\\.sock"_s);
    QStringList accounts;
    if (harmless.contains(directive) || directive.startsWith("sslcertificate"_L1))
        return accounts;
    QRegularExpressionMatchIterator found = place.globalMatch(line);
    while (found.hasNext()) {
        const QRegularExpressionMatch match = found.next();
        accounts.append(match.captured(1) + match.captured(2));
    }
    return accounts;
}

// A place without a port is one on each port; those that sites are reached on are enough to tell.
QStringList listensIn(const QStringList &words)
{
    QStringList listens;
    for (QString word : words) {
        word.replace("_default_"_L1, "*"_L1);
        const qsizetype colon = word.lastIndexOf(u':');
        const bool hasPort = colon > word.lastIndexOf(u']');
        if (hasPort && word.mid(colon + 1) != "*"_L1) {
            listens.append(word);
            continue;
        }
        const QString address = hasPort ? word.left(colon) : word;
        listens += {address + u":80"_s, address + u":443"_s};
    }
    return listens;
}

void take(const QString &line, VirtualHost *host)
{
    QStringList words = wordsOf(line);
    if (words.isEmpty())
        return;
    const QString directive = words.takeFirst().toLower();
    for (const QString &account : accountsIn(directive, line)) {
        if (!host->accounts.contains(account))
            host->accounts.append(account);
    }
    if (directive == "servername"_L1 && !words.isEmpty()) {
        host->names.prepend(plainName(words[0]));
    } else if (directive == "serveralias"_L1 && host->names.size() < kMostNames) {
        for (const QString &word : words)
            host->names.append(word.toLower());
    } else if (directive == "sslengine"_L1) {
        host->isEncrypted = words.value(0).toLower() == "on"_L1;
    } else if (directive == "sslcertificatefile"_L1) {
        host->certificate = words.value(0);
    }
}

// The sites that serve a user's home who is gone. Those that the agent has made are told of as leftovers.
QList<Finding> checkGone(const QList<VirtualHost> &hosts, const QStringList &users)
{
    QList<Finding> findings;
    QStringList told;
    for (const VirtualHost &host : hosts) {
        for (const QString &account : host.accounts) {
            const QString key = host.site + u' ' + account;
            if (users.contains(account) || host.site == hosting::siteName(account) || told.contains(key))
                continue;
            told.append(key);
            findings.append({Level::Fault,
                             u"the site %1 serves the home or the PHP of %2, who is no user"_s.arg(host.site, account),
                             disableSites({host.site})});
        }
    }
    return findings;
}

} // namespace

QString accountOfSite(const QString &site)
{
    const QString name = site.startsWith("corv-"_L1) ? site.mid(5) : QString();
    return hosting::validUsername(name) ? name : QString();
}

bool fitsName(QStringView name, QStringView pattern)
{
    qsizetype at = 0;
    qsizetype in = 0;
    qsizetype star = -1;
    qsizetype resume = 0;
    while (at < name.size()) {
        if (in < pattern.size() && pattern[in] == u'*') {
            star = in++;
            resume = at;
        } else if (in < pattern.size() && (pattern[in] == u'?' || pattern[in] == name[at])) {
            ++in;
            ++at;
        } else if (star >= 0) {
            in = star + 1;
            at = ++resume;
        } else {
            return false;
        }
    }
    return std::all_of(pattern.begin() + in, pattern.end(), [](QChar c) { return c == u'*'; });
}

QList<VirtualHost> parseSite(const QString &site, const QByteArray &text)
{
    static const QRegularExpression opening(u"^<VirtualHost\\s+([^>]*)>"_s, QRegularExpression::CaseInsensitiveOption);
    static const QRegularExpression closing(u"^</VirtualHost"_s, QRegularExpression::CaseInsensitiveOption);

    QList<VirtualHost> hosts;
    std::optional<VirtualHost> host;
    const QString joined = QString::fromUtf8(text).replace("\\\n"_L1, " "_L1);
    for (const QString &raw : joined.split(u'\n')) {
        const QString line = raw.trimmed();
        if (const QRegularExpressionMatch match = opening.match(line); match.hasMatch()) {
            host = VirtualHost{site, listensIn(wordsOf(match.captured(1))), {}, {}, false, {}};
        } else if (host && closing.match(line).hasMatch()) {
            if (hosts.size() < kMostHosts)
                hosts.append(*host);
            host.reset();
        } else if (host && !line.startsWith(u'#')) {
            take(line, &*host);
        }
    }
    return hosts;
}

bool answersTo(const VirtualHost &host, const QString &name)
{
    return std::any_of(host.names.cbegin(), host.names.cend(),
                       [&name](const QString &pattern) { return fitsName(name, pattern); });
}

std::optional<VirtualHost> holderOf(const QList<VirtualHost> &hosts, const QString &domain, const QString &account)
{
    const auto found = std::find_if(hosts.cbegin(), hosts.cend(), [&](const VirtualHost &host) {
        return !host.accounts.contains(account) && (answersTo(host, domain) || answersTo(host, u"www."_s + domain));
    });
    return found == hosts.cend() ? std::nullopt : std::optional(*found);
}

QStringList sitesBeside(const QList<VirtualHost> &hosts, const QString &account, const QString &domain)
{
    QStringList sites;
    for (const VirtualHost &host : hosts) {
        const QString owner = accountOfSite(host.site);
        if (owner == account || (!owner.isEmpty() && !host.accounts.contains(account)))
            continue;
        const bool serves =
            host.accounts.contains(account) || host.names.contains(domain) || host.names.contains(u"www."_s + domain);
        if (serves && !sites.contains(host.site))
            sites.append(host.site);
    }
    return sites;
}

QString disableSites(const QStringList &sites)
{
    QStringList words;
    QStringList commands;
    for (const QString &site : sites) {
        // What was switched on for it goes with it.
        if (const QString account = accountForwardedBy(site); !account.isEmpty())
            commands.append(u"corvctl account forward %1 off"_s.arg(account));
        else
            words.append(shellWord(site));
    }
    if (!words.isEmpty())
        commands.append(u"a2dissite -q %1 && systemctl reload apache2"_s.arg(words.join(u' ')));
    return commands.join(" && "_L1);
}

QList<Finding> checkSites(const QList<VirtualHost> &hosts, const QList<AccountSite> &accounts, const QStringList &users,
                          const QStringList &own)
{
    const QList<DoubleName> doubles = doubleNames(hosts, own);
    QList<Finding> findings = checkDoubleNames(doubles) + checkGone(hosts, users);
    for (const AccountSite &account : accounts) {
        QStringList beside = sitesBeside(hosts, account.name, account.domain);
        if (!account.suspended) {
            beside.removeIf(
                [&](const QString &site) { return areDoubles(doubles, site, hosting::siteName(account.name)); });
        }
        if (beside.isEmpty())
            continue;
        const bool isOne = beside.size() == 1;
        const QString serve = (isOne ? u"the site %1 serves"_s : u"the sites %1 serve"_s).arg(listedNames(beside));
        if (account.suspended) {
            findings.append(
                {Level::Fault,
                 u"the account %1 is suspended, but %2 its home or name all the same"_s.arg(account.name, serve),
                 disableSites(beside)});
        } else {
            findings.append(
                {Level::Note,
                 u"%1 the home or name of the account %2 too; suspending or deleting it leaves %3 on line"_s.arg(
                     serve, account.name, isOne ? u"that site"_s : u"those sites"_s),
                 u"apache2ctl -S"_s});
        }
    }
    return findings;
}

} // namespace corv::ctl
