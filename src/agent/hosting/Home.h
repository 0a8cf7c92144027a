#pragma once

#include <QByteArray>
#include <QString>

#include <sys/types.h>

namespace corv::hosting {

// Root's own writes in an account's home. A home may be left over from a former user, and whoever owns it may have put
// links into it: no component below /home is ever followed.

// Whether the home, or anything in it that creation writes to or hands over by path, is a link.
bool homeHoldsLinks(const QString &user);

// Makes the folder name in the home, and the home too where it is missing; as far as it can.
void makeHomeFolder(const QString &user, const QString &name);

// Writes a whole file of the home's folder, created or truncated, with that mode; as far as it can.
void writeHomeFile(const QString &user, const QString &folder, const QString &name, const QByteArray &data,
                   mode_t mode);

// What stands at the end of the links, if any, where an account's SSH keys are looked for. A link that leads nowhere is
// a file that is missing. Other is what is no file: a folder, a FIFO, a device. Where it cannot be told (links in a
// circle), it is Regular: the tools that work there with the account's own rights say what is wrong.
enum class KeyFile { Missing, Regular, Other };
KeyFile keyFile(const QString &user);

} // namespace corv::hosting
