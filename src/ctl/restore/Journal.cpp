#include "ctl/restore/Journal.h"

#include "common/Account.h"
#include "common/AtomicFile.h"
#include "common/Json.h"
#include "ctl/restore/Collect.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>

#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr mode_t kFileMode = 0600;
constexpr mode_t kFolderMode = 0700;
constexpr qint64 kLargest = 65'536;
constexpr auto kEnd = ".json"_L1;

QString pathOf(const QString &target)
{
    return kJournals + u'/' + target + kEnd;
}

} // namespace

bool keepJournal(const Journal &journal)
{
    (void)::mkdir(QFile::encodeName(kJournals).constData(), kFolderMode);
    const QJsonObject text = {{u"target"_s, journal.target}, {u"account"_s, journal.account},
                              {u"from"_s, journal.from},     {u"domain"_s, journal.domain},
                              {u"uid"_s, journal.uid},       {u"done"_s, QJsonArray::fromStringList(journal.done)}};
    return replaceFile(pathOf(journal.target), compactJson(text) + '\n', kFileMode);
}

std::optional<Journal> readJournal(const QString &target)
{
    if (!hosting::validUsername(target))
        return {};
    const QJsonObject text = parseObject(boundedText(pathOf(target), kLargest));
    Journal journal = {text.value("target"_L1).toString(), text.value("account"_L1).toString(),
                       text.value("from"_L1).toString(),   text.value("domain"_L1).toString(),
                       text.value("uid"_L1).toInteger(),   {}};
    for (const auto &step : text.value("done"_L1).toArray())
        journal.done.append(step.toString());
    return journal.target == target && hosting::validUsername(journal.account) ? std::optional(journal) : std::nullopt;
}

QStringList targetsInHand()
{
    QStringList targets;
    for (const QString &file : QDir(kJournals).entryList({u'*' + kEnd}, QDir::Files, QDir::Name))
        targets.append(file.chopped(kEnd.size()));
    return targets;
}

void removeJournal(const QString &target)
{
    (void)QFile::remove(pathOf(target));
}

bool isHalfDone(const Journal &journal)
{
    for (const hosting::User &user : hosting::users()) {
        if (user.name != journal.target)
            continue;
        // One that was cut off within the creation does not know the number yet; the name was free when it began.
        return hosting::hasMarker(user.comment) &&
               (journal.uid != 0 ? user.uid == journal.uid : hosting::domainIn(user.comment) == journal.domain);
    }
    return true;
}

} // namespace corv::ctl
