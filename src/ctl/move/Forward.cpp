#include "ctl/move/Forward.h"

#include "common/Account.h"
#include "common/Fd.h"
#include "common/Json.h"
#include "ctl/Session.h"
#include "ctl/doctor/Forwards.h"
#include "ctl/move/Believed.h"
#include "ctl/remote/Remote.h"
#include "ctl/screen/Escape.h"

#include <QFile>
#include <QJsonObject>
#include <QThread>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

constexpr int kThereSeconds = 180;
constexpr qsizetype kLongestReply = 65'536;
// The line was written a moment ago.
constexpr qint64 kEndOfLog = 4'194'304;
constexpr int kTries = 40;
constexpr int kBetweenMs = 50;

// Runs corvctl over there with its standard input, and gives what it printed.
QJsonObject runThereWith(const Options &options, const QString &host, const QStringList &words, const QByteArray &input,
                         QString *problem)
{
    const int seconds = options.timeout > 0 ? options.timeout : kThereSeconds;
    const QStringList command = QStringList{u"corvctl"_s} + words;
    Remote remote;
    if (const QString wrong = remote.start(host, command); !wrong.isEmpty()) {
        *problem = wrong;
        return {};
    }
    if (!input.isEmpty())
        (void)remote.write(input, seconds); // an ssh that has ended says why below
    const std::optional<QByteArray> output = remote.readAll(seconds, kLongestReply);
    if (!output) {
        *problem = u"%1: no answer within %2 s"_s.arg(host, QString::number(seconds));
        return {};
    }
    const int status = remote.wait();
    const QJsonObject reply = parseObject(*output);
    if (status == 0 && reply.value("ok"_L1).toBool())
        return reply;
    const QString error = reply.value("error"_L1).toString();
    *problem = !error.isEmpty() ? u"%1: %2"_s.arg(host, oneSentence(error)) : remote.explain();
    return {};
}

// The end of an access log; root's folder, and Apache's file in it.
QByteArray endOfLog(const QString &domain)
{
    const QString path = u"/var/log/apache2/%1-access.log"_s.arg(domain);
    const Fd file(::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    const off_t size = file ? ::lseek(file.get(), 0, SEEK_END) : 0;
    if (size <= 0)
        return {};
    const off_t begin = size > kEndOfLog ? size - kEndOfLog : 0;
    QByteArray text(static_cast<qsizetype>(size - begin), Qt::Uninitialized);
    const ssize_t count = ::pread(file.get(), text.data(), static_cast<size_t>(text.size()), begin);
    text.resize(count > 0 ? count : 0);
    return text;
}

// Whether what the old server leads on comes here, and from where it comes itself. Apache writes its line once the
// answer is sent.
QString awaitAddress(const QString &domain, const QByteArray &token)
{
    for (int i = 0; i < kTries; ++i) {
        const QByteArray log = endOfLog(domain);
        const QString address = addressIn(log, token);
        if (!address.isEmpty() && log.contains(" /.well-known/corv-moved/" + token + ' '))
            return address;
        QThread::msleep(kBetweenMs);
    }
    return {};
}

} // namespace

QString addressIn(const QByteArray &log, const QByteArray &token)
{
    const qsizetype found = isForwardKey(token) ? log.lastIndexOf(" /.well-known/corv-moved/from/" + token + ' ') : -1;
    if (found < 0)
        return {};
    const qsizetype begin = log.lastIndexOf('\n', found) + 1;
    const QString address = QString::fromLatin1(log.mid(begin, log.indexOf(' ', begin) - begin));
    return isPlainAddress(address) ? address : QString();
}

OldAddress leadOldAddress(const Options &options, const QString &host, const QString &account, const QString &domain,
                          const QString &address)
{
    OldAddress done;
    // They become words of a shell over there, and parts of paths here.
    if (!hosting::validUsername(account) || !hosting::isStoredDomain(domain) ||
        (!address.isEmpty() && !isPlainAddress(address))) {
        done.problem = u"no valid name, domain or address"_s;
        return done;
    }
    const QByteArray key = believedKey(&done.problem);
    if (key.isEmpty())
        return done;
    const QJsonObject reply =
        runThereWith(options, host,
                     {u"account"_s, u"forward"_s, account, address.isEmpty() ? u"caller"_s : address, u"--key-file"_s,
                      u"-"_s, u"--json"_s},
                     key + '\n', &done.problem);
    if (!done.problem.isEmpty())
        return done;
    done.address = reply.value("address"_L1).toString();
    done.onHttps = reply.value("https"_L1).toBool();
    done.httpsProblem = reply.value("httpsProblem"_L1).toString();
    if (reply.value("domain"_L1).toString() != domain) {
        (void)endOldAddress(options, host, account);
        done.problem = u"%1: the account %2 has another domain there than %3"_s.arg(host, account, domain);
        return done;
    }
    done.from = awaitAddress(domain, reply.value("token"_L1).toString().toLatin1());
    if (done.from.isEmpty())
        done.problem = u"%1 leads %2 on to %3, but nothing of it has come here"_s.arg(host, domain, done.address);
    else
        done.logProblem = believe(account, done.from);
    return done;
}

QString endOldAddress(const Options &options, const QString &host, const QString &account)
{
    if (!hosting::validUsername(account))
        return u"%1 is no name of an account"_s.arg(account);
    QString problem;
    (void)runThereWith(options, host, {u"account"_s, u"forward"_s, account, u"off"_s, u"--json"_s}, {}, &problem);
    // cppcheck-suppress knownConditionTrueFalse ; it takes the call for one that writes nothing there
    return problem.isEmpty() ? believeNoMore(account) : problem;
}

} // namespace corv::ctl::moving
