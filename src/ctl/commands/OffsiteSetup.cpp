#include "common/AtomicFile.h"
#include "common/Json.h"
#include "common/TimedRun.h"
#include "ctl/Input.h"
#include "ctl/Interrupt.h"
#include "ctl/Session.h"
#include "ctl/Settings.h"
#include "ctl/commands/Offsite.h"
#include "ctl/offsite/Lock.h"
#include "ctl/offsite/Probe.h"
#include "ctl/offsite/Secrets.h"
#include "ctl/offsite/SettingsText.h"
#include "ctl/screen/Escape.h"

#include <QFile>
#include <QSettings>
#include <QSysInfo>

#include <cstdio>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kToolMs = 60'000;
constexpr mode_t kSettingsMode = 0644;
// One that was given and has not been found to fit yet.
const auto kTriedKeyFile = u"/etc/corvane/offsite/key.tried"_s;

void say(const Session &session, const QString &line)
{
    if (session.options.json || session.options.plain)
        return;
    printLine(escaped(line));
    (void)std::fflush(stdout);
}

// The key that this server reaches a vault with.
QString makeSshKey()
{
    QString problem;
    if (secretIn(kSshKey, &problem) || !problem.isEmpty())
        return problem;
    if (const QString unkept = keepSecret(kKnownHosts, {}); !unkept.isEmpty())
        return unkept;
    const Outcome made = runWithin(kToolMs, u"ssh-keygen"_s,
                                   {u"-q"_s, u"-t"_s, u"ed25519"_s, u"-N"_s, QString(), u"-C"_s,
                                    u"corvane-offsite@"_s + QSysInfo::machineHostName(), u"-f"_s, kSshKey});
    return made.succeeded ? QString() : u"ssh-keygen made no key: "_s + QString::fromUtf8(made.errors).simplified();
}

// What the vault's authorized_keys has to hold for this server, which may do that and nothing else.
QString vaultLine()
{
    QFile file(kSshKey + u".pub"_s);
    const QString key = file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).trimmed() : QString();
    return u"restrict,command=\"rclone serve restic --stdio --append-only %1\" %2"_s.arg(QSysInfo::machineHostName(),
                                                                                         key);
}

// Whether the vault lets this server in; the host key that it shows the first time is the one that counts from then on.
QString reachVault(const Vault &vault)
{
    // Standard input is empty, at which rclone ends by itself.
    QStringList words = sshTo(vault, true);
    const QString program = words.takeFirst();
    const Outcome tried = runWithin(kToolMs, program, words + QStringList{u"true"_s});
    const QString errors = QString::fromUtf8(tried.errors).simplified();
    const bool isRefused = !tried.succeeded && !errors.contains("rclone"_L1);
    return isRefused ? (errors.isEmpty() ? u"ssh fails and does not say why"_s : errors) : QString();
}

int askForEntry(const Session &session, const Vault &vault, const QString &problem)
{
    say(session, u"The vault does not let this server in yet. Put this line, in one piece, into"_s);
    say(session, u"the file .ssh/authorized_keys of the user %1 there:"_s.arg(vault.user));
    say(session, {});
    printLine(escaped(vaultLine()));
    say(session, {});
    return fail(kRefused, u"%1 cannot be reached: %2"_s.arg(vault.host, problem),
                u"then run this command again; nothing has been set up yet"_s);
}

// The key that this server is to use: where it lies while the place is tried, and whether its owner has it already.
struct SetupKey
{
    QString file = kKeyFile;
    bool isKnown = false;
    QString problem; // why there is none, empty where there is one
};

// The key of the repository: the one of a file, the one that is there, or a new one. One of a file stays beside the
// one in force until the place has taken it: without the latter what it has encrypted could not be read any more.
SetupKey settleKey(const Session &session, const Given &given)
{
    SetupKey settled;
    if (given.has("--key-file")) {
        const std::optional<QByteArray> content = readSource(session, given.text("--key-file"));
        const QByteArray key = content.value_or(QByteArray()).trimmed();
        settled.file = kTriedKeyFile;
        settled.isKnown = true;
        settled.problem = key.isEmpty() || key.contains('\n') ? u"the key is one line of text"_s
                                                              : keepSecret(settled.file, key + '\n');
        return settled;
    }
    if (secretIn(kKeyFile, &settled.problem) || !settled.problem.isEmpty())
        return settled;
    const QByteArray key = newKey();
    settled.problem = key.isEmpty() ? u"the system has no random numbers"_s : keepSecret(kKeyFile, key + '\n');
    return settled;
}

// Puts the key that was tried in force. Returns why that cannot be; empty on success.
QString takeKey(const SetupKey &key)
{
    if (key.file == kKeyFile ||
        ::rename(QFile::encodeName(key.file).constData(), QFile::encodeName(kKeyFile).constData()) == 0)
        return {};
    return u"%1 cannot take the place of %2"_s.arg(key.file, kKeyFile);
}

QString writeSettings(const QString &path, const OffsitePlace &place)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return u"%1 cannot be read"_s.arg(path);
    QByteArray text = withSetting(file.readAll(), u"offsite"_s, u"repository"_s, place.repository);
    text = withSetting(text, u"offsite"_s, u"append_only"_s, place.appendOnly ? u"true"_s : u"false"_s);
    return replaceFile(path, text, kSettingsMode) ? QString() : u"%1 cannot be written"_s.arg(path);
}

