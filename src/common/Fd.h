#pragma once

#include <QByteArray>

#include <cerrno>
#include <utility>

#include <unistd.h>

namespace corv {

// Owns one file descriptor and closes it. A negative value means that there is none.
class Fd
{
public:
    Fd() = default;
    explicit Fd(int descriptor) : m_descriptor(descriptor) {}
    Fd(Fd &&other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    Fd &operator=(Fd &&other) noexcept
    {
        if (this != &other) {
            reset();
            m_descriptor = std::exchange(other.m_descriptor, -1);
        }
        return *this;
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    ~Fd()
    {
        reset();
    }

    [[nodiscard]] int get() const
    {
        return m_descriptor;
    }
    explicit operator bool() const
    {
        return m_descriptor >= 0;
    }
    // Gives the descriptor up to the caller, who then closes it.
    [[nodiscard]] int release()
    {
        return std::exchange(m_descriptor, -1);
    }
    void reset()
    {
        if (m_descriptor >= 0)
            ::close(m_descriptor);
        m_descriptor = -1;
    }

private:
    int m_descriptor = -1;
};

// Writes all of data to a descriptor that is not set to non-blocking, or to a regular file. False when it was cut
// short.
inline bool writeAll(int descriptor, const QByteArray &data)
{
    for (qsizetype written = 0; written < data.size();) {
        const ssize_t count =
            ::write(descriptor, data.constData() + written, static_cast<size_t>(data.size() - written));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        written += count;
    }
    return true;
}

} // namespace corv
