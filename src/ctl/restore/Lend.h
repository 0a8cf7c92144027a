#pragma once

#include "common/BackupConfig.h"

#include <QString>

namespace corv::ctl {

// The agent loads a database from a backup in its destination, and nowhere else. For a dump that lies elsewhere, or is
// of another name, a folder of that form is put there for as long as it is needed. Its name is no time, so that no run
// removes it and no list of backups has it for the newest.
class Lent
{
public:
    // Makes the folder with the dump in it, a second name of the file or a copy, under the name of an account.
    Lent(const backup::Config &config, const QString &dump, const QString &account);
    Lent(const Lent &) = delete;
    Lent &operator=(const Lent &) = delete;
    Lent(Lent &&) = delete;
    Lent &operator=(Lent &&) = delete;
    // Takes it away.
    ~Lent();

    // Why there is none, empty when there is.
    [[nodiscard]] QString problem() const
    {
        return m_problem;
    }
    // Its name, as the agent takes it for a backup's.
    [[nodiscard]] static QString name();

private:
    QString m_destination;
    QString m_problem;
};

} // namespace corv::ctl
