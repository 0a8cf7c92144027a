#include "ctl/move/Shell.h"

#include "ctl/Session.h"

#include <QDeadlineTimer>
#include <QUuid>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

constexpr int kOpenSeconds = 60;
constexpr int kWriteSeconds = 30;
constexpr qsizetype kLongestOutput = 16'777'216;
constexpr qsizetype kShownBytes = 400;

} // namespace

QString Shell::open(const QString &host)
{
    m_host = host;
    m_read.clear();
    if (const QString problem = m_remote.start(host, {u"exec"_s, u"sh"_s}); !problem.isEmpty())
        return problem;
    return run(u":"_s, kOpenSeconds).problem;
}

Distant Shell::run(const QString &script, int seconds)
{
    const auto ended = [this] {
        (void)m_remote.wait();
        return Distant{{}, m_remote.explain(), kNoConnection};
    };
    // No script can know it beforehand, and so none can end early what it is asked for.
    const QByteArray mark = QUuid::createUuid().toByteArray(QUuid::Id128);
    const QByteArray text = "( " + script.toUtf8() + "\n) </dev/null 2>&1\nprintf '\\n%s %s\\n' " + mark + " $?\n";
    if (m_remote.write(text, kWriteSeconds) != Remote::Moved::Some)
        return ended();
    const QDeadlineTimer end(seconds * 1000LL);
    const QByteArray last = '\n' + mark + ' ';
    for (;;) {
        const qsizetype at = m_read.indexOf(last);
        const qsizetype stop = at < 0 ? -1 : m_read.indexOf('\n', at + last.size());
        if (stop >= 0) {
            const int status = m_read.mid(at + last.size(), stop - at - last.size()).toInt();
            Distant done = {m_read.first(at), {}, status == 0 ? kDone : kRefused};
            m_read.remove(0, stop + 1);
            if (status != 0)
                done.problem = u"%1: %2"_s.arg(
                    m_host, done.output.isEmpty() ? u"exit code %1"_s.arg(status)
                                                  : QString::fromUtf8(done.output.right(kShownBytes)).simplified());
            return done;
        }
        QByteArray piece;
        const Remote::Moved moved = m_remote.read(&piece, static_cast<int>((end.remainingTime() + 999) / 1000));
        if (moved == Remote::Moved::TimedOut || m_read.size() > kLongestOutput)
            return {{}, u"%1: no answer within %2 s"_s.arg(m_host).arg(seconds), kTimedOut};
        if (moved == Remote::Moved::Ended)
            return ended();
        m_read += piece;
    }
}

QString Gate::open(const QString &host, const QStringList &command)
{
    return m_remote.start(host, QStringList{u"read"_s, u"-r"_s, u"go"_s, u"&&"_s} + command);
}

QString Gate::pass()
{
    if (m_remote.write("go\n", kWriteSeconds) == Remote::Moved::Some)
        return {};
    (void)m_remote.wait();
    return m_remote.explain();
}

} // namespace corv::ctl::moving
