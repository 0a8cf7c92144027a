#include "ctl/doctor/ExaminedParts.h"

#include "ctl/doctor/Backup.h"
#include "ctl/doctor/Compressor.h"
#include "ctl/doctor/Facts.h"
#include "ctl/doctor/Offsite.h"

#include <QDateTime>
#include <QJsonArray>
#include <QStandardPaths>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {

Check examineBackups(const QJsonObject &status)
{
    const auto isActive = [](const QString &unit) {
        return unitProperties(unit).value(u"ActiveState"_s) == "active"_L1;
    };
    const bool planned = isActive(u"corv-backup.timer"_s);
    const QJsonArray backups = status.value("backups"_L1).toArray();
    const QString last = backups.first().toObject().value("name"_L1).toString();
    return {u"backups"_s,
            u"%1 in %2%3"_s.arg(QString::number(backups.size()), status.value("destination"_L1).toString(),
                                last.isEmpty() ? QString() : u", the last one "_s + last),
            checkBackups(status, QDateTime::currentSecsSinceEpoch(), planned) +
                checkVerdict(status, readVerdict(status.value("destination"_L1).toString(), last),
                             QDateTime::currentSecsSinceEpoch()) +
                checkBesideBackups(isActive(u"corv-prove.timer"_s), isActive(u"corv-state.path"_s)) +
                checkCompressor(readCompressor())};
}

Check examineOffsite(const OffsitePlace &place)
{
    const OffsiteState state = readOffsite();
    return {
        u"off-site"_s,
        u"%1%2"_s.arg(place.repository, state.copied.isEmpty() ? QString() : u", the newest there "_s + state.copied),
        checkOffsite(place, state, !QStandardPaths::findExecutable(u"restic"_s).isEmpty(),
                     unitProperties(u"corv-offsite-check.timer"_s).value(u"ActiveState"_s) == "active"_L1,
                     QDateTime::currentSecsSinceEpoch())};
}

} // namespace corv::ctl
