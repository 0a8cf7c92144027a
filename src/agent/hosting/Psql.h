#pragma once

#include <QByteArray>
#include <QString>

namespace corv::hosting {

// Runs a script as the database superuser, up to its first error. Returns the runner's message, which carries the
// database's own; empty on success.
QString psql(const QByteArray &script);

} // namespace corv::hosting
