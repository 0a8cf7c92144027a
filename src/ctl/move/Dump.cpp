#include "ctl/move/Dump.h"

#include "common/Fd.h"
#include "ctl/Interrupt.h"
#include "ctl/Session.h"
#include "ctl/move/Journal.h"
#include "ctl/move/Room.h"
#include "ctl/move/Rows.h"
#include "ctl/restore/Lend.h"
#include "ctl/restore/Restore.h"
#include "ctl/restore/Tables.h"
#include "ctl/verify/Fault.h"

#include <QFile>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

// A table that takes long to begin with is no reason to give up; nobody waits for ever.
constexpr int kPatience = 600;
constexpr mode_t kFileMode = 0600;
const auto kEnd = u"dump"_s;

} // namespace

QStringList dumpCommand(const QString &account)
{
    // Not packed: that takes longer than the way does, while the site is off.
    return {u"cd"_s,       u"/"_s,  u"&&"_s,      u"exec"_s, u"runuser"_s, u"-u"_s,
            u"postgres"_s, u"--"_s, u"pg_dump"_s, u"-Fc"_s,  u"-Z0"_s,     account};
}

QString takeDump(Remote *from, const QString &account)
{
    const QString path = moveFile(account, kEnd);
    dropDump(account);
    const Fd file(
        ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
    if (!file)
        return u"%1 cannot be made"_s.arg(path);
    const Room room(kMoves);
    QByteArray piece;
    for (;;) {
        const Remote::Moved moved = from->read(&piece, kPatience);
        if (moved == Remote::Moved::TimedOut)
            return u"the dump does not go on"_s;
        if (moved == Remote::Moved::Ended)
            break;
        if (!writeAll(file.get(), piece))
            return u"%1: %2"_s.arg(path, QString::fromLocal8Bit(std::strerror(errno))); // NOLINT(concurrency-mt-unsafe)
        if (!room.isThere())
            return u"the dump: "_s + room.problem();
        if (interrupted())
            return u"it was interrupted"_s;
    }
    return from->wait() == 0 ? QString() : u"the dump: "_s + from->explain();
}

QString checkDump(const QString &account)
{
    const QString path = moveFile(account, kEnd);
    const std::optional<QString> fault = faultOfDatabase(path, account, {});
    return fault ? u"%1 %2"_s.arg(path, *fault) : QString();
}

QString loadDump(Session &session, const backup::Config &config, const QString &account, int *tables,
                 QStringList *uncounted)
{
    const QString path = moveFile(account, kEnd);
    const Lent lent(config, path, account);
    if (!lent.problem().isEmpty())
        return lent.problem();
    const Answer answer = ask(session, u"backup.restore"_s,
                              {{u"username"_s, account}, {u"backup"_s, Lent::name()}, {u"what"_s, u"database"_s}});
    if (const QString problem = problemOf(answer); !problem.isEmpty())
        return problem;
    *tables = tablesOf(account);
    const int wanted = tablesIn(path);
    return wanted > *tables ? u"of the database's %1 tables only %2 could be loaded"_s.arg(wanted).arg(*tables)
                            : missingRowsHere(path, account, uncounted);
}

void dropDump(const QString &account)
{
    (void)QFile::remove(moveFile(account, kEnd));
}

} // namespace corv::ctl::moving
