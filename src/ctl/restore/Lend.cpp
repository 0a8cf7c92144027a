#include "ctl/restore/Lend.h"

#include "common/AtomicFile.h"
#include "common/BackupManifest.h"
#include "common/Fd.h"
#include "common/Run.h"
#include "common/Tree.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr mode_t kFileMode = 0600;
constexpr mode_t kFolderMode = 0700;

void remove(const QString &destination)
{
    const Fd folder(::open(QFile::encodeName(destination).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    (void)removeTree(folder.get(), Lent::name().toLatin1().constData());
}

} // namespace

QString Lent::name()
{
    return u"0000-00-00_000000"_s;
}

Lent::Lent(const backup::Config &config, const QString &dump, const QString &account)
    : m_destination(config.destination)
{
    remove(m_destination); // what one that was killed has left
    const QString folder = m_destination + u'/' + name();
    if (!QDir::isAbsolutePath(m_destination) || !QDir().mkpath(folder + u"/accounts"_s)) {
        m_problem = u"no folder can be made in "_s + m_destination;
        return;
    }
    (void)::chmod(QFile::encodeName(m_destination).constData(), kFolderMode);
    const QString path = u"%1/accounts/%2-db.dump"_s.arg(folder, account);
    // On another file system a copy.
    if (::link(QFile::encodeName(dump).constData(), QFile::encodeName(path).constData()) != 0)
        m_problem = hosting::run(u"install"_s, {u"-m"_s, u"0600"_s, u"--"_s, dump, path});
    // For whoever lists the backups meanwhile.
    const backup::Manifest manifest = {
        name(), QDateTime::currentSecsSinceEpoch(), 0, {{account, {}, 0, QFileInfo(path).size()}}, 0, {}};
    (void)replaceFile(folder + u"/manifest.json"_s, backup::manifestText(manifest), kFileMode);
}

Lent::~Lent()
{
    remove(m_destination);
}

} // namespace corv::ctl
