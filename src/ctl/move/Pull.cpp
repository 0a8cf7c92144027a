#include "ctl/move/Pull.h"

#include "common/Account.h"
#include "common/Child.h"
#include "common/Run.h"
#include "ctl/move/Listing.h"

#include <QRegularExpression>

#include <algorithm>
#include <array>

#include <fcntl.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

constexpr int kAskMs = 30'000;
constexpr int kStartMs = 5'000;
constexpr qsizetype kLongestWords = 4'096;
constexpr qsizetype kShown = 400;

// rsync speaks with what its option --rsh starts, which here is no ssh: that one is root's, and its stream is this
// program's standard input and output, put aside for two copies between it and rsync.
const auto kAsideStream = u"unset SSH_AUTH_SOCK; exec 3<&0 4>&1 </dev/null >/dev/null; cd /; exec \"$@\""_s;
const auto kRelay = u"--rsh=sh -c 'exec 5<&0; cat <&5 >&4 & cat <&3; kill $! 2>/dev/null' relay"_s;
// Prints what the other side is asked to run.
const auto kPrinter = u"--rsh=sh -c 'shift; printf \"%s\\n\" \"$@\" >&3' printer"_s;
const auto kAsidePrint = u"exec 3>&1 >/dev/null 2>&1; cd /; \"$@\"; exit 0"_s;

// What a transfer ends with when files went away meanwhile, and when some could not be read.
constexpr int kVanished = 24;
constexpr int kPartial = 23;
// How lines begin that are complaints of this side then: what has arrived could not be kept. Names of files, which can
// be anything but hold no line feed there, stand further behind.
constexpr std::array kThisSide = {"rsync: [receiver]", "rsync: [generator]"};

constexpr qsizetype kLongestBeginning = 32;

bool beginsHere(const QByteArray &line)
{
    return std::any_of(kThisSide.cbegin(), kThisSide.cend(),
                       [&line](const char *beginning) { return line.startsWith(beginning); });
}

QStringList rsyncCommand(const QString &rsh, const QString &account, bool isBack)
{
    const QString home = hosting::homePath(account);
    const QStringList known = isBack ? QStringList{u"--link-dest=%1/"_s.arg(home)} : QStringList();
    return QStringList{u"rsync"_s,
                       u"-aHAX"_s,
                       u"--no-owner"_s,
                       u"--no-group"_s,
                       u"--delete"_s,
                       u"--ignore-errors"_s, // what cannot be read there does not keep what is gone there
                       u"--partial"_s,
                       u"--timeout=120"_s,
                       u"--blocking-io"_s, // of what it starts, which is cat here
                       u"--exclude=/tmp"_s,
                       u"--exclude=/"_s + QLatin1StringView(kComing),
                       u"--exclude=/"_s + QLatin1StringView(kReplaced)} +
           known + QStringList{rsh, u"there:%1/"_s.arg(home), u"%1/%2/"_s.arg(home, QLatin1StringView(kComing))};
}

// What rsync here wants the other side to run depends on its version: it is asked, by a process without rights. Empty
// where it does not tell.
QStringList senderCommand(const QString &account, bool isBack)
{
    QByteArray words;
    hosting::Streams streams;
    streams.output = &words;
    streams.maxOutput = kLongestWords;
    hosting::Surroundings surroundings;
    surroundings.milliseconds = kAskMs;
    (void)hosting::runWith(u"runuser"_s,
                           QStringList{u"-u"_s, u"nobody"_s, u"--"_s, u"sh"_s, u"-c"_s, kAsidePrint, u"sh"_s} +
                               rsyncCommand(kPrinter, account, isBack),
                           streams, surroundings);
    const QStringList command = QString::fromUtf8(words).split(u'\n', Qt::SkipEmptyParts);
    return isSenderCommand(command, hosting::homePath(account)) ? command : QStringList();
}

} // namespace

