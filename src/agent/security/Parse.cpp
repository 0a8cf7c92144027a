#include "agent/security/Parse.h"

#include <QRegularExpression>

using namespace Qt::Literals::StringLiterals;

namespace corv::security {
namespace {

constexpr QByteArrayView kPortKey = "port ";
constexpr qsizetype kLogPieces = 40;

// The rest of the line after the first occurrence of label, trimmed; empty without it.
QString valueOf(const QString &text, QLatin1StringView label)
{
    const qsizetype begin = text.indexOf(label);
    if (begin < 0)
        return {};
    const QStringView rest = QStringView(text).sliced(begin + label.size());
    const qsizetype end = rest.indexOf(u'\n');
    return (end < 0 ? rest : rest.first(end)).trimmed().toString();
}

} // namespace

bool parseActive(const QByteArray &status)
{
    return QString::fromUtf8(status).contains("Status: active"_L1);
}

QList<Rule> parseRules(const QByteArray &status)
{
    // Number, destination, action and source, set apart by two blanks at least before the action; within a column there
    // are single blanks, as in "80/tcp (v6)". The possessive repetitions keep the time linear in the line's length
    // whatever it holds; the second branch is a destination of blanks alone.
    static const QRegularExpression pattern(
        QRegularExpression::anchoredPattern(uR"(\[\s*+(\d+)\](?|\s++(\S(?:.*?\S)??)\s{2,}+|\s+(\s)\s{2}))"
                                            R"(((?:ALLOW|DENY|REJECT|LIMIT)(?: IN| OUT)?)\s+(.*\S|.)\s*)"_s));

    QList<Rule> rules;
    for (const QString &line : QString::fromUtf8(status).split(u'\n')) {
        const QRegularExpressionMatch match = pattern.match(line);
        if (match.hasMatch())
            rules.append({match.captured(1).toInt(), match.captured(2), match.captured(3), match.captured(4)});
    }
    return rules;
}

QStringList parsePorts(const QByteArray &configuration)
{
    QStringList ports;
    for (const QByteArray &line : configuration.split('\n')) {
        if (line.startsWith(kPortKey))
            ports.append(QString::fromLatin1(line.sliced(kPortKey.size())).trimmed());
    }
    return ports.isEmpty() ? QStringList{u"22"_s} : ports;
}

bool letsSshIn(const QString &to, const QStringList &ports)
{
    for (const QString &port : ports) {
        if (!to.startsWith(port))
            continue;
        // 220/tcp begins with 22 and is another port.
        const QStringView rest = QStringView(to).sliced(port.size());
        if (rest.isEmpty() || rest.front() == u'/' || rest.front() == u' ' || rest.front() == u'(')
            return true;
    }
    return to.startsWith("OpenSSH"_L1);
}

QStringList parseJailList(const QByteArray &status)
{
    constexpr auto kLabel = "Jail list:"_L1;
    const QString text = QString::fromUtf8(status);
    const qsizetype label = text.indexOf(kLabel);
    if (label < 0)
        return {};

    QStringList names;
    for (const QString &piece : text.sliced(label + kLabel.size()).split(u',')) {
        if (const QString name = piece.trimmed(); !name.isEmpty())
            names.append(name);
    }
    return names;
}

Jail parseJail(const QByteArray &status)
{
    const QString text = QString::fromUtf8(status);
    return {.failed = valueOf(text, "Currently failed:"_L1).toInt(),
            .totalBanned = valueOf(text, "Total banned:"_L1).toInt(),
            .banned = valueOf(text, "Banned IP list:"_L1).split(u' ', Qt::SkipEmptyParts)};
}

QList<Upgrade> parseUpgradable(const QByteArray &list)
{
    // Name, archives, candidate, architecture, installed version; what may follow is nobody's business.
    static const QRegularExpression pattern(uR"(^([^/\s]+)/(\S+) (\S+) \S+ \[upgradable from: ([^\]]+)\])"_s);

    QList<Upgrade> upgrades;
    for (const QString &line : QString::fromUtf8(list).split(u'\n')) {
        const QRegularExpressionMatch match = pattern.match(line);
        if (match.hasMatch())
            upgrades.append({match.captured(1), match.captured(3), match.captured(4),
                             match.capturedView(2).contains("-security"_L1)});
    }
    return upgrades;
}

QStringList parseRebootPackages(const QByteArray &file)
{
    QStringList packages = QString::fromUtf8(file).split(u'\n', Qt::SkipEmptyParts);
    packages.removeDuplicates();
    return packages;
}

bool parseAutomatic(const QByteArray &settings)
{
    static const QRegularExpression pattern(uR"(Unattended-Upgrade\s+"1")"_s);
    return pattern.match(QString::fromUtf8(settings)).hasMatch();
}

QString logTail(const QByteArray &log)
{
    const QStringList pieces = QString::fromUtf8(log).split(u'\n');
    return pieces.last(qMin(pieces.size(), kLogPieces)).join(u'\n');
}

} // namespace corv::security