QString adviceOn(const OffsitePlace &place)
{
    if (place.appendOnly)
        return u"It refuses to forget: a break-in on this server can add to it and take nothing away."_s;
    if (isHere(place.repository))
        return u"It is a disk of this server: a break-in here can make it forget everything. Take the disk"
               " away between the copies, or use a vault (corvctl help offsite)."_s;
    return u"It forgets when this server tells it to: so it does when a break-in on this server tells it."
           " A vault that only lets it add is described in backup.md."_s;
}

int finish(const Session &session, const OffsitePlace &place, bool isKeyKnown)
{
    QString problem;
    const QString key = QString::fromUtf8(secretIn(kKeyFile, &problem).value_or(QByteArray())).trimmed();
    if (session.options.json) {
        QJsonObject object = {
            {u"ok"_s, true}, {u"repository"_s, place.repository}, {u"appendOnly"_s, place.appendOnly}};
        if (!isKeyKnown)
            object.insert(u"key"_s, key);
        const QByteArray line = compactJson(object);
        print((session.terminal.out ? escapedJson(line) : line) + '\n');
        return kDone;
    }
    if (session.options.plain) {
        if (!isKeyKnown)
            printLine(u"key\t"_s + escaped(key));
        return kDone;
    }
    say(session, u"%1 takes what is written to it and gives it back."_s.arg(place.repository));
    say(session, adviceOn(place));
    say(session, {});
    if (!isKeyKnown) {
        printLine(u"The key of the repository:\n\n    "_s + escaped(key) + u'\n');
        printLine(u"Keep it elsewhere, on paper or in a password manager. Without it nothing that\n"
                  "is off-site can be read again, and it is shown only now. On this server it is\n"
                  "in %1, for root alone.\n"_s.arg(kKeyFile));
    }
    say(session, u"Each backup is copied from now on. corvctl offsite run copies the newest one now."_s);
    return kDone;
}

// Reaches the place, makes the repository there and finds out by trying what it does.
int tryPlace(const Session &session, OffsitePlace place, const SetupKey &key)
{
    QString problem;
    const std::optional<Repository> repository = openPlace(place, key.file, &problem);
    if (repository)
        problem = makeRepository(*repository);
    if (problem.isEmpty())
        problem = tryWriting(*repository);
    if (!problem.isEmpty())
        return refuse(session, problem, u"nothing is copied there yet; put it right and run this again"_s);

    say(session, u"Trying whether %1 can be made to forget; that may take half a minute."_s.arg(place.repository));
    const Forgetting forgetting = tryForgetting(*repository, &problem);
    if (forgetting == Forgetting::Unknown)
        return refuse(session, u"whether the place refuses to forget cannot be told: "_s + problem);
    if (forgetting == Forgetting::Possible && isVault(place.repository)) {
        return refuse(session, u"the vault lets this server delete what it holds"_s,
                      u"its authorized_keys needs rclone serve restic --stdio --append-only"_s);
    }
    place.appendOnly = forgetting == Forgetting::Refused;
    if (problem = writeSettings(settingsPath(session.options), place); !problem.isEmpty())
        return refuse(session, problem);
    if (problem = takeKey(key); !problem.isEmpty())
        return refuse(session, problem);
    return finish(session, place, key.isKnown);
}

int setUp(Session &session, const Given &given)
{
    if (const std::optional<int> end = notHere(session, u"setup"_s))
        return *end;
    OffsitePlace place;
    place.repository = given.text("REPOSITORY");
    if (const QString problem = repositoryProblem(place.repository); !problem.isEmpty())
        return fail(kWrongUsage, problem, u"corvctl help offsite setup shows examples"_s);

    const InterruptGuard guard;
    QString problem;
    const Fd lock = lockOffsite(&problem);
    if (!lock)
        return fail(kRefused, problem);
    if (isVault(place.repository)) {
        const Vault vault = vaultIn(place.repository);
        if (problem = makeSshKey(); !problem.isEmpty())
            return refuse(session, problem);
        if (problem = reachVault(vault); !problem.isEmpty())
            return askForEntry(session, vault, problem);
    }
    SetupKey key = settleKey(session, given);
    if (!key.problem.isEmpty())
        return refuse(session, key.problem);
    // Not by whether the repository is new: a setup that ended before its end has made it and told nobody.
    const QSettings settings(settingsPath(session.options), QSettings::IniFormat);
    key.isKnown = key.isKnown || placeIn(settings).repository == place.repository;
    const int status = tryPlace(session, place, key);
    (void)QFile::remove(kTriedKeyFile); // where it was refused
    return status;
}

} // namespace

Command offsiteSetupCommand()
{
    return {"setup",
            "Make the key, try the place, and have each backup copied to it from now on",
            {{"REPOSITORY",
              "ssh://USER@HOST for a vault; else what restic takes: sftp:USER@HOST:/PATH, rest:https://HOST/, "
              "s3:HOST/BUCKET, rclone:REMOTE:PATH, /PATH"},
             {"--key-file", "the key of a repository that is there already, in a file or, with -, on standard input",
              Kind::Value, Names::File}},
            setUp};
}

} // namespace corv::ctl
