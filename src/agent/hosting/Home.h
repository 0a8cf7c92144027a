#pragma once

#include <QByteArray>
#include <QString>

#include <sys/types.h>

namespace corv::hosting {

// Root's own writes in an account's home. A home may be left over from a former user, and whoever owns it may have put
// links into it: no component below /home is ever followed.

// "/home/" and the account's name.
QString homePath(const QString &user);

// Whether the home, or anything in it that creation writes to or hands over by path, is a link.
bool homeHoldsLinks(const QString &user);

// Makes the folder name in the home, and the home too where it is missing; as far as it can.
void makeHomeFolder(const QString &user, const QString &name);

// Writes a whole file of the home's folder, created or truncated, with that mode; as far as it can.
void writeHomeFile(const QString &user, const QString &folder, const QString &name, const QByteArray &data,
                   mode_t mode);

// What stands where an account's SSH keys are looked for. Other is anything but a file, a link among them, and what is
// reached through a folder that is a link.
enum class KeyFile { Missing, Regular, Other };
KeyFile keyFile(const QString &user);

} // namespace corv::hosting
