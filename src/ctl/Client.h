#pragma once

#include "common/Fd.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include <functional>
#include <optional>

namespace corv::ctl {

// What became of a request.
struct Answer
{
    enum class Fate {
        Replied,
        Printed,   // not sent, on the user's wish
        TooLarge,  // not sent: no agent takes such a line
        NoConnect, // no connection, a connection that was cut off, or something that is no agent at its other end
        TimedOut,
        Interrupted, // by a signal; the agent goes on with a request that was sent
    };

    Fate fate = Fate::NoConnect;
    QByteArray line;   // the reply as it came, without its line feed
    QJsonObject reply; // the same, read; its member ok is a boolean
    QString problem;   // without a reply: why, as a sentence; of an interrupted request with %1 for its name
    QString hint;      // what to do about it or was meant, empty when that is not known

    // Whether the agent did what it was asked for.
    [[nodiscard]] bool ok() const
    {
        return fate == Fate::Replied && reply.value(QLatin1StringView("ok")).toBool();
    }
};

// What is waited for, and how long already.
struct Waiting
{
    // Whether the agent has taken the request; until then it is busy with another. Not known of another server's.
    std::optional<bool> taken;
    int seconds;   // since it was sent
    int agent = 0; // the process of the agent of this server
};

// Called several times a second while a reply is waited for.
using OnWaiting = std::function<void(const Waiting &)>;

// A way to an agent that does not listen on a socket of this server.
struct Way
{
    std::function<QString(Fd *)> open; // gives a stream to it; returns why there is none, empty when there is
    std::function<QString()> explain;  // why that stream ended before a reply
    std::function<void()> lookAfter;   // to be called now and then while it is waited for
};

// A connection to the agent, made with the first request.
class Client
{
public:
    // The socket's path; it must be set before the first request.
    void setSocket(const QByteArray &path)
    {
        m_path = path;
    }
    [[nodiscard]] QByteArray socketPath() const
    {
        return m_path;
    }

    // A way to go instead.
    void setWay(const Way &way)
    {
        m_way = way;
    }

    // Makes a connection that the caller owns. Returns why that cannot be, as the answer to any request.
    std::optional<Answer> open(int seconds, Fd *socket);

    // Sends one line, which must not hold a line feed, and waits at most so many seconds for the reply to it.
    Answer request(const QByteArray &line, int seconds, const OnWaiting &onWaiting);

private:
    [[nodiscard]] Answer ended() const;

    QByteArray m_path;
    Way m_way;
    Fd m_socket;
};

// How many seconds a reply to the command is waited for: what it may take at worst, as the protocol's description says,
// and some more for the request before it. The longest of all for a command that is not described.
int patience(const QString &command);

} // namespace corv::ctl
