#include "ctl/doctor/Former.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// Whether a database of the C library is also looked for by its module "systemd".
bool hasModule(const QByteArray &nsswitch, const QByteArray &database)
{
    for (const QByteArray &line : nsswitch.split('\n')) {
        const QList<QByteArray> words = line.split('#').first().simplified().split(' ');
        if (words[0] == database + ':')
            return words.contains("systemd");
    }
    return false;
}

} // namespace

QList<Finding> checkFormer(const FormerState &state)
{
    QList<Finding> findings;
    if (!hasModule(state.nsswitch, "passwd") || !hasModule(state.nsswitch, "group")) {
        findings.append(
            {Level::Fault,
             u"the C library does not know the ids of deleted accounts, so that they can be given out again"_s,
             u"apt-get install -y libnss-systemd && "
             "sed -i -E '/^(passwd|group):/{/systemd/!s/$/ systemd/}' /etc/nsswitch.conf"_s});
    }
    if (!state.linksCanBeClosed) {
        findings.append(
            {Level::Note,
             u"tools that work as root in homes follow links there: it takes Linux 5.14, and in a container "
             "the right to mount"_s,
             u"uname -r"_s});
    }
    for (const QString &account : state.unkeptAccounts) {
        findings.append(
            {Level::Note,
             u"the id of the account %1 is none of a usual user's, so that the next account can get it when "
             "this one is deleted"_s.arg(account),
             u"id %1; grep -E '^[UG]ID_M' /etc/login.defs"_s.arg(account)});
    }
    for (const QString &job : state.ownerlessJobs) {
        findings.append({Level::Fault,
                         job + u" is of a user who is gone, and would be a later user's of that name or id"_s,
                         u"rm "_s + shellWord(job)});
    }
    return findings;
}

} // namespace corv::ctl
