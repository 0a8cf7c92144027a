#include "ctl/screen/Follow.h"

#include "ctl/Session.h"
#include "ctl/screen/Escape.h"

#include <QDeadlineTimer>

#include <algorithm>
#include <cstdio>

#include <poll.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kFirstPause = 100; // milliseconds; it doubles up to
constexpr int kLongestPause = 3000;
constexpr int kMissingAgent = 60'000;

QStringList linesOf(const QString &log)
{
    QStringList lines = log.split(u'\n');
    if (lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

} // namespace

QStringList newLines(const QStringList &before, const QStringList &now)
{
    for (qsizetype common = std::min(before.size(), now.size()); common > 0; --common) {
        if (std::equal(before.end() - common, before.end(), now.begin(), now.begin() + common))
            return now.sliced(common);
    }
    return now;
}

LogFollower::LogFollower(const Session &session, const QString &log) : m_session(session), m_seen(linesOf(log)) {}

QStringList LogFollower::take(const QString &log)
{
    const QStringList now = linesOf(log);
    QStringList fresh = newLines(m_seen, now);
    m_seen = now;
    FILE *stream = m_session.options.json ? stderr : stdout;
    for (const QString &line : fresh)
        (void)std::fputs((escapedLines(line) + u'\n').toUtf8().constData(), stream);
    (void)std::fflush(stream);
    return fresh;
}

Answer askUntil(Session &session, const QString &command, const std::function<bool(const QJsonObject &)> &isOver)
{
    QDeadlineTimer patience(kMissingAgent);
    for (int pause = kFirstPause;; pause = std::min(2 * pause, kLongestPause)) {
        Answer answer = ask(session, command);
        if (answer.fate == Answer::Fate::Replied)
            patience.setRemainingTime(kMissingAgent);
        const bool missing = answer.fate == Answer::Fate::NoConnect && !patience.hasExpired();
        if (!missing && (!answer.ok() || isOver(answer.reply)))
            return answer;
        ::poll(nullptr, 0, pause);
    }
}

} // namespace corv::ctl
