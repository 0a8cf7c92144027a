#include "ctl/doctor/SiteFacts.h"

#include "common/Account.h"
#include "common/Fd.h"
#include "common/Site.h"

#include <QDir>
#include <QFile>

#include <algorithm>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr auto kEnabledSites = "/etc/apache2/sites-enabled"_L1;
// Far over what a site file or a server has; what is beyond was not made for Apache.
constexpr qint64 kLargestSite = 1'048'576;
constexpr qsizetype kMostSites = 10'000;

} // namespace

std::optional<QByteArray> readUpTo(const QString &path, qint64 most)
{
    // A FIFO would be waited for.
    const Fd file(::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status = {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size > most)
        return {};
    // One byte more than it has, so that one that grows meanwhile is noticed.
    QByteArray text;
    text.resize(static_cast<qsizetype>(std::min<qint64>(most, status.st_size)) + 1);
    qsizetype length = 0;
    while (length < text.size()) {
        const ssize_t count = ::read(file.get(), text.data() + length, static_cast<size_t>(text.size() - length));
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return {};
        if (count == 0)
            break;
        length += count;
    }
    if (length == text.size())
        return {};
    text.resize(length);
    return text;
}

QList<VirtualHost> readSites()
{
    QList<VirtualHost> hosts;
    // In the order of bytes, as Apache reads them: what comes first answers first.
    QStringList files = QDir(kEnabledSites).entryList({u"*.conf"_s}, QDir::Files, QDir::Unsorted);
    std::sort(files.begin(), files.end());
    for (const QString &file : files.first(std::min(files.size(), kMostSites))) {
        if (const std::optional<QByteArray> text = readUpTo(kEnabledSites + u'/' + file, kLargestSite))
            hosts += parseSite(file.chopped(5), *text);
    }
    return hosts;
}

QList<AccountSite> readAccountSites()
{
    QList<AccountSite> accounts;
    for (const hosting::User &user : hosting::users()) {
        if (!hosting::hasMarker(user.comment) || !hosting::validUsername(user.name))
            continue;
        const QString domain = hosting::domainIn(user.comment);
        const QByteArray suspended = hosting::vhost(user.name, domain, false, true).toUtf8();
        accounts.append(
            {user.name, domain, readUpTo(hosting::sitePath(user.name), kLargestSite) == std::optional(suspended)});
    }
    std::sort(accounts.begin(), accounts.end(), [](const auto &a, const auto &b) { return a.name < b.name; });
    return accounts;
}

QString holderHere(const QString &domain, const QString &account)
{
    if (const std::optional<VirtualHost> host = holderOf(readSites(), domain, account))
        return u"the site %1"_s.arg(host->site);
    for (const AccountSite &other : readAccountSites()) {
        if (other.name != account && other.domain == domain)
            return u"the account %1"_s.arg(other.name);
    }
    return {};
}

} // namespace corv::ctl
