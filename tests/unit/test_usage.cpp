#include "agent/hosting/Database.h"
#include "common/Usage.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace corv;

// What is made of du's output, and the scripts that are sent to the database.
class TestUsage : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void readsTheSizesThatDuWrote()
    {
        const QByteArray output = "4096\t/home/alice\n"
                                  "8192\t/srv/homes/bob/\n"
                                  "x\t/home/carol\n"
                                  "9007199254740993\t/home/dave\n"
                                  "1\t/home/a\tb\n"
                                  "no tab\n"
                                  "5000\t/old/alice\n";
        const QJsonObject expected = {
            {u"alice"_s, 5000}, {u"bob"_s, 8192}, {u"carol"_s, 0}, {u"dave"_s, Q_INT64_C(9007199254740993)}};
        QCOMPARE(hosting::parseSizes(output), expected);
        QCOMPARE(hosting::parseSizes({}), QJsonObject());
    }

    void writesTheScripts()
    {
        QCOMPARE(hosting::loginScript(u"alice"_s, false),
                 QByteArray("\\set u 'alice'\nSELECT format('ALTER ROLE %I NOLOGIN', :'u') \\gexec\n"));
        QCOMPARE(hosting::loginScript(u"alice"_s, true),
                 QByteArray("\\set u 'alice'\nSELECT format('ALTER ROLE %I LOGIN', :'u') \\gexec\n"));
        QCOMPARE(hosting::passwordScript(u"alice"_s, u"secret"_s),
                 QByteArray("\\set u 'alice'\n"
                            "\\set pw 'secret'\n"
                            "SELECT format('ALTER ROLE %I PASSWORD %L', :'u', :'pw') \\gexec\n"));
        const QByteArray end = "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = :'u' AND pid <> "
                               "pg_backend_pid();\n";
        QCOMPARE(hosting::readOnlyScript(u"alice"_s, true),
                 "\\set u 'alice'\n"
                 "SELECT format('ALTER DATABASE %I SET default_transaction_read_only = on', :'u') \\gexec\n" +
                     end);
        QCOMPARE(hosting::readOnlyScript(u"alice"_s, false),
                 "\\set u 'alice'\n"
                 "SELECT format('ALTER DATABASE %I RESET default_transaction_read_only', :'u') \\gexec\n" +
                     end);
    }
};

QTEST_APPLESS_MAIN(TestUsage)
#include "test_usage.moc"
