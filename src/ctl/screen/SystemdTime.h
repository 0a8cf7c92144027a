#pragma once

#include <QString>

#include <optional>

namespace corv::ctl {

// The seconds since 1970 of a time as systemd writes it, "Tue 2026-01-06 03:42:10 UTC". Nothing for another text, nor
// where the time zone's letters are neither UTC nor those of this machine at that time: such letters mean several
// zones.
std::optional<qint64> systemdTime(const QString &text);

} // namespace corv::ctl
