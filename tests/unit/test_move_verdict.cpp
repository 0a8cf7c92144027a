#include "ctl/move/Verdict.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace corv::ctl;
using namespace corv::ctl::moving;

namespace {

const auto kShop = u"shop"_s;

// In ssh's place: a shell for which this test's folder is the other server's root, as far as it goes somewhere.
constexpr auto kSsh = R"(#!/bin/sh
{
    echo 'cd() { case $1 in /*) command cd "$ROOT$1" ;; *) command cd "$1" ;; esac; }'
    exec cat
} | sh
)";

// In each program's place. Writes down what it is called with, and what there is of the move then; fails where the test
// wants it to.
constexpr auto kStandIn = R"(#!/bin/sh
name=${0##*/}
echo "$name $* [$(echo $(ls))]" >>"$ROOT/calls"
[ ! -e "$ROOT/$name.fails" ] || exit 1
[ "$name" != getent ] || echo "shop:!:20000:0:99999:7::$(cat "$ROOT/expires"):"
)";

bool keep(const QString &path, const QByteArray &text)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size() &&
           file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

// The other server.
class Old
{
public:
    Old()
    {
        QDir(m_root.path()).mkpath(u"bin"_s);
        QDir(m_root.path()).mkpath(u"var/lib/corvane/moves"_s);
        const QString bin = at(u"bin/"_s);
        m_isWell = keep(bin + u"ssh"_s, kSsh);
        for (const QString &name : {u"sync"_s, u"systemctl"_s, u"systemd-run"_s, u"getent"_s, u"corvctl"_s})
            m_isWell = keep(bin + name, kStandIn) && m_isWell;
        m_isWell = keep(at(u"expires"_s), "1") && m_isWell;
        qputenv("ROOT", m_root.path().toLocal8Bit());
        qputenv("PATH", bin.toLocal8Bit() + ":/usr/sbin:/usr/bin:/sbin:/bin");
        m_isWell = shell.open(u"old"_s).isEmpty() && m_isWell;
    }

    // A path below its root.
    [[nodiscard]] QString at(const QString &path) const
    {
        return m_root.filePath(path);
    }

    [[nodiscard]] bool isWell() const
    {
        return m_isWell;
    }

    // Has a program fail, or not any more.
    void failing(const QString &program, bool isSo) const
    {
        const QString path = at(program + u".fails"_s);
        (void)(isSo ? keep(path, {}) : QFile::remove(path));
    }

    // Lays down a file of the account's move.
    void has(const QString &end) const
    {
        (void)keep(at(u"var/lib/corvane/moves/shop."_s + end), {});
    }

    // The files of moves that there are, less the account's name.
    [[nodiscard]] QStringList files() const
    {
        QStringList ends;
        for (const QString &file : QDir(at(u"var/lib/corvane/moves"_s)).entryList(QDir::Files, QDir::Name))
            ends.append(QString(file).remove(u"shop."_s));
        return ends;
    }

    // What was called since it was asked last, without what is said to a timer at its beginning.
    QStringList calls() const
    {
        QFile file(at(u"calls"_s));
        QStringList lines;
        if (file.open(QIODevice::ReadOnly))
            lines = QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts);
        (void)file.remove();
        for (QString &line : lines) {
            if (line.startsWith(u"systemd-run "_s))
                line = u"systemd-run "_s + line.sliced(line.lastIndexOf(u'['));
        }
        return lines;
    }

    Shell shell;

private:
    QTemporaryDir m_root;
    bool m_isWell = false;
};

} // namespace

