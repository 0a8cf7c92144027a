#include "agent/quota/Fstab.h"
#include "common/Quotas.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace corv::quota;

namespace {

// As the installer of Debian writes it.
const auto kFstab = R"(# /etc/fstab: static file system information.
#
# <file system> <mount point>   <type>  <options>       <dump>  <pass>
# / was on /dev/vda1 during installation
UUID=6f8a3a53-0d5c-4e5b-9f5e-2a3e5d1b7c11 /               ext4    errors=remount-ro 0       1
UUID=0b7c52d1-9f5e-4e5b-8f0b-1f6c2c1d9a42 /home           ext4    defaults        0       2
/dev/sr0        /media/cdrom0   udf,iso9660 user,noauto     0       0
)"_ba;

} // namespace

class TestQuotas : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void readsAMount_data()
    {
        QTest::addColumn<QByteArray>("output");
        QTest::addColumn<QString>("point");
        QTest::addColumn<QString>("type");
        QTest::newRow("root") << "/ ext4\n"_ba << u"/"_s << u"ext4"_s;
        QTest::newRow("columns padded") << "/home   xfs \n"_ba << u"/home"_s << u"xfs"_s;
        QTest::newRow("tab") << "/home\text4\n"_ba << u"/home"_s << u"ext4"_s;
        QTest::newRow("nothing") << QByteArray() << QString() << QString();
        QTest::newRow("blanks alone") << " \n"_ba << QString() << QString();
        QTest::newRow("no type") << "/home\n"_ba << u"/home"_s << QString();
        QTest::newRow("two lines, the first counts") << "/home ext4\n/ xfs\n"_ba << u"/home"_s << u"ext4"_s;
        QTest::newRow("not ASCII") << "/h\xC3\xB6me ext4\n"_ba << u"/höme"_s << u"ext4"_s;
    }

    void readsAMount()
    {
        QFETCH(QByteArray, output);
        const Mount mount = parseMount(output);
        QTEST(mount.point, "point");
        QTEST(mount.type, "type");
    }

    void addsTheOptionsToOneLine_data()
    {
        QTest::addColumn<QByteArray>("fstab");
        QTest::addColumn<QString>("point");
        QTest::addColumn<QByteArray>("edited");

        const QByteArray root =
            "UUID=6f8a3a53-0d5c-4e5b-9f5e-2a3e5d1b7c11 /               ext4    errors=remount-ro 0       1";
        const QByteArray newRoot = "UUID=6f8a3a53-0d5c-4e5b-9f5e-2a3e5d1b7c11\t/\text4\t"
                                   "errors=remount-ro,usrjquota=aquota.user,jqfmt=vfsv1\t0\t1";
        QTest::newRow("installer's file") << kFstab << u"/"_s << QByteArray(kFstab).replace(root, newRoot);

        const QByteArray added = "a\t/\text4\tdefaults,usrjquota=aquota.user,jqfmt=vfsv1";
        QTest::newRow("no line feed at the end") << "a / ext4 defaults"_ba << u"/"_s << added;
        QTest::newRow("line feed at the end") << "a / ext4 defaults\n"_ba << u"/"_s << added + '\n';
        QTest::newRow("text after the last line feed") << "a / ext4 defaults\n# end"_ba << u"/"_s << added + "\n# end";
        QTest::newRow("empty lines stay") << "\n\na / ext4 defaults\n\n\n"_ba << u"/"_s << "\n\n" + added + "\n\n\n";
        QTest::newRow("carriage returns go with the line alone")
            << "# one\r\na / ext4 defaults\r\nb /b ext4 defaults\r\n"_ba << u"/"_s
            << "# one\r\n" + added + "\nb /b ext4 defaults\r\n";
        QTest::newRow("tabs and runs of blanks") << "a\t \t/  ext4\t\tdefaults\n"_ba << u"/"_s << added + '\n';
        QTest::newRow("blanks around the line") << " \ta / ext4 defaults \t\n"_ba << u"/"_s << added + '\n';
        QTest::newRow("form feed and vertical tab") << "a\f/\vext4 defaults\n"_ba << u"/"_s << added + '\n';
        QTest::newRow("comment behind the fields")
            << "a / ext4 defaults 0 1 # the  root\n"_ba << u"/"_s << added + "\t0\t1\t#\tthe\troot\n";
        QTest::newRow("other kind of quota named")
            << "a / ext4 grpjquota=aquota.group\n"_ba << u"/"_s
            << "a\t/\text4\tgrpjquota=aquota.group,usrjquota=aquota.user,jqfmt=vfsv1\n"_ba;
        QTest::newRow("two lines, the first one changes")
            << "a / ext4 defaults\nb / ext4 defaults\n"_ba << u"/"_s << added + "\nb / ext4 defaults\n";
        QTest::newRow("commented lines before it")
            << "#a / ext4 defaults\n  # a / ext4 defaults\na / ext4 defaults\n"_ba << u"/"_s
            << "#a / ext4 defaults\n  # a / ext4 defaults\n" + added + '\n';
        QTest::newRow("too short a line before it")
            << "a / ext4\na / ext4 defaults\n"_ba << u"/"_s << "a / ext4\n" + added + '\n';
        QTest::newRow("mount point that begins alike")
            << "a /home2 ext4 defaults\nb /home ext4 defaults\n"_ba << u"/home"_s
            << "a /home2 ext4 defaults\nb\t/home\text4\tdefaults,usrjquota=aquota.user,jqfmt=vfsv1\n"_ba;
        QTest::newRow("bytes that are no UTF-8 stay")
            << "# caf\xE9 \xFF\na\xE9 / ext4 defaults\n\xC3\x28 \xA0\x85\n"_ba << u"/"_s
            << "# caf\xE9 \xFF\na\xE9\t/\text4\tdefaults,usrjquota=aquota.user,jqfmt=vfsv1\n\xC3\x28 \xA0\x85\n"_ba;
        QTest::newRow("letters whose bytes look like white space")
            << "LABEL=d\xC3\xA0 / ext4 defaults\n"_ba << u"/"_s
            << "LABEL=d\xC3\xA0\t/\text4\tdefaults,usrjquota=aquota.user,jqfmt=vfsv1\n"_ba;
        QTest::newRow("mount point outside ASCII")
            << "a /h\xC3\xB6me ext4 defaults\n"_ba << u"/höme"_s
            << "a\t/h\xC3\xB6me\text4\tdefaults,usrjquota=aquota.user,jqfmt=vfsv1\n"_ba;
    }

    void addsTheOptionsToOneLine()
    {
        QFETCH(QByteArray, fstab);
        QFETCH(QString, point);
        QFETCH(QByteArray, edited);
        const std::optional<QByteArray> result = addQuotaOptions(fstab, point);
        QVERIFY(result.has_value());
        QCOMPARE(*result, edited);
    }

    void leavesALineThatNamesAQuotaFile_data()
    {
        QTest::addColumn<QByteArray>("fstab");
        QTest::newRow("with our options") << "a / ext4 defaults,usrjquota=aquota.user,jqfmt=vfsv1 0 1\n"_ba;
        QTest::newRow("with another file") << "a  /  ext4 usrjquota=quota.user,jqfmt=vfsv0\n"_ba;
        QTest::newRow("in the first of two lines") << "a / ext4 usrjquota=q\nb / ext4 defaults\n"_ba;
    }

    void leavesALineThatNamesAQuotaFile()
    {
        QFETCH(QByteArray, fstab);
        const std::optional<QByteArray> result = addQuotaOptions(fstab, u"/"_s);
        QVERIFY(result.has_value());
        QCOMPARE(*result, fstab);
    }

    void findsNoLine_data()
    {
        QTest::addColumn<QByteArray>("fstab");
        QTest::addColumn<QString>("point");
        QTest::newRow("empty file") << QByteArray() << u"/"_s;
        QTest::newRow("other mount points alone") << kFstab << u"/srv"_s;
        QTest::newRow("commented line") << "# a /srv ext4 defaults\n"_ba << u"/srv"_s;
        QTest::newRow("three fields") << "a /srv ext4\n"_ba << u"/srv"_s;
        QTest::newRow("trailing slash") << "a /srv/ ext4 defaults\n"_ba << u"/srv"_s;
        QTest::newRow("escaped blank is not read as one") << "a /my\\040homes ext4 defaults\n"_ba << u"/my homes"_s;
        QTest::newRow("mount point as device") << "/srv a ext4 defaults\n"_ba << u"/srv"_s;
        QTest::newRow("no mount point") << kFstab << QString();
        QTest::newRow("carriage returns for line feeds") << "x\ra /srv ext4 defaults\r"_ba << u"/srv"_s;
    }

    void findsNoLine()
    {
        QFETCH(QByteArray, fstab);
        QFETCH(QString, point);
        QVERIFY(!addQuotaOptions(fstab, point).has_value());
    }

    void readsTheUsage_data()
    {
        QTest::addColumn<QByteArray>("output");
        QTest::addColumn<QByteArray>("usage"); // uid:bytes, blank-separated
        // As quota 4.06 of Debian 12 printed it, the last user at its limit.
        QTest::newRow("report") << R"(*** Report for user quotas on device /dev/vda
Block grace time: 7days; Inode grace time: 7days
                        Block limits                File limits
User            used    soft    hard  grace    used  soft  hard  grace
----------------------------------------------------------------------
#0        --  672008       0       0          16604     0     0       
#33       --       4       0       0              1     0     0       
#101      --   40596       0       0           1604     0     0       
#42       --      12       0       0              3     0     0       
#997      --       4       0       0              1     0     0       
#1000     +-    6144    5529    6144  7days      11     0     0       


)"_ba
                                << "0:688136192 33:4096 101:41570304 42:12288 997:4096 1000:6291456"_ba;
        QTest::newRow("nothing") << QByteArray() << QByteArray();
        QTest::newRow("two fields") << "#1000 --\n"_ba << QByteArray();
        QTest::newRow("three fields") << "#1000 -- 5\n"_ba
                                      << "1000:5120"_ba;
        QTest::newRow("name instead of uid") << "shop -- 5 0 0\n"_ba << QByteArray();
        QTest::newRow("not a uid") << "#shop -- 5 0 0\n# -- 5 0 0\n#-1 -- 5 0 0\n"_ba << QByteArray();
        QTest::newRow("past the greatest uid") << "#4294967296 -- 5 0 0\n"_ba << QByteArray();
        QTest::newRow("greatest uid") << "#4294967294 -- 5 0 0\n"_ba
                                      << "4294967294:5120"_ba;
        QTest::newRow("more than 4 TiB") << "#1 -- 5000000000 0 0\n"_ba
                                         << "1:5120000000000"_ba;
        QTest::newRow("more than any disk") << "#1 -- 9223372036854775807 0 0\n"_ba << QByteArray();
        QTest::newRow("usage that is no number") << "#1 -- many 0 0\n"_ba
                                                 << "1:0"_ba;
        QTest::newRow("twice, in the tool's order") << "#1 -- 1 0 0\n#1 -- 2 0 0\n"_ba
                                                    << "1:1024 1:2048"_ba;
        QTest::newRow("tabs, blanks and carriage return") << "  #7\t--   3 \r\n"_ba
                                                          << "7:3072"_ba;
    }

    void readsTheUsage()
    {
        QFETCH(QByteArray, output);
        QFETCH(QByteArray, usage);
        QList<QByteArray> read;
        for (const Usage &line : parseUsage(output))
            read.append(QByteArray::number(line.uid) + ':' + QByteArray::number(line.bytes));
        QCOMPARE(read.join(' '), usage);
    }
};

QTEST_APPLESS_MAIN(TestQuotas)
#include "test_quotas.moc"
