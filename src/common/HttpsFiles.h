#pragma once

#include "common/Certificate.h"
#include "common/Fd.h"
#include "common/HttpsOptions.h"

#include <QByteArray>
#include <QString>

#include <optional>

namespace corv::https {

// The whole of a regular file of no more than so many bytes; nothing otherwise. Anything else than a file is not waited
// for.
std::optional<QByteArray> readWhole(const QString &path, qsizetype most);

// Likewise of what is open there, if anything is.
std::optional<QByteArray> readWhole(const Fd &file, qsizetype most);

// Where the store keeps what it has of a domain.
QString storeFolder(const QString &domain);

// Where it keeps what it is getting for a domain, or has got and the next reload puts into use. Apache's user can write
// there.
QString stagingFolder(const QString &domain);

// The certificate that Apache uses, or would use, for a domain.
std::optional<Certificate> certificateOf(const QString &domain, const SiteOptions &options);

// What was chosen for an account; nothing where that cannot be read.
std::optional<SiteOptions> readOptions(const QString &account);

// Makes the folders that all of it stands on. Those are missing before HTTPS is first switched on, and where /run or
// the state were cleared away. False where one cannot be made.
bool makeFolders();

} // namespace corv::https