bool isSenderCommand(const QStringList &words, const QString &home)
{
    static const QRegularExpression plain(QRegularExpression::anchoredPattern(u"[A-Za-z0-9./=_,-]+"_s));
    return words.size() > 4 && words.value(0) == "rsync"_L1 && words.value(1) == "--server"_L1 &&
           words.value(2) == "--sender"_L1 && words.last() == home + u'/' &&
           std::all_of(words.cbegin(), words.cend(), [](const QString &word) { return plain.match(word).hasMatch(); });
}

Pull::~Pull()
{
    if (m_rsync)
        killGroup(*m_rsync);
}

QString Pull::open(const QString &host, const QString &account, bool isBack)
{
    m_account = account;
    m_isBack = isBack;
    const QStringList sender = senderCommand(account, isBack);
    if (sender.isEmpty())
        return u"rsync does not tell what the other side has to run"_s;
    const QString folder = hosting::homePath(account) + u'/' + QLatin1StringView(kComing);
    if (const QString problem = hosting::asUser(account, {u"mkdir"_s, u"-p"_s, u"-m"_s, u"0700"_s, folder});
        !problem.isEmpty())
        return problem;
    return m_gate.open(host, QStringList{u"cd"_s, u"/"_s, u"&&"_s, u"exec"_s, u"runuser"_s, u"-u"_s, account, u"--"_s} +
                                 sender);
}

QString Pull::start()
{
    if (const QString problem = m_gate.pass(); !problem.isEmpty())
        return problem;
    m_stream = m_gate.remote().takeStream();
    (void)::fcntl(m_stream.get(), F_SETFL, 0);
    m_rsync = std::make_unique<QProcess>();
    prepareChild(*m_rsync);
    m_rsync->setStandardInputFile(QProcess::nullDevice());
    m_rsync->setStandardOutputFile(QProcess::nullDevice());
    m_rsync->setChildProcessModifier([stream = m_stream.get(), prepare = m_rsync->childProcessModifier()] {
        ::dup2(stream, STDIN_FILENO);
        ::dup2(stream, STDOUT_FILENO);
        prepare();
    });
    m_rsync->start(u"runuser"_s, QStringList{u"-u"_s, m_account, u"--"_s, u"sh"_s, u"-c"_s, kAsideStream, u"sh"_s} +
                                     rsyncCommand(kRelay, m_account, m_isBack));
    return m_rsync->waitForStarted(kStartMs) ? QString() : u"rsync: cannot start"_s;
}

QString Pull::wait(int milliseconds, const Room &room, const std::function<bool()> &goesOn, QString *unread)
{
    bool isFull = false;
    const auto mayGoOn = [&] {
        isFull = !room.isThere();
        return !isFull && goesOn();
    };
    QByteArray said;
    QByteArray line;
    bool isOfThisSide = false;
    const auto take = [this, &said, &line, &isOfThisSide] {
        const QByteArray more = m_rsync->readAllStandardError();
        said = (said + more).right(kLongestWords);
        for (const char byte : more) {
            if (line.size() < kLongestBeginning)
                line += byte;
            if (byte != '\n')
                continue;
            isOfThisSide = isOfThisSide || beginsHere(line);
            line.clear();
        }
    };
    QObject::connect(m_rsync.get(), &QProcess::readyReadStandardError, m_rsync.get(), take);
    const bool hasEnded = waitForEnd(*m_rsync, milliseconds, mayGoOn);
    if (!hasEnded)
        killGroup(*m_rsync);
    take();
    const bool hasExited = hasEnded && m_rsync->exitStatus() == QProcess::NormalExit;
    const int code = hasExited ? m_rsync->exitCode() : -1;
    m_rsync.reset();
    m_stream.reset();
    (void)m_gate.remote().wait();
    if (code == 0 || code == kVanished)
        return {};
    if (!hasEnded)
        return u"rsync: "_s + (isFull ? room.problem() : u"took too long"_s);
    const QString text = QString::fromUtf8(said).trimmed();
    if (code == kPartial && !isOfThisSide && !beginsHere(line) && unread) {
        *unread = text.right(kShown);
        return {};
    }
    return u"rsync: "_s + (text.isEmpty() ? m_gate.remote().explain() : text.right(kShown));
}

} // namespace corv::ctl::moving
