#include "agent/hosting/Ids.h"

#include "common/AtomicFile.h"
#include "common/Fd.h"
#include "common/Run.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {
namespace {

constexpr mode_t kRecordMode = 0644;
constexpr id_t kUsualLast = 60'000; // where /etc/login.defs does not say
constexpr id_t kLeastLeft = 1'000;
const auto kLoginDefs = u"/etc/login.defs"_s;
constexpr auto kShownDefs = "/run/corvane/login.defs";
constexpr mode_t kShownMode = 0600;

// Writes one record, and the link by which it is found by number.
bool writeRecord(id_t id, const QString &kind, const QByteArray &record)
{
    const QString folder = QString::fromLatin1(kRecordFolder);
    const QString file = formerName(id) + kind;
    if (!replaceFile(folder + u'/' + file, record, kRecordMode))
        return false;
    const QByteArray link = QFile::encodeName(u"%1/%2%3"_s.arg(folder).arg(id).arg(kind));
    return ::symlink(QFile::encodeName(file).constData(), link.constData()) == 0 || errno == EEXIST;
}

// The number that a line such as "UID_MAX   60000" gives to the name; nothing for another line.
std::optional<id_t> valueOf(const QByteArray &line, const QByteArray &name)
{
    const QList<QByteArray> words = line.simplified().split(' ');
    bool isNumber = false;
    const id_t value = words.value(1).toUInt(&isNumber);
    return words.value(0) == name && isNumber ? std::optional(value) : std::nullopt;
}

// The least id above all that are kept; 0 where none is.
id_t firstFree()
{
    const FormerIds kept = formerIds();
    id_t highest = 0;
    for (const uid_t id : kept.users)
        highest = std::max(highest, id);
    for (const gid_t id : kept.groups)
        highest = std::max(highest, id);
    return highest == 0 ? 0 : highest + 1;
}

// A file with the login definitions for useradd to find, its path; empty where none can be written.
QByteArray writeLoginDefs()
{
    QFile usual(kLoginDefs);
    if (!usual.open(QIODevice::ReadOnly))
        return {};
    const QByteArray text = loginDefsFrom(usual.readAll(), firstFree());

    // Root alone writes to this folder, and the agent makes one account at a time.
    (void)::unlink(kShownDefs);
    const Fd file(::open(kShownDefs, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kShownMode));
    if (!file)
        return {};
    if (!writeAll(file.get(), text)) {
        (void)::unlink(kShownDefs);
        return {};
    }
    return kShownDefs;
}

} // namespace

std::optional<Ids> idsOf(const QString &user)
{
    const passwd *entry = ::getpwnam(user.toLocal8Bit().constData());
    if (!entry || !isAccountId(entry->pw_uid) || !isAccountId(entry->pw_gid))
        return {};
    return Ids{entry->pw_uid, entry->pw_gid};
}

bool keepIds(const Ids &ids)
{
    (void)QDir().mkpath(QString::fromLatin1(kRecordFolder));
    const bool user = writeRecord(ids.user, u".user"_s, formerUserRecord(ids.user));
    return writeRecord(ids.group, u".group"_s, formerGroupRecord(ids.group)) && user;
}

QByteArray loginDefsFrom(const QByteArray &text, id_t first)
{
    QByteArray ranges;
    QByteArray others;
    id_t last = kUsualLast;
    for (const QByteArray &line : text.split('\n')) {
        if (const std::optional<id_t> max = valueOf(line, "UID_MAX"))
            last = *max;
        // No more than one of each is read, and which one differs between releases.
        if (valueOf(line, "UID_MIN") || valueOf(line, "GID_MIN"))
            ranges += line + '\n';
        else if (!valueOf(line, "SUB_UID_COUNT") && !valueOf(line, "SUB_GID_COUNT"))
            others += line + '\n';
    }
    const bool isAbove = first != 0 && first <= last && last - first >= kLeastLeft;
    const QByteArray number = QByteArray::number(first);
    if (isAbove)
        ranges = "UID_MIN " + number + "\nGID_MIN " + number + '\n';
    return others + ranges + "SUB_UID_COUNT 0\nSUB_GID_COUNT 0\n";
}

QString addUser(const QStringList &args)
{
    Surroundings surroundings;
    surroundings.linksLeadNowhere = true;
    surroundings.loginDefs = writeLoginDefs();
    const QString error = runWith(u"useradd"_s, args, {}, surroundings);
    if (!surroundings.loginDefs.isEmpty())
        (void)::unlink(surroundings.loginDefs.constData());
    return error;
}

} // namespace corv::hosting
