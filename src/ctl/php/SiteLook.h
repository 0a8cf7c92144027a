#pragma once

#include <QStringList>

namespace corv::ctl {

// The accounts, of these, whose site's visitors see a page, a redirect or a refusal of the site's own making.
QStringList wellAmong(const QStringList &accounts);

// Waits a quarter of a minute at most for these accounts' sites to be well. Returns those that are not.
QStringList awaitWell(const QStringList &accounts);

} // namespace corv::ctl
