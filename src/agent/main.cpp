#include "agent/Agent.h"
#include "agent/Stop.h"
#include "agent/backup/Backup.h"
#include "agent/files/Helper.h"
#include "common/BackupConfig.h"
#include "common/Config.h"
#include "common/Environment.h"
#include "common/Fd.h"
#include "common/System.h"
#include "common/Text.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSettings>

#include <cstddef>
#include <cstring>
#include <optional>

#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;
using namespace corv;

namespace {

constexpr int kFailure = 1;

// The uid of agent/allowed_user, the agent's own where none is set; nothing, with a log line, where there is no such
// user.
std::optional<quint32> allowedUid(const QSettings &settings)
{
    const QString name = textSetting(settings, u"agent/allowed_user"_s);
    if (name.isEmpty())
        return ::getuid();
    // A name is not looked up by what stands before a NUL in it.
    const passwd *user = name.contains(QChar(u'\0')) ? nullptr : ::getpwnam(name.toLocal8Bit().constData());
    if (!user) {
        qCritical("agent: no such user: %s", qUtf8Printable(name));
        return {};
    }
    return user->pw_uid;
}

// The arguments are names of files: the framework's own conversion would take a byte-order mark away from them.
QStringList argumentsAfter(int argc, char **argv, int first)
{
    QStringList arguments;
    for (int i = first; i < argc; ++i)
        arguments.append(shown(argv[i]));
    return arguments;
}

// Tells systemd, where it asked for it, that the socket answers: one datagram to the address in NOTIFY_SOCKET.
void notifyReady()
{
    const QByteArray path = qgetenv("NOTIFY_SOCKET");
    qunsetenv("NOTIFY_SOCKET"); // it speaks of this process, not of the tools it starts
    sockaddr_un address = {};
    if (path.isEmpty() || static_cast<size_t>(path.size()) >= sizeof address.sun_path)
        return;

    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
    if (path.startsWith('@'))
        address.sun_path[0] = '\0'; // the abstract name space
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + static_cast<size_t>(path.size()));
    const Fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const QByteArray message = "READY=1";
    (void)::sendto(socket.get(), message.constData(), static_cast<size_t>(message.size()), MSG_NOSIGNAL,
                   reinterpret_cast<const sockaddr *>(&address), size);
}

} // namespace

int main(int argc, char **argv)
{
    // Before all else: the helper starts at every click, and its messages and environment are the user's own.
    if (argc > 1 && std::strcmp(argv[1], "--files") == 0)
        return files::helper(argumentsAfter(argc, argv, 2));

    cleanEnvironment();
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(u"corv-agent"_s);
    QCoreApplication::setApplicationVersion(u"0.1"_s);

    QCommandLineParser parser;
    parser.addHelpOption();
    addConfigOption(parser);
    parser.addOption({u"backup"_s, u"Make one backup (accounts, panel database, settings) and exit."_s});
    parser.process(application);

    const QString path = configPath(parser);
    qunsetenv("CORV_CONFIG"); // ours alone
    if (path.isEmpty())
        return kFailure;
    const QSettings settings(path, QSettings::IniFormat);
    const std::optional<quint32> uid = allowedUid(settings);
    if (!uid)
        return kFailure;

    if (parser.isSet(u"backup"_s))
        return backup::run(backup::load(settings));

    quitOnStopSignals(&application);
    Agent agent(*uid, system::monitoredServices(settings), backup::load(settings), nullptr);
    const QString group = textSetting(settings, u"agent/socket_group"_s);
    const QString socket = textSetting(settings, u"agent/socket"_s, u"/run/corvane/agent.sock"_s);
    if (!agent.listen(socket, group))
        return kFailure;

    notifyReady();
    const int code = QCoreApplication::exec();
    agent.sendRest();
    return code;
}
