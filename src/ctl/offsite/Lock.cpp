#include "ctl/offsite/Lock.h"

#include "ctl/Turn.h"
#include "ctl/offsite/State.h"

#include <QFile>

#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

Fd lockOffsite(QString *problem)
{
    constexpr mode_t kFolderMode = 0700;
    (void)::mkdir(QFile::encodeName(kStateFolder).constData(), kFolderMode);
    Fd turn = takeTurn(kOffsiteLock, u"another run, check or drill"_s, problem);
    if (!turn && problem->isEmpty())
        *problem = u"interrupted"_s;
    return turn;
}

} // namespace corv::ctl
