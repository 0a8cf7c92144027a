#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

#include <sys/types.h>

namespace corv {

// The request that the agent is working on, as it tells whoever may connect to it: it answers nobody meanwhile.
struct InHand
{
    QString command;  // of the protocol
    QString account;  // the account that it is about; empty where it is about none
    qint64 uid = 0;   // of the client who asked
    qint64 began = 0; // milliseconds of the clock that bootMilliseconds reads
    pid_t agent = 0;
    qint64 agentBegan = 0; // as processBegan tells it, so that what an agent left that was killed is known to be old
};

// Where the agent keeps it while it works on a request.
constexpr auto kInHandPath = "/run/corvane/request";

// As one line of JSON.
QByteArray inHandLine(const InHand &request);

// The request that is in hand: what stands in the file, where the agent that wrote it still runs. Nothing otherwise, or
// where the file cannot be read.
std::optional<InHand> readInHand(const char *path);

// Milliseconds since the system was started, also of those in which it slept.
qint64 bootMilliseconds();

// When a process began, in the kernel's own ticks; -1 where there is none.
qint64 processBegan(pid_t process);

} // namespace corv
