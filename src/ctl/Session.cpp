#include "ctl/Session.h"

#include "common/Json.h"
#include "ctl/Interrupt.h"
#include "ctl/Meant.h"
#include "ctl/screen/Busy.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/RequestStage.h"

#include <cstdio>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// A sentence that is longer than this is no sentence.
constexpr qsizetype kLongestSentence = 4000;

// What to do next about what the agent said.
struct Advice
{
    QLatin1StringView beginning; // of the agent's sentence
    QLatin1StringView next;
};
constexpr Advice kAdvice[] = {
    {"no Corvane account named"_L1, "corvctl account list shows the accounts"_L1},
    {"hard quotas are off"_L1, "corvctl quota enable switches them on"_L1},
    {"could not archive the files, so nothing was deleted: tar failed"_L1,
     "where files changed, shrank or vanished meanwhile: suspend the account, which ends what writes there, then delete it again"_L1},
    {"userdel failed"_L1,
     "corvctl account suspend ends the account's processes; corvctl account delete --force then finishes the deletion"_L1},
    {"installing quota"_L1,
     "where apt has no linux-modules-extra for this kernel, corvctl quota enable makes one: run it as root on the server"_L1},
    {"no such rule"_L1, "corvctl firewall list shows the rules with their numbers"_L1},
    {"that rule lets you reach this server over SSH"_L1, "ufw on the server itself deletes it"_L1},
    {"restored-"_L1, "corvctl file rm ACCOUNT and that name deletes it"_L1},
    {"no such backup"_L1, "corvctl backup list shows the backups"_L1},
    {"that service is not on the [health] services list"_L1, "corvctl service list shows the services"_L1},
    {"Apache's configuration has an error"_L1, "apachectl configtest shows all of it"_L1},
    {"an update is"_L1, "corvctl update status shows how far it is"_L1},
    {"too big for the editor"_L1, "corvctl file get fetches it"_L1},
    {"not a text file"_L1, "corvctl file get fetches it"_L1},
    {"unknown command"_L1, "man corv-protocol lists the commands"_L1},
};

QString adviceFor(const QString &sentence)
{
    for (const Advice &advice : kAdvice) {
        if (sentence.startsWith(advice.beginning))
            return advice.next;
    }
    return {};
}

// The account that was probably meant, where there is none of that name.
QString hintFor(const Session &session, const QString &sentence, const QJsonObject &args)
{
    if (!sentence.startsWith("no Corvane account named"_L1))
        return {};
    const std::optional<QStringList> names = accountNames(session);
    return names ? meantHint(u"account"_s, args.value("username"_L1).toString(), *names) : QString();
}

// What the agent goes on with after an interruption, and where to see its end.
QString whatGoesOn(const Session &session, const QString &sentence, const QString &command, const QJsonObject &args)
{
    const QString account = args.value("username"_L1).toString();
    const QString what = sentence.arg(account.isEmpty() ? command : u"%1 of %2"_s.arg(command, account));
    if (what.endsWith("not carried out"_L1))
        return what;
    const QString where = session.options.hosts.empty()
                              ? QString()
                              : u"-H %1 "_s.arg(QString::fromStdString(session.options.hosts.front()));
    return u"%1; corvctl %2status shows when it is done"_s.arg(what, where);
}

void complain(const QString &sentence, const QString &hint)
{
    QString text = u"corvctl: "_s + escaped(sentence.left(kLongestSentence)) + u'\n';
    if (sentence.size() > kLongestSentence)
        text.insert(text.size() - 1, u'…');
    if (!hint.isEmpty())
        text += u"  "_s + escaped(hint) + u'\n';
    (void)std::fflush(stdout);
    (void)std::fputs(text.toUtf8().constData(), stderr);
}

int statusOf(Answer::Fate fate)
{
    switch (fate) {
    case Answer::Fate::Replied:
    case Answer::Fate::Printed:
        return kDone;
    case Answer::Fate::TooLarge:
        return kWrongUsage;
    case Answer::Fate::NoConnect:
        return kNoConnection;
    case Answer::Fate::TimedOut:
        return kTimedOut;
    case Answer::Fate::Interrupted:
        return interruptedStatus();
    }
    return kNoConnection;
}

} // namespace

Answer ask(Session &session, const QString &command, const QJsonObject &args)
{
    QJsonObject request = {{u"cmd"_s, command}};
    if (!args.isEmpty())
        request.insert(u"args"_s, args);
    const QByteArray line = compactJson(request);
    if (session.options.printOnly) {
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
        return {Answer::Fate::Printed, {}, {}, {}, {}};
    }

    const InterruptGuard guard;
    Spinner spinner(session.terminal);
    const int seconds = session.options.timeout > 0 ? session.options.timeout : patience(command);
    int agent = 0;
    int lookedAt = 0;
    QString stage;
    Answer answer = session.client.request(line, seconds, [&](const Waiting &waiting) {
        agent = waiting.agent;
        if (session.terminal.moves && waiting.taken && waiting.seconds != lookedAt) {
            lookedAt = waiting.seconds;
            stage = requestStage(command, args, waiting.seconds);
        }
        spinner.show(waiting, stage);
    });
    if (answer.fate == Answer::Fate::Replied && !answer.ok())
        answer.hint = hintFor(session, answer.reply.value("error"_L1).toString(), args);
    if (answer.fate == Answer::Fate::Interrupted)
        answer.problem = whatGoesOn(session, answer.problem, command, args);
    if (answer.fate == Answer::Fate::TimedOut && agent != 0)
        answer.hint = busyWith(agent) + u"; --timeout waits longer"_s;
    return answer;
}

std::optional<int> settled(const Session &session, const Answer &answer)
{
    if (answer.fate == Answer::Fate::Printed)
        return kDone;
    if (answer.fate != Answer::Fate::Replied)
        return fail(statusOf(answer.fate), answer.problem, answer.hint);

    if (session.options.json)
        print((session.terminal.out ? escapedJson(answer.line) : answer.line) + '\n');
    if (!answer.ok()) {
        const QString said = answer.reply.value("error"_L1).toString();
        const QString sentence = oneSentence(said.left(2 * kLongestSentence));
        return fail(kRefused, sentence.isEmpty() ? u"the agent refused, and did not say why"_s : sentence,
                    answer.hint.isEmpty() ? adviceFor(sentence) : answer.hint);
    }
    return session.options.json ? std::optional<int>(kDone) : std::nullopt;
}

int settledWith(const Session &session, const Answer &answer, const QString &sentence)
{
    if (const std::optional<int> end = settled(session, answer))
        return *end;
    if (!session.options.plain)
        printLine(escaped(sentence));
    return kDone;
}

int fail(int status, const QString &sentence, const QString &hint)
{
    complain(sentence, hint);
    return status;
}

int refuse(const Session &session, const QString &sentence, const QString &hint)
{
    if (session.options.json) {
        const QByteArray line = compactJson({{u"ok"_s, false}, {u"error"_s, sentence}});
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
    }
    return fail(kRefused, sentence, hint);
}

int refuseNoAccount(const Session &session, const QString &name)
{
    const QString sentence = u"no Corvane account named '%1'"_s.arg(name);
    const QString hint = hintFor(session, sentence, {{u"username"_s, name}});
    return refuse(session, sentence, hint.isEmpty() ? adviceFor(sentence) : hint);
}

void note(const QString &sentence)
{
    complain(sentence, {});
}

void print(const QByteArray &text)
{
    (void)std::fwrite(text.constData(), 1, static_cast<size_t>(text.size()), stdout);
}

void printLine(const QString &text)
{
    print(text.toUtf8() + '\n');
}

} // namespace corv::ctl
