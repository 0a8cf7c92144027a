#include "ctl/commands/Account.h"

#include "common/Account.h"
#include "common/AtomicFile.h"
#include "common/HttpsFiles.h"
#include "common/Paths.h"
#include "ctl/Command.h"
#include "ctl/Interrupt.h"
#include "ctl/Session.h"
#include "ctl/commands/Https.h"
#include "ctl/https/Apache.h"
#include "ctl/https/Own.h"
#include "ctl/https/View.h"

#include <QDateTime>
#include <QFile>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qsizetype kLargestChoices = 65'536;

// Checks and copies a certificate that was brought; gives why it is not used, empty where it is.
QString bring(const Given &given, const QString &account, const QString &domain, https::SiteOptions *options)
{
    const Brought brought = readBrought(given.text("--cert"), given.text("--key"));
    QStringList names{domain};
    if (!options->noWww)
        names.append(u"www."_s + domain);
    QString problem = checkOwn(brought, names, QDateTime::currentSecsSinceEpoch());
    if (problem.isEmpty())
        options->own = keepOwn(account, brought, &problem);
    return problem;
}

// What has become of the account's site in the reload; empty where all is as it was chosen.
QString whatBecame(const QString &account)
{
    const std::optional<https::State> state = readHttps();
    if (!state)
        return u"HTTPS is off for all; corvctl https on switches it on"_s;
    if (const std::optional<HttpsSite> site = readHttpsSite(account, *state, QDateTime::currentSecsSinceEpoch()))
        return site->remark;
    return u"its site is not enabled, or not as the agent writes it"_s;
}

// Why Apache does not come up with the site as it was chosen; empty where it does. It is left out then, and the reload
// succeeds: what the site had on port 443 before would be gone. since is the time in seconds since 1970 before that
// reload; where nothing was tried in it, what is kept tells of another choice.
QString whyRefused(const QString &account, qint64 since)
{
    const https::State state = readHttps().value_or(https::State());
    const https::SiteState site = state.sites.value(account);
    if (state.at < since || !state.none.isEmpty() || site.refused.isEmpty())
        return {};
    return u"Apache does not come up with it: "_s + site.leftOut;
}

// Ends a choice that Apache did not take, with why. It would come into force with whatever reload comes next, and one
// of them cannot be taken back from the browsers that have seen it. A certificate that was brought with it stays until
// it has been nobody's for some days: the Apache that took too long may still be about to read it.
int takeBack(const Session &session, const QString &account, const std::optional<QByteArray> &before,
             const QString &problem)
{
    const QString file = https::optionsPath(account);
    if (!(before ? replaceFile(file, *before, 0644) : QFile::remove(file)))
        return refuse(session, problem,
                      u"what was chosen stands in %1, and holds from the next reload of Apache"_s.arg(file));
    // The first one may yet come to it, and this one then comes behind.
    (void)reloadApache();
    return refuse(session, problem, u"%1 has what was chosen for it before"_s.arg(account));
}

} // namespace

int accountHttps(Session &session, const Given &given)
{
    const QString account = given.text("ACCOUNT");
    if (const std::optional<int> end = refuseUnlessHere(session, u"account https "_s + account))
        return *end;
    if (!hosting::validUsername(account) || !hosting::isOurs(account))
        return refuseNoAccount(session, account);
    if (given.has("--cert") != given.has("--key"))
        return fail(kWrongUsage, u"--cert and --key go together"_s);
    https::SiteOptions options;
    options.off = given.text("on|off") == "off"_L1;
    if (options.off && (given.has("--redirect") || given.has("--hsts") || given.has("--no-www") || given.has("--cert")))
        return fail(kWrongUsage, u"what is off has no options"_s);
    options.redirect = given.has("--redirect");
    options.hsts = given.has("--hsts");
    options.noWww = given.has("--no-www");

    const InterruptGuard guard;
    if (!https::makeFolders())
        return refuse(session, u"cannot make the folders for HTTPS"_s);
    const QString file = https::optionsPath(account);
    const std::optional<QByteArray> before = https::readWhole(file, kLargestChoices);
    if (!before && exists(file))
        return refuse(session, u"cannot read %1, so nothing was changed"_s.arg(file));
    if (given.has("--cert")) {
        if (const QString problem = bring(given, account, hosting::domainOf(account), &options); !problem.isEmpty())
            return refuse(session, u"the certificate is not used: "_s + problem);
    }
    if (!replaceFile(file, https::optionsText(options), 0644))
        return refuse(session, u"cannot write %1"_s.arg(file));
    if (readHttps()) {
        const qint64 since = QDateTime::currentSecsSinceEpoch();
        QString problem = reloadApache();
        if (problem.isEmpty())
            problem = whyRefused(account, since);
        if (!problem.isEmpty())
            return takeBack(session, account, before, problem);
    }
    if (session.options.json)
        print("{\"ok\":true}\n");
    else if (!session.options.plain)
        printLine(u"%1 has HTTPS %2"_s.arg(account, options.off ? u"off"_s : u"on"_s));
    if (const QString remark = whatBecame(account); !options.off && !remark.isEmpty())
        note(u"%1: %2"_s.arg(account, remark));
    return kDone;
}

} // namespace corv::ctl
