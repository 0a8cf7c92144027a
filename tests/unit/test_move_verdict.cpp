#include "ctl/move/Verdict.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace corv::ctl;
using namespace corv::ctl::moving;

namespace {

const auto kShop = u"shop"_s;
// Of a move that was begun when moves had none.
const QString kNoWord;
const auto kWord = QString(32, u'a');
const auto kOther = QString(32, u'b');

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

// In runuser's place: what psql is told of the names that it finds, and no rows.
constexpr auto kPsql = R"(#!/bin/sh
echo "$3 $4 ${PGOPTIONS:-with any names}" >>"$ROOT/calls"
echo 'listed 0'
echo 'written 7'
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
        old.has(u"stays"_s);
        QCOMPARE(beginSwitch(&old.shell, kShop, kWord, true, 120), QString());
        const QString there = u" [shop.by-%1 shop.undecided]"_s.arg(kWord);
        QCOMPARE(old.calls(),
                 (QStringList{u"sync shop.undecided ."_s + there,
                              u"systemctl stop corv-move-shop.timer corv-move-shop.service"_s + there,
                              u"systemctl reset-failed corv-move-shop.service"_s + there, u"systemd-run"_s + there}));
        QCOMPARE(QFileInfo(old.at(u"var/lib/corvane/moves/shop.undecided"_s)).size(), 8);
    }

    void aSwitchThatIsNotOnTheDiskDoesNotBegin()
    {
        Old old;
        QVERIFY(old.isWell());
        old.failing(u"sync"_s, true);
        QCOMPARE(beginSwitch(&old.shell, kShop, kWord, true, 120), u"old: exit code 1"_s);
        QCOMPARE(old.calls(), QStringList{u"sync shop.undecided . [shop.by-%1 shop.undecided]"_s.arg(kWord)});
    }

    void aDecisionIsOnTheDiskBeforeItsTimerEnds()
    {
        Old old;
        QVERIFY(old.isWell());
        old.has(u"undecided"_s);
        QCOMPARE(decide(&old.shell, kShop, kNoWord), QString());
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
        QCOMPARE(decide(&old.shell, kShop, kNoWord), u"old: exit code 1"_s);
        QCOMPARE(old.files(), QStringList{u"left"_s});
        bool isOurs = false;
        QCOMPARE(decide(&old.shell, kShop, kNoWord), u"old: exit code 1"_s);
        QCOMPARE(giveUp(&old.shell, kShop, kNoWord, true, &isOurs), u"old: exit code 1"_s);
        QVERIFY(!isOurs);
        old.failing(u"sync"_s, false);
        QCOMPARE(giveUp(&old.shell, kShop, kNoWord, true, &isOurs), QString());
        QVERIFY(isOurs);
        QVERIFY(!old.calls().join(u'\n').contains("corvctl"_L1));
    }

    void whatWasResumedMeanwhileStays()
    {
        Old old;
        QVERIFY(old.isWell());
        old.has(u"undecided"_s);
        QVERIFY(keep(old.at(u"expires"_s), {}));
        QCOMPARE(decide(&old.shell, kShop, kNoWord), u"old: the account was resumed there meanwhile"_s);
        QCOMPARE(old.files(), QStringList{u"undecided"_s});
    }

    void whoGivesUpHasItResumedOnceAndForgotten()
    {
        Old old;
        QVERIFY(old.isWell());
        old.has(u"undecided"_s);
        old.has(u"frozen"_s);
        bool isOurs = true;
        QCOMPARE(giveUp(&old.shell, kShop, kNoWord, true, &isOurs), QString());
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
        QCOMPARE(giveUp(&old.shell, kShop, kNoWord, true, &isOurs), u"old: exit code 1"_s);
        QCOMPARE(old.files(), QStringList{u"stays"_s});
        old.failing(u"corvctl"_s, false);
        QCOMPARE(giveUp(&old.shell, kShop, kNoWord, true, &isOurs), QString());
        QCOMPARE(old.files(), QStringList());
    }

    // Another account of that name left that server long ago.
    void anEarlierLeavingIsForgottenOnTheDisk()
    {
        Old old;
        QVERIFY(old.isWell());
        QVERIFY(keep(old.at(u"expires"_s), {}));
        old.has(u"left"_s);
        old.failing(u"sync"_s, true);
        QCOMPARE(forgetEarlier(&old.shell, kShop), u"old: exit code 1"_s);
        old.failing(u"sync"_s, false);
        QCOMPARE(forgetEarlier(&old.shell, kShop), QString());
        QCOMPARE(old.calls(), (QStringList{u"getent shadow shop [shop.left]"_s, u"sync . []"_s, u"sync . []"_s}));
        bool isOurs = true;
        QCOMPARE(giveUp(&old.shell, kShop, kNoWord, true, &isOurs), QString());
        QVERIFY(!isOurs);
    }

    void whatIsAnotherServersByNowIsNotForgotten()
    {
        Old old;
        QVERIFY(old.isWell());
        old.has(u"left"_s);
        QCOMPARE(forgetEarlier(&old.shell, kShop), u"old: it has left that server for another one"_s);
        QCOMPARE(beginSwitch(&old.shell, kShop, kWord, true, 120), u"old: it has left that server meanwhile"_s);
        QCOMPARE(old.files(), QStringList{u"left"_s});
        QCOMPARE(old.calls(), QStringList{u"getent shadow shop [shop.left]"_s});
    }

    // The switch of the first was cut off, and the timer over there has resumed the account since.
    void whatAnotherServerHasDecidedIsNoVerdictForTheFirst()
    {
        Old old;
        QVERIFY(old.isWell());
        QCOMPARE(beginSwitch(&old.shell, kShop, kWord, true, 120), QString());
        QVERIFY(QFile::remove(old.at(u"var/lib/corvane/moves/shop.undecided"_s)));
        QCOMPARE(beginSwitch(&old.shell, kShop, kOther, true, 120), QString());
        QCOMPARE(decide(&old.shell, kShop, kOther), QString());
        const QStringList decided = {u"by-"_s + kOther, u"left"_s};
        QCOMPARE(old.files(), decided);
        (void)old.calls();

        bool isOurs = true;
        QCOMPARE(giveUp(&old.shell, kShop, kWord, true, &isOurs), QString());
        QVERIFY(!isOurs);
        QVERIFY(!decide(&old.shell, kShop, kWord).isEmpty());
        QCOMPARE(giveUp(&old.shell, kShop, kNoWord, true, &isOurs), QString());
        QVERIFY(!isOurs);
        QCOMPARE(old.files(), decided);
        QVERIFY(!old.calls().join(u'\n').contains("corvctl"_L1));
        // The one that has it is told so as often as it asks.
        QCOMPARE(decide(&old.shell, kShop, kOther), QString());
        QCOMPARE(giveUp(&old.shell, kShop, kOther, true, &isOurs), QString());
        QVERIFY(isOurs);
    }

    void ofTwoThatTakeItAtOnceOneHasTheSwitch_data()
    {
        QTest::addColumn<QString>("first");
        QTest::newRow("with a word") << kWord;
        QTest::newRow("begun when there were none") << kNoWord;
    }

    void ofTwoThatTakeItAtOnceOneHasTheSwitch()
    {
        QFETCH(const QString, first);
        Old old;
        QVERIFY(old.isWell());
        if (first.isEmpty())
            old.has(u"undecided"_s);
        else
            QCOMPARE(beginSwitch(&old.shell, kShop, first, true, 120), QString());
        const QStringList begun = old.files();
        (void)old.calls();

        QCOMPARE(beginSwitch(&old.shell, kShop, kOther, true, 120),
                 u"old: another server has begun to take it, and ends that with the command that it was begun with; "
                 "where that server is gone: rm %1"_s.arg(old.at(u"var/lib/corvane/moves/shop.undecided"_s)));
        bool isOurs = true;
        QCOMPARE(giveUp(&old.shell, kShop, kOther, true, &isOurs), QString());
        QVERIFY(!isOurs);
        QVERIFY(!decide(&old.shell, kShop, kOther).isEmpty());
        QCOMPARE(old.files(), begun);
        QVERIFY(!old.calls().join(u'\n').contains(QRegularExpression(u"corvctl|systemctl|systemd-run"_s)));

        QCOMPARE(decide(&old.shell, kShop, first), QString());
        QVERIFY(!decide(&old.shell, kShop, kOther).isEmpty());
        QCOMPARE(giveUp(&old.shell, kShop, kOther, true, &isOurs), QString());
        QVERIFY(!isOurs);
        QVERIFY(old.files().contains(u"left"_s));
    }

    void whoGivesUpLeavesNothingOfItsOwn()
    {
        Old old;
        QVERIFY(old.isWell());
        QCOMPARE(beginSwitch(&old.shell, kShop, kWord, true, 120), QString());
        // Begun once more, as after a connection that broke.
        QCOMPARE(beginSwitch(&old.shell, kShop, kWord, true, 120), QString());
        bool isOurs = true;
        QCOMPARE(giveUp(&old.shell, kShop, kWord, true, &isOurs), QString());
        QVERIFY(!isOurs);
        QCOMPARE(old.files(), QStringList());
        QVERIFY(old.calls().join(u'\n').contains("corvctl account resume shop"_L1));
    }

    // Whoever may leave an operator in the superuser's database would be superuser from there on.
    void theRowsAreCountedWithTheSystemsOperators()
    {
        Old old;
        QVERIFY(old.isWell());
        QVERIFY(keep(old.at(u"bin/runuser"_s), kPsql));
        qint64 written = 0;
        QCOMPARE(freeze(&old.shell, kShop, true, &written), QString());
        QCOMPARE(written, 7);
        QVERIFY(isAsFrozen(&old.shell, kShop, written));
        QVERIFY(!isAsFrozen(&old.shell, kShop, written + 1));
        QCOMPARE(old.calls(), QStringList(3, u"-- psql -csearch_path=pg_catalog"_s));
    }

    // A start of that server tells by its file whether it is to be resumed.
    void theFileOfWhoIsSuspendedIsEmpty()
    {
        Old old;
        QVERIFY(old.isWell());
        QCOMPARE(beginSwitch(&old.shell, kShop, kWord, false, 120), QString());
        QCOMPARE(QFileInfo(old.at(u"var/lib/corvane/moves/shop.undecided"_s)).size(), 0);
    }

    void eachMoveHasAWordOfItsOwn()
    {
        const QString word = newWord();
        QVERIFY(QRegularExpression(u"\\A[0-9a-f]{32}\\z"_s).match(word).hasMatch());
        QVERIFY(word != newWord());
    }
};

QTEST_GUILESS_MAIN(TestMoveVerdict)
#include "test_move_verdict.moc"
