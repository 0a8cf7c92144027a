#include "ctl/restore/Restore.h"

#include "common/Account.h"
#include "common/AskedDomain.h"
#include "common/Fd.h"
#include "common/Pool.h"
#include "ctl/Interrupt.h"
#include "ctl/Session.h"
#include "ctl/restore/Apply.h"
#include "ctl/restore/Aside.h"
#include "ctl/restore/Kept.h"
#include "ctl/restore/Lend.h"
#include "ctl/restore/Look.h"
#include "ctl/restore/Tables.h"
#include "ctl/restore/Unpack.h"
#include "ctl/verify/Fault.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QFile>

#include <fcntl.h>
#include <sys/file.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr mode_t kLockMode = 0600;
// A home that was made within a request that was cut off was whole so many seconds later.
constexpr qint64 kMaking = 120;

// The steps that are not done twice.
const auto kCreated = u"created"_s;
const auto kDatabase = u"database"_s;
const auto kFiles = u"files"_s;

class Restorer
{
public:
    Restorer(Session &session, const backup::Config &config, const Plan &plan,
             const std::function<void(const QString &)> &say)
        : m_session(session), m_config(config), m_plan(plan), m_say(say), m_journal(plan.cutOff.value_or(Journal()))
    {
        m_journal.target = plan.target;
        m_journal.domain = plan.domain;
        m_journal.isWithoutJobs = plan.isWithoutJobs;
        // Another source begins anew in the account that is there.
        if (m_journal.from != plan.source.from)
            m_journal.done.removeIf([](const QString &step) { return step != kCreated; });
        m_journal.from = plan.source.from;
        m_journal.account = plan.source.account;
    }

