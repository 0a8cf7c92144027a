#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <functional>
#include <string>
#include <vector>

namespace corv::ctl {

// Does the work for each of several hosts, four at a time, in a process of its own. Whatever one of them writes to
// standard output or standard error comes there line by line, behind the host's name; nothing is read from standard
// input, and ssh cannot ask for anything. Ends with a summary on standard error. work is given the host and returns an
// exit status; the greatest of them all is returned. Call it before there is an application object.
int onEachHost(const std::vector<std::string> &hosts, const std::function<int(const std::string &)> &work);

// Takes what a host wrote: whole lines, to standard output or to standard error (their descriptors' numbers).
using HostLines = std::function<void(size_t host, int to, const QByteArray &lines)>;

// The same with something else done with the lines, and without a summary: the exit statuses in the hosts' order.
std::vector<int> workOnEachHost(const std::vector<std::string> &hosts,
                                const std::function<int(const std::string &)> &work, const HostLines &take);

// The summary on standard error; gives the greatest of the statuses.
int endOfHosts(const std::vector<std::string> &hosts, const std::vector<int> &statuses);

// The word for an exit status.
QString wordFor(int status);

// What became of the hosts, by their exit statuses in the same order: one sentence.
QString hostsSummary(const std::vector<std::string> &hosts, const std::vector<int> &statuses);

// Takes the whole lines off the beginning of a text, each behind the prefix; at the end of the text its rest is a line
// too.
QByteArray takeLines(QByteArray *text, const QByteArray &prefix, bool atEnd);

} // namespace corv::ctl
