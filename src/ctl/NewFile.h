#pragma once

#include "common/Fd.h"

#include <QByteArray>
#include <QString>

namespace corv::ctl {

// A file that shows up under its name only once it is whole: it is written beside it and takes its place at the end.
// Where it is not kept, nothing is left.
class NewFile
{
public:
    explicit NewFile(const QString &path);
    NewFile(const NewFile &) = delete;
    NewFile &operator=(const NewFile &) = delete;
    NewFile(NewFile &&) = delete;
    NewFile &operator=(NewFile &&) = delete;
    ~NewFile();

    [[nodiscard]] bool isOpen() const
    {
        return static_cast<bool>(m_file);
    }
    [[nodiscard]] const Fd &descriptor() const
    {
        return m_file;
    }
    // Gives it its name, in the place of a file that has it. False when that fails.
    bool keep();

private:
    QByteArray m_path;
    QByteArray m_temporary;
    Fd m_file;
    bool m_kept = false;
};

} // namespace corv::ctl
