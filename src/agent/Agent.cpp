#include "agent/Agent.h"

#include "agent/Connection.h"
#include "agent/backup/Backup.h"
#include "agent/files/Files.h"
#include "agent/host/Info.h"
#include "agent/host/Services.h"
#include "agent/hosting/Hosting.h"
#include "agent/quota/Quota.h"
#include "agent/security/Security.h"
#include "common/Account.h"
#include "common/BackupConfig.h"
#include "common/Fd.h"
#include "common/Json.h"
#include "common/System.h"

#include <QCoreApplication>
#include <QDeadlineTimer>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include <grp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv {
namespace {

constexpr qsizetype kLoggedNameLength = 64;
constexpr int kSendRestMs = 2'000;
// When no descriptor was to be had for a client.
constexpr int kAcceptAgainMs = 100;
// So many are let in before those that are in have their turn.
constexpr int kAcceptAtOnce = 64;
// What all clients together may keep busy of our memory.
constexpr qint64 kBudgetBytes = 268'435'456;
// Descriptors that no other user's clients get: for root's clients, and for the programs that are run.
constexpr qsizetype kReservedDescriptors = 512;

Reply ping(const QJsonObject &)
{
    return {{u"ok"_s, true}, {u"version"_s, QCoreApplication::applicationVersion()}};
}

Reply disks(const QJsonObject &)
{
    return {{u"ok"_s, true}, {u"disks"_s, system::disks()}};
}

Reply serviceStatus(const QStringList &services)
{
    return {{u"ok"_s, true}, {u"services"_s, system::serviceStatus(services)}};
}

// Both halves keep an ok of their own: one that cannot be told does not hide the other.
Reply securityStatus(const QJsonObject &)
{
    return {
        {u"ok"_s, true}, {u"firewall"_s, security::firewallStatus({})}, {u"fail2ban"_s, security::fail2banStatus({})}};
}

// The file manager. It starts the executable at self again as its helper; a replaced one is found under the same path.
auto filesWith(const QString &self)
{
    return [self](const QJsonObject &args) { return files::command(args, self); };
}

// The uid of the process at the other end, -1 when the kernel does not tell it.
qint64 peerUid(int socket)
{
    ucred peer = {};
    socklen_t size = sizeof peer;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        return -1;
    return peer.uid;
}

// How many clients a user other than root may have at a time.
qsizetype placesOfOneUser()
{
    rlimit descriptors = {};
    if (::getrlimit(RLIMIT_NOFILE, &descriptors) != 0)
        return kReservedDescriptors;
    const auto all = static_cast<qsizetype>(std::min<rlim_t>(descriptors.rlim_cur, std::numeric_limits<int>::max()));
    return std::max(all / 2, all - kReservedDescriptors);
}

// Whether nobody ever waits for such a request: it asks no program and no disk.
bool isQuick(const QString &command)
{
    return command == "ping"_L1 || command == "system.info"_L1;
}

// The account that a request is about; empty where it names none. The client may have sent any text.
QString accountIn(const QJsonObject &args)
{
    const QString name = args.value("username"_L1).toString();
    return hosting::validUsername(name) ? name : QString();
}

// A name as a client sent it, fit for one log line: whatever could end the line or steer a terminal is shown escaped.
QString printable(const QString &name)
{
    QString text;
    for (const QChar c : name) {
        switch (c.category()) {
        case QChar::Other_Control:
        case QChar::Other_Format:
        case QChar::Separator_Line:
        case QChar::Separator_Paragraph:
            text.append(u"\\u%1"_s.arg(static_cast<uint>(c.unicode()), 4, 16, QChar(u'0')));
            break;
        default:
            text.append(c);
        }
    }
    return text;
}

} // namespace

Agent::Agent(quint32 allowedUid, QStringList services, backup::Config backups, QObject *parent)
    : QObject(parent), m_readiness(nullptr), m_budget(kBudgetBytes), m_places(placesOfOneUser()),
      m_allowedUid(allowedUid), m_services(std::move(services)), m_backups(std::move(backups)),
      m_commands({
          {u"ping"_s, ping},
          {u"system.info"_s, systemInfo},
          {u"system.disks"_s, disks},
          {u"services.status"_s, [this](const QJsonObject &) { return serviceStatus(m_services); }},
          {u"services.restart"_s, [this](const QJsonObject &args) { return restartService(m_services, args); }},
          {u"hosting.create"_s, hosting::create},
          {u"hosting.suspend"_s, hosting::suspend},
          {u"hosting.resume"_s, hosting::resume},
          {u"hosting.delete"_s, hosting::remove},
          {u"hosting.usage"_s, hosting::usage},
          {u"hosting.getKeys"_s, hosting::getKeys},
          {u"quota.status"_s, quota::status},
          {u"quota.enable"_s, quota::enable},
          {u"quota.set"_s, quota::set},
          {u"firewall.status"_s, security::firewallStatus},
          {u"firewall.enable"_s, security::firewallEnable},
          {u"firewall.disable"_s, security::firewallDisable},
          {u"firewall.allow"_s, security::firewallAllow},
          {u"firewall.delete"_s, security::firewallDelete},
          {u"fail2ban.status"_s, security::fail2banStatus},
          {u"fail2ban.enable"_s, security::fail2banEnable},
          {u"fail2ban.unban"_s, security::fail2banUnban},
          {u"updates.status"_s, security::updatesStatus},
          {u"updates.refresh"_s, security::updatesRefresh},
          {u"updates.install"_s, security::updatesInstall},
          {u"updates.automatic"_s, security::updatesAutomatic},
          {u"system.reboot"_s, security::reboot},
          {u"security.status"_s, securityStatus},
          {u"backup.status"_s, [this](const QJsonObject &) { return backup::status(m_backups); }},
          {u"backup.start"_s, [](const QJsonObject &) { return backup::start(); }},
          {u"backup.restore"_s, [this](const QJsonObject &args) { return backup::restore(m_backups, args); }},
          {u"files"_s, filesWith(QCoreApplication::applicationFilePath())},
          {u"hosting.setKeys"_s, hosting::setKeys},
          {u"hosting.resetDbPassword"_s, hosting::resetDbPassword},
          {u"hosting.dbReadOnly"_s, hosting::dbReadOnly},
      })
{}

