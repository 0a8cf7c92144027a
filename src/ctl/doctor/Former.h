#pragma once

#include "ctl/doctor/Finding.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

namespace corv::ctl {

// What keeps the accounts of the future from what those of the past have left.
struct FormerState
{
    QByteArray nsswitch;           // the text of /etc/nsswitch.conf
    bool linksCanBeClosed = false; // whether tools that work as root in homes can be kept from following links
    QStringList unkeptAccounts;    // accounts whose ids are none that are kept
    QStringList ownerlessJobs;     // the paths of jobs and marks, under names or of owners that no user has
};

QList<Finding> checkFormer(const FormerState &state);

} // namespace corv::ctl
