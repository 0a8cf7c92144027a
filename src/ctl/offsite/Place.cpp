#include "ctl/offsite/Place.h"

#include "common/Config.h"

#include <QRegularExpression>
#include <QSettings>
#include <QUrl>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

const auto kVaultBegin = u"ssh://"_s;
const auto kRestBegin = u"rest:"_s;
// Where restic keeps what it has seen of the repository. The unit's own folder, which nobody else can enter.
const auto kCacheFolder = u"/var/cache/corvane-offsite"_s;

const QRegularExpression &vaultPattern()
{
    static const QRegularExpression pattern(QRegularExpression::anchoredPattern(
        u"ssh://(?:([a-z_][a-z0-9_-]{0,31})@)?([A-Za-z0-9](?:[A-Za-z0-9.-]{0,252}[A-Za-z0-9])?)(?::([0-9]{1,5}))?/?"_s));
    return pattern;
}

// The address of a rest server with the name and password for it, which restic reads from there alone before 0.17.
QString withLogin(const QString &repository, const QString &user, const QString &password)
{
    QUrl url(repository.mid(kRestBegin.size()));
    url.setUserName(user);
    url.setPassword(password);
    return kRestBegin + url.toString(QUrl::FullyEncoded);
}

} // namespace

OffsitePlace placeIn(const QSettings &settings)
{
    OffsitePlace place;
    place.repository = textSetting(settings, u"offsite/repository"_s);
    place.appendOnly = settings.value(u"offsite/append_only"_s).toBool();
    const QString retention = textSetting(settings, u"offsite/retention"_s, kUsualRetention);
    QString problem;
    place.retention = retentionIn(retention, &problem);
    // cppcheck-suppress knownConditionTrueFalse ; it takes the call for one that writes nothing there
    if (!problem.isEmpty())
        place.problems.append(problem);
    if (place.repository.isEmpty())
        return place;
    if (const QString wrong = repositoryProblem(place.repository); !wrong.isEmpty())
        place.problems.append(u"the setting repository is of no use: "_s + wrong);
    return place;
}

