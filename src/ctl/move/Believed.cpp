#include "ctl/move/Believed.h"

#include "common/Account.h"
#include "common/AtomicFile.h"
#include "common/Paths.h"
#include "common/TimedRun.h"
#include "ctl/Turn.h"
#include "ctl/doctor/Believed.h"
#include "ctl/doctor/Forwards.h"
#include "ctl/doctor/SiteFacts.h"
#include "ctl/doctor/System.h"
#include "ctl/doctor/Visits.h"
#include "ctl/move/ApacheChange.h"

#include <QFile>
#include <QRandomGenerator>
#include <QRegularExpression>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

constexpr int kToolMs = 30'000;
constexpr int kVisitMs = 2'000;
constexpr qint64 kLargestFile = 1'048'576;
constexpr mode_t kKeyMode = 0600;
constexpr int kKeyWords = 4;
const auto kKeyFile = u"/var/lib/corvane/forwarded.key"_s;
const auto kLink = u"/etc/apache2/conf-enabled/corv-forwarded.conf"_s;
const auto kRecord = u"/var/lib/corvane/forwarded.modules"_s;

QByteArray keptKey()
{
    const QByteArray key = readUpTo(kKeyFile, kLargestFile).value_or(QByteArray()).trimmed();
    return isForwardKey(key) ? key : QByteArray();
}

// The administrator's own settings: one header holds for all addresses, and a later one would replace it.
QString foreignSettings()
{
    static const QRegularExpression directive(u"^\\s*RemoteIP(Header|InternalProxy|TrustedProxy|ProxyProtocol)"_s,
                                              QRegularExpression::CaseInsensitiveOption |
                                                  QRegularExpression::MultilineOption);
    const Outcome outcome = runWithin(kToolMs, u"apache2ctl"_s, {u"-t"_s, u"-D"_s, u"DUMP_INCLUDES"_s});
    for (const QString &file : parseIncludes(outcome.output)) {
        if (file == kLink || file == kBelievedPath)
            continue;
        if (directive.match(QString::fromUtf8(readUpTo(file, kLargestFile).value_or(QByteArray()))).hasMatch())
            return file;
    }
    return {};
}

// Carries out what the list has become. The caller holds the turn.
QString apply(const QList<Believed> &all, const QByteArray &key)
{
    ApacheChange change;
    change.path = kBelievedPath;
    change.link = kLink;
    if (!all.isEmpty())
        change.text = believedText(all, key);
    change.modules = {u"remoteip"_s};
    change.modulesRecord = kRecord;
    change.isLast = true;
    change.isInForce = [] { return visit({{u"127.0.0.1"_s, 80, u"localhost"_s}}, kVisitMs).constFirst().status != 0; };
    const QString problem = changeApache(change);
    if (problem.isEmpty() && all.isEmpty())
        (void)QFile::remove(kKeyFile);
    return problem;
}

} // namespace

QByteArray believedKey(QString *problem)
{
    if (const QByteArray key = keptKey(); !key.isEmpty())
        return key;
    QByteArray key;
    for (int i = 0; i < kKeyWords; ++i)
        key += QByteArray::number(QRandomGenerator::system()->generate(), 16).rightJustified(8, '0');
    if (replaceFile(kKeyFile, key + '\n', kKeyMode))
        return key;
    *problem = u"%1 cannot be written"_s.arg(kKeyFile);
    return {};
}

QString believe(const QString &account, const QString &address)
{
    if (!hosting::validUsername(account))
        return u"%1 is no name of an account"_s.arg(account);
    if (!isPlainAddress(address))
        return u"%1 is no address"_s.arg(address);
    QString problem;
    const Fd turn = takeTurn(kForwardLock, u"Another forward"_s, &problem);
    if (!turn)
        return problem;
    if (const QString file = foreignSettings(); !file.isEmpty())
        return u"%1 has settings of mod_remoteip already, of which there can be one for all"_s.arg(file);
    const QByteArray key = believedKey(&problem);
    if (key.isEmpty())
        return problem;
    QList<Believed> all = readBelieved();
    all.removeIf([&](const Believed &one) { return one.account == account; });
    all.append({account, address});
    std::sort(all.begin(), all.end(), [](const auto &a, const auto &b) { return a.account < b.account; });
    return apply(all, key);
}

QString believeNoMore(const QString &account)
{
    QString problem;
    const Fd turn = takeTurn(kForwardLock, u"Another forward"_s, &problem);
    if (!turn)
        return problem;
    QList<Believed> all = readBelieved();
    const auto count = all.removeIf([&](const Believed &one) { return one.account == account; });
    if (count > 0)
        return apply(all, keptKey());
    // A key that was made for a forward that never came about.
    if (all.isEmpty() && !exists(kBelievedPath))
        (void)QFile::remove(kKeyFile);
    return {};
}

} // namespace corv::ctl::moving
