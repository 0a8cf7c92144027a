#include "ctl/https/Apache.h"

#include "common/HttpsFiles.h"
#include "common/Paths.h"
#include "common/TimedRun.h"

#include <QDir>
#include <QRegularExpression>
#include <QStringList>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr auto kProgram = "/usr/libexec/corvane/corv-https";
constexpr int kToolMs = 120'000;
constexpr qsizetype kLargestFile = qsizetype{1024} * 1024;

// What looks after names and certificates while HTTPS is on.
const QStringList kWatchers{u"corv-https.path"_s, u"corv-https.timer"_s, u"corv-https-ends.timer"_s};

QString runTool(const QString &program, const QStringList &words)
{
    const Outcome outcome = runWithin(kToolMs, program, words);
    if (outcome.succeeded)
        return {};
    const QString said = QString::fromUtf8(outcome.errors).simplified();
    if (!outcome.finished)
        return u"%1: cannot start, or took too long"_s.arg(program);
    return u"%1 failed: %2"_s.arg(program, said.isEmpty() ? u"it does not say why"_s : said.right(300));
}

bool isEnabled(const QString &module)
{
    return exists(u"/etc/apache2/mods-enabled/%1.load"_s.arg(module));
}

// The file in which somebody else manages certificates; empty where nobody does.
QString otherManager()
{
    for (const QString &folder : {u"/etc/apache2"_s, u"/etc/apache2/conf-enabled"_s, u"/etc/apache2/mods-enabled"_s,
                                  u"/etc/apache2/sites-enabled"_s}) {
        for (const QString &name : QDir(folder).entryList({u"*.conf"_s}, QDir::Files)) {
            const QString path = folder + u'/' + name;
            if (managesCertificates(https::readWhole(path, kLargestFile).value_or(QByteArray())))
                return path;
        }
    }
    return {};
}

} // namespace

bool managesCertificates(const QByteArray &configuration)
{
    static const QRegularExpression directive(u"^\\s*<?(MD[A-Z][A-Za-z]+|MDomain|ManagedDomain)[\\s>]"_s,
                                              QRegularExpression::MultilineOption |
                                                  QRegularExpression::CaseInsensitiveOption);
    return directive.match(QString::fromUtf8(configuration)).hasMatch();
}

QString reloadApache()
{
    return runTool(u"systemctl"_s, {u"reload-or-restart"_s, u"apache2.service"_s});
}

QString switchHttpsOn()
{
    if (!exists(QString::fromLatin1(kProgram)))
        return u"the package corv-https is not installed"_s;
    if (const QString other = otherManager(); !other.isEmpty())
        return u"%1 has Apache manage certificates already, and there can be one store of them only"_s.arg(other);

    // A second try that fails must not end the HTTPS that the first one brought.
    const bool wasOn = exists(QString::fromLatin1(https::kEnabledSite));
    QStringList enabled;
    QString problem;
    for (const QString &module : {u"ssl"_s, u"md"_s, u"http2"_s, u"headers"_s}) {
        if (!problem.isEmpty() || isEnabled(module))
            continue;
        problem = runTool(u"a2enmod"_s, {u"-q"_s, module});
        enabled.append(module);
    }
    if (problem.isEmpty())
        problem = runTool(u"a2ensite"_s, {u"-q"_s, QString::fromLatin1(https::kSiteName)});
    if (problem.isEmpty())
        problem = runTool(u"apache2ctl"_s, {u"configtest"_s});
    if (problem.isEmpty())
        problem = runTool(QString::fromLatin1(kProgram), {u"again"_s});
    if (problem.isEmpty())
        problem = reloadApache();
    if (!problem.isEmpty()) {
        if (!wasOn)
            (void)runTool(u"a2dissite"_s, {u"-q"_s, QString::fromLatin1(https::kSiteName)}); // may not be there yet
        for (const QString &module : enabled)
            (void)runTool(u"a2dismod"_s, {u"-q"_s, u"-f"_s, module}); // whatever of it was enabled
        return problem;
    }
    return runTool(u"systemctl"_s, QStringList{u"enable"_s, u"-q"_s, u"--now"_s} + kWatchers);
}

QString switchHttpsOff()
{
    // Nothing of it starts a reload any more that would find the half of it.
    const QStringList words = QStringList{u"disable"_s, u"-q"_s, u"--now"_s} + kWatchers;
    if (const QString problem = runTool(u"systemctl"_s, words); !problem.isEmpty())
        return problem;
    if (const QString problem = runTool(u"a2dissite"_s, {u"-q"_s, QString::fromLatin1(https::kSiteName)});
        !problem.isEmpty())
        return problem;
    return reloadApache();
}

} // namespace corv::ctl
