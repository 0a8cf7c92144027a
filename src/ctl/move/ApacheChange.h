#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

namespace corv::ctl::moving {

// A file of Apache's configuration that comes, changes or goes.
struct ApacheChange
{
    QString path;                   // of the file; it is root's alone
    QString link;                   // what enables it, in the folder beside
    std::optional<QByteArray> text; // none: the file goes
    QStringList modules = {};       // those that it needs; what is switched on for it goes off with it
    QString modulesRecord = {};     // the file that keeps which these were, for all changes of this kind
    bool isLast = false;            // whether nothing needs these modules any more once the file has gone
    // Whether Apache answers by the new configuration; asked until it says so, for some seconds.
    std::function<bool()> isInForce;
};

// Carries it out: tested before Apache reads it, taken back where that fails, where Apache does not come up with it, or
// where it does not come into force. Nothing is done where all is so already, nor where Apache does not run. Returns
// what went wrong, empty for nothing; Apache's configuration is then as it was. The caller holds the turn.
QString changeApache(const ApacheChange &change);

// Whether a module is switched on, such as "proxy_http".
bool hasModule(const QString &module);

// Held by whoever changes what accounts that moved need of Apache.
inline const QString kForwardLock = QStringLiteral("/run/corvane/forward.lock");

} // namespace corv::ctl::moving
