// Run by systemd at its start and at each "daemon-reload": has the mount that the settings name mounted before a backup
// runs. It prints nothing: what is wrong with the setting, the run says.

#include "common/RequiredMount.h"

#include <QDir>
#include <QFile>
#include <QSettings>

using namespace Qt::Literals::StringLiterals;

int main(int argc, char **argv)
{
    if (argc < 2)
        return 1;
    const QSettings settings(u"/etc/corvane/corvane.ini"_s, QSettings::IniFormat);
    const QString point = corv::backup::requiredMount(settings);
    if (!corv::backup::isMountPath(point))
        return 0;
    const QString folder = QFile::decodeName(argv[1]) + u"/corv-backup.service.d"_s;
    QFile file(folder + u"/require-mount.conf"_s);
    const QByteArray text = corv::backup::mountDropIn(point);
    const bool isWritten = QDir().mkpath(folder) && file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
                           file.write(text) == text.size();
    return isWritten ? 0 : 1;
}
