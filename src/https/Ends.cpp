#include "https/Ends.h"

#include <QDateTime>
#include <QTimeZone>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

constexpr int kWarningDays[] = {3, 14, 30};
constexpr qint64 kDay = 86400;
constexpr qint64 kRenewedPart = 3;

QString sentenceOf(const Candidate &candidate, qint64 now)
{
    const QString day =
        QDateTime::fromSecsSinceEpoch(candidate.certificate->ends, QTimeZone::utc()).toString(u"yyyy-MM-dd"_s);
    const qint64 left = (candidate.certificate->ends - now) / kDay;
    const QString when = candidate.certificate->ends <= now ? u"ended on %1"_s.arg(day)
                                                            : u"ends on %1, in %2 day(s)"_s.arg(day).arg(left);
    return u"the certificate of %1 %2: %3"_s.arg(candidate.site.domain, when,
                                                 candidate.options.own.isEmpty()
                                                     ? u"corvctl https list tells why there is no new one"_s
                                                     : u"a new one has to be brought"_s);
}

} // namespace

int warningDays(const Certificate &certificate, qint64 now)
{
    const auto isDue = [&](int days) {
        return days * kDay * kRenewedPart < certificate.ends - certificate.begins &&
               certificate.ends - now < days * kDay;
    };
    const auto *due = std::find_if(std::begin(kWarningDays), std::end(kWarningDays), isDue);
    return due == std::end(kWarningDays) ? 0 : *due;
}

QStringList newWarnings(const QList<Candidate> &candidates, State *state, qint64 now)
{
    QStringList sentences;
    QMap<QString, int> warned;
    for (const Candidate &candidate : candidates) {
        const int days = candidate.options.off || !candidate.certificate ? 0 : warningDays(*candidate.certificate, now);
        if (days == 0)
            continue;
        const int before = state->warned.value(candidate.site.domain);
        warned.insert(candidate.site.domain, days);
        if (before == 0 || days < before)
            sentences.append(sentenceOf(candidate, now));
    }
    state->warned = warned;
    return sentences;
}

} // namespace corv::https
