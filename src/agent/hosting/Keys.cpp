#include "agent/hosting/Existing.h"
#include "agent/hosting/Home.h"
#include "agent/hosting/Hosting.h"
#include "common/Account.h"
#include "common/Run.h"
#include "common/Text.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::hosting {
namespace {

const auto kMaxFileBytes = u"262144"_s;
constexpr qsizetype kMaxKeys = 50;

QString keyFolder(const QString &user)
{
    return homePath(user) + u"/.ssh"_s;
}

QString keyPath(const QString &user)
{
    return keyFolder(user) + u"/authorized_keys"_s;
}

// Stores the keys among the lines through keys, trimmed; comments and empty lines are none. Returns what is wrong with
// the first line that is none of these, or with the number of keys; empty when nothing is.
QString pickKeys(const QString &lines, QStringList *keys)
{
    qsizetype number = 0;
    for (const QString &line : lines.split(u'\n')) {
        ++number;
        const QString key = line.trimmed();
        if (key.isEmpty() || key.startsWith(u'#'))
            continue;
        if (!validKey(key))
            return u"line %1 is not an SSH public key (ssh-ed25519 AAAA… comment)"_s.arg(number);
        keys->append(key);
    }
    return keys->size() > kMaxKeys ? u"at most 50 keys"_s : QString();
}

// Replaces the key file, making it where it is missing. Only the account's user writes here, so that whatever the user
// has made of the folder leads no further than their own rights do. Returns the first failure's message.
QString writeKeys(const QString &user, const QStringList &keys)
{
    if (const QString error = asUser(user, {u"mkdir"_s, u"-p"_s, keyFolder(user)}); !error.isEmpty())
        return error;
    if (const QString error = asUser(user, {u"chmod"_s, u"700"_s, keyFolder(user)}); !error.isEmpty())
        return error;
    const QByteArray text = keys.join(u'\n').toUtf8() + '\n';
    QByteArray echo; // tee's copy, of no use
    if (const QString error = asUser(user, {u"tee"_s, keyPath(user)}, text, &echo); !error.isEmpty())
        return error;
    return asUser(user, {u"chmod"_s, u"600"_s, keyPath(user)});
}

} // namespace

Reply getKeys(const QJsonObject &args)
{
    QString user;
    if (const QString problem = checkExisting(args, &user); !problem.isEmpty())
        return fail(problem);

    QByteArray text;
    if (keyFile(user) == KeyFile::Regular) {
        // An unreadable file reads as far as it goes, like an absent one.
        (void)asUser(user, {u"head"_s, u"-c"_s, kMaxFileBytes, keyPath(user)}, {}, &text);
    }
    return {{u"ok"_s, true}, {u"keys"_s, shown(text)}};
}

Reply setKeys(const QJsonObject &args)
{
    QString user;
    if (const QString problem = checkExisting(args, &user); !problem.isEmpty())
        return fail(problem);
    QStringList keys;
    if (const QString problem = pickKeys(args.value("keys"_L1).toString(), &keys); !problem.isEmpty())
        return fail(problem);
    // A FIFO of that name would hold tee up until its time is over.
    if (keyFile(user) == KeyFile::Other)
        return fail(u"authorized_keys is not a regular file"_s);

    if (const QString error = writeKeys(user, keys); !error.isEmpty())
        return fail(error);
    return {{u"ok"_s, true}, {u"count"_s, keys.size()}};
}

} // namespace corv::hosting