    Restored run()
    {
        using Step = QString (Restorer::*)();
        constexpr Step kSteps[] = {&Restorer::lock,  &Restorer::verify,  &Restorer::create, &Restorer::loadDatabase,
                                   &Restorer::login, &Restorer::suspend, &Restorer::unpack, &Restorer::finish};
        QElapsedTimer clock;
        clock.start();
        const InterruptGuard guard;
        for (const Step step : kSteps) {
            m_done.problem = interrupted() ? u"it was interrupted"_s : (this->*step)();
            if (!m_done.problem.isEmpty()) {
                m_done.status = interrupted() ? interruptedStatus() : kRefused;
                return m_done;
            }
        }
        removeJournal(m_plan.target);
        m_done.seconds = clock.elapsed() / 1000;
        m_done.status = m_done.isSeenWell && m_done.lost.isEmpty() ? kDone : kRefused;
        return m_done;
    }

private:
    QString lock()
    {
        m_lock = Fd(
            ::open(QFile::encodeName(kRestoreLock).constData(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kLockMode));
        return m_lock && ::flock(m_lock.get(), LOCK_EX | LOCK_NB) == 0 ? QString() : u"another restore is at work"_s;
    }

    QString verify()
    {
        const Source &source = m_plan.source;
        m_say(u"reading the archives to their ends"_s);
        if (!source.home.isEmpty()) {
            if (const auto fault = faultOfHome(source.home, source.account, {}))
                return u"%1 %2"_s.arg(source.home, *fault);
        }
        if (!source.dump.isEmpty() && !interrupted()) {
            if (const auto fault = faultOfDatabase(source.dump, source.account, {}))
                return u"%1 %2"_s.arg(source.dump, *fault);
        }
        return {};
    }

    QString create()
    {
        const QString &target = m_plan.target;
        // The agent may still be at the creation that was asked for then: it answers behind that.
        if (m_plan.cutOff)
            (void)ask(m_session, u"ping"_s);
        if (m_plan.cutOff && uidOf(target) != 0) {
            m_say(u"going on with the account that an earlier restore has made"_s);
            clearAttempt(target);
            m_journal.uid = uidOf(target);
            if (m_journal.made == 0)
                m_journal.made = homeMade(target) + kMaking;
            return keepDone(kCreated);
        }
        m_journal.uid = 0;
        m_journal.made = 0;
        m_journal.done.clear();
        m_journal.begun = QDateTime::currentSecsSinceEpoch();
        if (!keepJournal(m_journal))
            return u"nothing can be kept in %1"_s.arg(kJournals);
        m_say(u"making the account %1"_s.arg(target));
        const Answer answer = ask(m_session, u"hosting.create"_s,
                                  {{u"username"_s, target}, {u"domain"_s, hosting::askedDomain(m_plan.domain)}});
        if (!answer.ok()) {
            // What the agent refuses it takes back.
            if (answer.fate == Answer::Fate::Replied)
                removeJournal(target);
            return problemOf(answer);
        }
        m_done.password = answer.reply.value("dbPassword"_L1).toString();
        m_journal.uid = uidOf(target);
        m_journal.made = QDateTime::currentSecsSinceEpoch();
        return keepDone(kCreated);
    }

    QString loadDatabase()
    {
        const QString &target = m_plan.target;
        if (!m_journal.done.contains(kDatabase) && !m_plan.source.dump.isEmpty()) {
            m_say(u"loading the database"_s);
            const Lent lent(m_config, m_plan.source.dump, target);
            if (!lent.problem().isEmpty())
                return lent.problem();
            // An attempt that was cut off may have come as far as that.
            if (m_plan.cutOff)
                (void)ask(m_session, u"hosting.resume"_s, {{u"username"_s, target}});
            const Answer answer =
                ask(m_session, u"backup.restore"_s,
                    {{u"username"_s, target}, {u"backup"_s, Lent::name()}, {u"what"_s, u"database"_s}});
            if (const QString problem = problemOf(answer); !problem.isEmpty())
                return problem;
            m_done.tables = tablesOf(target);
            if (const int wanted = tablesIn(m_plan.source.dump); wanted > m_done.tables) {
                m_done.lostTables = wanted - m_done.tables;
                m_done.lost.append(u"%1 of the database's %2 tables"_s.arg(m_done.lostTables).arg(wanted));
            }
            if (const QString problem = keepDone(kDatabase); !problem.isEmpty())
                return problem;
        } else if (!m_plan.source.dump.isEmpty()) {
            m_done.tables = tablesOf(target);
        }
        if (!m_plan.state)
            return newPassword();
        for (const QString &what : m_plan.state->leftOut)
            m_done.lost.append(u"some of the %1, of which there was too much to be written down"_s.arg(what));
        bool isLost = false;
        m_done.lost += applyRole(*m_plan.state, target, SaidBy::Us, &isLost);
        if (!m_plan.source.dump.isEmpty())
            m_done.lost += databaseDifferences(*m_plan.state, target);
        if (isLost)
            return newPassword();
        m_done.password.clear();
        return {};
    }

    // The one of the creation, or another where an attempt that was cut off did not tell it.
    QString newPassword()
    {
        if (!m_done.password.isEmpty())
            return {};
        const Answer answer = ask(m_session, u"hosting.resetDbPassword"_s, {{u"username"_s, m_plan.target}});
        m_done.password = answer.reply.value("dbPassword"_L1).toString();
        return problemOf(answer);
    }

    QString login()
    {
        if (!m_plan.state)
            return {};
        m_say(u"putting back what was written down"_s);
        m_done.lost += applyLogin(*m_plan.state, m_plan.target);
        const QString php = hosting::phpVersion();
        if (!m_plan.state->php.isEmpty() && !m_plan.state->php.contains(php))
            m_done.lost.append(
                u"its PHP: it was %1 and is %2"_s.arg(m_plan.state->php.join(u' '), php.isEmpty() ? u"none"_s : php));
        return {};
    }

    // What runs by itself comes last, when there is something for it to work on.
    void giveJobs()
    {
        if (m_plan.isWithoutJobs)
            return;
        const qint64 now = QDateTime::currentSecsSinceEpoch();
        m_done.lost += applyJobs(*m_plan.state, m_plan.target, now);
        m_done.lost += lateJobs(*m_plan.state, now);
        m_done.lost += applyLinger(*m_plan.state, m_plan.target);
    }

    // Before its files are there, so that nobody sees them meanwhile. Who is suspended cannot be given jobs of at any
    // more; none of them runs until the account is resumed.
    QString suspend()
    {
        if (!m_plan.state || !m_plan.state->isSuspended)
            return {};
        giveJobs();
        return problemOf(ask(m_session, u"hosting.suspend"_s, {{u"username"_s, m_plan.target}}));
    }

    QString unpack()
    {
        if (m_plan.source.home.isEmpty() || m_journal.done.contains(kFiles))
            return {};
        if (m_plan.cutOff) {
            const SetAside aside = setAside(m_plan.source, m_plan.target, m_journal.made);
            if (!aside.problem.isEmpty())
                return aside.problem;
            m_done.aside = aside.folder;
        }
        m_say(u"unpacking the files"_s);
        const Unpacked unpacked = unpackHome(m_plan.source, m_plan.target);
        m_done.entries = unpacked.entries;
        return unpacked.problem.isEmpty() ? keepDone(kFiles) : unpacked.problem;
    }

    QString finish()
    {
        if (m_plan.state) {
            if (!m_plan.state->isSuspended)
                giveJobs();
            if (m_plan.isWithoutJobs)
                m_done.leftOut = jobsText(*m_plan.state);
            else
                m_done.lost += applyCrontab(*m_plan.state, m_plan.target);
            if (const qint64 limit = m_plan.state->limitMb.value_or(0); limit > 0) {
                const Answer answer =
                    ask(m_session, u"quota.set"_s, {{u"username"_s, m_plan.target}, {u"mb"_s, limit}});
                if (const QString problem = problemOf(answer); !problem.isEmpty())
                    m_done.lost.append(u"the limit of %1 MiB: %2"_s.arg(limit).arg(problem));
            }
        }
        (void)keepStates(); // the backup before the next one to write it down is the next
        m_say(u"looking at the site"_s);
        const Seen seen = lookAtSite(m_plan.target, m_plan.state && m_plan.state->isSuspended);
        m_done.seen = seen.text;
        m_done.isSeenWell = seen.isWell;
        return {};
    }

    QString keepDone(const QString &step)
    {
        if (!m_journal.done.contains(step))
            m_journal.done.append(step);
        return keepJournal(m_journal) ? QString() : u"nothing can be kept in %1"_s.arg(kJournals);
    }

    Session &m_session;
    const backup::Config &m_config;
    const Plan &m_plan;
    const std::function<void(const QString &)> &m_say;
    Journal m_journal;
    Restored m_done;
    Fd m_lock;
};

} // namespace

QString problemOf(const Answer &answer)
{
    if (answer.ok())
        return {};
    if (answer.fate != Answer::Fate::Replied)
        return answer.problem;
    const QString said = answer.reply.value("error"_L1).toString();
    return said.isEmpty() ? u"the agent refused, and did not say why"_s : said;
}

Restored restoreAccount(Session &session, const backup::Config &config, const Plan &plan,
                        const std::function<void(const QString &)> &say)
{
    return Restorer(session, config, plan, say).run();
}

} // namespace corv::ctl
