// The rules for what clients may name: each is stated here a second time, by hand and without patterns, and both must
// agree. The first byte of the input chooses the rule, the rest is the text.

#include "fakes.h"
#include "fuzz.h"

#include "agent/files/Helper.h"
#include "agent/files/Transfer.h"
#include "agent/hosting/Hosting.h"
#include "agent/quota/Fstab.h"
#include "agent/security/Address.h"
#include "agent/security/Parse.h"
#include "common/Account.h"
#include "common/BackupFolders.h"
#include "common/Transfer.h"

#include <algorithm>

#include <arpa/inet.h>

using namespace Qt::Literals::StringLiterals;
using namespace corv;
using namespace corv::fuzz;

namespace {

bool isSmall(QChar c)
{
    return c >= u'a' && c <= u'z';
}

bool isCapital(QChar c)
{
    return c >= u'A' && c <= u'Z';
}

bool isDigit(QChar c)
{
    return c >= u'0' && c <= u'9';
}

template <typename Test>
bool all(QStringView text, Test test)
{
    return std::all_of(text.begin(), text.end(), test);
}

bool isUsername(const QString &name)
{
    static const QStringList taken = {u"root"_s, u"admin"_s, u"www"_s,    u"postgres"_s, u"corvane"_s,
                                      u"mail"_s, u"ftp"_s,   u"nobody"_s, u"daemon"_s,   u"backup"_s};
    return name.size() >= 3 && name.size() <= 16 && isSmall(name[0]) &&
           all(name, [](QChar c) { return isSmall(c) || isDigit(c); }) && !taken.contains(name);
}

bool isLabel(const QString &label)
{
    return !label.isEmpty() && label.size() <= 63 && !label.startsWith(u'-') && !label.endsWith(u'-') &&
           all(label, [](QChar c) { return isSmall(c) || isDigit(c) || c == u'-'; });
}

// The last label may end with a hyphen, but must begin with a letter.
bool isTopLabel(const QString &label)
{
    return label.size() >= 2 && label.size() <= 63 && isSmall(label[0]) &&
           all(label, [](QChar c) { return isSmall(c) || isDigit(c) || c == u'-'; });
}

QString domain(const QString &text)
{
    qsizetype begin = 0;
    qsizetype end = text.size();
    while (begin < end && text[begin].isSpace())
        ++begin;
    while (end > begin && text[end - 1].isSpace())
        --end;
    QString name;
    for (const QChar c : text.sliced(begin, end - begin))
        name += isCapital(c) ? QChar(c.unicode() + 32) : c;
    if (name.startsWith(u"www."_s))
        name = name.sliced(4);

    const QStringList labels = name.split(u'.');
    const bool good = name.size() >= 4 && name.size() <= 253 && labels.size() >= 2 && isTopLabel(labels.last()) &&
                      std::all_of(labels.begin(), labels.end() - 1, isLabel);
    return good ? name : QString();
}

bool isKey(const QString &text)
{
    static const QStringList types = {u"ssh-ed25519"_s,
                                      u"ssh-rsa"_s,
                                      u"ecdsa-sha2-nistp256"_s,
                                      u"ecdsa-sha2-nistp384"_s,
                                      u"ecdsa-sha2-nistp521"_s,
                                      u"sk-ssh-ed25519@openssh.com"_s,
                                      u"sk-ecdsa-sha2-nistp256@openssh.com"_s};
    const qsizetype first = text.indexOf(u' ');
    if (first < 0 || !types.contains(text.first(first)))
        return false;
    const QString rest = text.sliced(first + 1);
    const qsizetype second = rest.indexOf(u' ');
    QString body = second < 0 ? rest : rest.first(second);
    for (int padding = 0; padding < 3 && body.endsWith(u'='); ++padding)
        body.chop(1);
    const bool bodyGood = body.size() >= 40 && all(body, [](QChar c) {
                              return isSmall(c) || isCapital(c) || isDigit(c) || c == u'+' || c == u'/';
                          });
    const QString comment = second < 0 ? QString() : rest.sliced(second + 1);
    return bodyGood && comment.size() <= 200 && all(comment, [](QChar c) { return c >= u' ' && c <= u'~'; });
}

// What hosting.setKeys stores: nothing but the good keys, or nothing at all and the number of the first bad line.
void checkKeyList(const QString &lines)
{
    qsizetype number = 0;
    qsizetype bad = 0;
    QStringList keys;
    for (const QString &line : lines.split(u'\n')) {
        ++number;
        const QString key = line.trimmed();
        if (!key.isEmpty() && !key.startsWith(u'#')) {
            bad = bad == 0 && !isKey(key) ? number : bad;
            keys.append(key);
        }
    }

    setAnswers({});
    const Reply reply = hosting::setKeys({{u"username"_s, u"alice"_s}, {u"keys"_s, lines}});
    if (bad > 0) {
        requireSame(reply.value(u"error"_s).toString(),
                    u"line %1 is not an SSH public key (ssh-ed25519 AAAA… comment)"_s.arg(bad),
                    "the first bad line is named");
        require(calls().isEmpty(), "nothing is written when a line is bad");
    } else if (keys.size() > 50) {
        requireSame(reply.value(u"error"_s).toString(), u"at most 50 keys"_s, "there are at most 50 keys");
        require(calls().isEmpty(), "nothing is written when there are too many keys");
    } else {
        require(reply == Reply{{u"ok"_s, true}, {u"count"_s, keys.size()}}, "good keys are counted");
        require(calls().size() == 4, "good keys are written");
        requireSame(calls()[2].input, (keys.join(u'\n') + u'\n').toUtf8(),
                    "the good keys are written and nothing else");
    }
}

bool isBackup(const QString &name)
{
    const QString form = u"0000-00-00_000000"_s;
    if (name.size() != form.size())
        return false;
    for (qsizetype i = 0; i < form.size(); ++i) {
        if (form[i] == u'0' ? !isDigit(name[i]) : name[i] != form[i])
            return false;
    }
    return true;
}

bool isTransfer(const QString &name)
{
    return name.size() >= 16 && name.size() <= 64 &&
           all(name, [](QChar c) { return isSmall(c) || isCapital(c) || isDigit(c) || c == u'_' || c == u'-'; });
}

// What the C library takes for an address, as the tools that get it do.
bool isAddressTo(int family, const QString &text)
{
    in6_addr address = {};
    return !text.contains(QChar(u'\0')) && ::inet_pton(family, text.toUtf8().constData(), &address) == 1;
}

bool isPlainNumber(const QString &text, int highest)
{
    return !text.isEmpty() && text.size() <= 3 && all(text, isDigit) && (text == u"0"_s || text[0] != u'0') &&
           text.toInt() <= highest;
}

// Ones, and then zeros alone.
bool isNetmask(const QString &text)
{
    in_addr mask = {};
    if (text.contains(QChar(u'\0')) || ::inet_pton(AF_INET, text.toUtf8().constData(), &mask) != 1)
        return false;
    const quint32 zeros = ~ntohl(mask.s_addr);
    return (zeros & (zeros + 1)) == 0;
}

bool isRange(const QString &text)
{
    const qsizetype slash = text.indexOf(u'/');
    if (slash < 0)
        return isAddressTo(AF_INET, text) || isAddressTo(AF_INET6, text);
    const QString address = text.first(slash);
    const QString length = text.sliced(slash + 1);
    if (isAddressTo(AF_INET, address))
        return isPlainNumber(length, 32) || isNetmask(length);
    return isAddressTo(AF_INET6, address) && isPlainNumber(length, 128);
}

// The first line is the rule's destination, the others are ports.
void checkSsh(const QString &lines)
{
    const QStringList ports = lines.split(u'\n').sliced(1);
    const QString to = lines.section(u'\n', 0, 0);
    if (to.isEmpty())
        return; // no rule has an empty one
    bool lets = to.startsWith(u"OpenSSH"_s);
    for (const QString &port : ports) {
        lets = lets || to == port || to.startsWith(port + u'/') || to.startsWith(port + u' ') ||
               to.startsWith(port + u'(');
    }
    require(security::letsSshIn(to, ports) == lets, "a rule lets SSH in, or not");
}

// The path of a home and of what is named in it, folder by folder; what is left of ".." at the top is dropped.
void checkPath(const QString &path)
{
    const QString home = u"/home/alice"_s;
    QStringList names;
    for (const QString &name : (home + u'/' + path).split(u'/')) {
        if (name == u".."_s && !names.isEmpty())
            names.removeLast();
        else if (!name.isEmpty() && name != u"."_s && name != u".."_s)
            names.append(name);
    }
    const bool inside = names.size() >= 2 && names[0] == u"home"_s && names[1] == u"alice"_s;
    requireSame(files::resolve(home, path), inside ? u'/' + names.join(u'/') : QString(),
                "a path stays inside of the home");
}

bool isBlank(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

QList<QByteArray> fields(const QByteArray &line)
{
    QList<QByteArray> all;
    bool inside = false;
    for (const char c : line) {
        if (!isBlank(c) && !inside)
            all.append(QByteArray());
        if (!isBlank(c))
            all.last() += c;
        inside = !isBlank(c);
    }
    return all;
}

// Whether a line of the table mounts something at the point.
bool mounts(const QByteArray &line, const QByteArray &point)
{
    const QList<QByteArray> words = fields(line);
    return words.size() >= 4 && !words[0].startsWith('#') && words[1] == point;
}

// Every byte but those of one line comes out as it went in, and of that line every field but the options.
void checkFstab(const QByteArray &input)
{
    const QByteArray point = input.left(std::max<qsizetype>(0, input.indexOf('\n')));
    const QByteArray table = input.sliced(std::min(input.size(), point.size() + 1));
    if (text(point).toUtf8() != point)
        return; // a mount point that is no text has been replaced by something else before it gets here
    const QList<QByteArray> before = table.split('\n');
    const auto line = std::find_if(before.begin(), before.end(), [&](const QByteArray &l) { return mounts(l, point); });

    const std::optional<QByteArray> edited = quota::addQuotaOptions(table, text(point));
    require(edited.has_value() == (line != before.end()), "a line is found where there is one");
    if (!edited)
        return;
    const QList<QByteArray> old = fields(*line);
    if (old[3].contains("usrjquota=")) {
        requireSame(*edited, table, "a line with a quota file stays");
        return;
    }
    const QList<QByteArray> after = edited->split('\n');
    require(after.size() == before.size(), "no line is added or lost");
    const qsizetype changed = line - before.begin();
    for (qsizetype i = 0; i < before.size(); ++i) {
        if (i != changed)
            requireSame(after[i], before[i], "the other lines stay");
    }
    QList<QByteArray> wanted = old;
    wanted[3] += ",usrjquota=aquota.user,jqfmt=vfsv1";
    requireSame(after[changed], wanted.join('\t'), "the options are added");
    requireSame(quota::addQuotaOptions(*edited, text(point)).value_or(QByteArray()), *edited, "and added only once");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray bytes(reinterpret_cast<const char *>(data) + 1, static_cast<qsizetype>(size - 1));
    const QString name = text(bytes);
    switch (data[0]) {
    case 'u':
        require(hosting::validUsername(name) == isUsername(name), "an account's name");
        break;
    case 'd':
        requireSame(hosting::normalDomain(name), domain(name), "a domain's name");
        requireSame(hosting::domainIn(hosting::accountComment(domain(name))), domain(name), "a domain that is kept");
        break;
    case 'k':
        require(hosting::validKey(name) == isKey(name), "a key");
        break;
    case 'l':
        checkKeyList(name);
        break;
    case 'b':
        require(backup::isBackupName(name) == isBackup(name), "a backup's name");
        break;
    case 't':
        require(files::validTransferName(name) == isTransfer(name), "a transfer's name");
        break;
    case 'a':
        require(security::isAddress(name) == (isAddressTo(AF_INET, name) || isAddressTo(AF_INET6, name)), "an address");
        break;
    case 'r':
        require(security::isAddressOrRange(name) == isRange(name), "an address or range");
        break;
    case 's':
        checkSsh(name);
        break;
    case 'p':
        checkPath(name);
        break;
    case 'f':
        checkFstab(bytes);
        break;
    default:
        return -1; // not worth keeping
    }
    return 0;
}
