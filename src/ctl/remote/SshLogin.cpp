#include "ctl/remote/SshLogin.h"

#include <QFile>
#include <QList>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr QByteArrayView kVariable = "SSH_CONNECTION=";
// No chain of processes is longer; one that seems to be was changed while it was read.
constexpr int kMostAncestors = 64;

QByteArray content(int process, const char *name)
{
    QFile file(u"/proc/%1/%2"_s.arg(QString::number(process), QLatin1StringView(name)));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The process's parent; 0 where it has none or cannot be seen.
int parentOf(int process)
{
    const QByteArray status = content(process, "stat");
    // The name before it may hold blanks and parentheses.
    return status.mid(status.lastIndexOf(')') + 2).split(' ').value(1).toInt();
}

QByteArray connectionOf(int process)
{
    const QList<QByteArray> variables = content(process, "environ").split('\0');
    for (const QByteArray &variable : variables) {
        if (variable.startsWith(kVariable))
            return variable.mid(kVariable.size());
    }
    return {};
}

// The variable as the nearest process has it that was started over SSH; empty where there is none.
QByteArray loginConnection()
{
    if (const QByteArray own = qgetenv("SSH_CONNECTION"); !own.isEmpty())
        return own;
    // sudo and su take the variable away, but not from the shell that they were started in.
    int process = ::getppid();
    for (int i = 0; process > 1 && i < kMostAncestors; ++i) {
        if (const QByteArray found = connectionOf(process); !found.isEmpty())
            return found;
        process = parentOf(process);
    }
    return {};
}

} // namespace

QString sshPortIn(const QByteArray &connection)
{
    const QList<QByteArray> parts = connection.split(' ');
    return parts.size() == 4 ? QString::fromLatin1(parts[3]) : QString();
}

QString sshLoginPort()
{
    return sshPortIn(loginConnection());
}

QString sshLoginAddress()
{
    return QString::fromLatin1(loginConnection().split(' ').first());
}

} // namespace corv::ctl
