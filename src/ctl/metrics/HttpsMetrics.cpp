#include "ctl/https/View.h"
#include "ctl/metrics/Collectors.h"

#include <algorithm>
#include <utility>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

Collected collectHttps(const Circumstances &here)
{
    using Stage = HttpsSite::Stage;
    constexpr std::pair<Stage, const char *> kStages[] = {
        {Stage::Off, "off"},       {Stage::LeftOut, "left-out"}, {Stage::Waiting, "waiting"},
        {Stage::Served, "served"}, {Stage::Ending, "ending"},    {Stage::Expired, "expired"},
    };
    Collected all;
    const std::optional<https::State> state = readHttps();
    if (!state)
        return all;
    const QList<HttpsSite> sites = readHttpsSites(*state, here.now);
    for (const auto &[stage, word] : kStages) {
        const auto count = std::count_if(sites.cbegin(), sites.cend(),
                                         [in = stage](const HttpsSite &site) { return site.stage == in; });
        all.samples.append({u"corvane_https_sites"_s, {QString::fromLatin1(word)}, static_cast<double>(count)});
    }
    for (const HttpsSite &site : sites) {
        if (site.ends > 0)
            all.samples.append(
                {u"corvane_certificate_expiry_timestamp_seconds"_s, {site.account}, static_cast<double>(site.ends)});
    }
    return all;
}

} // namespace corv::ctl
