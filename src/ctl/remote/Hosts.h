#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <functional>
#include <string>
#include <vector>

namespace corv::ctl {

// Does the work for each of several hosts, some at a time, in a process of its own. Whatever one of them writes to
// standard output or standard error comes there line by line, behind the host's name; nothing is read from standard
// input, and ssh cannot ask for anything. Ends with a summary on standard error. work is given the host and returns an
// exit status; the greatest of them all is returned. Call it before there is an application object.
int onEachHost(const std::vector<std::string> &hosts, const std::function<int(const std::string &)> &work);

// Takes what a host wrote: whole lines, to standard output or to standard error (their descriptors' numbers).
using HostLines = std::function<void(size_t host, int to, const QByteArray &lines)>;

// How many hosts are worked on at a time where nobody says: four, and of more than 64 a sixteenth, 32 at most. Each
// login costs this server processor time, and a person who watches four of them does not wait for more.
size_t sideBySideOf(size_t hosts);

// The same with something else done with the lines, and without a summary: the exit statuses in the hosts' order.
// sideBySide: how many at a time; 0 for the number above.
std::vector<int> workOnEachHost(const std::vector<std::string> &hosts,
                                const std::function<int(const std::string &)> &work, const HostLines &take,
                                size_t sideBySide = 0);

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
