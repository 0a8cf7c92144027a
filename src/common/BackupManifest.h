#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

namespace corv::backup {

// What a run has to say of one account: the sizes, in bytes, of what it wrote for it.
struct SavedAccount
{
    QString user;
    QString domain;
    qint64 homeBytes = 0;
    qint64 dbBytes = 0;
};

// What a run leaves behind in manifest.json.
struct Manifest
{
    QString name;       // the backup's folder
    qint64 created = 0; // seconds since 1970, UTC, at the end of the run
    qint64 seconds = 0; // how long it took
    QList<SavedAccount> accounts;
    qint64 panelBytes = 0;
    QStringList errors;
};

// The manifest as the file holds it.
QByteArray manifestText(const Manifest &manifest);

// The object that the manifest file of a backup's folder holds, as far as the file fits into *budget bytes, from which
// its size is taken. Empty when there is none, when it is no regular file or when it holds no object.
QJsonObject readManifest(const QString &folder, qint64 *budget);

// Whether an error of a run tells of nothing but files that were being written to, which are saved all the same.
bool isHarmless(const QString &error);

} // namespace corv::backup
