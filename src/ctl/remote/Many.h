#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>
#include <string>
#include <vector>

namespace corv::ctl {

struct Session;

// Does the work for each host as onEachHost, and prints one JSON object a line: each line of a host's output as the
// member "reply" beside "host", as it came; and at the end, for each host that failed without one, "host", "exit" and
// "error".
int jsonOfEachHost(const std::vector<std::string> &hosts, const std::function<int(const std::string &)> &work);

// The same for work that prints the lines of "status --plain": a table with one line for each host, the worst first.
int surveyOfHosts(const Session &session, const std::vector<std::string> &hosts,
                  const std::function<int(const std::string &)> &work);

// What one host's status comes to: how bad it is (0: well), and what there is to say of it.
struct HostState
{
    QString host;
    int badness = 0;
    QString state;
    QString details;
};

// From what it printed on standard output and standard error, and its exit status.
HostState hostState(const QString &host, const QByteArray &lines, const QByteArray &complaint, int status);

} // namespace corv::ctl
