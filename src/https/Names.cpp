#include "https/Names.h"

#include "https/Orders.h"

#include <QRegularExpression>

#include <algorithm>

#include <fnmatch.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

// The www name is of use where it leads here; one that was never asked may turn out to.
bool leadsElsewhere(const State &state, const QString &name)
{
    const auto found = state.names.constFind(name);
    return found != state.names.constEnd() && !found->leadsHere;
}

bool leadsHere(const State &state, const QString &name)
{
    return state.names.value(name).leadsHere;
}

// Of a site that has moved here and whose names have not followed yet, nothing is renewed: it keeps all names that its
// certificate has, so that who is led on to here by its old address is served by each of them.
bool isKeptByItsCertificate(const Candidate &candidate, const State &state, const QString &www)
{
    const QString &domain = candidate.site.domain;
    return candidate.certified && !leadsHere(state, domain) &&
           (candidate.certificate->names.contains(www) || candidate.certificate->names.contains(u"*."_s + domain));
}

void noteUnseen(const Twin &twin, const State &state, QStringList *unseen)
{
    for (const QString &name : namesOf(twin)) {
        if (!state.names.contains(name))
            unseen->append(name);
    }
}

} // namespace

Others parseVhosts(const QByteArray &output, const QString &ownFile)
{
    // Where a port has one site alone, it stands on the line of the address.
    static const QRegularExpression alone(u"^\\S+:443\\s+(\\S+) \\((.+):\\d+\\)$"_s);
    static const QRegularExpression server(u"^\\s+port 443 namevhost (\\S+) \\((.+):\\d+\\)$"_s);
    static const QRegularExpression any(u"^\\s+port (?:\\*|\\d+) namevhost \\S+ \\(.+:\\d+\\)$"_s);
    static const QRegularExpression address(u"^\\S+:(?:\\*|\\d+)\\s"_s);
    static const QRegularExpression alias(u"^\\s+(wild )?alias (\\S+)$"_s);

    Others others;
    bool inForeign = false;
    for (const QByteArray &bytes : output.split('\n')) {
        const QString line = QString::fromUtf8(bytes);
        QRegularExpressionMatch match = server.match(line);
        if (!match.hasMatch())
            match = alone.match(line);
        if (match.hasMatch()) {
            inForeign = match.captured(2) != ownFile;
            others.any = others.any || inForeign;
            if (inForeign)
                others.names.insert(match.captured(1).toLower());
            continue;
        }
        if (any.match(line).hasMatch() || address.match(line).hasMatch()) {
            inForeign = false;
            continue;
        }
        match = alias.match(line);
        if (!inForeign || !match.hasMatch())
            continue;
        if (match.captured(1).isEmpty())
            others.names.insert(match.captured(2).toLower());
        else
            others.patterns.append(match.captured(2).toLower());
    }
    return others;
}

bool isTaken(const Others &others, const QString &name)
{
    if (others.names.contains(name))
        return true;
    // A star also stands for dots, as it does for Apache.
    return std::any_of(others.patterns.begin(), others.patterns.end(), [&](const QString &pattern) {
        return ::fnmatch(pattern.toUtf8().constData(), name.toUtf8().constData(), 0) == 0;
    });
}

Plan plan(const QList<Candidate> &candidates, const Others &others, const State &state, qint64 now, int room)
{
    Plan plan;
    QMap<QString, QString> owners;
    for (const Candidate &candidate : candidates) {
        const QString &account = candidate.site.account;
        const QString &domain = candidate.site.domain;
        SiteState &said = plan.sites[account];
        said.domain = domain;
        if (candidate.options.off)
            said.leftOut = u"switched off"_s;
        else if (!candidate.optionsAreClear)
            said.leftOut = u"%1 cannot be read"_s.arg(optionsPath(account));
        else if (isTaken(others, domain))
            said.leftOut = u"another site has %1 on port 443"_s.arg(domain);
        else if (owners.contains(domain))
            said.leftOut = u"%1 belongs to %2"_s.arg(domain, owners.value(domain));
        if (!said.leftOut.isEmpty())
            continue;
        owners.insert(domain, account);

        const QString www = u"www."_s + domain;
        if (!candidate.options.noWww) {
            if (isTaken(others, www))
                said.withoutWww = u"another site has %1 on port 443"_s.arg(www);
            else if (owners.contains(www))
                said.withoutWww = u"%1 belongs to %2"_s.arg(www, owners.value(www));
            else if (leadsElsewhere(state, www) && !isKeptByItsCertificate(candidate, state, www))
                said.withoutWww = state.names.value(www).said;
        }
        Twin twin{candidate.site};
        twin.www = !candidate.options.noWww && said.withoutWww.isEmpty();
        if (twin.www)
            owners.insert(www, account);
        twin.options = candidate.options;
        twin.certified = candidate.certified;
        const OrderState order = state.orders.value(domain);
        twin.renews = candidate.options.own.isEmpty() && leadsHere(state, domain) &&
                      (!twin.www || leadsHere(state, www)) && order.nextAt <= now;
        if (twin.renews && !twin.certified && isDue(order) && room-- <= 0)
            twin.renews = false;
        plan.twins.append(twin);
        if (twin.options.own.isEmpty() && !twin.site.suspended)
            noteUnseen(twin, state, &plan.unseen);
    }
    return plan;
}

} // namespace corv::https
