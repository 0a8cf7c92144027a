#include "ctl/remote/HostsFile.h"

#include "common/Fd.h"
#include "ctl/Meant.h"
#include "ctl/remote/Remote.h"

#include <QRegularExpression>

#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qsizetype kLongestFile = 1'048'576;
constexpr auto kAll = "all"_L1;

// The whole file, or why it cannot be had.
QByteArray readHosts(const char *path, QString *problem)
{
    const Fd file(::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        *problem = u"cannot read %1: %2"_s.arg(QString::fromUtf8(path), QString::fromLocal8Bit(std::strerror(errno)));
        return {};
    }
    if (!S_ISREG(status.st_mode) || status.st_size > kLongestFile) {
        *problem = u"%1 is no file of hosts"_s.arg(QString::fromUtf8(path));
        return {};
    }
    QByteArray text(static_cast<qsizetype>(status.st_size), '\0');
    const ssize_t count = ::read(file.get(), text.data(), static_cast<size_t>(text.size()));
    text.truncate(std::max<ssize_t>(count, 0));
    return text;
}

// The hosts of a group. Nothing, with problem set, where there is none of that name.
QStringList hostsOf(const QList<HostGroup> &groups, const QString &name, const QString &path, QString *problem)
{
    QStringList hosts;
    QStringList names = {kAll};
    bool isThere = name == kAll;
    for (const HostGroup &group : groups) {
        names.append(group.name);
        if (name != kAll && (group.name != name || name.isEmpty()))
            continue;
        isThere = true;
        hosts += group.hosts;
    }
    names.removeAll(QString());
    if (!isThere) {
        const QString near = meant(name, names);
        *problem = u"%1 has no group '%2'"_s.arg(path, name) +
                   (near.isEmpty() ? QString() : u"; did you mean '@%1'?"_s.arg(near));
    } else if (hosts.isEmpty()) {
        *problem = u"the group '%1' of %2 is empty"_s.arg(name, path);
    }
    return hosts;
}

} // namespace

QList<HostGroup> parseHosts(const QByteArray &text, QString *problem)
{
    static const QRegularExpression heading(
        QRegularExpression::anchoredPattern(u"\\[([A-Za-z0-9][A-Za-z0-9_.-]{0,62})\\]"_s));
    QList<HostGroup> groups = {{}};
    int number = 0;
    for (const QString &whole : QString::fromUtf8(text).split(u'\n')) {
        ++number;
        const QString line = whole.section(u'#', 0, 0).trimmed();
        if (line.isEmpty())
            continue;
        QString wrong;
        if (!line.startsWith(u'[')) {
            wrong = hostProblem(line);
            groups.last().hosts.append(line);
        } else if (const QRegularExpressionMatch match = heading.match(line); !match.hasMatch()) {
            wrong = u"a group is given as [NAME], of letters, digits, dots, dashes and underscores"_s;
        } else if (match.captured(1) == kAll) {
            wrong = u"the group 'all' is every host of the file"_s;
        } else {
            groups.append({match.captured(1), {}});
        }
        if (!wrong.isEmpty()) {
            *problem = u"line %1: %2"_s.arg(QString::number(number), wrong);
            return {};
        }
    }
    return groups;
}

std::vector<std::string> expandHosts(const std::vector<std::string> &named, const char *file, QString *problem)
{
    const QString path = QString::fromUtf8(file);
    QList<HostGroup> groups;
    QStringList hosts;
    for (const std::string &one : named) {
        const QString name = QString::fromStdString(one);
        QStringList more = {name};
        if (name.startsWith(u'@')) {
            if (groups.isEmpty()) {
                const QByteArray text = readHosts(file, problem);
                if (!problem->isEmpty())
                    return {};
                groups = parseHosts(text, problem);
                // cppcheck-suppress knownConditionTrueFalse ; it takes the call for one that writes nothing there
                if (!problem->isEmpty())
                    problem->prepend(path + u", "_s);
            }
            if (problem->isEmpty())
                more = hostsOf(groups, name.sliced(1), path, problem);
        } else {
            *problem = hostProblem(name);
        }
        if (!problem->isEmpty())
            return {};
        hosts += more;
    }
    hosts.removeDuplicates();
    std::vector<std::string> all;
    for (const QString &host : hosts)
        all.push_back(host.toStdString());
    return all;
}

} // namespace corv::ctl
