#pragma once

#include <QJsonObject>
#include <QString>

namespace corv::ctl {

// How far this server's agent is with a request, as far as its files tell, for a line on the terminal: the archive that
// a deletion is writing, or how much of its file a restore has read. Empty where they tell nothing, or only root is
// told. seconds: since the request was sent.
QString requestStage(const QString &command, const QJsonObject &args, int seconds);

} // namespace corv::ctl
