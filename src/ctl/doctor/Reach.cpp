#include "ctl/doctor/Reach.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

QString problemOf(const OutOfReach &found)
{
    switch (found.what) {
    case OutOfReach::What::Home:
        return u"the web server cannot go through the home of the account %1"_s.arg(found.account);
    case OutOfReach::What::Missing:
        return u"the account %1 has no folder public_html"_s.arg(found.account);
    case OutOfReach::What::Pages:
        return u"the web server cannot read the folder public_html of the account %1"_s.arg(found.account);
    case OutOfReach::What::Below:
        break;
    }
    const QString first = QString::fromUtf8(found.first);
    return found.count == 1 ? u"the web server cannot read %1 of the account %2"_s.arg(first, found.account)
                            : u"the web server cannot read %1 files and folders of the account %2, such as %3"_s.arg(
                                  QString::number(found.count), found.account, first);
}

} // namespace

QList<Finding> checkReach(const QList<OutOfReach> &found)
{
    QList<Finding> findings;
    for (const OutOfReach &one : found)
        findings.append({Level::Fault, problemOf(one), u"corvctl account publish "_s + shellWord(one.account)});
    return findings;
}

} // namespace corv::ctl
