#include "common/Paths.h"

#include <QFileInfo>

namespace corv {

bool exists(const QString &path)
{
    const QFileInfo info(path);
    return info.exists() || info.isSymLink();
}

} // namespace corv
