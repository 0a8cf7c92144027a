#include "ctl/Command.h"
#include "ctl/Session.h"
#include "ctl/commands/File.h"

#include <QDir>
#include <QFile>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// The copy in a folder of its own, so that it can have the file's own name, by which editors know what it is.
class Copy
{
public:
    explicit Copy(const QString &name)
    {
        QByteArray folder = QFile::encodeName(QDir::tempPath()) + "/corvctl-XXXXXX";
        if (!::mkdtemp(folder.data()))
            return;
        m_folder = folder;
        m_path = folder + '/' + QFile::encodeName(name);
    }
    Copy(const Copy &) = delete;
    Copy &operator=(const Copy &) = delete;
    Copy(Copy &&) = delete;
    Copy &operator=(Copy &&) = delete;
    ~Copy()
    {
        if (m_isKept || m_folder.isEmpty())
            return;
        // With what the editor left beside it.
        (void)QDir(QFile::decodeName(m_folder)).removeRecursively();
    }

    bool write(const QByteArray &content) const
    {
        const Fd file(::open(m_path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        return file && writeAll(file.get(), content);
    }
    [[nodiscard]] std::optional<QByteArray> read() const
    {
        QFile file(QFile::decodeName(m_path));
        if (!file.open(QIODevice::ReadOnly))
            return {};
        return file.readAll();
    }
    [[nodiscard]] const QByteArray &path() const
    {
        return m_path;
    }
    // Says where it stays, as a hint.
    QString keep()
    {
        m_isKept = true;
        return u"your text is in %1"_s.arg(QFile::decodeName(m_path));
    }

private:
    QByteArray m_folder;
    QByteArray m_path;
    bool m_isKept = false;
};

QByteArray editor()
{
    for (const char *name : {"VISUAL", "EDITOR"}) {
        if (const QByteArray value = qgetenv(name); !value.trimmed().isEmpty())
            return value;
    }
    return "editor"; // what the system's alternatives lead to
}

// Runs the user's editor on the copy until it ends; its exit status, 128 and more for a signal. The shell takes an
// editor with options apart. What the terminal's keys send is for the editor alone.
int edit(const QByteArray &path)
{
    const QByteArray script = editor() + " \"$1\"";
    std::array<const char *, 6> argv = {"sh", "-c", script.constData(), "corvctl", path.constData(), nullptr};
    void (*const interrupt)(int) = std::signal(SIGINT, SIG_IGN);
    void (*const quit)(int) = std::signal(SIGQUIT, SIG_IGN);
    const pid_t child = ::fork();
    if (child == 0) {
        (void)std::signal(SIGINT, SIG_DFL);
        (void)std::signal(SIGQUIT, SIG_DFL);
        ::execv("/bin/sh", const_cast<char *const *>(argv.data()));
        ::_exit(127);
    }
    int status = 0;
    while (child > 0 && ::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    (void)std::signal(SIGINT, interrupt);
    (void)std::signal(SIGQUIT, quit);
    if (child < 0)
        return 127;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

int editFile(Session &session, const Given &given)
{
    if (session.options.isOneOfMany)
        return fail(kWrongUsage, u"an editor works on the file of one server: name one"_s);
    const QString path = given.text("PATH");
    const Answer before = ask(session, u"files"_s, fileArguments(given, u"read"_s));
    if (before.fate == Answer::Fate::Printed || !before.ok())
        return *settled(session, before);
    const QByteArray old = before.reply.value("content"_L1).toString().toUtf8();

    const QString name = lastPart(path);
    Copy copy(name.isEmpty() || name == "."_L1 || name == ".."_L1 ? u"file"_s : name);
    if (!copy.write(old))
        return fail(kRefused, u"cannot write a copy: %1"_s.arg(QString::fromLocal8Bit(std::strerror(errno))));
    if (const int status = edit(copy.path()); status != 0)
        return fail(kRefused, u"the editor ended with exit code %1, so nothing was written"_s.arg(status));

    const std::optional<QByteArray> edited = copy.read();
    if (!edited)
        return fail(kRefused, u"the editor took the copy away, so nothing was written"_s);
    if (*edited == old) {
        note(u"nothing was changed, so nothing was written"_s);
        return kDone;
    }
    if (!edited->isValidUtf8())
        return fail(kRefused, u"that is no text in UTF-8, so nothing was written"_s, copy.keep());

    const Answer now = ask(session, u"files"_s, fileArguments(given, u"read"_s));
    if (!now.ok()) {
        note(copy.keep());
        return settled(session, now).value_or(kRefused);
    }
    if (now.reply.value("content"_L1).toString().toUtf8() != old)
        return fail(kRefused, u"%1 was changed meanwhile, so nothing was written"_s.arg(path), copy.keep());

    QJsonObject args = fileArguments(given, u"write"_s);
    args.insert(u"content"_s, QString::fromUtf8(*edited));
    const Answer answer = ask(session, u"files"_s, args);
    if (!answer.ok())
        note(copy.keep());
    return settledWith(session, answer, u"%1: %2"_s.arg(path, humanBytes(answer.reply.value("size"_L1).toInteger())));
}

} // namespace corv::ctl
