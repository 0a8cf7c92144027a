#include "common/Account.h"

#include <QRegularExpression>

#include <pwd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {
namespace {

const auto kMarker = "Corvane account"_L1;

QRegularExpression whole(const QString &pattern)
{
    return QRegularExpression(QRegularExpression::anchoredPattern(pattern));
}

bool matches(const QRegularExpression &pattern, const QString &text)
{
    return pattern.match(text).hasMatch();
}

// ASCII alone: the full conversion turns some other letters (the Kelvin sign) into ASCII ones, and so one name into
// another.
QString lowerCased(QString text)
{
    for (QChar &c : text) {
        if (c >= u'A' && c <= u'Z')
            c = QChar(c.unicode() + (u'a' - u'A'));
    }
    return text;
}

} // namespace

QList<User> users()
{
    QList<User> all;
    ::setpwent();
    while (const passwd *entry = ::getpwent()) {
        all.append({QString::fromLocal8Bit(entry->pw_name), entry->pw_uid, QString::fromLocal8Bit(entry->pw_gecos),
                    QString::fromLocal8Bit(entry->pw_dir)});
    }
    ::endpwent();
    return all;
}

bool hasMarker(const QString &comment)
{
    return comment.startsWith(kMarker);
}

QString accountComment(const QString &domain)
{
    return kMarker + u',' + domain;
}

QString domainIn(const QString &comment)
{
    return comment.section(u',', 1, 1);
}

QString domainOf(const QString &user)
{
    const passwd *entry = ::getpwnam(user.toLocal8Bit().constData());
    return entry ? domainIn(QString::fromLocal8Bit(entry->pw_gecos)) : QString();
}

QString homePath(const QString &user)
{
    return u"/home/"_s + user;
}

bool validUsername(const QString &u)
{
    static const QRegularExpression pattern = whole(u"[a-z][a-z0-9]{2,15}"_s);
    static const QStringList reserved = {u"root"_s, u"admin"_s, u"www"_s,    u"postgres"_s, u"corvane"_s,
                                         u"mail"_s, u"ftp"_s,   u"nobody"_s, u"daemon"_s,   u"backup"_s};
    return matches(pattern, u) && !reserved.contains(u);
}

QString normalDomain(const QString &d)
{
    static const QRegularExpression pattern =
        whole(u"(?=.{4,253}\\z)([a-z0-9]([a-z0-9-]{0,61}[a-z0-9])?\\.)+[a-z][a-z0-9-]{1,62}"_s);
    QString domain = lowerCased(d.trimmed());
    if (domain.startsWith("www."_L1))
        domain.remove(0, 4);
    return matches(pattern, domain) ? domain : QString();
}

bool isStoredDomain(const QString &domain)
{
    return !domain.isEmpty() && normalDomain(u"www."_s + domain) == domain;
}

bool isOurs(const QString &username)
{
    const passwd *entry = ::getpwnam(username.toLocal8Bit().constData());
    return entry && hasMarker(QString::fromLocal8Bit(entry->pw_gecos));
}

bool validKey(const QString &text)
{
    static const QRegularExpression pattern =
        whole(u"(ssh-ed25519|ssh-rsa|ecdsa-sha2-nistp(256|384|521)|sk-ssh-ed25519@openssh\\.com|"
              "sk-ecdsa-sha2-nistp256@openssh\\.com) [A-Za-z0-9+/]{40,}={0,3}( [ -~]{0,200})?"_s);
    return matches(pattern, text);
}

} // namespace corv::hosting
