#include "ctl/https/View.h"

#include "common/HttpsFiles.h"
#include "common/Paths.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// Apache renews with a third of the time left: of a certificate for 90 days 30, and this is a third of that.
constexpr qint64 kEndingPart = 9;

QString whyWaiting(const https::State &state, const QString &domain)
{
    const https::NameState name = state.names.value(domain);
    if (!state.names.contains(domain))
        return u"nobody has looked yet where it leads"_s;
    if (!name.leadsHere)
        return name.said;
    const https::OrderState order = state.orders.value(domain);
    return order.failures > 0 ? order.said : u"its certificate is on its way"_s;
}

} // namespace

QString stageWord(HttpsSite::Stage stage)
{
    switch (stage) {
    case HttpsSite::Stage::Off:
        return u"off"_s;
    case HttpsSite::Stage::LeftOut:
        return u"left out"_s;
    case HttpsSite::Stage::Waiting:
        return u"waiting"_s;
    case HttpsSite::Stage::Served:
        return u"served"_s;
    case HttpsSite::Stage::Ending:
        return u"ending"_s;
    case HttpsSite::Stage::Expired:
        break;
    }
    return u"expired"_s;
}

HttpsSite judgeSite(const QString &account, const https::State &state, const https::SiteOptions &options,
                    const std::optional<Certificate> &certificate, qint64 now)
{
    const https::SiteState kept = state.sites.value(account);
    HttpsSite site{account,         kept.domain, kept.names, HttpsSite::Stage::Served,
                   kept.withoutWww, 0,           0,          !options.own.isEmpty()};
    if (!kept.withoutWww.isEmpty())
        site.remark = u"www.%1: %2"_s.arg(kept.domain, kept.withoutWww);
    if (options.off) {
        site.stage = HttpsSite::Stage::Off;
        return site;
    }
    if (kept.names.isEmpty() || !state.none.isEmpty()) {
        site.stage = HttpsSite::Stage::LeftOut;
        site.remark = state.none.isEmpty() ? kept.leftOut : state.none;
        return site;
    }
    if (!certificate) {
        site.stage = HttpsSite::Stage::Waiting;
        site.remark = whyWaiting(state, kept.domain);
        return site;
    }
    site.ends = certificate->ends;
    site.begins = certificate->begins;
    if (now >= certificate->ends || now < certificate->begins) {
        site.stage = HttpsSite::Stage::Expired;
        site.remark = whyWaiting(state, kept.domain);
    } else if ((certificate->ends - now) < (certificate->ends - certificate->begins) / kEndingPart) {
        site.stage = HttpsSite::Stage::Ending;
        site.remark = site.isOwn ? u"a new one has to be brought"_s : whyWaiting(state, kept.domain);
    } else if (!site.isOwn && state.names.contains(kept.domain) && !state.names.value(kept.domain).leadsHere) {
        // It goes on being served until its certificate ends, and gets no other.
        site.remark = u"%1: %2"_s.arg(kept.domain, state.names.value(kept.domain).said);
    }
    return site;
}

std::optional<https::State> readHttps()
{
    if (!exists(QString::fromLatin1(https::kEnabledSite)))
        return {};
    return https::parseState(
        https::readWhole(QString::fromLatin1(https::kStateFile), https::kLargestState).value_or(QByteArray()));
}

std::optional<HttpsSite> readHttpsSite(const QString &account, const https::State &state, qint64 now)
{
    const auto kept = state.sites.constFind(account);
    if (kept == state.sites.constEnd())
        return {};
    const https::SiteOptions options = https::readOptions(account).value_or(https::SiteOptions());
    return judgeSite(account, state, options, https::certificateOf(kept->domain, options), now);
}

QList<HttpsSite> readHttpsSites(const https::State &state, qint64 now)
{
    QList<HttpsSite> sites;
    for (const QString &account : state.sites.keys())
        sites.append(*readHttpsSite(account, state, now));
    return sites;
}

} // namespace corv::ctl
