#include "agent/backup/Backup.h"
#include "common/Run.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::backup {

Reply start()
{
    return result(hosting::run(u"systemctl"_s, {u"start"_s, u"--no-block"_s, u"corv-backup.service"_s}));
}

} // namespace corv::backup
