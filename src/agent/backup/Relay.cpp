#include "agent/backup/Relay.h"

#include "agent/postgres/Protocol.h"
#include "agent/postgres/Server.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::backup {
namespace {

constexpr auto kParent = "/run/corvane";
constexpr auto kFolder = "/run/corvane/restore";
constexpr auto kSocket = "/run/corvane/restore/.s.PGSQL.5432";
constexpr auto kReader = "postgres";
constexpr mode_t kParentMode = 0755;
constexpr mode_t kFolderMode = 0710; // root's, and the reader's group may enter
constexpr mode_t kSocketMode = 0600;

constexpr unsigned kSeconds = 3'900; // more than a program may take that uses it
constexpr int kEndMs = 10'000;       // for what is under way when that program has ended
constexpr qsizetype kReportBytes = 500;

// What the process reports: this at once, and one of the others at its end, with the reason behind it.
constexpr char kConnected = 'c';
constexpr char kRefused = 'r';
constexpr char kBroken = 'b';
constexpr char kWhole = 'w';

// What the messages of a connection told.
struct Conversation
{
    bool isReady = false;  // the server has let the account in
    bool isOver = false;   // the client has said goodbye
    bool isBroken = false; // what was said was no message, or the server ended it
    QByteArray complaint;  // the server's last one that ends a connection
};

// One of the two ways of a connection.
struct Direction
{
    int from;
    int to;
    postgres::MessageScanner scanner;
    postgres::MessageScanner::Seen seen;
    bool hasEnded = false; // nothing more comes
    size_t begin = 0;      // what has been read and not passed on yet
    size_t end = 0;
    std::array<char, 65'536> data = {};
};

void readMore(Direction &way, Conversation &told)
{
    const ssize_t count = ::recv(way.from, way.data.data(), way.data.size(), MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    way.begin = 0;
    way.end = count > 0 ? static_cast<size_t>(count) : 0;
    way.hasEnded = count <= 0;
    if (count > 0 && !way.scanner.take(way.data.data(), count, way.seen))
        told.isBroken = true;
}

// What cannot be passed on any more is dropped: the other way may still hold why, and ends too.
void passOn(Direction &way)
{
    const ssize_t count = ::send(way.to, way.data.data() + way.begin, way.end - way.begin, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    way.begin = count > 0 ? way.begin + static_cast<size_t>(count) : way.end;
}

bool isEmpty(const Direction &way)
{
    return way.begin == way.end;
}

bool isDone(const Direction &way)
{
    return way.hasEnded && isEmpty(way);
}

bool isOpen(const Direction &way)
{
    return !way.hasEnded && isEmpty(way);
}

pollfd wanted(int descriptor, const Direction &in, const Direction &out)
{
    const int events = (isOpen(in) ? POLLIN : 0) | (isEmpty(out) ? 0 : POLLOUT);
    return {events != 0 ? descriptor : -1, static_cast<short>(events), 0};
}

// Passes on what client and server say until one of them has ended and all that it said has come to the other.
Conversation converse(int client, int server)
{
    Conversation told;
    const auto heardClient = [&told](char type, const QByteArray &) { told.isOver = told.isOver || type == 'X'; };
    const auto heardServer = [&told](char type, const QByteArray &body) {
        told.isReady = told.isReady || type == 'Z';
        const QByteArray severity = type == 'E' ? postgres::errorField(body, 'V') : QByteArray();
        if (severity != "FATAL" && severity != "PANIC")
            return;
        told.complaint = postgres::errorField(body, 'M');
        told.isBroken = true;
    };
    using postgres::MessageScanner;
    Direction up = {client, server, MessageScanner(MessageScanner::Side::Client), heardClient};
    Direction down = {server, client, MessageScanner(MessageScanner::Side::Server), heardServer};
    while (!isDone(up) && !isDone(down)) {
        std::array<pollfd, 2> both = {wanted(client, up, down), wanted(server, down, up)};
        if (::poll(both.data(), both.size(), -1) < 0 && errno != EINTR)
            break;
        for (Direction *way : {&up, &down}) {
            if (isOpen(*way))
                readMore(*way, told);
            if (!isEmpty(*way))
                passOn(*way);
        }
    }
    return told;
}

// The one connection, from a program of the system user postgres. The folder lets no other in; this looks once more.
Fd acceptFrom(int listener, uid_t reader)
{
    // cppcheck-suppress nullPointer ; nobody asks for the address
    Fd client(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    ucred peer = {};
    socklen_t size = sizeof peer;
    if (!client || ::getsockopt(client.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || peer.uid != reader)
        return {};
    return client;
}

void tell(int report, char end, const QByteArray &reason = {})
{
    (void)writeAll(report, end + reason.left(kReportBytes));
}

void work(Fd &listener, uid_t reader, const QByteArray &socket, int report)
{
    const Fd client = acceptFrom(listener.get(), reader);
    listener.reset(); // for whoever comes next, nobody is there
    if (!client)
        return;
    tell(report, kConnected);

    const Fd server = postgres::connectTo(socket);
    if (!server || !leaveUser())
        return tell(report, kRefused);
    const Conversation told = converse(client.get(), server.get());
    if (!told.isReady)
        return tell(report, kRefused, told.complaint);
    tell(report, told.isOver && !told.isBroken ? kWhole : kBroken, told.complaint);
}

void removeSocket()
{
    (void)::unlink(kSocket);
    (void)::rmdir(kFolder);
}

// The socket, which the reader alone can connect to, in a folder where root alone can change anything.
bool listenAt(const sockaddr_un &address, const passwd &reader, Fd *listener)
{
    (void)::mkdir(kParent, kParentMode); // the service manager makes it before
    removeSocket();                      // of a process that was killed
    *listener = Fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    // Closed to everybody until the socket in it is the reader's.
    return *listener && ::mkdir(kFolder, 0) == 0 &&
           ::bind(listener->get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
           ::chown(kSocket, reader.pw_uid, reader.pw_gid) == 0 && ::chmod(kSocket, kSocketMode) == 0 &&
           ::listen(listener->get(), 1) == 0 && ::chown(kFolder, 0, reader.pw_gid) == 0 &&
           ::chmod(kFolder, kFolderMode) == 0;
}

} // namespace

QString openRelay(const QString &user, Lesser *relay)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, kSocket, std::strlen(kSocket));

    const passwd *const reader = ::getpwnam(kReader);
    if (!reader)
        return {}; // there is nobody whom pg_restore could run as
    Fd listener;
    if (!listenAt(address, *reader, &listener)) {
        removeSocket();
        return u"cannot make the way to PostgreSQL in %1"_s.arg(QString::fromLatin1(kFolder));
    }

    const uid_t uid = reader->pw_uid;
    const QByteArray socket = postgres::serverSocket();
    *relay = startLesser(user.toLocal8Bit(), listener.get(), kSeconds,
                         [&](int report) { work(listener, uid, socket, report); });
    if (relay->id < 0) {
        removeSocket();
        return u"cannot start the way to PostgreSQL"_s;
    }
    return {};
}

QMap<QString, QString> relayEnvironment(const QString &user)
{
    return {{u"PGHOST"_s, QString::fromLatin1(kFolder)},
            {u"PGPORT"_s, u"5432"_s},
            {u"PGUSER"_s, user},
            // What the role has set for itself must not stop the restore.
            {u"PGOPTIONS"_s, u"-cdefault_transaction_read_only=off -crole=none"_s}};
}

Passage closeRelay(Lesser *relay)
{
    // With nobody there it would wait for ever.
    const bool isUsed = hasReported(*relay);
    const QByteArray report = endOf(*relay, isUsed ? kEndMs : 0, kReportBytes + 2);
    removeSocket();

    if (!isUsed)
        return {};
    const QString reason = QString::fromUtf8(report.mid(2));
    switch (report.size() > 1 ? report[1] : kBroken) {
    case kWhole:
        return {Passage::End::Whole, {}};
    case kRefused:
        return {Passage::End::Refused, reason.isEmpty() ? u"PostgreSQL did not let the account in"_s : reason};
    default:
        return {Passage::End::Broken, reason.isEmpty() ? u"the connection to PostgreSQL broke off"_s : reason};
    }
}

} // namespace corv::backup
