#pragma once

#include <QString>

namespace corv::hosting {

// Removes an account's user with its home, and whatever it could leave behind for a later one: its ids are kept from
// being given out again, its processes end, its files outside the home go. Returns the message of userdel, the only
// program among this; where that fails and the user stays, its files outside the home stay as well.
QString removeUser(const QString &user);

} // namespace corv::hosting
