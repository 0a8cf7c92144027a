#include "ctl/doctor/Believed.h"

#include "common/Account.h"
#include "ctl/doctor/Forwards.h"
#include "ctl/doctor/SiteFacts.h"

#include <QRegularExpression>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qint64 kLargestFile = 1'048'576;

const auto kHead =
    "# Managed by Corvane: servers that lead on the names of accounts that have moved here, see \"corvctl account "
    "forwarded\".\n<IfModule mod_remoteip.c>\n    RemoteIPHeader "_ba;
const auto kEnd = "</IfModule>\n"_ba;

} // namespace

QByteArray believedText(const QList<Believed> &all, const QByteArray &key)
{
    QByteArray text = kHead + clientHeader(key) + '\n';
    for (const Believed &one : all)
        text += "    # " + one.account.toLatin1() + "\n    RemoteIPInternalProxy " + one.address.toLatin1() + '\n';
    return text + kEnd;
}

QList<Believed> parseBelieved(const QByteArray &text)
{
    static const QRegularExpression header(u"\\n    RemoteIPHeader X-Corvane-Client-([0-9a-f]{32})\\n"_s);
    static const QRegularExpression one(u"    # ([a-z0-9]+)\\n    RemoteIPInternalProxy ([0-9a-f.:]+)\\n"_s);
    const QString all = QString::fromLatin1(text);
    QList<Believed> believed;
    for (auto found = one.globalMatch(all); found.hasNext();) {
        const QRegularExpressionMatch match = found.next();
        if (hosting::validUsername(match.captured(1)) && isPlainAddress(match.captured(2)))
            believed.append({match.captured(1), match.captured(2)});
    }
    const bool isOurs = believedText(believed, header.match(all).captured(1).toLatin1()) == text;
    return isOurs ? believed : QList<Believed>();
}

QList<Believed> readBelieved()
{
    return parseBelieved(readUpTo(kBelievedPath, kLargestFile).value_or(QByteArray()));
}

QList<Finding> checkBelieved(const QList<Believed> &all, const QList<AccountSite> &accounts)
{
    QList<Finding> findings;
    for (const Believed &one : all) {
        const bool isHere = std::any_of(accounts.cbegin(), accounts.cend(),
                                        [&](const AccountSite &account) { return account.name == one.account; });
        if (isHere)
            continue;
        findings.append(
            {Level::Note,
             u"%1 is believed what it tells of visitors' addresses, for the account %2, which is gone"_s.arg(
                 one.address, one.account),
             u"corvctl account forwarded %1 off"_s.arg(shellWord(one.account))});
    }
    return findings;
}

} // namespace corv::ctl
