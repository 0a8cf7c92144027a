#pragma once

#include <QString>
#include <QStringList>

namespace corv::ctl {

// The text in lines of at most so many columns, broken at blanks; a word that is longer stays whole, so that a command
// can be copied. One line where columns is no positive number.
QStringList wrapped(const QString &text, int columns);

} // namespace corv::ctl
