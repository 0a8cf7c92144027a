// What a client sends. After "q": a request line, and on the lines after it what the tools answer that it makes run,
// one line a tool (a NUL stands for a line feed; a "!" at its beginning makes the tool fail). After "c": bytes that
// arrive in pieces, each as long as the byte before it says, on a connection that echoes lines.

#include "fakes.h"
#include "fuzz.h"

#include "agent/Agent.h"
#include "agent/Budget.h"
#include "agent/Connection.h"
#include "agent/Readiness.h"
#include "common/Json.h"

#include <QCoreApplication>
#include <QJsonDocument>

#include <array>

#include <sys/socket.h>

using namespace Qt::Literals::StringLiterals;
using namespace corv;
using namespace corv::fuzz;

namespace {

constexpr quint32 kUid = 33;
constexpr qsizetype kLongestLog = 1'024;

// What is logged is one line that steers no terminal, whatever the client called its command.
void checkLog(QtMsgType, const QMessageLogContext &, const QString &message)
{
    require(message.startsWith(u"agent: uid 33 "_s), "a line of the log begins with who asked");
    require(message.size() <= kLongestLog, "a line of the log is short");
    for (const QChar c : message)
        require(c.isPrint() || !c.isLowSurrogate(), "a line of the log can be printed");
    require(!message.contains(u'\n') && !message.contains(u'\r') && !message.contains(u'\x1b'),
            "a line of the log is one line");
}

bool isPlain(QChar c)
{
    return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9') || c == u'_' || c == u'-';
}

// Values reach a script in lines of their own, "\set NAME 'VALUE'"; whatever else it says is fixed.
void checkScript(const QByteArray &script)
{
    for (const QString &line : text(script).split(u'\n')) {
        if (!line.startsWith(u"\\set "_s))
            continue;
        const QString value = line.section(u' ', 2);
        require(value.size() >= 2 && value.startsWith(u'\'') && value.endsWith(u'\''), "a value is quoted");
        for (const QChar c : value.sliced(1, value.size() - 2))
            require(isPlain(c), "a value in a script is a plain name");
    }
}

void checkCalls()
{
    for (const Call &call : calls()) {
        require(!call.program.isEmpty(), "a tool has a name");
        for (const QString &argument : call.args)
            require(!argument.contains(QChar(u'\0')), "an argument is not cut short");
        if (call.args.contains(u"psql"_s))
            checkScript(call.input);
    }
}

void checkReply(const QByteArray &line, const Reply &reply)
{
    const QByteArray sent = compactJson(reply);
    require(!sent.contains('\n'), "a reply is one line");
    require(text(sent).toUtf8() == sent, "a reply is text");
    require(parseObject(sent).keys() == reply.keys(), "a reply can be read again");
    // What the file helper says goes on to the panel as it stands, and the helper is in the account's hand.
    if (parseObject(line).value(u"cmd"_s) == u"files"_s && reply.value(u"ok"_s) != false)
        return;
    require(reply.value(u"ok"_s).isBool(), "a reply says whether it went well");
    if (reply.value(u"ok"_s).toBool())
        require(!reply.contains(u"error"_s), "a success has no error");
    else
        require(!reply.value(u"error"_s).toString().isEmpty(), "a failure says what went wrong");
}

void request(const QByteArray &bytes)
{
    // Nothing is in this folder: a restore would start real programs.
    static Agent agent(kUid, {u"apache2"_s, u"postgresql"_s}, {u"/nowhere/backups"_s, 14}, nullptr);
    static const QtMessageHandler handler = qInstallMessageHandler(checkLog);
    Q_UNUSED(handler)

    QList<QByteArray> lines = bytes.split('\n');
    const QByteArray line = lines.takeFirst();
    for (QByteArray &answer : lines)
        answer.replace('\0', '\n');
    setAnswers(lines);
    checkReply(line, agent.dispatch(line + '\n', kUid));
    checkCalls();
}

QByteArray received(int socket)
{
    QByteArray all;
    std::array<char, 4'096> chunk = {};
    for (;;) {
        const ssize_t count = ::recv(socket, chunk.data(), chunk.size(), MSG_DONTWAIT);
        if (count <= 0)
            return all;
        all.append(chunk.data(), count);
    }
}

void connection(const QByteArray &bytes)
{
    std::array<int, 2> ends = {};
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0, "there are sockets");
    const Fd client(ends[0]);
    const auto echo = [](const QByteArray &line) { return '<' + line; };
    static Readiness readiness(nullptr);
    static Budget budget(1);
    auto *server = new Connection(Fd(ends[1]), kUid, echo, &readiness, &budget, QCoreApplication::instance());
    bool gone = false;
    QObject::connect(server, &QObject::destroyed, server, [&gone] { gone = true; });

    QByteArray sent;
    QByteArray answered;
    for (qsizetype at = 0; at < bytes.size();) {
        const QByteArray piece = bytes.mid(at + 1, static_cast<uchar>(bytes[at]));
        at += 1 + piece.size();
        sent += piece;
        require(writeAll(client.get(), piece), "a piece can be sent");
        QCoreApplication::processEvents();
        answered += received(client.get());

        QByteArray wanted;
        const QList<QByteArray> lines = sent.split('\n');
        for (const QByteArray &line : lines.first(lines.size() - 1))
            wanted += '<' + line + '\n';
        requireSame(answered, wanted, "every line is answered once it is there, in order");
    }
    ::shutdown(client.get(), SHUT_WR);
    while (!gone) {
        QCoreApplication::processEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray bytes(reinterpret_cast<const char *>(data) + 1, static_cast<qsizetype>(size - 1));
    switch (data[0]) {
    case 'q':
        request(bytes);
        break;
    case 'c':
        connection(bytes);
        break;
    default:
        return -1; // not worth keeping
    }
    return 0;
}
