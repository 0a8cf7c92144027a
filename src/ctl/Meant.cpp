#include "ctl/Meant.h"

#include "common/Account.h"
#include "ctl/Session.h"
#include "ctl/remote/Remote.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QList>

#include <algorithm>
#include <vector>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// Nobody mistypes a word of this length; the time grows with its square.
constexpr qsizetype kLongestWord = 64;
// How long the list of another server's accounts is waited for.
constexpr int kListSeconds = 60;

} // namespace

int distance(const QString &one, const QString &other)
{
    const auto width = static_cast<size_t>(other.size()) + 1;
    std::vector<int> beforeLast(width);
    std::vector<int> last(width);
    std::vector<int> row(width);
    for (size_t j = 0; j < width; ++j)
        row[j] = static_cast<int>(j);
    for (qsizetype i = 1; i <= one.size(); ++i) {
        beforeLast.swap(last);
        last.swap(row);
        row[0] = static_cast<int>(i);
        for (size_t j = 1; j < width; ++j) {
            const auto at = static_cast<qsizetype>(j);
            const int change = one[i - 1] == other[at - 1] ? 0 : 1;
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + change});
            const bool areSwapped = i > 1 && at > 1 && one[i - 1] == other[at - 2] && one[i - 2] == other[at - 1];
            if (areSwapped)
                row[j] = std::min(row[j], beforeLast[j - 2] + 1);
        }
    }
    return row.back();
}

QString meant(const QString &typed, const QStringList &words)
{
    if (typed.size() > kLongestWord)
        return {};
    QString nearest;
    int least = 0;
    bool isOnlyOne = false;
    for (const QString &word : words) {
        const int far = distance(typed, word.left(2 * kLongestWord));
        if (far > std::max<qsizetype>(1, word.size() / 3))
            continue;
        if (nearest.isEmpty() || far < least) {
            nearest = word;
            least = far;
            isOnlyOne = true;
        } else if (far == least && word != nearest) {
            isOnlyOne = false;
        }
    }
    return isOnlyOne ? nearest : QString();
}

QString meantHint(const QString &what, const QString &typed, const QStringList &names)
{
    if (names.size() == 1)
        return u"the only %1 is '%2'"_s.arg(what, names.first());
    const QString name = meant(typed, names);
    return name.isEmpty() ? QString() : u"did you mean '%1'?"_s.arg(name);
}

std::optional<QStringList> accountNames(const Session &session)
{
    QStringList names;
    if (session.options.hosts.empty()) {
        for (const hosting::User &user : hosting::users()) {
            if (hosting::hasMarker(user.comment))
                names.append(user.name);
        }
        return names;
    }
    const Distant list = runThere(session.options, {u"corvctl"_s, u"account"_s, u"list"_s, u"--json"_s}, kListSeconds);
    const QJsonValue accounts = QJsonDocument::fromJson(list.output).object().value("accounts"_L1);
    if (!list.problem.isEmpty() || !accounts.isArray())
        return {};
    for (const QJsonValue account : accounts.toArray())
        names.append(account.toObject().value("username"_L1).toString());
    return names;
}

} // namespace corv::ctl
