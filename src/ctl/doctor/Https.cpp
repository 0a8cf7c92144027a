#include "ctl/doctor/Https.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// It tries again what was refused or has to wait.
const auto kAgain = u"corvctl https on"_s;
const auto kList = u"corvctl https list"_s;

QString because(const QString &remark)
{
    return remark.isEmpty() ? QString() : u": "_s + remark;
}

} // namespace

QList<Finding> checkHttps(const https::State &state, const QList<HttpsSite> &sites)
{
    QList<Finding> findings;
    if (!state.none.isEmpty())
        return {{Level::Fault, u"no account's site is on HTTPS"_s + because(state.none), kAgain}};
    if (!state.rehearsed)
        findings.append({Level::Note,
                         u"Apache cannot be tried beforehand here, so a damaged certificate ends it for a moment"_s,
                         u"corvctl https status"_s});
    for (const HttpsSite &site : sites) {
        switch (site.stage) {
        case HttpsSite::Stage::Expired:
            findings.append(
                {Level::Fault,
                 u"the certificate of %1 is not good at this time"_s.arg(site.domain) + because(site.remark), kList});
            break;
        case HttpsSite::Stage::Ending:
            findings.append(
                {Level::Fault, u"the certificate of %1 ends soon"_s.arg(site.domain) + because(site.remark), kList});
            break;
        case HttpsSite::Stage::LeftOut:
            // What Apache does not come up with is damaged; a name that others have may be meant so.
            findings.append({state.sites.value(site.account).refused.isEmpty() ? Level::Note : Level::Fault,
                             u"%1 is not on HTTPS"_s.arg(site.domain) + because(site.remark), kAgain});
            break;
        case HttpsSite::Stage::Waiting:
            findings.append(
                {Level::Note, u"%1 has no certificate yet"_s.arg(site.domain) + because(site.remark), kAgain});
            break;
        case HttpsSite::Stage::Served:
        case HttpsSite::Stage::Off:
            break;
        }
    }
    return findings;
}

} // namespace corv::ctl
