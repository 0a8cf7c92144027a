#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

namespace corv::ctl {

struct Session;

// The content of a file, or of standard input for "-". Nothing, after a word on standard error, when it cannot be read.
std::optional<QByteArray> readSource(const Session &session, const QString &path);

// What the user gives to confirm a dangerous step: --confirm's value, else what is typed at the question. It is never
// filled in. Nothing, after a word on standard error, where there is neither an option nor a terminal to ask at. The
// question must be escaped.
std::optional<QString> confirmation(const Session &session, const QString &question);

} // namespace corv::ctl
