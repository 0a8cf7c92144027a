#pragma once

#include <QString>

namespace corv::ctl {

// What a visitor of an account's site sees, over this server's own addresses.
struct Seen
{
    QString text; // such as "http://shop.example/ answers: status 200"
    bool isWell = false;
};

// Asks for the first page of the account's site until it is as it should be, for some seconds: Apache takes a moment to
// read its sites anew.
Seen lookAtSite(const QString &account, bool isSuspended);

} // namespace corv::ctl
