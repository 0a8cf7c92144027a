#include "agent/postgres/Server.h"

#include "agent/postgres/Lesser.h"
#include "agent/postgres/Protocol.h"
#include "common/Psql.h"

#include <QDir>
#include <QRegularExpression>

#include <array>
#include <cstring>
#include <ctime>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::postgres {
namespace {

constexpr auto kSuperuser = "postgres";
constexpr timeval kPatience = {5, 0}; // for one step of a connection
constexpr int kAskSeconds = 10;
constexpr qsizetype kWordBytes = 64;
// Marks the word as one, since an empty report is none.
constexpr char kAnswered = '=';

// Reads messages until the server waits for the next statement. Returns whether that came about without an error.
bool readAnswer(int server, MessageScanner *scanner, QByteArray *word)
{
    bool isReady = false;
    bool hasFailed = false;
    const auto note = [&](char type, const QByteArray &body) {
        if (type == 'D' && word->isNull())
            *word = kAnswered + firstColumn(body);
        hasFailed = hasFailed || type == 'E' || (type == 'R' && !letsIn(body));
        isReady = isReady || type == 'Z';
    };
    std::array<char, 4096> piece = {};
    while (!isReady && !hasFailed) {
        const ssize_t count = ::recv(server, piece.data(), piece.size(), 0);
        if (count <= 0 || !scanner->take(piece.data(), count, note))
            return false;
    }
    return !hasFailed;
}

void askAndReport(const QByteArray &socket, const QByteArray &statements, int report)
{
    const Fd server = connectTo(socket);
    if (!server || !leaveUser())
        return;
    MessageScanner scanner(MessageScanner::Side::Server);
    QByteArray word;
    if (writeAll(server.get(), startMessage(kSuperuser, kSuperuser, hosting::kSystemNamesOnly)) &&
        readAnswer(server.get(), &scanner, &word) && writeAll(server.get(), queryMessage(statements)) &&
        readAnswer(server.get(), &scanner, &word)) {
        (void)writeAll(report, word);
        (void)writeAll(server.get(), goodbyeMessage());
    }
}

} // namespace

QByteArray serverSocket()
{
    static const QRegularExpression pattern(u"\\A\\.s\\.PGSQL\\.[0-9]+\\z"_s);
    const QString folder = u"/run/postgresql"_s;
    QStringList names =
        QDir(folder).entryList({u".s.PGSQL.*"_s}, QDir::System | QDir::Hidden | QDir::CaseSensitive, QDir::Name);
    names.removeIf([](const QString &name) { return !pattern.match(name).hasMatch(); });

    const QString usual = u".s.PGSQL.5432"_s;
    if (names.contains(usual))
        return QFile::encodeName(folder + u'/' + usual);
    return names.size() == 1 ? QFile::encodeName(folder + u'/' + names.constFirst()) : QByteArray();
}

Fd connectTo(const QByteArray &socket)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (socket.isEmpty() || socket.size() >= static_cast<qsizetype>(sizeof address.sun_path))
        return {};
    std::memcpy(address.sun_path, socket.constData(), static_cast<size_t>(socket.size()));

    Fd connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!connection || ::setsockopt(connection.get(), SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience) != 0 ||
        ::setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience) != 0 ||
        ::connect(connection.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return {};
    return connection;
}

std::optional<QByteArray> ask(const QByteArray &socket, const QByteArray &statements)
{
    constexpr int kMilliseconds = 1'000;
    Lesser process =
        startLesser(kSuperuser, -1, kAskSeconds, [&](int report) { askAndReport(socket, statements, report); });
    const QByteArray report = endOf(process, kAskSeconds * kMilliseconds, kWordBytes + 1);
    if (!report.startsWith(kAnswered))
        return {};
    return report.mid(1);
}

} // namespace corv::postgres
