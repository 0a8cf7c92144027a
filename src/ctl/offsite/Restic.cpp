#include "ctl/offsite/Restic.h"

#include "common/BackupFolders.h"
#include "common/Json.h"
#include "common/TimedRun.h"
#include "ctl/offsite/Secrets.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QStandardPaths>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

const auto kRestic = u"restic"_s;
constexpr qsizetype kLongestReason = 400;

} // namespace

std::optional<Repository> openPlace(const OffsitePlace &place, const QString &keyFile, QString *problem)
{
    if (QStandardPaths::findExecutable(kRestic).isEmpty()) {
        *problem = u"restic is not installed: apt-get install restic"_s;
        return {};
    }
    const std::optional<QByteArray> key = secretIn(keyFile, problem);
    if (!key) {
        if (problem->isEmpty())
            *problem = u"there is no key in %1"_s.arg(keyFile);
        return {};
    }
    const std::optional<QByteArray> credentials = secretIn(kCredentialsFile, problem);
    if (!problem->isEmpty())
        return {};
    const QMap<QString, QString> variables = credentialsIn(credentials.value_or(QByteArray()), problem);
    if (!problem->isEmpty())
        return {};
    return Repository{place, environmentFor(place, variables, keyFile)};
}

QStringList resticArgs(const Repository &repository, const QStringList &args)
{
    return optionsFor(repository.place) + args;
}

Answered restic(const Repository &repository, const QStringList &args, int milliseconds)
{
    const Outcome outcome = runWithin(milliseconds, kRestic, resticArgs(repository, args), repository.environment);
    Answered answered = {{}, outcome.output, outcome.errors};
    if (!outcome.finished)
        answered.problem = u"restic took longer than %1 min"_s.arg(milliseconds / 60'000);
    else if (!outcome.succeeded)
        answered.problem = resticReason(outcome.errors);
    return answered;
}

QString resticReason(const QByteArray &errors)
{
    // "Fatal:" is its own last word; behind a panic come the places in its source. ssh says before it why it failed.
    QStringList lines;
    for (const QString &line : QString::fromUtf8(errors).split(u'\n', Qt::SkipEmptyParts)) {
        const bool isPlace = line.startsWith(u'\t') || line.startsWith("github.com/"_L1) ||
                             line.startsWith("golang.org/"_L1) || line.startsWith("main."_L1) ||
                             line.startsWith("runtime."_L1) || line.contains("NOTICE: Config file"_L1);
        if (!isPlace && !lines.contains(line.simplified()))
            lines.append(line.simplified());
    }
    const QString text = lines.join("; "_L1);
    return text.isEmpty() ? u"restic failed and does not say why"_s : u"restic: "_s + text.left(kLongestReason);
}

QString Snapshot::backup() const
{
    const auto found = std::find_if(tags.cbegin(), tags.cend(), backup::isBackupName);
    return found == tags.cend() ? QString() : *found;
}

QList<Snapshot> parseSnapshots(const QByteArray &json)
{
    QList<Snapshot> all;
    for (const auto &value : QJsonDocument::fromJson(json).array()) {
        const QJsonObject object = value.toObject();
        Snapshot one;
        one.id = object.value("id"_L1).toString();
        one.server = object.value("hostname"_L1).toString();
        one.time = QDateTime::fromString(object.value("time"_L1).toString(), Qt::ISODateWithMs).toSecsSinceEpoch();
        for (const auto &tag : object.value("tags"_L1).toArray())
            one.tags.append(tag.toString());
        one.path = object.value("paths"_L1).toArray().first().toString();
        if (one.has(kOurTag) && !one.id.isEmpty())
            all.append(one);
    }
    std::stable_sort(all.begin(), all.end(), [](const auto &one, const auto &other) { return one.time < other.time; });
    return all;
}

QList<Snapshot> readSnapshots(const Repository &repository, QString *problem)
{
    const Answered answered =
        restic(repository, {u"snapshots"_s, u"--json"_s, u"--no-lock"_s, u"--tag"_s, kOurTag}, kAskMs);
    *problem = answered.problem;
    return parseSnapshots(answered.output);
}

qint64 addedBytes(const QByteArray &json)
{
    qint64 added = -1;
    for (const QByteArray &line : json.split('\n')) {
        const QJsonObject object = parseObject(line);
        if (object.value("message_type"_L1).toString() == "summary"_L1)
            added = object.value("data_added"_L1).toInteger();
    }
    return added;
}

QString homeName(const QString &account)
{
    return account + u"-home.tar"_s;
}

} // namespace corv::ctl
