#include "https/Choice.h"

#include "common/AtomicFile.h"
#include "common/HttpsFiles.h"
#include "common/HttpsOptions.h"
#include "https/Inventory.h"
#include "https/Rehearsal.h"
#include "https/Sift.h"
#include "https/Store.h"

#include <QCryptographicHash>

#include <algorithm>
#include <optional>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

constexpr auto kProofFile = "/run/corvane/https/proof.json";
constexpr qsizetype kLargestProof = qsizetype{16} * 1024 * 1024;
constexpr auto kTrialFile = "/run/corvane/https/trial.conf";

constexpr int kOneMilliseconds = 20000;
constexpr int kDumpMilliseconds = 10000;
// One that was refused is tried again unchanged after so long: what it clashed with may have changed.
constexpr qint64 kRefusedSeconds = 3600;

// What Apache makes of the twins at these places.
Verdict attempt(Run *run, const QList<int> &places)
{
    if (run->deadline.hasExpired())
        return Verdict::NoTime;
    const QString path = QString::fromLatin1(kTrialFile);
    if (!replaceFile(path, textOf(*run, places), 0644)) {
        run->complaint = u"cannot write %1"_s.arg(path);
        return Verdict::NoTime;
    }
    const auto time = static_cast<int>(std::min<qint64>(run->deadline.remainingTime(), kOneMilliseconds));
    ++run->state.rehearsals;
    Rehearsal rehearsal = rehearse(path, run->storeIsFull, time);
    run->state.rehearsed = rehearsal.end != Rehearsal::End::NoSpaces;
    if (!run->state.rehearsed)
        rehearsal = readOnly(path, time);
    run->complaint = rehearsal.complaint;
    if (rehearsal.end == Rehearsal::End::Up)
        return Verdict::Up;
    // Whatever does not end in its time, the others are not to wait for.
    return rehearsal.end == Rehearsal::End::NoTime ? Verdict::NoTime : Verdict::Down;
}

// What Apache has of others on port 443; nothing where its configuration is broken without any of ours.
std::optional<Others> readOthers(const Run &run)
{
    const QString path = QString::fromLatin1(kTrialFile);
    if (!replaceFile(path, run.base, 0644))
        return Others();
    // The base is among what is printed: of a port with one site alone Apache does not print the other names.
    const QByteArray dump = dumpVhosts(path, kDumpMilliseconds);
    if (dump.isEmpty() && readOnly(u"/dev/null"_s, kDumpMilliseconds).end == Rehearsal::End::Down)
        return std::nullopt;
    return parseVhosts(dump, path);
}

// Remembers why Apache does not come up with a twin.
void refuse(Run *run, int place, const QString &complaint, QMap<QString, SiteState> *sites)
{
    const Twin &twin = run->twins.at(place);
    SiteState &site = (*sites)[twin.site.account];
    site.leftOut = complaint;
    site.refused = run->prints.at(place);
    site.refusedAt = run->now;
}

// Keeps for the next run what Apache has come up with; nothing where that was seen of its syntax alone.
void keepProof(Run *run, const QList<int> &places)
{
    run->proof.twins.clear();
    for (const int place : places)
        run->proof.twins.insert(run->twins.at(place).site.account, run->prints.at(place));
    if (!run->state.rehearsed || !run->state.none.isEmpty())
        run->proof = {};
    if (!replaceFile(QString::fromLatin1(kProofFile), proofText(run->proof), 0600))
        say(u"cannot write %1"_s.arg(QLatin1StringView(kProofFile)));
}

} // namespace

QByteArray textOf(const Run &run, const QList<int> &places)
{
    QByteArray text = run.base;
    for (const int place : places)
        text += run.texts.at(place);
    return text;
}

bool readProof(Run *run, const QList<Candidate> &candidates, qint64 trustedSeconds)
{
    QStringList accounts;
    for (const Candidate &candidate : candidates)
        accounts.append(candidate.site.account);
    const QByteArray ofBase = QCryptographicHash::hash(run->base, QCryptographicHash::Sha256).toHex();
    const QString print = QString::fromLatin1(ofBase) + printOfApache(accounts);

    run->proof = parseProof(readWhole(QString::fromLatin1(kProofFile), kLargestProof).value_or(QByteArray()));
    if (holds(run->proof, print, candidates.size(), run->now, trustedSeconds))
        return true;
    const std::optional<Others> others = readOthers(*run);
    if (!others)
        return false;
    run->proof = {print, run->now, candidates.size(), *others, {}};
    return true;
}

bool wasRefused(const Run &run, const QString &account, const QString &print)
{
    const SiteState before = run.state.sites.value(account);
    return before.refused == print && before.refusedAt <= run.now && run.now < before.refusedAt + kRefusedSeconds;
}

QList<int> choose(Run *run, QMap<QString, SiteState> *sites)
{
    // What Apache has come up with as it is costs it most of its time, and is not tried again.
    QList<int> proven;
    QList<int> open;
    for (int place = 0; place < run->twins.size(); ++place) {
        const bool isProven = run->proof.twins.value(run->twins.at(place).site.account) == run->prints.at(place);
        (isProven ? proven : open).append(place);
    }
    const auto placesOf = [&](const QList<int> &numbers) {
        QList<int> places;
        for (const int number : numbers)
            places.append(open.at(number));
        return places;
    };
    QMap<int, QString> complaints; // of those that were tried alone beside good ones
    const Sifted sifted = sift(static_cast<int>(open.size()), [&](const QList<int> &numbers) {
        const QList<int> places = placesOf(numbers);
        const Verdict verdict = attempt(run, places);
        if (verdict == Verdict::Down && !places.isEmpty())
            complaints.insert(places.last(), run->complaint);
        return verdict;
    });
    run->state.none = sifted.verdict == Verdict::Down ? run->complaint : QString();
    for (const int place : placesOf(sifted.bad))
        refuse(run, place, complaints.value(place), sites);

    // With no time left, what was there before and has not changed stays: Apache has come up with it.
    QList<int> chosen = placesOf(sifted.good);
    const QList<int> undecided = placesOf(sifted.undecided) + (sifted.verdict == Verdict::Up ? QList<int>() : proven);
    if (sifted.verdict == Verdict::Up)
        chosen += proven;
    keepProof(run, placesOf(sifted.good) + proven);
    run->comesUp = sifted.verdict == Verdict::Up && run->state.rehearsed && undecided.isEmpty();
    const QByteArray live =
        run->state.none.isEmpty() && !undecided.isEmpty() ? readLive().value_or(QByteArray()) : QByteArray();
    for (const int place : undecided) {
        if (live.contains(run->texts.at(place)))
            chosen.append(place);
        else
            (*sites)[run->twins.at(place).site.account].leftOut =
                run->state.none.isEmpty() ? u"there was no time to try it"_s : u"there is no HTTPS at all"_s;
    }
    std::sort(chosen.begin(), chosen.end());
    return chosen;
}

void forgetProof()
{
    (void)::unlink(kProofFile); // is there or not
}

} // namespace corv::https
