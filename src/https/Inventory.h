#pragma once

#include "common/Certificate.h"
#include "https/Names.h"

#include <QByteArray>
#include <QList>

#include <optional>

namespace corv::https {

// The whole of a regular file of no more than so many bytes; nothing otherwise. Anything else than a file is not waited
// for.
std::optional<QByteArray> readWhole(const QString &path, qsizetype most);

// The enabled sites of accounts, in the order in which Apache reads them, with what was chosen for each. What is not of
// the agent's making is passed over; told gets a sentence for each of these.
QList<Candidate> readCandidates(qint64 now, QStringList *told);

// The certificate that Apache uses, or would use, for a domain.
std::optional<Certificate> certificateOf(const QString &domain, const SiteOptions &options);

// A print that changes with any change of a twin's text or of the files of its certificate.
QString printOf(const QByteArray &text, const QString &domain, const SiteOptions &options);

// Whether the store's disk has no room left for what Apache writes there when it starts.
bool isStoreFull();

} // namespace corv::https
