#pragma once

#include "common/Fd.h"

#include <QString>

#include <optional>

namespace corv::files {

// The transfer directory, /var/lib/corvane/transfer, through which the panel hands uploads in and gets downloads out.
// It belongs to the panel's user, so that whatever is in it may be swapped at any time: files are judged by what was
// opened, and no link is followed to one, nor to the directory itself.

// Opens an upload for reading, then takes it out of the directory: it is read, to its end, by the helper alone, so that
// not even 256 MiB pass through the agent's memory. No descriptor, and the file stays, when there is no regular file of
// that name, when it cannot be opened or when it is too big.
Fd takeUpload(const QString &name);

// A download on its way: an empty file in the transfer directory, root's own with mode 0600, under a random name that
// nothing had. It is deleted again unless it is handed over.
class Download
{
public:
    Download();
    Download(const Download &) = delete;
    Download(Download &&) = delete;
    Download &operator=(const Download &) = delete;
    Download &operator=(Download &&) = delete;
    ~Download();

    // False when the file could not be made.
    explicit operator bool() const
    {
        return static_cast<bool>(m_file);
    }
    // The file, open for writing.
    [[nodiscard]] int descriptor() const
    {
        return m_file.get();
    }
    [[nodiscard]] const QString &name() const
    {
        return m_name;
    }

    // Gives the file to the owner and group of the transfer directory. Returns its size in bytes, or nothing when that
    // cannot be done or the name does not lead to this file any more.
    std::optional<qint64> handOver();

private:
    [[nodiscard]] bool isStillOurs() const;

    Fd m_folder;
    QString m_name;
    Fd m_file;
    bool m_handedOver = false;
};

} // namespace corv::files
