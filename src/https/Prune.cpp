#include "https/Prune.h"

#include "common/Account.h"
#include "common/Fd.h"
#include "common/HttpsFiles.h"
#include "common/HttpsOptions.h"
#include "common/Tree.h"
#include "https/Store.h"

#include <QDir>
#include <QFile>
#include <QSet>

#include <algorithm>

#include <fcntl.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

constexpr qint64 kKeptSeconds = qint64{7} * 86400;
// What answers for names that nobody has.
constexpr auto kForOthers = "corvane.invalid";

QStringList namesIn(const QString &folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

void remove(const QString &folder, const QString &name)
{
    const Fd parent(::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    // Some of Apache's user's are below it, and no link of his is followed.
    if (parent && !removeTree(parent.get(), QFile::encodeName(name).constData()))
        say(u"cannot delete %1/%2"_s.arg(folder, name));
}

void removeDomain(const QString &domain)
{
    const QString store = QString::fromLatin1(kStore);
    for (const QString &part : {u"domains"_s, u"staging"_s, u"challenges"_s, u"tmp"_s}) {
        const QString folder = store + u'/' + part;
        if (namesIn(folder).contains(domain))
            remove(folder, domain);
    }
    // Those that were replaced have a number behind their name.
    const QString archive = store + u"/archive"_s;
    for (const QString &name : namesIn(archive)) {
        const QString number = name.section(u'.', -1);
        if (name == domain + u'.' + number && !number.isEmpty() &&
            std::all_of(number.begin(), number.end(), [](QChar digit) { return digit >= u'0' && digit <= u'9'; }))
            remove(archive, name);
    }
}

// What was brought and is no account's choice any more.
QStringList unusedPairs()
{
    QSet<QString> used;
    for (const QString &account : namesIn(QString::fromLatin1(kOptionsFolder))) {
        const std::optional<SiteOptions> options = readOptions(account);
        if (!options)
            return {}; // it may be any of them
        used.insert(options->own);
    }
    QStringList unused = namesIn(QString::fromLatin1(kOwnFolder));
    unused.removeIf([&](const QString &name) { return used.contains(name.section(u'.', 0, 0)); });
    return unused;
}

} // namespace

void prune(const QStringList &domains, const QStringList &accounts, State *state, qint64 now)
{
    QMap<QString, qint64> missed;
    // Whether a thing under that name has been missed for long enough.
    const auto isOver = [&](const QString &key) {
        const qint64 since = state->missed.value(key, now);
        if (since <= now && now < since + kKeptSeconds) {
            missed.insert(key, since);
            return false;
        }
        return since <= now; // with the clock put back it begins anew
    };
    QStringList kept = namesIn(QString::fromLatin1(kStore) + u"/domains"_s);
    // Orders that were never done. Apache's user can make any folder there.
    for (const QString &domain : namesIn(QString::fromLatin1(kStagingFolder))) {
        if (!kept.contains(domain) && hosting::isStoredDomain(domain))
            kept.append(domain);
    }
    for (const QString &domain : std::as_const(kept)) {
        if (domains.contains(domain) || domain == QLatin1StringView(kForOthers) || !isOver(domain))
            continue;
        removeDomain(domain);
        state->orders.remove(domain);
        say(u"deleted what there was of the certificates of %1, which no site has any more"_s.arg(domain));
    }
    for (const QString &account : namesIn(QString::fromLatin1(kOptionsFolder))) {
        if (!accounts.contains(account) && isOver(optionsPath(account)))
            remove(QString::fromLatin1(kOptionsFolder), account);
    }
    for (const QString &name : unusedPairs()) {
        if (isOver(QLatin1StringView(kOwnFolder) + u'/' + name))
            remove(QString::fromLatin1(kOwnFolder), name);
    }
    // Those that came to nothing, of sites that are gone.
    state->orders.removeIf([&](const auto &order) {
        const qint64 last = std::max(order->startedAt, order->failedAt);
        return !domains.contains(order.key()) && !kept.contains(order.key()) && last < now - kKeptSeconds;
    });
    state->missed = missed;
}

} // namespace corv::https
