#include "https/Proof.h"

#include "common/Json.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>

#include <algorithm>

#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::https {
namespace {

constexpr auto kApache = "/etc/apache2";
constexpr auto kModules = "/usr/lib/apache2/modules";
// The server, and what is written anew with each library that is upgraded, the one that speaks TLS among them.
constexpr auto kPrograms = {"/usr/sbin/apache2", "/etc/ld.so.cache"};

// Each site takes memory and open files, which is seen only with all of them.
constexpr qsizetype kFewMore = 20;

void addFile(const QString &path, QCryptographicHash *hash)
{
    // Of a link, what it leads to: that is what Apache reads.
    struct stat status = {};
    (void)::stat(QFile::encodeName(path).constData(), &status); // what is missing shows as nothing
    hash->addData(u"%1 %2 %3 %4 %5 %6\n"_s.arg(path)
                      .arg(status.st_ino)
                      .arg(status.st_size)
                      .arg(status.st_mode)
                      .arg(status.st_mtim.tv_sec)
                      .arg(status.st_mtim.tv_nsec)
                      .toUtf8());
}

} // namespace

bool holds(const Proof &proof, const QString &base, qsizetype twins, qint64 now, qint64 seconds)
{
    const bool isFresh = proof.fullAt <= now && now < proof.fullAt + seconds;
    return isFresh && proof.base == base && twins <= proof.tried + std::max(kFewMore, proof.tried / 4);
}

QString printOfApache(const QStringList &accounts)
{
    QStringList paths;
    for (const char *folder : {kApache, kModules}) {
        QDirIterator files(QString::fromLatin1(folder), QDir::Files | QDir::System | QDir::Hidden,
                           QDirIterator::Subdirectories);
        while (files.hasNext())
            paths.append(files.next());
    }
    paths.sort();
    for (const char *program : kPrograms)
        paths.append(QString::fromLatin1(program));

    QSet<QString> ours;
    for (const QString &account : accounts)
        ours.insert(u"corv-%1.conf"_s.arg(account));
    QCryptographicHash hash(QCryptographicHash::Sha256);
    for (const QString &path : std::as_const(paths)) {
        const bool isSite = path.section(u'/', -2, -2).startsWith("sites-"_L1);
        if (!isSite || !ours.contains(path.section(u'/', -1)))
            addFile(path, &hash);
    }
    return QString::fromLatin1(hash.result().toHex());
}

Proof parseProof(const QByteArray &json)
{
    const QJsonObject object = parseObject(json);
    Proof proof;
    proof.base = object.value("base"_L1).toString();
    proof.fullAt = object.value("fullAt"_L1).toInteger();
    proof.tried = static_cast<qsizetype>(object.value("tried"_L1).toInteger());
    proof.others.any = object.value("anyOthers"_L1).toBool();
    for (const QJsonValue name : object.value("others"_L1).toArray())
        proof.others.names.insert(name.toString());
    for (const QJsonValue pattern : object.value("patterns"_L1).toArray())
        proof.others.patterns.append(pattern.toString());
    const QJsonObject twins = object.value("twins"_L1).toObject();
    for (auto twin = twins.begin(); twin != twins.end(); ++twin)
        proof.twins.insert(twin.key(), twin.value().toString());
    return proof;
}

QByteArray proofText(const Proof &proof)
{
    QJsonObject twins;
    for (auto twin = proof.twins.begin(); twin != proof.twins.end(); ++twin)
        twins.insert(twin.key(), twin.value());
    const QJsonObject object{{u"base"_s, proof.base},
                             {u"fullAt"_s, proof.fullAt},
                             {u"tried"_s, static_cast<qint64>(proof.tried)},
                             {u"anyOthers"_s, proof.others.any},
                             {u"others"_s, QJsonArray::fromStringList(proof.others.names.values())},
                             {u"patterns"_s, QJsonArray::fromStringList(proof.others.patterns)},
                             {u"twins"_s, twins}};
    return compactJson(object) + '\n';
}

} // namespace corv::https
