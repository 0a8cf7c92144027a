#include "ctl/commands/QuotaPackage.h"

#include "common/Packages.h"
#include "common/Quotas.h"
#include "common/Run.h"
#include "ctl/doctor/Modules.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// Not under /tmp, where everybody may write: what root installs is made where nobody else comes.
const auto kWorkFolder = u"/run/corvctl-XXXXXX"_s;

const auto kControl = uR"(Package: %1
Version: 1
Architecture: all
Section: kernel
Priority: optional
Maintainer: root <root@localhost>
Description: stands for modules that the kernel's own package has
 Made by "corvctl quota enable". It is empty: the running kernel has the
 module quota_v2 itself, and enabling quotas asks for a package of this name.
)"_s;

// The folder that dpkg-deb makes a package of. It insists on the mode, whatever the process masks.
bool layOut(const QString &folder, const QString &name)
{
    const QString control = folder + u"/DEBIAN"_s;
    constexpr auto kOwner = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner;
    constexpr auto kOthers = QFile::ReadGroup | QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther;
    QFile file(control + u"/control"_s);
    const QByteArray text = kControl.arg(name).toUtf8();
    return QDir().mkpath(control) && QFile::setPermissions(control, kOwner | kOthers) &&
           file.open(QIODevice::WriteOnly) && file.write(text) == text.size() && file.flush();
}

QString install(const QString &name)
{
    const QTemporaryDir work(kWorkFolder);
    const QString folder = work.filePath(u"package"_s);
    const QString package = work.filePath(u"package.deb"_s);
    if (!work.isValid() || !layOut(folder, name))
        return u"cannot make a folder under /run"_s;
    if (const QString error = hosting::run(u"dpkg-deb"_s, {u"--root-owner-group"_s, u"--build"_s, folder, package});
        !error.isEmpty())
        return error;
    return hosting::run(u"dpkg"_s, {u"--install"_s, package});
}

} // namespace

Prepared prepareQuotas()
{
    const bool areOn = installed(quota::kQuotaPackage) && quota::enabled();
    if (areOn || quota::homeMount().type != quota::kSupportedType || canHaveModulesPackage() || !kernelHasQuotas())
        return {};
    const QString name = modulesPackage();
    const QString problem = install(name);
    return {problem.isEmpty() ? name : QString(), problem};
}

} // namespace corv::ctl
