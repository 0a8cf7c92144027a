#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <string>
#include <vector>

namespace corv::ctl {

// Where the administrator lists servers: one a line as ssh takes it, behind "[NAME]" those of a group.
constexpr auto kHostsFile = "/etc/corvane/hosts";

// A group of the file, and its hosts in their order.
struct HostGroup
{
    QString name; // empty for those before the first
    QStringList hosts;
};

// The groups of a hosts file. What is wrong with it, with the line's number, goes to problem; empty when nothing is.
QList<HostGroup> parseHosts(const QByteArray &text, QString *problem);

// The hosts that were named, each once: those of a group for "@GROUP", all of the file for "@all". Nothing, with
// problem set, where a group is not there, the file cannot be read, or a name is none that ssh may be given.
std::vector<std::string> expandHosts(const std::vector<std::string> &named, const char *file, QString *problem);

} // namespace corv::ctl
