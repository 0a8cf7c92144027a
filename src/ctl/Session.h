#pragma once

#include "ctl/Client.h"
#include "ctl/screen/Terminal.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include <optional>
#include <string>
#include <vector>

namespace corv::ctl {

// Exit statuses.
constexpr int kDone = 0;
constexpr int kRefused = 1;
constexpr int kWrongUsage = 2;
constexpr int kNoConnection = 3;
constexpr int kTimedOut = 4;

// The options that every command takes.
struct Options
{
    std::string socket; // empty: the one of the settings file
    std::string config; // the settings file; empty: the agent's own choice
    int timeout = 0;    // seconds; 0: as long as the command may take at worst
    bool json = false;
    bool plain = false;
    bool printOnly = false; // print requests instead of sending them
    std::optional<std::string> confirm;
    std::vector<std::string> hosts; // other servers, as ssh takes them; none: this one
    bool isOneOfMany = false;       // whether the same is done for other servers beside it
    bool isShown = false;           // whether what it prints comes to a terminal, by way of another process
};

struct Command;

// What a run of corvctl works with.
struct Session
{
    const std::vector<Command> *commands = nullptr; // all that there are
    Options options;
    Terminal terminal;
    Client client;
};

// Sends a request and waits for its reply, with a note on the terminal while that takes long. With -n the request is
// printed on standard output instead.
Answer ask(Session &session, const QString &command, const QJsonObject &args = {});

// Ends what needs no more than this: a request that was printed, had no reply or was refused, which is said on standard
// error with what to do next; and with --json any reply, whose line goes to standard output as it came. Gives the exit
// status then, and nothing where the reply is to be shown.
std::optional<int> settled(const Session &session, const Answer &answer);

// settled() for commands whose success has nothing to show but this sentence.
int settledWith(const Session &session, const Answer &answer, const QString &sentence);

// Says on standard error what is wrong, escaped, and gives the status back.
int fail(int status, const QString &sentence, const QString &hint = {});

// Ends a command that this client refuses itself, although the agent did not: says why as for a refusal of the agent's,
// with --json also as the reply line that tells it. Gives the exit status.
int refuse(const Session &session, const QString &sentence, const QString &hint = {});

// Refuses a command for want of the account, and names the one that was probably meant. Gives the exit status.
int refuseNoAccount(const Session &session, const QString &name);

// Says something on standard error that is neither a result nor a failure, escaped.
void note(const QString &sentence);

// Writes to standard output; strings from replies have to be escaped before.
void print(const QByteArray &text);
void printLine(const QString &text);

} // namespace corv::ctl
