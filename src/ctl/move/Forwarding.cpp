#include "ctl/move/Forwarding.h"

#include "common/Account.h"
#include "common/Paths.h"
#include "ctl/Turn.h"
#include "ctl/doctor/Forwards.h"
#include "ctl/doctor/SiteFacts.h"
#include "ctl/doctor/Visits.h"
#include "ctl/move/ApacheChange.h"
#include "ctl/move/TwinCertificate.h"

#include <QRandomGenerator>

#include <algorithm>
#include <array>

#include <arpa/inet.h>
#include <ifaddrs.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

constexpr int kVisitMs = 5'000;
constexpr int kMarkMs = 1'000;
constexpr int kMarked = 204;
constexpr int kTokenWords = 4;
const auto kHere = u"127.0.0.1"_s;
const auto kRecord = u"/var/lib/corvane/forward.modules"_s;
const auto kNeeded = QStringList{u"proxy"_s, u"proxy_http"_s, u"headers"_s};

// Whether the address is one of this server's: what it sent there would come back for ever.
bool isOwnAddress(const QString &text)
{
    const QByteArray wanted = text.toLatin1();
    ifaddrs *all = nullptr;
    if (::getifaddrs(&all) != 0)
        return false;
    bool isOwn = false;
    for (const ifaddrs *one = all; one; one = one->ifa_next) {
        std::array<char, INET6_ADDRSTRLEN> written = {};
        const int family = one->ifa_addr ? one->ifa_addr->sa_family : AF_UNSPEC;
        if (family == AF_INET)
            (void)::inet_ntop(family, &reinterpret_cast<const sockaddr_in *>(one->ifa_addr)->sin_addr, written.data(),
                              written.size());
        else if (family == AF_INET6)
            (void)::inet_ntop(family, &reinterpret_cast<const sockaddr_in6 *>(one->ifa_addr)->sin6_addr, written.data(),
                              written.size());
        isOwn = isOwn || wanted == written.data();
    }
    ::freeifaddrs(all);
    return isOwn;
}

bool isOfNobodyElse(const QString &address)
{
    static const QStringList reserved = {u"0.0.0.0"_s, u"::"_s, u"::1"_s};
    return reserved.contains(address) || address.startsWith("127."_L1) || address.startsWith("::ffff:127."_L1) ||
           isOwnAddress(address);
}

QByteArray newToken()
{
    QByteArray token;
    for (int i = 0; i < kTokenWords; ++i)
        token += QByteArray::number(QRandomGenerator::system()->generate(), 16).rightJustified(8, '0');
    return token;
}

Visited ask(const QString &address, const Forward &forward, const QByteArray &path, int milliseconds)
{
    return visit({{address, 80, forward.domain, path}}, milliseconds).constFirst();
}

bool isServed(const Forward &forward)
{
    return ask(kHere, forward, forwardMark(forward), kMarkMs).status == kMarked;
}

// Why the account's names cannot be led anywhere; with the domain where they can.
QString refusalOf(const QString &account, QString *domain)
{
    const QList<AccountSite> accounts = readAccountSites();
    const auto own =
        std::find_if(accounts.cbegin(), accounts.cend(), [&](const AccountSite &one) { return one.name == account; });
    if (own == accounts.cend())
        return u"no Corvane account named '%1'"_s.arg(account);
    // Its user may have changed it.
    if (!hosting::isStoredDomain(own->domain))
        return u"the comment of the user %1 tells no valid domain"_s.arg(account);
    if (!own->suspended)
        return u"%1 is not suspended here, so its site is served by this server"_s.arg(account);
    *domain = own->domain;
    for (const Forward &other : readForwards()) {
        if (other.account != account && other.domain == *domain)
            return u"%1 is led on already, for the account %2"_s.arg(*domain, other.account);
    }
    for (const AccountSite &other : accounts) {
        if (other.name != account && other.domain == *domain)
            return u"the account %1 here has the domain %2 too"_s.arg(other.name, *domain);
    }
    return {};
}

ApacheChange changeOf(const QString &account)
{
    ApacheChange change;
    change.path = forwardPath(account);
    change.link = enabledForwardPath(account);
    change.modules = kNeeded;
    change.modulesRecord = kRecord;
    return change;
}

} // namespace

Forwarded forwardAccount(const QString &account, const QString &address, const QByteArray &key)
{
    Forwarded done;
    Forward forward = {account, {}, address, key, {}, {}};
    if (!isPlainAddress(address))
        done.problem = u"%1 is no address"_s.arg(address);
    else if (isOfNobodyElse(address))
        done.problem = u"%1 is an address of this server"_s.arg(address);
    else if (!isForwardKey(key))
        done.problem = u"the key is not one of 32 hexadecimal digits"_s;
    else
        done.problem = refusalOf(account, &forward.domain);
    // A .htaccess of any account could send requests with Apache's hands wherever it liked.
    if (done.problem.isEmpty() && !hasModule(u"proxy_http"_s) && !hasModule(u"corvane"_s))
        done.problem = u"mod_proxy_http is needed, which accounts must not use: install libapache2-mod-corvane first"_s;
    if (!done.problem.isEmpty())
        return done;
    done.domain = forward.domain;

    const Fd turn = takeTurn(kForwardLock, u"Another forward"_s, &done.problem);
    if (!turn)
        return done;
    if (const Visited seen = ask(address, forward, "/", kVisitMs); seen.status == 0) {
        done.problem = u"no web server answers at %1: %2"_s.arg(address, seen.problem);
        return done;
    }
    const TwinCertificate twin = findTwinCertificate(account, forward.domain);
    forward.certificate = twin.file;
    forward.certificateKey = twin.key;
    done.httpsProblem = twin.problem;

    ApacheChange change = changeOf(account);
    change.text = forwardText(forward);
    change.isInForce = [&forward] { return isServed(forward); };
    done.problem = changeApache(change);
    if (!done.problem.isEmpty())
        return done;
    done.onHttps = !forward.certificate.isEmpty() && hasModule(u"ssl"_s);
    done.token = newToken();
    // One as a visitor comes, and one that shows from where this server comes.
    (void)ask(kHere, forward, "/.well-known/corv-moved/" + done.token, kVisitMs);
    (void)ask(address, forward, "/.well-known/corv-moved/from/" + done.token, kVisitMs);
    return done;
}

QString endForwarding(const QString &account)
{
    if (!hosting::validUsername(account))
        return u"%1 is no name of an account"_s.arg(account);
    QString problem;
    const Fd turn = takeTurn(kForwardLock, u"Another forward"_s, &problem);
    if (!turn)
        return problem;
    ApacheChange change = changeOf(account);
    if (!exists(change.path) && !exists(change.link))
        return {};
    const QList<Forward> all = readForwards();
    const auto own = std::find_if(all.cbegin(), all.cend(), [&](const Forward &one) { return one.account == account; });
    // One that was edited has no mark that is known; that Apache runs is all that can be seen then.
    const Forward before = own == all.cend() ? Forward() : *own;
    change.isInForce = [&before] {
        if (!before.domain.isEmpty())
            return !isServed(before) && ask(kHere, before, "/", kMarkMs).status != 0;
        const QList<Visited> answers = visit({{kHere, 80, u"localhost"_s}}, kMarkMs);
        return answers.constFirst().status != 0;
    };
    change.isLast = all.size() <= (own == all.cend() ? 0 : 1);
    return changeApache(change);
}

} // namespace corv::ctl::moving
