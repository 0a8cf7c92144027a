// Run by systemd at its start and at each "daemon-reload": has the mount that the settings name mounted before a backup
// runs, and each version of PHP, of whatever package, go on after the memory of one account's page. It prints nothing:
// what is wrong with the settings, the run says, and what a unit lacks, the doctor.

#include "common/RequiredMount.h"

#include <QDir>
#include <QFile>
#include <QSettings>

using namespace Qt::Literals::StringLiterals;

namespace {

// Where packages and administrators put units.
constexpr const char *kUnitFolders[] = {"/usr/lib/systemd/system", "/usr/local/lib/systemd/system",
                                        "/run/systemd/system", "/etc/systemd/system"};

// The kernel ends the process that takes too much; systemd would end the whole service for it, with the pages of all
// accounts in it.
constexpr auto kPhpDropIn = "[Service]\nOOMPolicy=continue\n";

// Adds a file of that name and text to what the unit is made of. Returns whether it is there.
bool addTo(const QString &generated, const QString &unit, const QString &name, const QByteArray &text)
{
    const QString folder = generated + u'/' + unit + u".d"_s;
    QFile file(folder + u'/' + name);
    return QDir().mkpath(folder) && file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(text) == text.size();
}

bool requireMount(const QString &generated)
{
    const QSettings settings(u"/etc/corvane/corvane.ini"_s, QSettings::IniFormat);
    const QString point = corv::backup::requiredMount(settings);
    return !corv::backup::isMountPath(point) ||
           addTo(generated, u"corv-backup.service"_s, u"require-mount.conf"_s, corv::backup::mountDropIn(point));
}

bool letPhpGoOn(const QString &generated)
{
    bool isWritten = true;
    for (const char *folder : kUnitFolders) {
        const QStringList units =
            QDir(QString::fromLatin1(folder)).entryList({u"php*-fpm.service"_s}, QDir::Files | QDir::System);
        // A service of the same name elsewhere writes the same once more.
        for (const QString &unit : units)
            isWritten = addTo(generated, unit, u"corvane.conf"_s, kPhpDropIn) && isWritten;
    }
    return isWritten;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2)
        return 1;
    const QString generated = QFile::decodeName(argv[1]);
    const bool hasMount = requireMount(generated);
    return letPhpGoOn(generated) && hasMount ? 0 : 1;
}
