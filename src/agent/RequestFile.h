#pragma once

#include "common/InHand.h"

#include <QString>

#include <sys/types.h>

namespace corv {

// Tells clients which request is in hand, in a file beside the socket that whoever may connect can read. A client that
// has to wait learns so with which, for how long and whose. Where the file cannot be written, nobody is told.
class RequestFile
{
public:
    // The group that may read it; none before this.
    void setGroup(gid_t group)
    {
        m_group = group;
    }
    // Takes away what an agent left that was killed.
    void clear() const;
    // From here on this one is in hand.
    void begin(const QString &command, const QString &account, quint32 uid) const;
    // No more.
    void end() const;

private:
    gid_t m_group = static_cast<gid_t>(-1);
};

} // namespace corv
