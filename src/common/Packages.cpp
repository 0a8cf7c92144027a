#include "common/Packages.h"

#include "common/Run.h"

using namespace Qt::Literals::StringLiterals;

namespace corv {

bool installed(const QString &package)
{
    QByteArray status;
    (void)hosting::run(u"dpkg-query"_s, {u"-W"_s, u"-f=${Status}"_s, package}, {}, &status); // fails for an unknown one
    return status.trimmed() == "install ok installed";
}

QString aptInstall(const QStringList &packages)
{
    // Without that variable a package that asks questions would wait for answers for ever.
    return hosting::run(
        u"env"_s, QStringList{u"DEBIAN_FRONTEND=noninteractive"_s, u"apt-get"_s, u"install"_s, u"-yq"_s} + packages);
}

} // namespace corv
