#pragma once

#include "ctl/Command.h"
#include "ctl/offsite/Restic.h"

#include <QString>

#include <optional>

namespace corv::ctl {

struct Session;

constexpr auto kSetUp = QLatin1StringView("corvctl offsite setup REPOSITORY sets one up");

// Why a command of the topic cannot be done from where it was typed, as an exit status after a word on standard error;
// nothing where it can. It takes root on the server itself.
std::optional<int> notHere(const Session &session, const QString &command);

// The repository of the settings. Nothing, after a word on standard error and with the exit status, where there is none
// that could be used.
std::optional<Repository> openedPlace(const Session &session, int *status);

// The commands of the topic that have sources of their own.
Command offsiteSetupCommand();
Command offsiteCheckCommand();
Command offsiteFetchCommand();
Command offsiteDrillCommand();

} // namespace corv::ctl
