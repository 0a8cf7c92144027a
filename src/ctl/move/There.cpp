#include "ctl/move/There.h"

#include "common/Account.h"
#include "common/Json.h"
#include "common/Psql.h"
#include "ctl/Session.h"
#include "ctl/move/Shell.h"
#include "ctl/remote/Remote.h"
#include "ctl/restore/Kept.h"

#include <QJsonArray>
#include <QJsonObject>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

constexpr int kAskSeconds = 60;
// A tenant may have millions of files.
constexpr int kWalkSeconds = 900;
constexpr int kVersionsInMajor = 10'000; // PostgreSQL's version as a number: 150013
// Twice this, and a tenth more, is still a number: a server that was taken over could have sums wrap around to nothing.
constexpr qint64 kMostBytes = qint64(1) << 61;

// The commands' words are taken by the shell over there, and the account's name is letters and digits.

QStringList showCommand(const QString &account)
{
    return {u"corvctl"_s, u"account"_s, u"show"_s, account, u"--json"_s};
}

// The last states of accounts that are gone stand there as well, and a tenant's own texts.
QStringList stateCommand(const QString &account)
{
    return {u"corvctl"_s, u"account"_s, u"state"_s, u"--write"_s, u">/dev/null"_s,
            u"&&"_s,      u"{"_s,       u"grep"_s,  u"-F"_s,      u"'\"username\":\"%1\"'"_s.arg(account),
            kKeptStates,  u"||"_s,      u"test"_s,  u"$?"_s,      u"="_s,
            u"1;"_s,      u"}"_s};
}

// Each of them prints its line whatever becomes of the others. What the owner himself cannot read is not counted.
QStringList measureCommand(const Record &record)
{
    const QString &account = record.account;
    const QString file = moveFile(account, QString());
    const QString walk = u"$(runuser -u %1 -- du -s %2 --exclude=/home/%1/tmp /home/%1 2>/dev/null)"_s;
    return {
        u"echo"_s, u"postgres"_s, u"$(%1 -c 'SHOW server_version_num');"_s.arg(hosting::psqlInShell()),
        u"echo"_s, u"bytes"_s,    walk.arg(account, u"-B1"_s) + u';',
        u"echo"_s, u"entries"_s,  walk.arg(account, u"--inodes"_s) + u';',
        u"echo"_s, u"left"_s,     u"$([ ! -e %1left ] || [ %1left -ef %1by-%2 ] || echo yes);"_s.arg(file, record.word),
        u"echo"_s, u"rsync"_s,    u"$(command -v rsync)"_s};
}

Distant runAt(const Options &options, const QString &host, const QStringList &command, int seconds)
{
    Options there = options;
    there.hosts = {host.toStdString()};
    return runThere(there, command, seconds);
}

std::optional<AccountState> stateIn(const QByteArray &lines, const QString &account)
{
    for (const QByteArray &line : lines.split('\n')) {
        const std::optional<AccountState> state = parseStateLine(line + '\n');
        if (state && state->username == account)
            return state;
    }
    return {};
}

} // namespace

void addMeasures(const QByteArray &output, There *there)
{
    for (const QByteArray &line : output.split('\n')) {
        const QList<QByteArray> words = line.simplified().split(' ');
        bool valid = false;
        const qint64 number = words.value(1).toLongLong(&valid);
        const bool isCount = valid && number >= 0 && number <= kMostBytes;
        if (words[0] == "postgres" && isCount)
            there->postgres = static_cast<int>(number / kVersionsInMajor);
        else if (words[0] == "bytes" && isCount)
            there->homeBytes = number;
        else if (words[0] == "entries" && isCount)
            there->homeEntries = number;
        else if (words[0] == "left")
            there->hasLeft = words.size() > 1;
        else if (words[0] == "rsync")
            there->hasRsync = words.value(1).startsWith('/');
    }
}

std::optional<AccountState> stateThere(Shell *there, const QString &account, QString *problem)
{
    const Distant answer = there->run(stateCommand(account).join(u' '), kAskSeconds);
    const std::optional<AccountState> state = stateIn(answer.output, account);
    if (!state)
        *problem = answer.problem.isEmpty() ? u"the state of %1 could not be written down there"_s.arg(account)
                                            : answer.problem;
    return state;
}

std::optional<There> lookThere(const Options &options, const Record &record, QString *problem, int *status)
{
    const QString &host = record.host;
    const QString &account = record.account;
    const auto failed = [&](const Distant &distant) {
        *problem = distant.problem;
        *status = distant.status;
        return std::nullopt;
    };
    There there;
    const Distant shown = runAt(options, host, showCommand(account), kAskSeconds);
    if (!shown.problem.isEmpty())
        return failed(shown);
    const QJsonObject told = parseObject(shown.output);
    if (told.value("username"_L1).toString() != account) {
        *problem = u"%1: what answers there does not know that command"_s.arg(host);
        *status = kNoConnection;
        return {};
    }
    for (const auto &site : told.value("sitesBeside"_L1).toArray())
        there.sitesBeside.append(site.toString());
    const qint64 bytes = told.value("database"_L1).toObject().value("bytes"_L1).toInteger();
    there.databaseBytes = bytes < 0 || bytes > kMostBytes ? kMostBytes : bytes;

    const Distant written = runAt(options, host, stateCommand(account), kAskSeconds);
    if (!written.problem.isEmpty())
        return failed(written);
    const std::optional<AccountState> state = stateIn(written.output, account);
    if (!state) {
        *problem = u"%1: the state of %2 could not be written down there"_s.arg(host, account);
        *status = kRefused;
        return {};
    }
    there.state = *state;

    const Distant measured = runAt(options, host, measureCommand(record), kWalkSeconds);
    if (!measured.problem.isEmpty())
        return failed(measured);
    addMeasures(measured.output, &there);

    if (const QString unasked = lookAtHttpsThere(host, account, there.state.domain, &there.https); !unasked.isEmpty())
        return failed({{}, unasked, kNoConnection});
    return there;
}

} // namespace corv::ctl::moving
