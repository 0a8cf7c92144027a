#pragma once

#include "common/Fd.h"
#include "ctl/Client.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

#include <sys/types.h>

namespace corv::ctl {

struct Options;

// Why ssh must not be given this text as [USER@]HOST, in a sentence; empty when it may.
QString hostProblem(const QString &host);

// A command that runs on another server, reached by the system's own ssh with the user's own settings and keys.
class Remote
{
public:
    Remote() = default;
    Remote(const Remote &) = delete;
    Remote &operator=(const Remote &) = delete;
    Remote(Remote &&) = delete;
    Remote &operator=(Remote &&) = delete;
    // Ends an ssh that still runs.
    ~Remote();

    // Starts "ssh -T -- HOST COMMAND...". The command's words are plain: the shell over there takes them as they stand.
    // Returns why that cannot be, empty when it runs.
    QString start(const QString &host, const QStringList &command);

    // The stream to the command's standard input, and from its standard output. It does not block.
    Fd takeStream();

    // What became of an attempt to move bytes: some were moved, the command takes or gives no more (or a signal came),
    // or nothing moved for so many seconds.
    enum class Moved { Some, Ended, TimedOut };

    // Writes all of data to the command's standard input.
    Moved write(const QByteArray &data, int seconds);

    // Reads what there is of its standard output, or waits for some.
    Moved read(QByteArray *data, int seconds);

    // Takes what the command complains of, if anything: with too much of it lying there it would wait.
    void takeComplaints();

    // The command sees the end of its standard input.
    void finishWriting();

    // All that the command writes to its standard output, at most limit bytes of it; nothing when it has not ended
    // after so many seconds.
    std::optional<QByteArray> readAll(int seconds, qsizetype limit);

    // Waits for the end of ssh, which must be near: at most five seconds, then it is ended. Returns its exit status,
    // 255 where ssh itself failed, and keeps what it and the command complained of.
    int wait();

    // Why nothing came from there, after wait: a sentence with the host's name, and with the words of the other server
    // as they came.
    [[nodiscard]] QString explain() const;

private:
    Moved waitFor(short events, int seconds);

    QString m_host;
    Fd m_stream;
    Fd m_errors;
    pid_t m_process = -1;
    int m_status = 0;
    QByteArray m_complaints;
};

// What a command on another server gave, or why it failed: with an exit status of corvctl, its own if it was reached.
struct Distant
{
    QByteArray output;
    QString problem; // a sentence; empty where the command succeeded
    int status = 0;
};

// Runs a command on the other server that the options name, and waits for its end: so many seconds, where the options
// name no time.
Distant runThere(const Options &options, const QStringList &command, int seconds);

// The way to the agent of another server, through remote, which must outlive its use.
Way wayTo(const QString &host, Remote *remote);

// Copies between standard input and output and the socket until the agent closes it: the end of standard input is
// passed on, so that all replies to what came before still arrive. False when either could not be written to any more.
bool copyStreams(const Fd &socket);

} // namespace corv::ctl
