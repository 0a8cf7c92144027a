#pragma once

#include <QString>

#include <optional>

namespace corv::ctl {

class Given;
struct Session;

// Refuses what is done as root on the server itself, where it is not; else settles what tools inherit. The command is
// named as it was typed.
std::optional<int> refuseUnlessHere(const Session &session, const QString &command);

// The commands that switch HTTPS; each returns the exit status.
int httpsOn(Session &session, const Given &given);
int httpsOff(Session &session, const Given &given);

} // namespace corv::ctl
