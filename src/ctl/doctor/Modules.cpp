#include "ctl/doctor/Modules.h"

#include "common/Packages.h"
#include "common/TimedRun.h"

#include <QFile>
#include <QSysInfo>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kToolMs = 30'000;
constexpr qint64 kLongestList = 16'777'216; // in bytes; a distribution's kernel has about one of them

// Whether the list of a kernel's modules has this one, at the beginning of a line, whatever its file is packed with.
bool lists(const QString &file, const QByteArray &module)
{
    QFile list(u"/lib/modules/%1/%2"_s.arg(QSysInfo::kernelVersion(), file));
    if (!list.open(QIODevice::ReadOnly))
        return false;
    const QList<QByteArray> lines = list.read(kLongestList).split('\n');
    return std::any_of(lines.cbegin(), lines.cend(), [&module](const QByteArray &line) {
        return line.split(':').first().contains('/' + module + ".ko");
    });
}

} // namespace

QString modulesPackage()
{
    return u"linux-modules-extra-"_s + QSysInfo::kernelVersion();
}

bool canHaveModulesPackage()
{
    const QString name = modulesPackage();
    // apt-cache keeps what it computes in files of its own, which it is kept from here.
    return installed(name) || !runWithin(kToolMs, u"apt-cache"_s,
                                         {u"-o"_s, u"Dir::Cache::pkgcache="_s, u"-o"_s, u"Dir::Cache::srcpkgcache="_s,
                                          u"show"_s, u"--no-all-versions"_s, name})
                                   .output.isEmpty();
}

bool kernelHasQuotas()
{
    return lists(u"modules.builtin"_s, "quota_v2") || lists(u"modules.dep"_s, "quota_v2");
}

} // namespace corv::ctl
