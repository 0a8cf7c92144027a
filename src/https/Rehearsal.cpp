#include "https/Rehearsal.h"

#include "common/Fd.h"
#include "common/HttpsOptions.h"
#include "common/TimedRun.h"
#include "https/Spaces.h"

#include <QElapsedTimer>
#include <QFile>
#include <QRegularExpression>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

// As Debian's own script starts it, with the same limit of open files: each site takes several.
const auto kEnvironment = u". /etc/apache2/envvars && ${APACHE_ULIMIT_MAX_FILES:-ulimit -n 8192} && "_s;

QStringList shell(const QString &command, const QString &sitesPath)
{
    return {u"-c"_s, kEnvironment + command, u"sh"_s, u"Define CORV_HTTPS_SITES "_s + sitesPath};
}

constexpr qsizetype kLongestComplaint = 300;

} // namespace

QString complaintIn(const QByteArray &output)
{
    static const QRegularExpression wrong(
        u":(error|crit|alert|emerg)\\]|Syntax error|Invalid command|AH00526|Could not|cannot"_s);
    static const QRegularExpression head(u"^\\[[^\\]]*\\] \\[[^\\]]*\\] (\\[pid [^\\]]*\\] )?"_s);
    QString found;
    for (const QByteArray &bytes : output.split('\n')) {
        const QString line = QString::fromUtf8(bytes).trimmed();
        // "Configuration Failed, exiting" follows on each of them.
        if (wrong.match(line).hasMatch() && !line.contains("AH00020"_L1) && !line.contains("AH00558"_L1))
            found = line;
    }
    found.remove(head);
    return found.isEmpty() ? u"Apache does not start"_s : found.left(kLongestComplaint);
}

Rehearsal rehearse(const QString &sitesPath, bool storeIsFull, int milliseconds)
{
    QElapsedTimer timer;
    timer.start();
    // One child is enough: what counts happens before there is any. "-c" comes after all files.
    const QStringList words = shell(u"mkdir -p \"$APACHE_RUN_DIR\" \"$APACHE_LOCK_DIR\" && "
                                    "exec apache2 -DFOREGROUND -C \"$1\" -c 'StartServers 1' ${APACHE_ARGUMENTS:-}"_s,
                                    sitesPath);
    Spaces spaces;
    if (!spaces.start(u"/bin/sh"_s, words, QString::fromLatin1(kStore), storeIsFull))
        return {Rehearsal::End::NoSpaces, {}};
    switch (spaces.wait(milliseconds - static_cast<int>(timer.elapsed()))) {
    case Spaces::End::Up:
        return {Rehearsal::End::Up, {}};
    case Spaces::End::NoTime:
        return {Rehearsal::End::NoTime, u"Apache does not come up in its time, or lacks the memory for it"_s};
    case Spaces::End::NoSpaces:
        return {Rehearsal::End::NoSpaces, {}};
    case Spaces::End::Down:
        break;
    }
    return {Rehearsal::End::Down, complaintIn(spaces.output())};
}

Rehearsal readOnly(const QString &sitesPath, int milliseconds)
{
    const Outcome outcome = runWithin(milliseconds, u"sh"_s, shell(u"exec apache2 -t -C \"$1\""_s, sitesPath));
    if (outcome.succeeded)
        return {Rehearsal::End::Up, {}};
    return {outcome.finished ? Rehearsal::End::Down : Rehearsal::End::NoTime, complaintIn(outcome.errors)};
}

QByteArray dumpVhosts(const QString &sitesPath, int milliseconds)
{
    const Outcome outcome =
        runWithin(milliseconds, u"sh"_s, shell(u"exec apache2 -t -D DUMP_VHOSTS -C \"$1\""_s, sitesPath));
    return outcome.succeeded ? outcome.output : QByteArray();
}

} // namespace corv::https
