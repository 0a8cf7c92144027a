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

    void believesAFolderOfRootsGroupAndOfStaffAlone()
    {
        QTemporaryDir scratch(u"/var/lib/trust-XXXXXX"_s);
        if (!scratch.isValid() || ::geteuid() != 0)
            QSKIP("only root may give folders away");
        const QByteArray folder = QFile::encodeName(scratch.path());
        const QString file = scratch.filePath(u"file"_s);
        QVERIFY(QFile(file).open(QIODevice::WriteOnly));
        const auto answer = [&](gid_t group, mode_t mode) {
            return ::chown(folder.constData(), 0, group) == 0 && ::chmod(folder.constData(), mode) == 0
                       ? foreignFolder(file)
                       : u"not tried"_s;
        };
        QCOMPARE(answer(0, 0775), QString());
        QCOMPARE(answer(50, 0775), QString());
        QCOMPARE(answer(50, 0777), scratch.path());
        for (const gid_t group : {1U, 49U, 51U}) {
            QCOMPARE(answer(group, 0775), scratch.path());
            QCOMPARE(answer(group, 0755), QString());
        }
    }

    void followsAsManyLinksAsTheKernel()
    {
        QTemporaryDir scratch(u"/var/lib/trust-XXXXXX"_s);
        if (!scratch.isValid())
            QSKIP("only root may write there");
        QVERIFY(QFile(scratch.filePath(u"0"_s)).open(QIODevice::WriteOnly));
        for (int i = 1; i <= 41; ++i)
            QCOMPARE(::symlink(QByteArray::number(i - 1).constData(),
                               QFile::encodeName(scratch.filePath(QString::number(i))).constData()),
                     0);
        QCOMPARE(foreignFolder(scratch.filePath(u"40"_s)), QString());
        QCOMPARE(foreignFolder(scratch.filePath(u"41"_s)), scratch.filePath(u"1"_s));
    }

    void believesNoLinkAndNoFolder()
    {
        QCOMPARE(refusalOfFile(u"/etc"_s), u"/etc is no file of its own"_s);
        QCOMPARE(refusalOfFile(u"/etc/none-of-this-name"_s), u"/etc/none-of-this-name cannot be read"_s);
    }
};

QTEST_GUILESS_MAIN(TestTrust)
#include "test_trust.moc"
