#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

namespace corv::security {

// One numbered rule of the firewall.
struct Rule
{
    int number = 0; // 0 when it does not fit
    QString to;     // the columns as printed, "(v6)" included
    QString action;
    QString from;
};

// What one jail says of itself.
struct Jail
{
    int failed = 0;      // addresses under watch now
    int totalBanned = 0; // bans since the server started
    QStringList banned;  // addresses banned now
};

// One package with a newer version.
struct Upgrade
{
    QString name;
    QString to;   // the candidate version
    QString from; // the installed version
    bool security = false;
};

// Whether the output of "ufw status numbered" says that the firewall is on.
bool parseActive(const QByteArray &status);

// The rules in the output of "ufw status numbered", in its order; lines that are none are skipped.
QList<Rule> parseRules(const QByteArray &status);

// The ports in the output of "sshd -T", in its order; only 22 when it names none.
QStringList parsePorts(const QByteArray &configuration);

// Whether a rule with this destination lets SSH in at one of the ports. Errs towards true: the answer protects the
// administrator's own way in, so neither the action nor the source of the rule is looked at.
bool letsSshIn(const QString &to, const QStringList &ports);

// The jails in the output of "fail2ban-client status", in its order.
QStringList parseJailList(const QByteArray &status);

// The output of "fail2ban-client status JAIL"; what it does not say, or a number that does not fit, is 0.
Jail parseJail(const QByteArray &status);

// The packages in the output of "apt list --upgradable", in its order; lines that are none are skipped.
QList<Upgrade> parseUpgradable(const QByteArray &list);

// The packages in the restart-packages file, each once, in the order in which they first come.
QStringList parseRebootPackages(const QByteArray &file);

// Whether a file of apt settings switches automatic updates on.
bool parseAutomatic(const QByteArray &settings);

// The last 40 pieces between line feeds: 39 lines where the text ends with a line feed.
QString logTail(const QByteArray &log);

} // namespace corv::security
