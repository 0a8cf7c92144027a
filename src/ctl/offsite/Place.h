#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

class QSettings;

namespace corv::ctl {

// Where backups are copied to, and how restic gets there.
struct OffsitePlace
{
    QString repository;      // as restic takes it, or ssh://[USER@]HOST[:PORT] for a vault; empty: nowhere
    bool appendOnly = false; // whether the place refused to forget when it was set up
    QStringList retention;   // restic's own options of what to keep; none: everything
    QStringList problems;    // why something that is set is of no use, a sentence each
};

// What belongs to the place and to root alone.
inline const QString kOffsiteFolder = QStringLiteral("/etc/corvane/offsite");
inline const QString kKeyFile = QStringLiteral("/etc/corvane/offsite/key");
inline const QString kCredentialsFile = QStringLiteral("/etc/corvane/offsite/credentials");
inline const QString kSshKey = QStringLiteral("/etc/corvane/offsite/ssh_key");
inline const QString kKnownHosts = QStringLiteral("/etc/corvane/offsite/known_hosts");
inline const QString kOffsiteUnit = QStringLiteral("corv-offsite.service");

// What is kept where the settings say nothing.
inline const QString kUsualRetention = QStringLiteral("--keep-daily 14 --keep-weekly 8 --keep-monthly 12");

// The settings offsite/repository, offsite/append_only and offsite/retention.
OffsitePlace placeIn(const QSettings &settings);

// Why backups cannot be copied to a repository of that name; empty where they can. One with a password in it is
// refused: it would be in the settings, which others may read, and in the arguments of programs.
QString repositoryProblem(const QString &repository);

// A vault: a host that is reached by ssh, and whose answer to the key of this server is a repository.
struct Vault
{
    QString user; // empty: left to ssh
    QString host;
    QString port; // empty: left to ssh
};
bool isVault(const QString &repository);
Vault vaultIn(const QString &repository);

// Whether the repository is a folder of this server.
bool isHere(const QString &repository);

// restic's options for what to keep, from their text. Sets problem where something else is among them.
QStringList retentionIn(const QString &text, QString *problem);

// The variables of a file with lines NAME=VALUE; those with a number sign at their beginning and empty ones are none.
// Sets problem where a line is neither.
QMap<QString, QString> credentialsIn(const QByteArray &text, QString *problem);

// What restic gets to reach the place: in its environment, which root alone can read, whatever is secret.
QMap<QString, QString> environmentFor(const OffsitePlace &place, const QMap<QString, QString> &credentials,
                                      const QString &keyFile);
QStringList optionsFor(const OffsitePlace &place);

// The ssh that reaches a vault, with this server's own key and the host key that was seen when it was set up.
QStringList sshTo(const Vault &vault, bool isFirstTime);

} // namespace corv::ctl