bool Agent::listen(const QString &path, const QString &group)
{
    m_acceptAgain.setSingleShot(true);
    connect(&m_acceptAgain, &QTimer::timeout, this, [this] { m_readiness.setEvents(m_server.descriptor(), EPOLLIN); });
    const auto listener = [this](quint32) { onNewConnection(); };
    QString problem = m_server.listen(path);
    if (problem.isEmpty() && !m_readiness.add(m_server.descriptor(), Readiness::Turn::First, listener))
        problem = QString::fromUtf8(std::strerror(errno));
    if (!problem.isEmpty()) {
        qCritical("agent: cannot listen on %s: %s", qUtf8Printable(path), qUtf8Printable(problem));
        return false;
    }

    if (!group.isEmpty()) {
        // A name is not cut at a NUL, behind which another might be meant.
        const struct group *entry =
            group.contains(QChar(u'\0')) ? nullptr : ::getgrnam(group.toLocal8Bit().constData());
        if (!entry || ::chown(m_server.path().constData(), static_cast<uid_t>(-1), entry->gr_gid) != 0) {
            qCritical("agent: cannot give %s to group %s", qUtf8Printable(path), qUtf8Printable(group));
            return false;
        }
        m_requestFile.setGroup(entry->gr_gid);
    }
    m_requestFile.clear();

    m_readiness.setEvents(m_server.descriptor(), EPOLLIN);
    qInfo("agent: listening on %s", qUtf8Printable(path));
    return true;
}

void Agent::onNewConnection()
{
    for (int i = 0; i < kAcceptAtOnce; ++i) {
        Fd client = m_server.accept();
        if (!client && errno != EAGAIN)
            return acceptLater();
        if (!client)
            return;
        admit(std::move(client));
    }
}

// Without a descriptor for the next client the listener would be ready all the time, and keep a processor busy.
void Agent::acceptLater()
{
    m_readiness.setEvents(m_server.descriptor(), 0);
    m_acceptAgain.start(kAcceptAgainMs);
}

// Serves a client who may connect, and turns everybody else away without a word; so it does with one user's clients
// beyond what leaves room for root's.
void Agent::admit(Fd client)
{
    const qint64 uid = peerUid(client.get());
    const bool isAllowed = uid == 0 || uid == m_allowedUid || uid == ::getuid();
    if (uid < 0 || !isAllowed || (uid != 0 && m_budget.clientsOf(static_cast<quint32>(uid)) >= m_places)) {
        qWarning("agent: refused connection from uid %lld", static_cast<long long>(uid));
        return;
    }

    const auto answer = [this, uid](const QByteArray &line) {
        return compactJson(dispatch(line, static_cast<quint32>(uid))) + '\n';
    };
    new Connection(std::move(client), static_cast<quint32>(uid), answer, &m_readiness, &m_budget, this);
}

Reply Agent::dispatch(const QByteArray &request, quint32 uid)
{
    const QJsonObject object = parseObject(request);
    const QString name = object.value("cmd"_L1).toString();
    const auto command = m_commands.constFind(name);
    if (command == m_commands.cend()) {
        qWarning("agent: uid %u sent unknown command '%s'", uid,
                 qUtf8Printable(printable(name.left(kLoggedNameLength))));
        return fail(u"unknown command"_s);
    }

    const QJsonObject args = object.value("args"_L1).toObject();
    const bool takesTime = !isQuick(name);
    if (takesTime)
        m_requestFile.begin(name, accountIn(args), uid);
    const Reply reply = (*command)(args);
    if (takesTime)
        m_requestFile.end();
    const bool ok = reply.value("ok"_L1).toBool();
    qInfo("agent: uid %u ran %s -> %s", uid, qUtf8Printable(name), ok ? "ok" : "failed");
    return reply;
}

void Agent::sendRest()
{
    const QDeadlineTimer deadline(kSendRestMs);
    for (Connection *connection : findChildren<Connection *>(Qt::FindDirectChildrenOnly))
        connection->sendRest(deadline);
}

} // namespace corv
