#include "common/System.h"

#include <QFile>
#include <QJsonObject>
#include <QTest>

#include <ctime>

using namespace Qt::Literals::StringLiterals;
using namespace corv;

namespace {

QJsonObject first(const QByteArray &block)
{
    return system::parseServices(block, {u"web"_s}).at(0).toObject();
}

} // namespace

// What is made of systemctl's output.
class TestSystem : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        qputenv("TZ", "Europe/Berlin");
        tzset();
    }

    void readsWhatSystemctlShowsOfRealServices()
    {
        QFile file(u"data/systemctl-show.txt"_s);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QStringList services = {u"apache2"_s, u"postgresql"_s, u"no-such-service"_s};
        const QJsonArray expected = {
            QJsonObject{{u"name"_s, u"apache2"_s},
                        {u"loaded"_s, true},
                        {u"active"_s, true},
                        {u"sub"_s, u"running"_s},
                        {u"since"_s, 1795250434},
                        {u"memory"_s, 0}},
            QJsonObject{{u"name"_s, u"postgresql"_s},
                        {u"loaded"_s, true},
                        {u"active"_s, true},
                        {u"sub"_s, u"exited"_s},
                        {u"since"_s, 1795250437},
                        {u"memory"_s, 0}},
            QJsonObject{{u"name"_s, u"no-such-service"_s},
                        {u"loaded"_s, false},
                        {u"active"_s, false},
                        {u"sub"_s, u"dead"_s},
                        {u"memory"_s, 0}},
        };
        QCOMPARE(system::parseServices(file.readAll(), services), expected);
    }

    void aDiskIsWhatHoldsRealFiles_data()
    {
        QTest::addColumn<QString>("type");
        QTest::addColumn<QString>("mount");
        QTest::addColumn<qint64>("bytes");
        QTest::addColumn<bool>("is");
        for (const char *type : {"ext4", "xfs", "btrfs", "vfat", "nfs4", "fuse.sshfs", "tmpfs2", "OVERLAY", ""})
            QTest::newRow(type) << QString::fromLatin1(type) << u"/"_s << Q_INT64_C(4096) << true;
        for (const char *type :
             {"tmpfs", "devtmpfs", "squashfs", "overlay", "efivarfs", "ramfs", "fuse.portal", "fuse.gvfsd-fuse"})
            QTest::newRow(type) << QString::fromLatin1(type) << u"/"_s << Q_INT64_C(4096) << false;
        QTest::newRow("one byte") << u"ext4"_s << u"/"_s << Q_INT64_C(1) << true;
        QTest::newRow("no byte") << u"ext4"_s << u"/"_s << Q_INT64_C(0) << false;
        QTest::newRow("unknown size") << u"ext4"_s << u"/"_s << Q_INT64_C(-1) << false;
        QTest::newRow("below snap") << u"ext4"_s << u"/snap/core/1"_s << Q_INT64_C(4096) << false;
        QTest::newRow("snap itself") << u"ext4"_s << u"/snap"_s << Q_INT64_C(4096) << true;
        QTest::newRow("below run") << u"ext4"_s << u"/run/media"_s << Q_INT64_C(4096) << false;
        QTest::newRow("begins like run") << u"ext4"_s << u"/runs/media"_s << Q_INT64_C(4096) << true;
    }

    void aDiskIsWhatHoldsRealFiles()
    {
        QFETCH(QString, type);
        QFETCH(QString, mount);
        QFETCH(qint64, bytes);
        QTEST(system::isOnDisk(type, mount, bytes), "is");
    }

    void namesComeFromTheListByPosition()
    {
        const QByteArray output = "Id=b.service\nSubState=running\n\nId=a.service\nSubState=dead\n";
        const QJsonArray expected = {QJsonObject{{u"name"_s, u"a"_s}, {u"sub"_s, u"running"_s}},
                                     QJsonObject{{u"name"_s, u"b"_s}, {u"sub"_s, u"dead"_s}}};
        QCOMPARE(system::parseServices(output, {u"a"_s, u"b"_s}), expected);
    }

    void aBlockTooManyHasNoName()
    {
        const QJsonArray expected = {QJsonObject{{u"name"_s, u"a"_s}, {u"sub"_s, u"running"_s}},
                                     QJsonObject{{u"name"_s, u""_s}, {u"sub"_s, u"dead"_s}}};
        QCOMPARE(system::parseServices("SubState=running\n\nSubState=dead", {u"a"_s}), expected);
    }

    void aBlockWithoutAnyPropertyDoesNotCount()
    {
        const QByteArray output = "\n\nId=x\nActiveEnterTimestamp=\nNoise\n\nSubState=dead\n\n\n";
        const QJsonArray expected = {QJsonObject{{u"name"_s, u"a"_s}, {u"sub"_s, u"dead"_s}}};
        QCOMPARE(system::parseServices(output, {u"a"_s, u"b"_s}), expected);
        QCOMPARE(system::parseServices({}, {u"a"_s}), QJsonArray());
    }

    void onlyExactStatesCount_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<QString>("member");
        QTest::addColumn<bool>("value");
        QTest::newRow("loaded") << QByteArray("LoadState=loaded") << u"loaded"_s << true;
        QTest::newRow("masked") << QByteArray("LoadState=masked") << u"loaded"_s << false;
        QTest::newRow("upper case") << QByteArray("LoadState=Loaded") << u"loaded"_s << false;
        QTest::newRow("active") << QByteArray("ActiveState=active") << u"active"_s << true;
        QTest::newRow("activating") << QByteArray("ActiveState=activating") << u"active"_s << false;
        QTest::newRow("blanks around") << QByteArray(" ActiveState= active \r") << u"active"_s << true;
    }

    void onlyExactStatesCount()
    {
        QFETCH(QByteArray, line);
        QFETCH(QString, member);
        QFETCH(bool, value);
        QCOMPARE(first(line), (QJsonObject{{u"name"_s, u"web"_s}, {member, value}}));
    }

    void theValueIsAllAfterTheFirstEqualsSign()
    {
        QCOMPARE(first("SubState=a=b=c").value("sub"_L1).toString(), u"a=b=c"_s);
    }

    void memoryIsASigned64BitNumberOrNothing_data()
    {
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<qint64>("memory");
        QTest::newRow("number") << QByteArray("17801216") << Q_INT64_C(17801216);
        QTest::newRow("largest") << QByteArray("9223372036854775807") << Q_INT64_C(9223372036854775807);
        QTest::newRow("one over") << QByteArray("9223372036854775808") << Q_INT64_C(0);
        QTest::newRow("all ones") << QByteArray("18446744073709551615") << Q_INT64_C(0);
        QTest::newRow("not set") << QByteArray("[not set]") << Q_INT64_C(0);
        QTest::newRow("fraction") << QByteArray("1.5") << Q_INT64_C(0);
        QTest::newRow("empty") << QByteArray() << Q_INT64_C(0);
    }

    void memoryIsASigned64BitNumberOrNothing()
    {
        QFETCH(QByteArray, value);
        QFETCH(qint64, memory);
        QCOMPARE(first("MemoryCurrent=" + value), (QJsonObject{{u"name"_s, u"web"_s}, {u"memory"_s, memory}}));
    }

    void sinceIsLocalTime_data()
    {
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<qint64>("since"); // -1: none
        QTest::newRow("winter") << QByteArray("Mon 2026-01-05 10:00:00 CET") << Q_INT64_C(1767603600);
        QTest::newRow("the zone's name means nothing")
            << QByteArray("Mon 2026-01-05 10:00:00 UTC") << Q_INT64_C(1767603600);
        QTest::newRow("no zone") << QByteArray("Mon 2026-01-05 10:00:00") << Q_INT64_C(1767603600);
        QTest::newRow("summer") << QByteArray("Sun 2026-07-05 10:00:00 CEST") << Q_INT64_C(1783238400);
        QTest::newRow("empty") << QByteArray() << Q_INT64_C(-1);
        QTest::newRow("no weekday") << QByteArray("2026-01-05 10:00:00") << Q_INT64_C(-1);
        QTest::newRow("two blanks") << QByteArray("Mon  2026-01-05 10:00:00 CET") << Q_INT64_C(-1);
        QTest::newRow("no such day") << QByteArray("Mon 2026-02-30 10:00:00 CET") << Q_INT64_C(-1);
        QTest::newRow("text") << QByteArray("n/a") << Q_INT64_C(-1);
    }

    void sinceIsLocalTime()
    {
        QFETCH(QByteArray, value);
        QFETCH(qint64, since);
        const QJsonObject service = first("SubState=dead\nActiveEnterTimestamp=" + value);
        QCOMPARE(service.contains("since"_L1), since >= 0);
        QCOMPARE(service.value("since"_L1).toInteger(-1), since);
    }
};

QTEST_APPLESS_MAIN(TestSystem)
#include "test_system.moc"
