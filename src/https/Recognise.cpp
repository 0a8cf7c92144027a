#include "https/Recognise.h"

#include "common/Account.h"
#include "common/Site.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

// The line that has the domain.
constexpr qsizetype kNameLine = 2;
constexpr QByteArrayView kNameBegins = "    ServerName ";

} // namespace

std::optional<AccountSite> recognise(const QString &account, const QByteArray &text)
{
    const QList<QByteArray> lines = text.split('\n');
    if (!hosting::validUsername(account) || lines.size() <= kNameLine || !lines.at(kNameLine).startsWith(kNameBegins))
        return std::nullopt;
    // Compared with what is written for this domain, so whatever is no plain name does not get any further.
    const QString domain = QString::fromLatin1(lines.at(kNameLine).mid(kNameBegins.size()));
    if (!hosting::isStoredDomain(domain))
        return std::nullopt;

    for (const AccountSite &site :
         {AccountSite{account, domain, true, false}, AccountSite{account, domain, false, false},
          AccountSite{account, domain, false, true}}) {
        if (hosting::vhost(account, domain, site.php, site.suspended).toUtf8() == text)
            return site;
    }
    return std::nullopt;
}

} // namespace corv::https
