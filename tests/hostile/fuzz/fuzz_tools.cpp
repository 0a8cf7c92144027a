// What the system's tools print, or a file of theirs holds, as other people made it. The first byte of the input
// chooses the reader, the rest is the text. Where the form is given by a pattern, the reader must find what the plain
// pattern finds; the others are stated a second time.

#include "fuzz.h"

#include "agent/security/Parse.h"
#include "common/Quotas.h"
#include "common/System.h"
#include "common/Usage.h"

#include <QJsonObject>
#include <QRegularExpression>

using namespace Qt::Literals::StringLiterals;
using namespace corv;
using namespace corv::fuzz;

namespace {

// The plain pattern tries every way to part a line: its time grows with the third power of the length.
constexpr qsizetype kPlainLength = 1'024;

void checkRules(const QByteArray &output)
{
    static const QRegularExpression plain(
        uR"(^\[\s*(\d+)\]\s+(.+?)\s{2,}((?:ALLOW|DENY|REJECT|LIMIT)(?: IN| OUT)?)\s+(.+?)\s*\z)"_s);
    const QList<security::Rule> rules = security::parseRules(output);
    require(security::parseActive(output) == text(output).contains(u"Status: active"_s), "the firewall is active");
    if (output.size() > kPlainLength)
        return;

    qsizetype found = 0;
    for (const QString &line : text(output).split(u'\n')) {
        const QRegularExpressionMatch match = plain.match(line);
        if (!match.hasMatch())
            continue;
        require(found < rules.size(), "every rule is found");
        const security::Rule &rule = rules[found++];
        requireSame(QString::number(rule.number), QString::number(match.captured(1).toInt()), "a rule's number");
        requireSame(rule.to, match.captured(2), "a rule's destination");
        requireSame(rule.action, match.captured(3), "a rule's action");
        requireSame(rule.from, match.captured(4), "a rule's source");
    }
    require(found == rules.size(), "no rule is made up");
}

void checkPorts(const QByteArray &output)
{
    QStringList wanted;
    for (const QByteArray &line : output.split('\n')) {
        if (line.startsWith("port "))
            wanted.append(QString::fromLatin1(line.mid(5)).trimmed());
    }
    if (wanted.isEmpty())
        wanted.append(u"22"_s);
    requireSame(security::parsePorts(output).join(u'|'), wanted.join(u'|'), "the ports of the daemon");
}

void checkJailList(const QByteArray &output)
{
    const QStringList names = security::parseJailList(output);
    require(names.isEmpty() || output.contains("Jail list:"), "jails come after the label");
    for (const QString &name : names) {
        require(!name.isEmpty() && !name.contains(u','), "a jail's name is a piece between commas");
        requireSame(name, name.trimmed(), "a jail's name has no blanks around it");
        require(text(output).contains(name), "a jail's name is in the text");
    }
}

QString restOfLine(const QString &text, const QString &label)
{
    const QStringList parts = text.split(label);
    return parts.size() < 2 ? QString() : parts.sliced(1).join(label).split(u'\n').first().trimmed();
}

void checkJail(const QByteArray &output)
{
    const security::Jail jail = security::parseJail(output);
    const QString all = text(output);
    requireSame(QString::number(jail.failed), QString::number(restOfLine(all, u"Currently failed:"_s).toInt()),
                "how many fail");
    requireSame(QString::number(jail.totalBanned), QString::number(restOfLine(all, u"Total banned:"_s).toInt()),
                "how many were banned");
    QStringList banned = restOfLine(all, u"Banned IP list:"_s).split(u' ');
    banned.removeAll(QString());
    requireSame(jail.banned.join(u' '), banned.join(u' '), "who is banned");
}

// White space as patterns know it, which is that of ASCII alone.
bool isBlank(QChar c)
{
    return c == u' ' || (c >= u'\t' && c <= u'\r');
}

void checkUpgrades(const QByteArray &output)
{
    const QList<security::Upgrade> upgrades = security::parseUpgradable(output);
    qsizetype found = 0;
    for (const QString &line : text(output).split(u'\n')) {
        // NAME/ARCHIVES VERSION ARCHITECTURE [upgradable from: VERSION], each but the last without white space.
        static const QString label = u"[upgradable from: "_s;
        const QString name = line.section(u'/', 0, 0);
        const QStringList words = line.sliced(std::min(line.size(), name.size() + 1)).split(u' ');
        const auto isWord = [](const QString &word) {
            return !word.isEmpty() && std::none_of(word.begin(), word.end(), isBlank);
        };
        if (!line.contains(u'/') || words.size() < 6 || !isWord(name) || !isWord(words[0]) || !isWord(words[1]) ||
            !isWord(words[2]))
            continue;
        const QString rest = words.sliced(3).join(u' ');
        const QString from = rest.mid(label.size()).section(u']', 0, 0);
        if (!rest.startsWith(label) || from.isEmpty() || !rest.sliced(label.size()).contains(u']'))
            continue;
        require(found < upgrades.size(), "every upgrade is found");
        const security::Upgrade &upgrade = upgrades[found++];
        requireSame(upgrade.name, name, "an upgrade's name");
        requireSame(upgrade.to, words[1], "an upgrade's version");
        requireSame(upgrade.from, from, "an upgrade's old version");
        require(upgrade.security == words[0].contains(u"-security"_s), "an upgrade's archive");
    }
    require(found == upgrades.size(), "no upgrade is made up");
}

void checkRebootPackages(const QByteArray &file)
{
    QStringList wanted;
    for (const QString &line : text(file).split(u'\n')) {
        if (!line.isEmpty() && !wanted.contains(line))
            wanted.append(line);
    }
    requireSame(security::parseRebootPackages(file).join(u'\n'), wanted.join(u'\n'), "who asks for a restart");
}

void checkLogTail(const QByteArray &log)
{
    const QString tail = security::logTail(log);
    require(text(log).endsWith(tail), "the tail is the end of the log");
    const qsizetype feeds = text(log).count(u'\n');
    require(tail.count(u'\n') == std::min<qsizetype>(feeds, 39), "the tail has 40 pieces, or all");
    const qsizetype start = text(log).size() - tail.size();
    require(start == 0 || text(log)[start - 1] == u'\n', "the tail begins with a whole line");
}

void checkMount(const QByteArray &output)
{
    QStringList words;
    bool inside = false;
    for (const QChar c : text(output)) {
        if (!c.isSpace() && !inside)
            words.append(QString());
        if (!c.isSpace())
            words.last() += c;
        inside = !c.isSpace();
    }
    const quota::Mount mount = quota::parseMount(output);
    requireSame(mount.point, words.value(0), "a mount point");
    requireSame(mount.type, words.value(1), "a file system's type");
}

void checkUsage(const QByteArray &output)
{
    const QList<QByteArray> lines = output.split('\n');
    const QList<quota::Usage> all = quota::parseUsage(output);
    require(all.size() <= lines.size(), "a line has one user");
    auto line = lines.begin();
    for (const quota::Usage &usage : all) {
        // Lines of users that the reader skipped are passed over; each that it took must follow in order.
        const auto matches = [&](const QByteArray &candidate) {
            const QList<QByteArray> words = candidate.simplified().split(' ');
            return words.size() >= 3 && words[0].startsWith('#') && words[0].mid(1).toUInt() == usage.uid &&
                   usage.bytes / 1024 == words[2].toLongLong() && usage.bytes % 1024 == 0;
        };
        line = std::find_if(line, lines.end(), matches);
        require(line != lines.end(), "a user's usage is that of a line");
        ++line;
    }
}

void checkSizes(const QByteArray &output)
{
    const QJsonObject sizes = hosting::parseSizes(output);
    for (auto size = sizes.begin(); size != sizes.end(); ++size) {
        require(!size.key().contains(u'/') && !size.key().contains(u'\t'), "a folder's name is one component");
        require(text(output).contains(size.key()), "a folder's name is in the text");
    }
    require(sizes.size() <= output.count('\t'), "a folder has a size before it");
}

void checkServices(const QByteArray &output)
{
    const QStringList names = {u"apache2"_s, u"postgresql"_s};
    const QJsonArray services = system::parseServices(output, names);
    qsizetype number = 0;
    for (const auto &value : services) {
        const QJsonObject service = value.toObject();
        requireSame(service.value(u"name"_s).toString(), names.value(number++), "services are told apart by position");
        for (const QString &key : service.keys()) {
            const QJsonValue member = service.value(key);
            require((key == u"name"_s || key == u"sub"_s)        ? member.isString()
                    : (key == u"loaded"_s || key == u"active"_s) ? member.isBool()
                    : (key == u"memory"_s || key == u"since"_s)  ? member.isDouble()
                                                                 : false,
                    "a service's members are of their kind");
        }
    }
}

void checkAutomatic(const QByteArray &file)
{
    // Every place of the name is looked at; between it and the value is white space alone.
    bool on = false;
    const QStringList parts = text(file).split(u"Unattended-Upgrade"_s).sliced(1);
    for (const QString &part : parts) {
        qsizetype blanks = 0;
        while (blanks < part.size() && isBlank(part[blanks]))
            ++blanks;
        on = on || (blanks > 0 && part.sliced(blanks).startsWith(u"\"1\""_s));
    }
    require(security::parseAutomatic(file) == on, "automatic updates are on");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray bytes(reinterpret_cast<const char *>(data) + 1, static_cast<qsizetype>(size - 1));
    switch (data[0]) {
    case 'f':
        checkRules(bytes);
        break;
    case 'p':
        checkPorts(bytes);
        break;
    case 'l':
        checkJailList(bytes);
        break;
    case 'j':
        checkJail(bytes);
        break;
    case 'u':
        checkUpgrades(bytes);
        break;
    case 'r':
        checkRebootPackages(bytes);
        break;
    case 't':
        checkLogTail(bytes);
        break;
    case 'm':
        checkMount(bytes);
        break;
    case 'q':
        checkUsage(bytes);
        break;
    case 'd':
        checkSizes(bytes);
        break;
    case 's':
        checkServices(bytes);
        break;
    case 'a':
        checkAutomatic(bytes);
        break;
    default:
        return -1; // not worth keeping
    }
    return 0;
}
