#pragma once

#include <QByteArray>
#include <QSet>
#include <QString>

#include <sys/types.h>

namespace corv::hosting {

// The ids of accounts that are gone. Files and programs of theirs may have outlived them anywhere, so nobody gets one
// again. Each is kept by a user record in /etc/userdb, which the C library's module "systemd" finds by its number: for
// useradd, adduser and everybody else the id is in use.

constexpr auto kRecordFolder = "/etc/userdb";

struct Ids
{
    uid_t user = 0;
    gid_t group = 0;
};

// Whether an id can be one of an account: neither one of the system's nor one of those with a meaning of their own.
bool isAccountId(id_t id);

struct FormerIds
{
    QSet<uid_t> users;
    QSet<gid_t> groups;
};

// What is kept on this server.
FormerIds formerIds();

// The same for the names of the files in the folder of the records.
FormerIds parseFormerIds(const QStringList &files);

// The name of the user or group that stands for an id, which no account can have.
QString formerName(id_t id);

// The records: a user who cannot log in, and a group without members.
QByteArray formerUserRecord(uid_t user);
QByteArray formerGroupRecord(gid_t group);

} // namespace corv::hosting
