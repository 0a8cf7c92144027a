#pragma once

#include "common/Fd.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include <functional>

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
    };

    Fate fate = Fate::NoConnect;
    QByteArray line;   // the reply as it came, without its line feed
    QJsonObject reply; // the same, read; its member ok is a boolean
    QString problem;   // without a reply: why, as a sentence
    QString hint;      // what to do about it, empty when that is not known

    // Whether the agent did what it was asked for.
    [[nodiscard]] bool ok() const
    {
        return fate == Fate::Replied && reply.value(QLatin1StringView("ok")).toBool();
    }
};

// What is waited for, and how long already.
struct Waiting
{
    bool taken;  // whether the agent has taken the request; until then it is busy with another
    int seconds; // since it was sent
};

// Called several times a second while a reply is waited for.
using OnWaiting = std::function<void(const Waiting &)>;

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

    // Sends one line, which must not hold a line feed, and waits at most so many seconds for the reply to it.
    Answer request(const QByteArray &line, int seconds, const OnWaiting &onWaiting);

private:
    QByteArray m_path;
    Fd m_socket;
};

// How many seconds a reply to the command is waited for: what it may take at worst, as the protocol's description says,
// and some more for the request before it. The longest of all for a command that is not described.
int patience(const QString &command);

} // namespace corv::ctl
