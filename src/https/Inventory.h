#pragma once

#include "https/Names.h"

#include <QByteArray>
#include <QList>

namespace corv::https {

// The enabled sites of accounts, in the order in which Apache reads them, with what was chosen for each. What is not of
// the agent's making is passed over; told gets a sentence for each of these.
QList<Candidate> readCandidates(qint64 now, QStringList *told);

// A print that changes with any change of a twin's text or of the files of its certificate, one that has just come
// included.
QString printOf(const QByteArray &text, const QString &domain, const SiteOptions &options);

// Whether the store's disk has no room left for what Apache writes there when it starts.
bool isStoreFull();

} // namespace corv::https
