#include "ctl/RestoreJournal.h"

#include "common/Account.h"
#include "common/AtomicFile.h"
#include "common/Json.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr mode_t kFileMode = 0600;
constexpr mode_t kFolderMode = 0700;
constexpr qint64 kLargest = 65'536;
constexpr auto kEnd = ".json"_L1;

// How long after it was asked for a creation that was cut off may have made the home. The agent may have had others to
// do before.
constexpr qint64 kLongestCreation = 1800;

} // namespace

QString journalOf(const QString &target)
{
    return kJournals + u'/' + target + kEnd;
}

bool keepJournal(const Journal &journal)
{
    (void)::mkdir(QFile::encodeName(kJournals).constData(), kFolderMode);
    const QJsonObject text = {{u"target"_s, journal.target},
                              {u"account"_s, journal.account},
                              {u"from"_s, journal.from},
                              {u"domain"_s, journal.domain},
                              {u"uid"_s, journal.uid},
                              {u"done"_s, QJsonArray::fromStringList(journal.done)},
                              {u"begun"_s, journal.begun},
                              {u"made"_s, journal.made},
                              {u"withoutJobs"_s, journal.isWithoutJobs}};
    return replaceFile(journalOf(journal.target), compactJson(text) + '\n', kFileMode);
}

std::optional<Journal> readJournal(const QString &target)
{
    QFile file(journalOf(target));
    if (!hosting::validUsername(target) || !file.open(QIODevice::ReadOnly))
        return {};
    const QJsonObject text = parseObject(file.read(kLargest));
    Journal journal;
    journal.target = text.value("target"_L1).toString();
    journal.account = text.value("account"_L1).toString();
    journal.from = text.value("from"_L1).toString();
    journal.domain = text.value("domain"_L1).toString();
    journal.uid = text.value("uid"_L1).toInteger();
    for (const auto &step : text.value("done"_L1).toArray())
        journal.done.append(step.toString());
    journal.begun = text.value("begun"_L1).toInteger();
    journal.made = text.value("made"_L1).toInteger();
    journal.isWithoutJobs = text.value("withoutJobs"_L1).toBool();
    return journal.target == target && hosting::validUsername(journal.account) ? std::optional(journal) : std::nullopt;
}

QList<Journal> journalsInHand()
{
    QList<Journal> journals;
    for (const QString &file : QDir(kJournals).entryList({u'*' + kEnd}, QDir::Files, QDir::Name)) {
        if (const std::optional<Journal> journal = readJournal(file.chopped(kEnd.size())))
            journals.append(*journal);
    }
    return journals;
}

void removeJournal(const QString &target)
{
    (void)QFile::remove(journalOf(target));
}

bool isHalfDone(const Journal &journal)
{
    return isOwnCreation(journal.target, journal.domain, journal.uid, journal.begun);
}

bool isOwnCreation(const QString &account, const QString &domain, qint64 uid, qint64 begun)
{
    for (const hosting::User &user : hosting::users()) {
        if (user.name != account)
            continue;
        if (!hosting::hasMarker(user.comment))
            return false;
        if (uid != 0)
            return user.uid == uid;
        // One that was cut off within the creation does not know the number yet. Whoever has made an account of that
        // name by himself since must not lose it.
        const qint64 made = homeMade(account);
        return hosting::domainIn(user.comment) == domain &&
               (made == 0 || (made >= begun - 1 && made <= begun + kLongestCreation));
    }
    return true;
}

qint64 homeMade(const QString &account)
{
    struct statx home = {};
    if (::statx(AT_FDCWD, QFile::encodeName(hosting::homePath(account)).constData(), AT_SYMLINK_NOFOLLOW,
                STATX_BTIME | STATX_CTIME, &home) != 0)
        return 0;
    return (home.stx_mask & STATX_BTIME) != 0 ? home.stx_btime.tv_sec : home.stx_ctime.tv_sec;
}

} // namespace corv::ctl
