#include "ctl/doctor/Visits.h"

#include "common/Fd.h"
#include "common/Site.h"

#include <QDeadlineTimer>
#include <QRegularExpression>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// As many as a small Apache serves at a time without letting its real visitors wait.
constexpr size_t kSideBySide = 64;
constexpr int kTimesForAll = 3;
// The line with the status, the headers and the beginning of the page. A site can make an answer endless.
constexpr qsizetype kLongestAnswer = 16'384;
constexpr int kLowestError = 500;
constexpr int kSwitching = 101;
constexpr int kLowestFinal = 200;

// One visit on its way.
struct Visitor
{
    qsizetype number; // which of the visits
    Fd socket;
    QByteArray request;
    qsizetype sent = 0;
    QByteArray received;
    QDeadlineTimer end;
};

QString errorText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

struct Address
{
    sockaddr_storage place = {};
    socklen_t length = 0;
};

std::optional<Address> addressOf(const Visit &visit)
{
    Address address;
    const QByteArray text = visit.address.toLatin1();
    if (visit.port < 1 || visit.port > 65'535)
        return {};
    auto *const four = reinterpret_cast<sockaddr_in *>(&address.place);
    auto *const six = reinterpret_cast<sockaddr_in6 *>(&address.place);
    if (::inet_pton(AF_INET, text.constData(), &four->sin_addr) == 1) {
        four->sin_family = AF_INET;
        four->sin_port = htons(static_cast<in_port_t>(visit.port));
        address.length = sizeof *four;
        return address;
    }
    if (::inet_pton(AF_INET6, text.constData(), &six->sin6_addr) == 1) {
        six->sin6_family = AF_INET6;
        six->sin6_port = htons(static_cast<in_port_t>(visit.port));
        address.length = sizeof *six;
        return address;
    }
    return {};
}

bool canBeAskedFor(const QString &host)
{
    static const QRegularExpression name(QRegularExpression::anchoredPattern(u"[a-z0-9._-]{1,253}"_s));
    return name.match(host).hasMatch();
}

bool canBeAskedFor(const QByteArray &path)
{
    static const QRegularExpression plain(QRegularExpression::anchoredPattern(u"/[A-Za-z0-9./-]*"_s));
    return plain.match(QString::fromLatin1(path)).hasMatch();
}

QByteArray requestFor(const Visit &visit)
{
    return "GET " + visit.path + " HTTP/1.1\r\nHost: " + visit.host.toLatin1() +
           "\r\nUser-Agent: corvctl\r\nAccept: */*\r\nConnection: close\r\n\r\n";
}

// Sets out, or says in *result why that cannot be.
std::optional<Visitor> setOut(const Visit &visit, qsizetype number, int milliseconds, Visited *result)
{
    const std::optional<Address> address = addressOf(visit);
    if (!address || !canBeAskedFor(visit.host) || !canBeAskedFor(visit.path))
        return {};
    result->wasAsked = true;
    Visitor visitor = {number,
                       Fd(::socket(address->place.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
                       requestFor(visit),
                       0,
                       {},
                       QDeadlineTimer(milliseconds)};
    if (::connect(visitor.socket.get(), reinterpret_cast<const sockaddr *>(&address->place), address->length) != 0 &&
        errno != EINPROGRESS) {
        result->problem = errorText(errno);
        return {};
    }
    return visitor;
}

// Goes on with a visit whose socket is ready. True when it has come to an end, with what came of it.
bool goOn(Visitor &visitor, Visited *result)
{
    if (visitor.sent < visitor.request.size()) {
        const ssize_t count = ::send(visitor.socket.get(), visitor.request.constData() + visitor.sent,
                                     static_cast<size_t>(visitor.request.size() - visitor.sent), MSG_NOSIGNAL);
        if (count < 0 && (errno == EAGAIN || errno == EINTR))
            return false;
        if (count < 0) {
            result->problem = errorText(errno);
            return true;
        }
        visitor.sent += count;
        return false;
    }

    char buffer[4096];
    const ssize_t count = ::recv(visitor.socket.get(), buffer, sizeof buffer, 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return false;
    if (count > 0)
        visitor.received.append(buffer, count);
    const bool isAll = count <= 0 || visitor.received.size() >= kLongestAnswer;
    const std::optional<Visited> answer = readAnswer(visitor.received, isAll);
    if (answer)
        *result = *answer;
    else if (isAll)
        result->problem = u"no answer of HTTP"_s;
    return answer || isAll;
}

// Waits for the next socket that is ready, or whose time is up. Sockets are looked at in turn.
void waitForAny(std::vector<Visitor> &visitors)
{
    std::vector<pollfd> wanted;
    qint64 left = -1;
    for (const Visitor &visitor : visitors) {
        const bool sends = visitor.sent < visitor.request.size();
        wanted.push_back({visitor.socket.get(), static_cast<short>(sends ? POLLOUT : POLLIN), 0});
        left = left < 0 ? visitor.end.remainingTime() : std::min(left, visitor.end.remainingTime());
    }
    (void)::poll(wanted.data(), wanted.size(), static_cast<int>(left) + 1); // what was not ready is asked again
}

} // namespace

std::optional<Visited> readAnswer(const QByteArray &beginning, bool isAll)
{
    static const QRegularExpression first(u"^HTTP/1\\.[01] ([1-9]\\d\\d)(?: [^\\r\\n]*)?\\r?\\n"_s);
    const QString text = QString::fromLatin1(beginning);
    qsizetype at = 0;
    for (;;) {
        const QRegularExpressionMatch match = first.match(text.mid(at), 0, QRegularExpression::NormalMatch,
                                                          QRegularExpression::AnchorAtOffsetMatchOption);
        if (!match.hasMatch())
            return {};
        const int status = match.captured(1).toInt();
        const qsizetype page = text.indexOf("\r\n\r\n"_L1, at);
        // Something comes before the answer itself.
        if (status < kLowestFinal && status != kSwitching) {
            if (page < 0)
                return {};
            at = page + 4;
            continue;
        }
        if (status < kLowestError)
            return Visited{status, false, true, false, {}};
        // Its releases name different versions of HTML.
        static const QRegularExpression own(
            u"<!DOCTYPE HTML PUBLIC \"[^\"]*\"(?: \"[^\"]*\")?>\\s*<html><head>\\s*<title>(\\d+) "_s);
        const QRegularExpressionMatch title = page < 0 ? QRegularExpressionMatch() : own.match(text, page);
        if (!title.hasMatch() && !isAll)
            return {};
        const bool isSuspensions = page >= 0 && text.mid(page + 4).startsWith(hosting::kSuspendedPage);
        return Visited{status, title.hasMatch() && title.captured(1).toInt() == status, true, false, {}, isSuspensions};
    }
}

QList<Visited> visit(const QList<Visit> &visits, int milliseconds)
{
    QList<Visited> results(visits.size());
    const QDeadlineTimer end(qint64(kTimesForAll) * milliseconds);
    std::vector<Visitor> visitors;
    qsizetype next = 0;
    while (!visitors.empty() || (next < visits.size() && !end.hasExpired())) {
        while (next < visits.size() && visitors.size() < kSideBySide && !end.hasExpired()) {
            std::optional<Visitor> visitor = setOut(visits[next], next, milliseconds, &results[next]);
            if (visitor)
                visitors.push_back(std::move(*visitor));
            ++next;
        }
        if (visitors.empty())
            continue;
        waitForAny(visitors);
        std::erase_if(visitors, [&](Visitor &visitor) {
            Visited &result = results[visitor.number];
            if (goOn(visitor, &result))
                return true;
            if (!visitor.end.hasExpired() && !end.hasExpired())
                return false;
            result.isLate = true;
            result.problem = u"no answer within %1 s"_s.arg(static_cast<double>(milliseconds) / 1000);
            return true;
        });
    }
    return results;
}

} // namespace corv::ctl
