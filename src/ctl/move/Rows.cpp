#include "ctl/move/Rows.h"

#include "common/Psql.h"
#include "common/Run.h"
#include "ctl/Interrupt.h"
#include "ctl/verify/Proof.h"
#include "ctl/verify/Reader.h"

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl::moving {
namespace {

constexpr int kLongestMs = 3'600'000;
constexpr qsizetype kLongestLine = 32; // two numbers, of a table and of its rows

// A text as PostgreSQL reads it whatever the role has set standard_conforming_strings to.
QByteArray literal(QByteArray text)
{
    return "E'" + text.replace('\\', "\\\\").replace('\'', "''") + '\'';
}

} // namespace

QByteArray countingScript(const QMap<QByteArray, qint64> &dumped)
{
    // The owner does not see all rows of a table whose policies bind him, too. What fails fails by itself, and nothing
    // of it lasts. Each table has a transaction of its own, for one holds the locks of all that it touches, indexes
    // too, to its end, and all databases of the server share the room for locks.
    QByteArray script = "\\set ON_ERROR_ROLLBACK on\n";
    int at = 0;
    for (auto table = dumped.cbegin(); table != dumped.cend(); ++table, ++at)
        script += "BEGIN;\nSELECT format('ALTER TABLE %s NO FORCE ROW LEVEL SECURITY', oid::regclass) FROM pg_class "
                  "WHERE relforcerowsecurity AND oid = " +
                  literal(table.key()) + "::regclass \\gexec\nSELECT " + QByteArray::number(at) +
                  ", count(*) FROM ONLY " + table.key() + ";\nROLLBACK;\n";
    return script;
}

QString missingBy(const QByteArray &printed, const QMap<QByteArray, qint64> &dumped, QStringList *uncounted)
{
    QMap<int, qint64> told;
    for (const QByteArray &line : printed.split('\n')) {
        const QList<QByteArray> numbers = line.split('|');
        bool isPlace = false;
        bool isCount = false;
        const int place = numbers[0].toInt(&isPlace);
        const qint64 count = numbers.value(1).toLongLong(&isCount);
        if (isPlace && isCount)
            told.insert(place, count);
    }
    QList<qint64> counted;
    int at = 0;
    for (auto table = dumped.cbegin(); table != dumped.cend(); ++table, ++at) {
        if (!told.contains(at))
            uncounted->append(QString::fromUtf8(table.key()).simplified());
        counted.append(told.value(at, table.value()));
    }
    const QString missing = missingRows(dumped, counted);
    return missing.isEmpty() ? QString() : u"the dump "_s + missing;
}

QString missingRowsHere(const QString &dump, const QString &account, QStringList *uncounted)
{
    QMap<QByteArray, qint64> dumped;
    const SavedFile saved = openSaved(dump);
    const Proof read = saved.fault.isEmpty() ? countDumped(saved, {}, &dumped) : Proof{saved.fault, {}};
    if (!read.fault.isEmpty())
        return u"%1 %2"_s.arg(dump, read.fault);
    if (!read.note.isEmpty())
        return u"its rows cannot be counted: "_s + read.note;
    QByteArray printed;
    hosting::Streams streams;
    streams.input = countingScript(dumped);
    streams.output = &printed;
    streams.maxOutput = (dumped.size() + 1) * kLongestLine;
    hosting::Surroundings surroundings;
    surroundings.milliseconds = kLongestMs;
    surroundings.goesOn = [] { return !interrupted(); };
    // The role's own settings, which it may have by now, come before none of these.
    // A table that a session of the account's keeps to itself counts as one that cannot be counted.
    surroundings.environment = hosting::psqlVariables(
        u"-cstatement_timeout=0 -clock_timeout=10s -crow_security=off -cdefault_transaction_read_only=off"_s);
    (void)hosting::runWith(u"runuser"_s, hosting::psqlAs(account) + QStringList{u"-d"_s, account}, streams,
                           surroundings);
    return interrupted() ? u"it was interrupted"_s : missingBy(printed, dumped, uncounted);
}

} // namespace corv::ctl::moving