QString repositoryProblem(const QString &repository)
{
    static const QRegularExpression known(
        QRegularExpression::anchoredPattern(uR"((/|(sftp|rest|s3|b2|azure|gs|swift|rclone):)[!-~]+)"_s));
    static const QRegularExpression password(u"//[^/@]*:[^/@]*@"_s);
    static const QRegularExpression odd(uR"(["'\\;%])"_s);
    if (isVault(repository)) {
        return vaultPattern().match(repository).hasMatch()
                   ? QString()
                   : u"a vault is written ssh://USER@HOST or ssh://USER@HOST:PORT"_s;
    }
    if (password.match(repository).hasMatch())
        return u"it has a password in it, which belongs into %1"_s.arg(kCredentialsFile);
    if (!known.match(repository).hasMatch() || odd.match(repository).hasMatch())
        return u"'%1' is no repository that restic knows"_s.arg(repository);
    return {};
}

bool isVault(const QString &repository)
{
    return repository.startsWith(kVaultBegin);
}

Vault vaultIn(const QString &repository)
{
    const QRegularExpressionMatch match = vaultPattern().match(repository);
    return {match.captured(1), match.captured(2), match.captured(3)};
}

bool isHere(const QString &repository)
{
    return repository.startsWith(u'/');
}

QStringList retentionIn(const QString &text, QString *problem)
{
    static const QRegularExpression count(
        QRegularExpression::anchoredPattern(u"--keep-(last|hourly|daily|weekly|monthly|yearly)"_s));
    static const QRegularExpression span(
        QRegularExpression::anchoredPattern(u"--keep-within(-(hourly|daily|weekly|monthly|yearly))?"_s));
    static const QRegularExpression number(QRegularExpression::anchoredPattern(u"[1-9][0-9]{0,4}"_s));
    static const QRegularExpression time(QRegularExpression::anchoredPattern(u"([1-9][0-9]{0,4}[ymdh])+"_s));
    QStringList words = text.simplified().replace(u'=', u' ').split(u' ', Qt::SkipEmptyParts);
    for (qsizetype i = 0; i < words.size(); i += 2) {
        const QString value = words.value(i + 1);
        const bool isRule = (count.match(words[i]).hasMatch() && number.match(value).hasMatch()) ||
                            (span.match(words[i]).hasMatch() && time.match(value).hasMatch());
        if (isRule)
            continue;
        *problem = u"the setting retention has '%1', which is no rule of restic's for what to keep"_s.arg(
            words.mid(i, 2).join(u' '));
        return {};
    }
    return words;
}

QMap<QString, QString> credentialsIn(const QByteArray &text, QString *problem)
{
    static const QRegularExpression line(QRegularExpression::anchoredPattern(u"([A-Z][A-Z0-9_]{0,63})=(.*)"_s));
    QMap<QString, QString> variables;
    for (const QString &one : QString::fromUtf8(text).split(u'\n')) {
        const QString trimmed = one.trimmed();
        if (trimmed.isEmpty() || trimmed.startsWith(u'#'))
            continue;
        const QRegularExpressionMatch match = line.match(trimmed);
        // What the line holds instead may be a secret.
        if (!match.hasMatch()) {
            *problem = u"%1 has a line that is not NAME=VALUE"_s.arg(kCredentialsFile);
            return {};
        }
        variables.insert(match.captured(1), match.captured(2));
    }
    return variables;
}

QMap<QString, QString> environmentFor(const OffsitePlace &place, const QMap<QString, QString> &credentials,
                                      const QString &keyFile)
{
    QMap<QString, QString> variables = credentials;
    QString repository = isVault(place.repository) ? u"rclone:vault"_s : place.repository;
    const QString user = credentials.value(u"RESTIC_REST_USERNAME"_s);
    if (repository.startsWith(kRestBegin) && !user.isEmpty())
        repository = withLogin(repository, user, credentials.value(u"RESTIC_REST_PASSWORD"_s));
    variables.insert(u"RESTIC_REPOSITORY"_s, repository);
    variables.insert(u"RESTIC_PASSWORD_FILE"_s, keyFile);
    variables.insert(u"RESTIC_CACHE_DIR"_s, kCacheFolder);
    variables.insert(u"HOME"_s, u"/root"_s);
    return variables;
}

QStringList optionsFor(const OffsitePlace &place)
{
    if (!isVault(place.repository))
        return {};
    // restic starts this in the place of rclone. What it adds for rclone, the vault's own command takes no notice of.
    return {u"-o"_s, u"rclone.program="_s + sshTo(vaultIn(place.repository), false).join(u' ')};
}

QStringList sshTo(const Vault &vault, bool isFirstTime)
{
    // Nothing of root's own settings of ssh: they may lead elsewhere, or hand root's agent to the vault.
    QStringList words = {u"ssh"_s, u"-F"_s, u"none"_s, u"-a"_s, u"-x"_s, u"-i"_s, kSshKey};
    for (const QString &option :
         {u"IdentitiesOnly=yes"_s, u"BatchMode=yes"_s, u"UserKnownHostsFile="_s + kKnownHosts,
          u"GlobalKnownHostsFile=/dev/null"_s, u"StrictHostKeyChecking="_s + (isFirstTime ? u"accept-new"_s : u"yes"_s),
          u"UpdateHostKeys=no"_s, u"ConnectTimeout=30"_s, u"ServerAliveInterval=60"_s, u"ServerAliveCountMax=5"_s,
          u"LogLevel=ERROR"_s})
        words += {u"-o"_s, option};
    if (!vault.port.isEmpty())
        words += {u"-p"_s, vault.port};
    if (!vault.user.isEmpty())
        words += {u"-l"_s, vault.user};
    return words + QStringList{vault.host};
}

} // namespace corv::ctl
