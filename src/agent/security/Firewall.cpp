#include "agent/security/Address.h"
#include "agent/security/Parse.h"
#include "agent/security/Security.h"
#include "common/Packages.h"
#include "common/Run.h"

#include <QJsonArray>

#include <optional>

using namespace Qt::Literals::StringLiterals;

namespace corv::security {
namespace {

constexpr qint64 kHighestPort = 65'535;
const auto kAnySource = u"any"_s;

QString ufw(const QStringList &args)
{
    return hosting::run(u"ufw"_s, args);
}

// The TCP ports on which the SSH daemon listens. Without a daemon that could tell them it is the usual one.
QStringList sshPorts()
{
    QByteArray configuration;
    (void)hosting::run(u"sshd"_s, {u"-T"_s}, {}, &configuration);
    return parsePorts(configuration);
}

// What enabling opens: a filter that is on must let the administrator and the visitors of the sites in.
QStringList portsToOpen()
{
    QStringList ports;
    for (const QString &port : sshPorts())
        ports.append(port + u"/tcp"_s);
    ports.append({u"80/tcp"_s, u"443/tcp"_s});
    if (hosting::run(u"systemctl"_s, {u"is-active"_s, u"--quiet"_s, u"pdns"_s}).isEmpty())
        ports.append(u"53"_s); // DNS needs both protocols
    return ports;
}

// A text argument, fallback where it is absent or null; nothing where it is of another type. Read as absent, a source
// that a client got wrong would open the port to everybody.
std::optional<QString> textOr(const QJsonValue &value, const QString &fallback)
{
    if (value.isUndefined() || value.isNull())
        return fallback;
    if (!value.isString())
        return std::nullopt;
    return value.toString();
}

// The source as ufw takes it, nothing where it is neither "any" nor an address nor a range.
std::optional<QString> sourceIn(const QJsonObject &args)
{
    const std::optional<QString> given = textOr(args.value("from"_L1), kAnySource);
    if (!given)
        return std::nullopt;
    const QString source = given->trimmed();
    if (source.isEmpty())
        return kAnySource;
    if (source != kAnySource && !isAddressOrRange(source))
        return std::nullopt;
    return source;
}

} // namespace

Reply firewallStatus(const QJsonObject &)
{
    const QStringList ports = sshPorts();
    const bool there = installed(u"ufw"_s);
    Reply reply = {{u"ok"_s, true}, {u"installed"_s, there}, {u"sshPort"_s, ports.join(u", "_s)}};
    if (!there)
        return reply;

    QByteArray status;
    if (const QString error = hosting::run(u"ufw"_s, {u"status"_s, u"numbered"_s}, {}, &status); !error.isEmpty())
        return fail(error);

    QJsonArray rules;
    for (const Rule &rule : parseRules(status)) {
        rules.append(QJsonObject{{u"number"_s, rule.number},
                                 {u"to"_s, rule.to},
                                 {u"action"_s, rule.action},
                                 {u"from"_s, rule.from},
                                 {u"ssh"_s, letsSshIn(rule.to, ports)}});
    }
    reply.insert(u"active"_s, parseActive(status));
    reply.insert(u"rules"_s, rules);
    return reply;
}

Reply firewallEnable(const QJsonObject &)
{
    if (!installed(u"ufw"_s)) {
        if (const QString error = aptInstall({u"ufw"_s}); !error.isEmpty())
            return fail(error);
    }

    // The rules come before the policy and the policy before the switch: the filter never works without the rules.
    const QStringList ports = portsToOpen();
    for (const QString &port : ports) {
        if (const QString error = ufw({u"allow"_s, port}); !error.isEmpty())
            return fail(error);
    }
    if (const QString error = ufw({u"default"_s, u"deny"_s, u"incoming"_s}); !error.isEmpty())
        return fail(error);
    if (const QString error = ufw({u"default"_s, u"allow"_s, u"outgoing"_s}); !error.isEmpty())
        return fail(error);
    if (const QString error = ufw({u"--force"_s, u"enable"_s}); !error.isEmpty())
        return fail(error);

    return {{u"ok"_s, true}, {u"allowed"_s, QJsonArray::fromStringList(ports)}};
}

Reply firewallDisable(const QJsonObject &)
{
    return result(ufw({u"disable"_s}));
}

Reply firewallAllow(const QJsonObject &args)
{
    const qint64 port = args.value("port"_L1).toInteger();
    if (port < 1 || port > kHighestPort)
        return fail(u"port: 1 to 65535"_s);

    const std::optional<QString> protocol = textOr(args.value("proto"_L1), u"tcp"_s);
    if (protocol != u"tcp"_s && protocol != u"udp"_s && protocol != u"both"_s)
        return fail(u"protocol: tcp, udp or both"_s);

    const std::optional<QString> source = sourceIn(args);
    if (!source)
        return fail(u"from: an address like 203.0.113.7 or a range like 203.0.113.0/24"_s);

    QStringList rule = {u"allow"_s};
    if (protocol != u"both"_s) // ufw opens the port for both where it is told none
        rule.append({u"proto"_s, *protocol});
    rule.append({u"from"_s, *source, u"to"_s, u"any"_s, u"port"_s, QString::number(port)});
    return result(ufw(rule));
}

Reply firewallDelete(const QJsonObject &args)
{
    const qint64 number = args.value("number"_L1).toInteger();

    // Read again: the list that the number was taken from may be old, and this is the rule that will go.
    const QJsonArray rules = firewallStatus({}).value("rules"_L1).toArray();
    for (const QJsonValue rule : rules) {
        if (rule["number"_L1].toInteger() != number)
            continue;
        if (rule["ssh"_L1].toBool())
            return fail(u"that rule lets you reach this server over SSH; deleting it from here could lock you out"_s);
        return result(ufw({u"--force"_s, u"delete"_s, QString::number(number)}));
    }
    return fail(u"no such rule (the list may have changed; reload)"_s);
}

} // namespace corv::security
