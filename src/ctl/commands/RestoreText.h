#pragma once

#include "ctl/restore/Restore.h"
#include "ctl/screen/Table.h"

#include <QJsonObject>
#include <QString>

#include <optional>

namespace corv::ctl {

struct Session;

// What restores say.

// Why a command that works as root on this server alone cannot be carried out as it was given, after that was said;
// nothing when it can.
std::optional<int> refuseElsewhere(const Session &session, const QString &command);

// Takes all that is not needed out of this process's environment: programs run as accounts, whose other processes may
// read what they were started with.
void bareEnvironment();

// What was written down of an account, in a few words.
QString stateText(const AccountState &state);

// When something was made, and of what.
QString sourceText(const Source &source);

// Tells of a step of a restore while it is at work, to people.
std::function<void(const QString &)> sayer(const Session &session, const QString &account);

// What became of one, for programs.
QJsonObject restoredObject(const Plan &plan, const Restored &done);

} // namespace corv::ctl
