#pragma once

#include <QByteArray>
#include <QString>

#include <functional>
#include <optional>
#include <vector>

#include <sys/types.h>

namespace corv::ctl {

// Whose rights a piece of work has.
struct Rights
{
    uid_t user;
    gid_t group;
    std::vector<gid_t> groups; // all of them
};

// Those of an account's user and, beside them, of the web server's group: who owns a file may give it to a group that
// he is in. Nothing where there is no such user, one of root's number, or no such group.
std::optional<Rights> accountRights(const QString &account);

// Those of the web server; nothing where it has no user.
std::optional<Rights> webServerRights();

// What became of such work.
struct Work
{
    QByteArray said; // what it returned
    QString problem; // why it did not come to its end, empty when it did
};

// Does work in a process of its own that has these rights and no way back to root's, which nobody but root can trace,
// and returns what it returns, up to 64 MiB. It is killed when it takes longer than so many milliseconds or when the
// user it runs for holds it up; it goes on when this process is interrupted. Call it as root.
Work workAs(const Rights &rights, int milliseconds, const std::function<QByteArray()> &work);

} // namespace corv::ctl
