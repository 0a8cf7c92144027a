#include "common/Environment.h"
#include "common/Json.h"
#include "common/Run.h"
#include "ctl/Command.h"
#include "ctl/Session.h"
#include "ctl/doctor/Facts.h"
#include "ctl/doctor/Hba.h"
#include "ctl/screen/Escape.h"

#include <QDateTime>
#include <QJsonArray>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qsizetype kMostBytes = 1'048'576; // of pg_hba.conf

// The role whose members pg_hba.conf lets into any database; the agent makes an account one while it is restored.
const auto kMakeRole = u"DO $$ BEGIN IF NOT EXISTS (SELECT FROM pg_roles WHERE rolname = 'corv_restore') "
                       "THEN CREATE ROLE corv_restore NOLOGIN; END IF; END $$"_s;
const auto kErrors = u"SELECT line_number || ': ' || error FROM pg_hba_file_rules WHERE error IS NOT NULL"_s;
const auto kReload = u"SELECT pg_reload_conf()"_s;

// Works on the file as the user that it belongs to: what that user puts into its folder leads root nowhere.
QString asPostgres(const QStringList &args, const QByteArray &input = {}, QByteArray *output = nullptr)
{
    hosting::Streams streams;
    streams.input = input;
    streams.output = output;
    streams.maxOutput = kMostBytes;
    return hosting::runWith(u"runuser"_s, QStringList{u"-u"_s, u"postgres"_s, u"--"_s} + args, streams);
}

// Puts the text in the file's place, with its owner and mode.
QString replace(const QString &file, const QByteArray &text)
{
    const QString fresh = file + u".new"_s;
    if (const QString error = asPostgres({u"cp"_s, u"-p"_s, u"--"_s, file, fresh}); !error.isEmpty())
        return error;
    if (const QString error = asPostgres({u"tee"_s, u"--"_s, fresh}, text); !error.isEmpty())
        return error;
    return asPostgres({u"mv"_s, u"-f"_s, u"--"_s, fresh, file});
}

// Writes the new text and puts it into force. Where PostgreSQL finds an error in it, the old one comes back.
QString write(const QString &file, const QByteArray &text, const QString &kept)
{
    if (const QString error = asPostgres({u"cp"_s, u"-p"_s, u"--"_s, file, kept}); !error.isEmpty())
        return error;
    if (const Outcome made = runStatements({kMakeRole}); !made.succeeded)
        return QString::fromUtf8(made.errors).simplified();
    if (const QString error = replace(file, text); !error.isEmpty())
        return error;

    const Outcome checked = runStatements({kErrors});
    if (checked.succeeded && checked.output.trimmed().isEmpty()) {
        const Outcome reloaded = runStatements({kReload});
        return reloaded.succeeded ? QString() : QString::fromUtf8(reloaded.errors).simplified();
    }
    const QString problem = QString::fromUtf8(checked.output + checked.errors).simplified();
    const QString error = asPostgres({u"cp"_s, u"-p"_s, u"--"_s, kept, file});
    return u"PostgreSQL does not take the new lines, so the old ones are back: "_s + hosting::joined({problem, error});
}

void printChanges(const Session &session, const HbaFacts &facts, const QList<HbaChange> &changes, bool isWritten)
{
    if (!session.options.json) {
        for (const HbaChange &change : changes) {
            printLine(u"- "_s + escaped(QString::fromUtf8(change.before)));
            for (const QByteArray &line : change.after)
                printLine(u"+ "_s + escaped(QString::fromUtf8(line)));
        }
        return;
    }
    QJsonArray all;
    for (const HbaChange &change : changes) {
        QJsonArray after;
        for (const QByteArray &line : change.after)
            after.append(QString::fromUtf8(line));
        all.append(QJsonObject{{u"before"_s, QString::fromUtf8(change.before)}, {u"after"_s, after}});
    }
    const QByteArray line =
        compactJson({{u"ok"_s, true}, {u"file"_s, facts.file}, {u"changes"_s, all}, {u"written"_s, isWritten}});
    print((session.terminal.out ? escapedJson(line) : line) + '\n');
}

int harden(Session &session, const Given &given)
{
    if (session.options.printOnly || !session.options.hosts.empty())
        return fail(kWrongUsage, u"this works on the server itself, and asks its agent for nothing"_s);
    if (::geteuid() != 0)
        return fail(kNoConnection, u"only root may change PostgreSQL's settings"_s, u"run it as root"_s);

    cleanEnvironment();
    const Outcome outcome = runStatements({kHbaQuery});
    const std::optional<HbaFacts> facts = parseHbaFacts(outcome.output);
    if (!facts) {
        return fail(kRefused, u"PostgreSQL cannot be asked: "_s + QString::fromUtf8(outcome.errors).simplified());
    }
    QByteArray text;
    if (const QString error = asPostgres({u"cat"_s, u"--"_s, facts->file}, {}, &text); !error.isEmpty())
        return fail(kRefused, error);

    const QList<HbaChange> changes = hbaChanges(text, facts->others);
    const bool isWanted = given.has("--write") && !changes.isEmpty();
    const QString kept = facts->file + QDateTime::currentDateTime().toString(u"'.before-harden-'yyyyMMdd-HHmmss"_s);
    if (isWanted) {
        if (const QString error = write(facts->file, withChanges(text, changes), kept); !error.isEmpty())
            return fail(kRefused, error);
    }
    printChanges(session, *facts, changes, isWanted);
    if (changes.isEmpty())
        note(u"no line of %1 lets every role try every database"_s.arg(facts->file));
    else
        note(isWanted ? u"the old file is %1"_s.arg(kept) : u"nothing was changed; --write writes it"_s);
    return kDone;
}

} // namespace

Command databaseCommand()
{
    return {"database",
            "PostgreSQL's own settings",
            {},
            nullptr,
            {{"harden",
              "Show the lines of pg_hba.conf with which a role reaches its own databases only, or write them",
              {{"--write", "write them, keep the old file, and have PostgreSQL read them", Kind::Flag}},
              harden}}};
}

} // namespace corv::ctl
