#pragma once

#include "common/Fd.h"
#include "ctl/move/Room.h"
#include "ctl/move/Shell.h"

#include <QProcess>
#include <QString>

#include <functional>
#include <memory>

namespace corv::ctl::moving {

// The files of an account come from its home on another server into the folder kComing of its home here, by rsync
// between two processes of the account's own user: nothing of root's looks at a name or a link of either home. What
// lies there already and is the same is left, what is there no more goes. Owners and groups do not come along, but for
// the account itself.
class Pull
{
public:
    Pull() = default;
    Pull(const Pull &) = delete;
    Pull &operator=(const Pull &) = delete;
    Pull(Pull &&) = delete;
    Pull &operator=(Pull &&) = delete;
    // Ends what still runs.
    ~Pull();

    // Makes the folder and the way; nothing is read there yet. Returns why that cannot be. isBack: the home here has
    // the files as they were once, and what has not changed since gets a second name instead of coming.
    QString open(const QString &host, const QString &account, bool isBack);

    // Begins, and returns at once.
    QString start();

    // Waits for the end, while goesOn says yes and the disk has room for what comes. Returns why it did not come whole.
    // What its user there may not read is no such reason: unread has the words for it then.
    QString wait(int milliseconds, const Room &room, const std::function<bool()> &goesOn, QString *unread);

private:
    QString m_account;
    bool m_isBack = false;
    Gate m_gate;
    Fd m_stream;
    std::unique_ptr<QProcess> m_rsync;
};

// The parts of it, for tests: whether these words of rsync's may be given to the shell of the other server.
bool isSenderCommand(const QStringList &words, const QString &home);

} // namespace corv::ctl::moving
