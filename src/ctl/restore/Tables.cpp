#include "ctl/restore/Tables.h"

#include "common/Fd.h"
#include "common/Psql.h"
#include "common/Run.h"

#include <QFile>

#include <fcntl.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qsizetype kLongestList = 67'108'864;
constexpr qsizetype kLongestNumber = 32;
constexpr int kAskMs = 60'000;

const auto kQuery = u"SELECT count(*) FROM pg_catalog.pg_class c "
                    "JOIN pg_catalog.pg_namespace n ON n.oid OPERATOR(pg_catalog.=) c.relnamespace "
                    "WHERE c.relkind IN ('r', 'p') AND n.nspname OPERATOR(pg_catalog.!~) '^pg_|^information_schema$' "
                    "AND NOT EXISTS (SELECT FROM pg_catalog.pg_depend d WHERE d.objid OPERATOR(pg_catalog.=) c.oid "
                    "AND d.deptype OPERATOR(pg_catalog.=) 'e')"_s;

} // namespace

int countTables(const QByteArray &list)
{
    int count = 0;
    for (const QByteArray &line : list.split('\n')) {
        // "215; 1259 16385 TABLE public orders shop", and not TABLE DATA or TABLE ATTACH.
        const QList<QByteArray> words = line.split(' ');
        if (words.size() >= 7 && words[0].endsWith(';') && words[3] == "TABLE" &&
            !(words.size() >= 8 && (words[4] == "DATA" || words[4] == "ATTACH")))
            ++count;
    }
    return count;
}

int tablesIn(const QString &dump)
{
    const Fd file(::open(QFile::encodeName(dump).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    QByteArray list;
    hosting::Streams streams;
    streams.inputFile = file.get();
    streams.output = &list;
    streams.maxOutput = kLongestList;
    (void)hosting::runWith(u"runuser"_s, {u"-u"_s, u"nobody"_s, u"--"_s, u"pg_restore"_s, u"--list"_s}, streams);
    return countTables(list);
}

int tablesOf(const QString &account)
{
    QByteArray number;
    hosting::Streams streams;
    streams.output = &number;
    streams.maxOutput = kLongestNumber;
    hosting::Surroundings surroundings;
    surroundings.milliseconds = kAskMs;
    surroundings.environment = hosting::psqlVariables();
    (void)hosting::runWith(u"runuser"_s, hosting::psqlAs(account) + QStringList{u"-d"_s, account, u"-c"_s, kQuery},
                           streams, surroundings);
    return number.trimmed().toInt();
}

} // namespace corv::ctl
