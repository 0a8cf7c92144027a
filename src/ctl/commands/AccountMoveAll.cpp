#include "common/Account.h"
#include "common/Json.h"
#include "ctl/Command.h"
#include "ctl/Input.h"
#include "ctl/Session.h"
#include "ctl/commands/Account.h"
#include "ctl/commands/RestoreText.h"
#include "ctl/remote/Hosts.h"
#include "ctl/remote/Remote.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <QFile>
#include <QJsonArray>

#include <algorithm>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kListSeconds = 120;
constexpr int kParallel = 2;
constexpr int kMostParallel = 16;
constexpr qsizetype kLongestComplaint = 4096;
constexpr auto kSelf = "/proc/self/exe";

// What became of one account.
struct OneMove
{
    QString account;
    bool wasHere = false; // there was nothing to do
    int status = kDone;
    QJsonObject reply;    // the last line that its move printed, where that is one
    QByteArray complaint; // the beginning of what it wrote to standard error
};

// The accounts that the other server tells of, by name. Nothing, after a word on standard error, where it tells none.
std::optional<QList<OneMove>> accountsThere(const Session &session, const QString &host, int *status)
{
    Options options = session.options;
    options.hosts = {host.toStdString()};
    const Distant list = runThere(options, {u"corvctl"_s, u"account"_s, u"list"_s, u"--json"_s}, kListSeconds);
    const QJsonValue all = parseObject(list.output).value("accounts"_L1);
    if (!list.problem.isEmpty() || !all.isArray()) {
        *status = list.problem.isEmpty() ? fail(kNoConnection, u"what answers there is no list of accounts"_s)
                                         : fail(list.status, list.problem);
        return {};
    }
    QList<OneMove> accounts;
    for (const auto &value : all.toArray()) {
        const QString name = value.toObject().value("username"_L1).toString();
        // It becomes a word of a command line.
        if (!hosting::validUsername(name)) {
            note(u"%1 is no name of an account, and is left out"_s.arg(name));
            continue;
        }
        // One that has come, and whose move is not kept in mind any more.
        const bool isHere = hosting::isOurs(name) &&
                            hosting::domainOf(name) == value.toObject().value("domain"_L1).toString() &&
                            !QFile::exists(u"/var/lib/corvane/moves/%1.json"_s.arg(name));
        OneMove one;
        one.account = name;
        one.wasHere = isHere;
        accounts.append(one);
    }
    std::sort(accounts.begin(), accounts.end(),
              [](const OneMove &a, const OneMove &b) { return a.account < b.account; });
    return accounts;
}

// Becomes the move of one account.
int becomeMove(const Options &options, const std::string &account, const std::string &host,
               const std::vector<std::string> &further)
{
    std::vector<std::string> words = {"corvctl", "--json", "--confirm", account};
    if (!options.config.empty())
        words.insert(words.end(), {"--config", options.config});
    if (!options.socket.empty())
        words.insert(words.end(), {"--socket", options.socket});
    if (options.timeout > 0)
        words.insert(words.end(), {"--timeout", std::to_string(options.timeout)});
    words.insert(words.end(), {"account", "move", account, host});
    words.insert(words.end(), further.begin(), further.end());
    std::vector<char *> argv;
    argv.reserve(words.size() + 1);
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    ::execv(kSelf, argv.data());
    return fail(kNoConnection, u"cannot start another corvctl"_s);
}

void takeLines(OneMove *one, int to, const QByteArray &lines)
{
    if (to == STDERR_FILENO) {
        one->complaint += lines.left(kLongestComplaint - one->complaint.size());
        return;
    }
    for (const QByteArray &line : lines.split('\n')) {
        if (const QJsonObject reply = parseObject(line); !reply.isEmpty())
            one->reply = reply;
    }
}

// The last line that is a complaint: before it stand the steps that it told of. What follows it, indented, says what to
// do.
QString complaintOf(const OneMove &one, bool isHint)
{
    QString complaint;
    QString hint;
    for (const QString &line : QString::fromUtf8(one.complaint).split(u'\n', Qt::SkipEmptyParts)) {
        if (line.startsWith("  "_L1)) {
            hint = line.trimmed();
        } else {
            complaint = line.startsWith("corvctl: "_L1) ? line.mid(9) : line;
            hint.clear();
        }
    }
    return isHint ? hint : complaint;
}

QString stateOf(const OneMove &one, bool isDry)
{
    if (one.wasHere)
        return u"here already"_s;
    if (one.status != kDone)
        return isDry                                    ? u"in the way"_s
               : one.reply.value("decided"_L1).toBool() ? u"moved, with faults"_s
               : one.reply.value("unknown"_L1).toBool() ? u"not known"_s
                                                        : u"not moved"_s;
    return isDry ? u"can be moved"_s : u"moved"_s;
}

