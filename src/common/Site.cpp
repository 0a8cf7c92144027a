#include "common/Site.h"

#include "agent/hosting/Hosting.h"

#include <QCollator>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {
namespace {

// %1 is the account's name, %2 its domain.
const auto kHeader = uR"(# Managed by Corvane (account %1). Edits here are overwritten.
<VirtualHost *:80>
    ServerName %2
    ServerAlias www.%2
    DocumentRoot /home/%1/public_html
    ErrorLog ${APACHE_LOG_DIR}/%2-error.log
    CustomLog ${APACHE_LOG_DIR}/%2-access.log corv
)"_s;

const auto kSuspended = uR"(    RewriteEngine On
    RewriteRule ^ - [R=503,L]
    ErrorDocument 503 "This site is temporarily unavailable."
)"_s;

const auto kNormal = uR"(    DirectoryIndex index.php index.html
    <Directory /home/%1/public_html>
        Options -Indexes +SymLinksIfOwnerMatch
        AllowOverride All
        Require all granted
    </Directory>
)"_s;

const auto kPhp = uR"(    <FilesMatch "\.php$">
        SetHandler "proxy:unix:/run/php/corv-%1.sock|fcgi://localhost"
    </FilesMatch>
)"_s;

const auto kClosing = u"</VirtualHost>\n"_s;

const auto kPool = uR"(; Managed by Corvane (account %1). Edits here are overwritten.
[corv-%1]
user = %1
group = %1
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

const auto kWelcome =
    uR"(<!doctype html><meta charset="utf-8"><title>%1</title><p style="font:16px system-ui;margin:3em">%1 is ready. Upload your site to public_html.</p>
)"_s;

} // namespace

QString siteName(const QString &user)
{
    return u"corv-"_s + user;
}

QString sitePath(const QString &user)
{
    return u"/etc/apache2/sites-available/%1.conf"_s.arg(siteName(user));
}

QString vhost(const QString &user, const QString &domain, bool php, bool suspended)
{
    QString text = kHeader.arg(user, domain);
    if (suspended)
        return text + kSuspended + kClosing;
    text += kNormal.arg(user);
    if (php)
        text += kPhp.arg(user);
    return text + kClosing;
}

QByteArray pool(const QString &user)
{
    return kPool.arg(user).toUtf8();
}

QString poolPath(const QString &php, const QString &user)
{
    return u"/etc/php/%1/fpm/pool.d/corv-%2.conf"_s.arg(php, user);
}

QString parkedPoolPath(const QString &php, const QString &user)
{
    return poolPath(php, user) + u".suspended"_s;
}

QByteArray welcomePage(const QString &domain)
{
    return kWelcome.arg(domain).toUtf8();
}

QString phpVersion()
{
    QStringList versions = QDir(u"/etc/php"_s).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);
    versions.removeIf([](const QString &v) { return !QFileInfo(u"/etc/php/%1/fpm/pool.d"_s.arg(v)).isDir(); });
    if (versions.isEmpty())
        return {};

    // A collator of the C locale ignores numeric mode, and a service has no other: 8.9 would come after 8.10.
    QCollator collator(QLocale(QLocale::English, QLocale::UnitedStates));
    collator.setNumericMode(true);
    return *std::max_element(versions.cbegin(), versions.cend(), collator);
}

bool exists(const QString &path)
{
    const QFileInfo info(path);
    return info.exists() || info.isSymLink();
}

bool writeFile(const QString &path, const QByteArray &data, QFileDevice::Permissions perms)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    // Only the flush shows that the disk took it all.
    if (file.write(data) != data.size() || !file.flush())
        return false;
    file.close();
    return file.error() == QFileDevice::NoError && file.setPermissions(perms);
}

QString reloadWeb(const QString &php)
{
    if (const QString error = run(u"apache2ctl"_s, {u"configtest"_s}); !error.isEmpty())
        return error;
    if (const QString error = run(u"systemctl"_s, {u"reload"_s, u"apache2"_s}); !error.isEmpty())
        return error;
    if (php.isEmpty())
        return {};
    return run(u"systemctl"_s, {u"reload"_s, u"php%1-fpm"_s.arg(php)});
}

} // namespace corv::hosting
