#pragma once

namespace corv::ctl {

class Given;
struct Session;

// The commands of the topic that have a source of their own; each returns the exit status.
int addBan(Session &session, const Given &given);
int enableBans(Session &session, const Given &given);

} // namespace corv::ctl
