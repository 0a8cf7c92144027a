#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

namespace corv::ctl {

// Files of root's alone.

// The content of such a file. Nothing, with the reason in problem, where it cannot be had or where it belongs to, or
// can be read by, anybody else; a file that is not there is no problem.
std::optional<QByteArray> secretIn(const QString &path, QString *problem);

// Writes one, in a folder that is made where there is none. Returns why that cannot be; empty on success.
QString keepSecret(const QString &path, const QByteArray &content);

// A new key for a repository: 160 random bits in groups of letters and digits that can be told apart in print. Empty
// where the system gives none.
QByteArray newKey();

} // namespace corv::ctl
