#include "ctl/offsite/State.h"

#include "common/Json.h"
#include "ctl/offsite/Secrets.h"

#include <QJsonArray>
#include <QRegularExpression>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

const auto kOffsiteState = kStateFolder + u"/state.json"_s;

} // namespace

QString domainOfDrill(const QString &name)
{
    return name + u".drill.example"_s;
}

bool isOfDrill(const QString &name, const QString &domain)
{
    static const QRegularExpression form(QRegularExpression::anchoredPattern(u"drill[0-9]{1,9}"_s));
    return form.match(name).hasMatch() && domain == domainOfDrill(name);
}

QJsonObject objectOf(const OffsiteState &state)
{
    return {{u"copied"_s, state.copied},
            {u"copiedAt"_s, state.copiedAt},
            {u"ranAt"_s, state.ranAt},
            {u"seconds"_s, state.seconds},
            {u"homes"_s, state.homes},
            {u"bytes"_s, state.bytes},
            {u"added"_s, state.added},
            {u"problems"_s, QJsonArray::fromStringList(state.problems)},
            {u"checkedAt"_s, state.checkedAt},
            {u"part"_s, state.part},
            {u"checkProblem"_s, state.checkProblem},
            {u"unread"_s, state.unread},
            {u"prunedAt"_s, state.prunedAt},
            {u"drilled"_s, state.drilled},
            {u"drilledAt"_s, state.drilledAt},
            {u"drillProblem"_s, state.drillProblem}};
}

OffsiteState stateOf(const QJsonObject &object)
{
    OffsiteState state;
    state.copied = object.value("copied"_L1).toString();
    state.copiedAt = object.value("copiedAt"_L1).toInteger();
    state.ranAt = object.value("ranAt"_L1).toInteger();
    state.seconds = object.value("seconds"_L1).toInteger();
    state.homes = object.value("homes"_L1).toInteger();
    state.bytes = object.value("bytes"_L1).toInteger();
    state.added = object.value("added"_L1).toInteger();
    for (const auto &problem : object.value("problems"_L1).toArray())
        state.problems.append(problem.toString());
    state.checkedAt = object.value("checkedAt"_L1).toInteger();
    state.part = object.value("part"_L1).toInt();
    state.checkProblem = object.value("checkProblem"_L1).toString();
    state.unread = object.value("unread"_L1).toInt();
    state.prunedAt = object.value("prunedAt"_L1).toInteger();
    state.drilled = object.value("drilled"_L1).toString();
    state.drilledAt = object.value("drilledAt"_L1).toInteger();
    state.drillProblem = object.value("drillProblem"_L1).toString();
    return state;
}

OffsiteState readOffsite()
{
    QString problem;
    return stateOf(parseObject(secretIn(kOffsiteState, &problem).value_or(QByteArray())));
}

QString keepOffsite(const OffsiteState &state)
{
    return keepSecret(kOffsiteState, compactJson(objectOf(state)) + '\n');
}

} // namespace corv::ctl