QString nextOf(const OneMove &one, const QString &host)
{
    if (one.wasHere || one.status == kDone)
        return {};
    const QString hint = complaintOf(one, true);
    return hint.isEmpty() ? u"corvctl account move %1 %2"_s.arg(one.account, host) : hint;
}

int tell(const Session &session, const QString &host, const QList<OneMove> &all, bool isDry)
{
    const auto failed = std::count_if(all.cbegin(), all.cend(), [](const OneMove &one) { return one.status != kDone; });
    QJsonArray array;
    QList<Row> rows;
    for (const OneMove &one : all) {
        const QString problem = one.status == kDone ? QString() : complaintOf(one, false);
        QJsonObject object = {{u"account"_s, one.account},
                              {u"state"_s, stateOf(one, isDry)},
                              {u"exit"_s, one.status},
                              {u"next"_s, nextOf(one, host)}};
        if (!one.reply.isEmpty())
            object.insert(u"reply"_s, one.reply);
        if (!problem.isEmpty())
            object.insert(u"error"_s, problem);
        array.append(object);
        const qint64 offline = one.reply.value("offlineMilliseconds"_L1).toInteger(-1);
        rows.append({text(one.account), text(stateOf(one, isDry), one.status == kDone ? Colour::Good : Colour::Bad),
                     offline < 0 ? nothing() : text(u"%1 ms"_s.arg(offline)), text(problem)});
    }
    if (session.options.json) {
        const QByteArray line = compactJson({{u"ok"_s, failed == 0}, {u"host"_s, host}, {u"accounts"_s, array}});
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
    } else {
        printTable(session, {u"ACCOUNT"_s, u"STATE"_s, u"OFF-LINE"_s, u"WHAT"_s}, rows);
        for (const OneMove &one : all) {
            if (const QString next = nextOf(one, host); !next.isEmpty())
                note(u"%1: %2"_s.arg(one.account, next));
        }
    }
    if (failed == 0)
        return kDone;
    return fail(kRefused, u"%1 of %2 accounts are not moved"_s.arg(failed).arg(all.size()),
                u"the same command goes on with those"_s);
}

} // namespace

int moveOfAllAccounts(Session &session, const Given &given)
{
    if (const std::optional<int> end = refuseElsewhere(session, u"account move"_s))
        return *end;
    // There is one word then.
    const QString host = given.text("ACCOUNT");
    if (given.has("HOST"))
        return fail(kWrongUsage, u"with --all the server alone is named: corvctl account move --all HOST"_s);
    if (const QString problem = hostProblem(host); !problem.isEmpty())
        return fail(kWrongUsage, problem);
    bool isNumber = true;
    const int parallel = given.has("--parallel") ? given.text("--parallel").toInt(&isNumber) : kParallel;
    if (!isNumber || parallel < 1 || parallel > kMostParallel)
        return fail(kWrongUsage, u"--parallel takes a number from 1 to %1"_s.arg(kMostParallel));

    int status = kDone;
    std::optional<QList<OneMove>> all = accountsThere(session, host, &status);
    if (!all)
        return status;
    std::vector<std::string> names;
    for (const OneMove &one : *all) {
        if (!one.wasHere)
            names.push_back(one.account.toStdString());
    }
    std::vector<std::string> further;
    for (const char *const flag : {"--dry-run", "--rehearse"}) {
        if (given.has(flag))
            further.emplace_back(flag);
    }
    const bool isDry = given.has("--dry-run");
    if (further.empty() && !names.empty()) {
        const std::optional<QString> typed = confirmation(
            session, u"This moves %1 accounts here, each off-line for some seconds. Type %2 to go on:"_s.arg(
                         QString::number(names.size()), escaped(host)));
        if (!typed)
            return kWrongUsage;
        if (*typed != host)
            return fail(kWrongUsage, u"that is not the server's name, so nothing was moved"_s);
    }

    const auto of = [&](size_t index) -> OneMove & {
        const QString name = QString::fromStdString(names[index]);
        return *std::find_if(all->begin(), all->end(), [&](const OneMove &one) { return one.account == name; });
    };
    const auto work = [&](const std::string &name) {
        return becomeMove(session.options, name, host.toStdString(), further);
    };
    const auto take = [&](size_t index, int to, const QByteArray &lines) {
        const bool isReply = to == STDOUT_FILENO && !lines.trimmed().isEmpty();
        takeLines(&of(index), to, lines);
        if (isReply && !session.options.json && !session.options.plain)
            note(u"%1 has ended"_s.arg(of(index).account));
    };
    const std::vector<int> statuses = workOnEachHost(names, work, take, static_cast<size_t>(parallel));
    for (size_t i = 0; i < statuses.size(); ++i)
        of(i).status = statuses[i];
    return tell(session, host, *all, isDry);
}

} // namespace corv::ctl
