#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

namespace corv::https {

// An account's site as the agent wrote it.
struct AccountSite
{
    QString account;
    QString domain;
    bool php = false;
    bool suspended = false;

    bool operator==(const AccountSite &) const = default;
};

// The site whose file "corv-ACCOUNT.conf" has this text; nothing unless each byte is as the agent writes it.
std::optional<AccountSite> recognise(const QString &account, const QByteArray &text);

} // namespace corv::https
