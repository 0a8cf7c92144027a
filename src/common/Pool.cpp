#include "common/Pool.h"

#include <QCollator>
#include <QDir>
#include <QFileInfo>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {
namespace {

const auto kPool = uR"(; Managed by Corvane (account %1). Edits here are overwritten.
[corv-%1]
user = %2
group = %2
listen = /run/php/corv-%1.sock
listen.owner = www-data
listen.group = www-data
listen.mode = 0660
pm = ondemand
pm.max_children = 5
pm.process_idle_timeout = 30s
php_admin_value[open_basedir] = /home/%1/
php_admin_value[upload_tmp_dir] = /home/%1/tmp
php_admin_value[sys_temp_dir] = /home/%1/tmp
php_admin_value[session.save_path] = /home/%1/tmp
php_admin_value[error_log] = /home/%1/logs/php-error.log
php_admin_flag[log_errors] = on
)"_s;

// Names that are a value of another kind in such a file: PHP would run as nobody and end for all accounts ("off"), or
// as the user with the id 1 ("yes").
const QStringList kWords = {u"off"_s, u"yes"_s, u"true"_s, u"false"_s, u"none"_s, u"null"_s};

} // namespace

QByteArray pool(const QString &user)
{
    return kPool.arg(user, kWords.contains(user) ? u'"' + user + u'"' : user).toUtf8();
}

QString poolPath(const QString &php, const QString &user)
{
    return u"/etc/php/%1/fpm/pool.d/corv-%2.conf"_s.arg(php, user);
}

QString parkedPoolPath(const QString &php, const QString &user)
{
    return poolPath(php, user) + u".suspended"_s;
}

QStringList phpVersions()
{
    QStringList versions = QDir(u"/etc/php"_s).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);
    versions.removeIf([](const QString &v) { return !QFileInfo(u"/etc/php/%1/fpm/pool.d"_s.arg(v)).isDir(); });
    return versions;
}

QString phpVersion()
{
    const QStringList versions = phpVersions();
    if (versions.isEmpty())
        return {};

    // A collator of the C locale ignores numeric mode, and a service has no other: 8.9 would come after 8.10.
    QCollator collator(QLocale(QLocale::English, QLocale::UnitedStates));
    collator.setNumericMode(true);
    return *std::max_element(versions.cbegin(), versions.cend(), collator);
}

} // namespace corv::hosting