class TestMoveVerdict : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // A restart of that server would otherwise find an account that is suspended and nobody who looks after it.
    void aSwitchIsOnTheDiskBeforeATimerHangsOnIt()
    {
        Old old;
        QVERIFY(old.isWell());
        old.has(u"left"_s);
        old.has(u"stays"_s);
        QCOMPARE(beginSwitch(&old.shell, kShop, true, 120), QString());
        QCOMPARE(old.calls(),
                 (QStringList{u"sync shop.undecided . [shop.undecided]"_s,
                              u"systemctl stop corv-move-shop.timer corv-move-shop.service [shop.undecided]"_s,
                              u"systemctl reset-failed corv-move-shop.service [shop.undecided]"_s,
                              u"systemd-run [shop.undecided]"_s}));
    }

    void aSwitchThatIsNotOnTheDiskDoesNotBegin()
    {
        Old old;
        QVERIFY(old.isWell());
        old.failing(u"sync"_s, true);
        QCOMPARE(beginSwitch(&old.shell, kShop, true, 120), u"old: exit code 1"_s);
        QCOMPARE(old.calls(), QStringList{u"sync shop.undecided . [shop.undecided]"_s});
    }

    void aDecisionIsOnTheDiskBeforeItsTimerEnds()
    {
        Old old;
        QVERIFY(old.isWell());
        old.has(u"undecided"_s);
        QCOMPARE(decide(&old.shell, kShop), QString());
        QCOMPARE(old.calls(), (QStringList{u"getent shadow shop [shop.undecided]"_s, u"sync . [shop.left]"_s,
                                           u"systemctl stop corv-move-shop.timer [shop.left]"_s}));
    }

    // Whoever asks once more must not take for certain what a loss of power still takes back.
    void aDecisionThatIsNotOnTheDiskIsNoneForWhoeverAsks()
    {
        Old old;
        QVERIFY(old.isWell());
        old.has(u"undecided"_s);
        old.failing(u"sync"_s, true);
        QCOMPARE(decide(&old.shell, kShop), u"old: exit code 1"_s);
        QCOMPARE(old.files(), QStringList{u"left"_s});
        bool isOurs = false;
        QCOMPARE(decide(&old.shell, kShop), u"old: exit code 1"_s);
        QCOMPARE(giveUp(&old.shell, kShop, true, &isOurs), u"old: exit code 1"_s);
        QVERIFY(!isOurs);
        old.failing(u"sync"_s, false);
        QCOMPARE(giveUp(&old.shell, kShop, true, &isOurs), QString());
        QVERIFY(isOurs);
        QVERIFY(!old.calls().join(u'\n').contains("corvctl"_L1));
    }

    void whatWasResumedMeanwhileStays()
    {
        Old old;
        QVERIFY(old.isWell());
        old.has(u"undecided"_s);
        QVERIFY(keep(old.at(u"expires"_s), {}));
        QCOMPARE(decide(&old.shell, kShop), u"old: the account was resumed there meanwhile"_s);
        QCOMPARE(old.files(), QStringList{u"undecided"_s});
    }

    void whoGivesUpHasItResumedOnceAndForgotten()
    {
        Old old;
        QVERIFY(old.isWell());
        old.has(u"undecided"_s);
        old.has(u"frozen"_s);
        bool isOurs = true;
        QCOMPARE(giveUp(&old.shell, kShop, true, &isOurs), QString());
        QVERIFY(!isOurs);
        QCOMPARE(old.calls(), (QStringList{u"systemctl stop corv-move-shop.timer [shop.frozen shop.stays]"_s,
                                           u"corvctl account read-only shop off [shop.frozen shop.stays]"_s,
                                           u"corvctl account resume shop [shop.stays]"_s}));
        QCOMPARE(old.files(), QStringList());
    }

    // One that cannot be resumed now is resumed by whoever asks next.
    void whoCannotBeResumedIsNotForgotten()
    {
        Old old;
        QVERIFY(old.isWell());
        old.has(u"undecided"_s);
        old.failing(u"corvctl"_s, true);
        bool isOurs = true;
        QCOMPARE(giveUp(&old.shell, kShop, true, &isOurs), u"old: exit code 1"_s);
        QCOMPARE(old.files(), QStringList{u"stays"_s});
        old.failing(u"corvctl"_s, false);
        QCOMPARE(giveUp(&old.shell, kShop, true, &isOurs), QString());
        QCOMPARE(old.files(), QStringList());
    }

    // Another account of that name left that server long ago.
    void anEarlierLeavingIsForgottenOnTheDisk()
    {
        Old old;
        QVERIFY(old.isWell());
        old.has(u"left"_s);
        old.failing(u"sync"_s, true);
        QCOMPARE(forgetEarlier(&old.shell, kShop), u"old: exit code 1"_s);
        old.failing(u"sync"_s, false);
        QCOMPARE(forgetEarlier(&old.shell, kShop), QString());
        QCOMPARE(old.calls(), (QStringList{u"sync . []"_s, u"sync . []"_s}));
        bool isOurs = true;
        QCOMPARE(giveUp(&old.shell, kShop, true, &isOurs), QString());
        QVERIFY(!isOurs);
    }
};

QTEST_GUILESS_MAIN(TestMoveVerdict)
#include "test_move_verdict.moc"
