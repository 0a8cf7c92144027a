#include "ctl/remote/Many.h"

#include "common/Json.h"
#include "ctl/Session.h"
#include "ctl/remote/Hosts.h"
#include "ctl/screen/Table.h"

#include <QJsonDocument>

#include <algorithm>
#include <limits>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qsizetype kLongestComplaint = 4096;

// What a host wrote to its two outputs; of its complaints the beginning.
struct Written
{
    QByteArray output;
    QByteArray complaint;
    bool hasLine = false;
};

// A complaint as a sentence, without the name of the program.
QString sentenceOf(const QByteArray &complaint)
{
    QString line = QString::fromUtf8(complaint).section(u'\n', 0, 0);
    if (line.startsWith("corvctl: "_L1))
        line.remove(0, 9);
    return line;
}

// One line of output beside the host that it came from; a reply stays as it is, byte for byte.
QByteArray withHost(const QString &host, const QByteArray &line)
{
    const QByteArray begin = compactJson({{u"host"_s, host}}).chopped(1);
    if (!QJsonDocument::fromJson(line).isNull())
        return begin + ",\"reply\":" + line + "}\n";
    return compactJson({{u"host"_s, host}, {u"output"_s, QString::fromUtf8(line)}}) + '\n';
}

void keepComplaint(Written *written, const QByteArray &lines)
{
    written->complaint += lines.left(kLongestComplaint - written->complaint.size());
}

} // namespace

int jsonOfEachHost(const std::vector<std::string> &hosts, const std::function<int(const std::string &)> &work)
{
    std::vector<Written> all(hosts.size());
    const auto take = [&](size_t index, int to, const QByteArray &lines) {
        if (to == STDERR_FILENO) {
            keepComplaint(&all[index], lines);
            return;
        }
        for (const QByteArray &line : lines.split('\n')) {
            if (line.isEmpty())
                continue;
            all[index].hasLine = true;
            print(withHost(QString::fromStdString(hosts[index]), line));
        }
        (void)std::fflush(stdout);
    };
    const std::vector<int> statuses = workOnEachHost(hosts, work, take);
    for (size_t i = 0; i < hosts.size(); ++i) {
        if (statuses[i] == kDone || all[i].hasLine)
            continue;
        print(compactJson({{u"host"_s, QString::fromStdString(hosts[i])},
                           {u"exit"_s, statuses[i]},
                           {u"error"_s, sentenceOf(all[i].complaint)}}) +
              '\n');
    }
    return endOfHosts(hosts, statuses);
}

HostState hostState(const QString &host, const QByteArray &lines, const QByteArray &complaint, int status)
{
    if (status != kDone)
        return {host, std::numeric_limits<int>::max(), wordFor(status), sentenceOf(complaint)};
    QStringList details;
    QStringList unknown;
    QString topic;
    for (const QString &line : QString::fromUtf8(lines).split(u'\n', Qt::SkipEmptyParts)) {
        const QString named = line.section(u'\t', 0, 0);
        topic = named.isEmpty() ? topic : named;
        if (line.section(u'\t', 1, 1) == "attention"_L1)
            details.append(topic + u": "_s + line.section(u'\t', 2));
        else if (line.section(u'\t', 1, 1) == "unknown"_L1)
            unknown.append(topic + u": "_s + line.section(u'\t', 2));
    }
    const auto count = static_cast<int>(details.size());
    const QString what = (details + unknown).join("; "_L1);
    if (count > 0)
        return {host, count + 1, u"%1 %2"_s.arg(QString::number(count), count == 1 ? u"place"_s : u"places"_s), what};
    // Worse than well, better than any trouble that is known.
    return unknown.isEmpty() ? HostState{host, 0, u"well"_s, {}} : HostState{host, 1, u"not all told"_s, what};
}

int surveyOfHosts(const Session &session, const std::vector<std::string> &hosts,
                  const std::function<int(const std::string &)> &work)
{
    std::vector<Written> all(hosts.size());
    const std::vector<int> statuses = workOnEachHost(hosts, work, [&](size_t index, int to, const QByteArray &lines) {
        if (to == STDERR_FILENO)
            keepComplaint(&all[index], lines);
        else
            all[index].output += lines;
    });
    std::vector<HostState> states;
    for (size_t i = 0; i < hosts.size(); ++i)
        states.push_back(hostState(QString::fromStdString(hosts[i]), all[i].output, all[i].complaint, statuses[i]));
    std::stable_sort(states.begin(), states.end(),
                     [](const HostState &a, const HostState &b) { return a.badness > b.badness; });

    QList<Row> rows;
    for (const HostState &one : states) {
        const Colour colour = one.badness == 0                                 ? Colour::Good
                              : one.badness == std::numeric_limits<int>::max() ? Colour::Bad
                                                                               : Colour::Warning;
        // What a host printed is escaped already.
        rows.append({text(one.host), text(one.state, colour), {one.details, one.details, Colour::None, false}});
    }
    printTable(session, {u"HOST"_s, u"STATE"_s, u"WHAT"_s}, rows);
    (void)std::fflush(stdout);
    return endOfHosts(hosts, statuses);
}

} // namespace corv::ctl
