// Puts hosting accounts' sites on port 443, beside the agent: started by Apache's unit, by units of its own, and by
// Apache.

#include "common/Environment.h"
#include "https/Sync.h"
#include "https/Work.h"

#include <QCoreApplication>
#include <QStringList>

#include <cstdio>

#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const QStringList words = QCoreApplication::arguments().mid(1);
    ::umask(022);
    corv::cleanEnvironment();
    if (words == QStringList{u"sync"_s})
        return corv::https::sync(corv::https::kByReload);
    if (words == QStringList{u"rescue"_s})
        return corv::https::rescue();
    if (words == QStringList{u"again"_s})
        return corv::https::again();
    if (words == QStringList{u"work"_s})
        return corv::https::work();
    if (words == QStringList{u"ends"_s})
        return corv::https::ends();
    if (words.size() >= 2 && words.first() == "message"_L1)
        return corv::https::message(words.at(1));
    (void)std::fputs("usage: corv-https sync | work | ends | again | rescue | message EVENT NAME\n", stderr);
    return 2;
}
