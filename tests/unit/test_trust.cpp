#include "common/Trust.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;
using namespace corv;

class TestTrust : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void believesWhatIsRootsAlone()
    {
        QCOMPARE(refusalOfFile(u"/etc/passwd"_s), QString());
        QCOMPARE(foreignFolder(u"/etc/."_s), QString());
        QCOMPARE(foreignFolder(u"/."_s), QString());
    }

    void believesNoFileWhereOthersMayPutOne()
    {
        QTemporaryDir scratch(u"/tmp/trust-XXXXXX"_s);
        const QString path = scratch.filePath(u"file"_s);
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(::fchmod(file.handle(), 0600), 0);
        QCOMPARE(foreignFolder(path), u"/tmp"_s);
        if (::geteuid() == 0)
            QCOMPARE(refusalOfFile(path),
                     path + u" could have been put there by others than root, who may write to /tmp"_s);
        QCOMPARE(::fchmod(file.handle(), 0660), 0);
        QCOMPARE(refusalOfFile(path), path + u" could have been written by others than root"_s);
    }

    void followsEachLinkOnTheWay()
    {
        QTemporaryDir scratch(u"/var/lib/trust-XXXXXX"_s);
        if (!scratch.isValid())
            QSKIP("only root may write there");
        QCOMPARE(::symlink("/tmp", QFile::encodeName(scratch.filePath(u"link"_s)).constData()), 0);
        QCOMPARE(foreignFolder(scratch.filePath(u"link/file"_s)), u"/tmp"_s);
        QCOMPARE(::symlink("loop", QFile::encodeName(scratch.filePath(u"loop"_s)).constData()), 0);
        QCOMPARE(foreignFolder(scratch.filePath(u"loop/file"_s)), scratch.filePath(u"loop"_s));
        QCOMPARE(foreignFolder(scratch.filePath(u"none/file"_s)), scratch.filePath(u"none"_s));
    }

    void believesNoLinkAndNoFolder()
    {
        QCOMPARE(refusalOfFile(u"/etc"_s), u"/etc is no file of its own"_s);
        QCOMPARE(refusalOfFile(u"/etc/none-of-this-name"_s), u"/etc/none-of-this-name cannot be read"_s);
    }
};

QTEST_GUILESS_MAIN(TestTrust)
#include "test_trust.moc"
