#include "common/Site.h"

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

QByteArray welcomePage(const QString &domain)
{
    return kWelcome.arg(domain).toUtf8();
}

} // namespace corv::hosting
