#pragma once

#include "ctl/remote/Remote.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace corv::ctl::moving {

// A shell of root's on another server, over one connection of ssh, which is there before the seconds begin in which
// another one would cost too much.
class Shell
{
public:
    // Returns why it cannot be had, empty when it answers.
    QString open(const QString &host);

    // Runs a script in it and waits for its end, so many seconds at most. Its output has all that it printed or
    // complained of; problem is set where it ended with another status than 0. After one that was not answered the
    // shell cannot be used any more.
    Distant run(const QString &script, int seconds);

private:
    QString m_host;
    Remote m_remote;
    QByteArray m_read;
};

// A command on another server that has been reached but waits for its word, likewise.
class Gate
{
public:
    // Returns why it cannot be had, empty when it is on its way there. command: plain words, as Remote::start takes
    // them.
    QString open(const QString &host, const QStringList &command);

    // Lets it begin. Returns why it does not, empty where it was told.
    QString pass();

    [[nodiscard]] Remote &remote()
    {
        return m_remote;
    }

private:
    Remote m_remote;
};

} // namespace corv::ctl::moving
