#include "agent/host/Services.h"

#include "common/TimedRun.h"

using namespace Qt::Literals::StringLiterals;

namespace corv {
namespace {

#ifdef CORV_SHORT_TIMEOUTS
constexpr int kConfigTestMs = 1'500;
constexpr int kRestartMs = 2'000;
#else
constexpr int kConfigTestMs = 15'000;
constexpr int kRestartMs = 30'000;
#endif

constexpr qsizetype kDetailLength = 300;

// Why Apache cannot be restarted, empty when its configuration is valid.
QString apacheProblem()
{
    const Outcome test = runWithin(kConfigTestMs, u"apache2ctl"_s, {u"configtest"_s});
    if (test.succeeded)
        return {};
    // Of a long output the end says what is wrong.
    return u"Apache's configuration has an error, so it was not restarted: "_s +
           QString::fromUtf8(test.errors).trimmed().right(kDetailLength);
}

} // namespace

Reply restartService(const QStringList &services, const QJsonObject &args)
{
    const QString name = args.value("name"_L1).toString();
    if (!services.contains(name))
        return fail(u"that service is not on the [health] services list"_s);

    const bool apache = name == "apache2"_L1 || name == "httpd"_L1;
    if (apache) {
        if (const QString problem = apacheProblem(); !problem.isEmpty())
            return fail(problem);
    }

    const bool queued = apache || name.startsWith("corv-"_L1);
    const Outcome restart =
        queued ? runWithin(kRestartMs, u"systemd-run"_s,
                           {u"--no-ask-password"_s, u"--quiet"_s, u"--collect"_s, u"--on-active=1"_s,
                            u"--timer-property=AccuracySec=100ms"_s, u"systemctl"_s, u"restart"_s, name})
               : runWithin(kRestartMs, u"systemctl"_s, {u"--no-ask-password"_s, u"restart"_s, name});
    if (!restart.finished)
        return fail(u"restart is taking longer than 30 seconds; check the service"_s);
    if (!restart.succeeded) {
        const QString errors = QString::fromUtf8(restart.errors).trimmed();
        // Of a failed restart the beginning names the unit; hints on where to look follow.
        return fail(errors.isEmpty() ? u"systemctl failed"_s : errors.left(kDetailLength));
    }
    return {{u"ok"_s, true}, {u"queued"_s, queued}};
}

} // namespace corv
