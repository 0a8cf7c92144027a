#include "fakes.h"

#include "common/Run.h"
#include "common/TimedRun.h"

#include <cstring>
#include <utility>

#include <pwd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::fuzz {
namespace {

struct Fakes
{
    QList<QByteArray> answers;
    QList<Call> calls;
};

Fakes &fakes()
{
    static Fakes all;
    return all;
}

// The next answer, and whether it is a failure.
std::pair<bool, QByteArray> answer(const QString &program, const QStringList &args, const QByteArray &input)
{
    fakes().calls.append({program, args, input});
    if (fakes().answers.isEmpty())
        return {false, {}};
    const QByteArray text = fakes().answers.takeFirst();
    return text.startsWith('!') ? std::pair(true, text.sliced(1)) : std::pair(false, text);
}

} // namespace

void setAnswers(const QList<QByteArray> &answers)
{
    fakes() = {answers, {}};
}

const QList<Call> &calls()
{
    return fakes().calls;
}

} // namespace corv::fuzz

// These take the place of the library's own functions, whose source is then not linked at all.

namespace corv::hosting {

QString run(const QString &program, const QStringList &args, const QByteArray &input, QByteArray *out, const QString &)
{
    const auto [failed, text] = fuzz::answer(program, args, input);
    if (out)
        *out = text;
    return failed ? u"%1 failed: %2"_s.arg(program, QString::fromUtf8(text)) : QString();
}

QString runWith(const QString &program, const QStringList &args, const Streams &streams, const Surroundings &)
{
    return run(program, args, streams.input, streams.output, {});
}

QString runInHomes(const QString &program, const QStringList &args, QByteArray *out)
{
    return run(program, args, {}, out, {});
}

QString asUser(const QString &user, const QStringList &args, const QByteArray &input, QByteArray *out)
{
    return run(u"runuser"_s, QStringList{u"-u"_s, user, u"--"_s} + args, input, out);
}

QString joined(QStringList messages)
{
    messages.removeAll(QString());
    return messages.join("; "_L1);
}

} // namespace corv::hosting

namespace corv {

Outcome runWithin(int, const QString &program, const QStringList &args, const QMap<QString, QString> &)
{
    const auto [failed, text] = fuzz::answer(program, args, {});
    return {true, !failed, text, {}};
}

} // namespace corv

extern "C" passwd *getpwnam(const char *name)
{
    static std::array<char, 32> alice = {"alice"}, bob = {"bob"}, secret = {"x"}, comment, plain = {"Bob"}, home, shell;
    (void)std::strncpy(comment.data(), "Corvane account,example.org", comment.size() - 1);
    (void)std::strncpy(home.data(), "/home/alice", home.size() - 1);
    (void)std::strncpy(shell.data(), "/bin/bash", shell.size() - 1);
    static passwd account = {alice.data(), secret.data(), 61'001, 61'001, comment.data(), home.data(), shell.data()};
    static passwd other = {bob.data(), secret.data(), 61'002, 61'002, plain.data(), home.data(), shell.data()};
    if (std::strcmp(name, "alice") == 0)
        return &account;
    return std::strcmp(name, "bob") == 0 ? &other : nullptr;
}
