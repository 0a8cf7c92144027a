#include "ctl/doctor/OutOfMemory.h"

#include <QRegularExpression>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

QList<Finding> checkOutOfMemory(const QList<Service> &services)
{
    static const QRegularExpression shared(
        QRegularExpression::anchoredPattern(u"apache2|php[0-9.]*-fpm|postgresql@[0-9]+-.+"_s));
    QList<Finding> findings;
    for (const auto &[name, unit] : services) {
        const QString policy = unit.value(u"OOMPolicy"_s);
        if (policy.isEmpty() || policy == "continue"_L1 || !shared.match(name).hasMatch())
            continue;
        const QString folder = shellWord(u"/etc/systemd/system/%1.service.d"_s.arg(name));
        // A name that is read after what an administrator's own is called as a rule.
        findings.append(
            {Level::Fault,
             u"one process that takes too much memory ends %1 for all accounts (OOMPolicy=%2)"_s.arg(name, policy),
             u"mkdir -p %1 && (echo '[Service]'; echo OOMPolicy=continue) >%1/zz-corvane.conf && systemctl daemon-reload"_s
                 .arg(folder)});
    }
    return findings;
}

} // namespace corv::ctl
