#include "ctl/verify/Fault.h"

#include "ctl/Interrupt.h"
#include "ctl/verify/Reader.h"
#include "ctl/verify/Watched.h"

#include <algorithm>
#include <array>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qsizetype kMostOutput = 4'096;
// Of the first bytes of a dump: the longest name of a database has 63.
constexpr size_t kHeaderBytes = 512;

// Why a program could not read a file to its end; nothing where it could.
std::optional<QString> faultIn(const Ended &reading)
{
    if (reading.succeeded)
        return {};
    if (reading.wasStopped)
        return u"was not read to its end"_s;
    if (reading.tookTooLong)
        return u"cannot be read: it takes too long"_s;
    return u"is damaged: "_s + complaintIn(QString::fromUtf8(reading.errors));
}

bool goesOn()
{
    return !interrupted();
}

// Has tar list the archive to its end. One pass is what "gzip -t" and "tar -t" find out in two: tar reads on behind the
// last member until gzip has seen its checksum, and fails where gzip does. Debian's own gzip, so that what igzip has
// packed is read by another program than wrote it.
std::optional<QString> list(const Fd &file, const QStringList &options, const Bounds &bounds, QByteArray *output)
{
    const QStringList tar = {
        u"tar"_s, u"--use-compress-program=/usr/bin/gzip"_s, u"--quoting-style=escape"_s, u"-t"_s, u"-f"_s, u"-"_s};
    Watch watch = {{}, goesOn};
    if (output)
        watch.output = [output](const QByteArray &piece) {
            *output += piece.left(std::max<qsizetype>(kMostOutput - output->size(), 0));
        };
    return faultIn(watchAsReader(tar + options, file.get(), {}, bounds, watch));
}

// Reads the numbers and texts of a dump's beginning: each number has a byte for its sign before it.
class HeaderReader
{
public:
    explicit HeaderReader(const QByteArray &bytes) : m_bytes(bytes) {}

    // The next byte; -1 behind the end.
    int byte()
    {
        return m_at < m_bytes.size() ? static_cast<unsigned char>(m_bytes[m_at++]) : -1;
    }

    std::optional<qint64> number(int size)
    {
        const int sign = byte();
        if (sign < 0 || size < 1 || size > 8 || m_bytes.size() - m_at < size)
            return {};
        quint64 value = 0;
        for (int i = 0; i < size; ++i)
            value |= static_cast<quint64>(byte()) << (8 * i);
        return sign == 0 ? static_cast<qint64>(value) : static_cast<qint64>(0 - value);
    }

    std::optional<QByteArray> text(int size)
    {
        const std::optional<qint64> length = number(size);
        if (!length || *length < 0 || *length > m_bytes.size() - m_at)
            return {};
        const QByteArray found = m_bytes.mid(m_at, static_cast<qsizetype>(*length));
        m_at += found.size();
        return found;
    }

private:
    QByteArray m_bytes;
    qsizetype m_at = 0;
};

} // namespace

std::optional<QString> faultOfArchive(const QString &path, const Bounds &bounds)
{
    const SavedFile saved = openSaved(path);
    if (!saved.fault.isEmpty())
        return saved.fault;

    return list(saved.file, {}, bounds, nullptr);
}

std::optional<QString> faultOfHome(const QString &path, const QString &account, const Bounds &bounds)
{
    const SavedFile saved = openSaved(path);
    if (!saved.fault.isEmpty())
        return saved.fault;

    // Told of is what does not lie in the account's home, and the home itself: one line where all is well, however many
    // files there are.
    QByteArray output;
    const std::optional<QString> fault =
        list(saved.file, {u"--anchored"_s, u"--wildcards"_s, u"--exclude=%1/?*"_s.arg(account)}, bounds, &output);
    if (fault)
        return fault;
    if (output != account.toLatin1() + "/\n")
        return u"is no archive of the home of %1: it holds other files, or none"_s.arg(account);
    return {};
}

std::optional<QString> faultOfDump(const QString &path, const Bounds &bounds)
{
    const SavedFile saved = openSaved(path);
    if (!saved.fault.isEmpty())
        return saved.fault;

    // Not "--list", which reads the beginning alone.
    return faultIn(watchAsReader({u"pg_restore"_s, u"--file=/dev/null"_s, u"--format=custom"_s}, saved.file.get(), {},
                                 bounds, {{}, goesOn}));
}

std::optional<QString> faultOfDatabase(const QString &path, const QString &database, const Bounds &bounds)
{
    const SavedFile saved = openSaved(path);
    if (!saved.fault.isEmpty())
        return saved.fault;

    std::array<char, kHeaderBytes> beginning = {};
    const ssize_t count = ::pread(saved.file.get(), beginning.data(), beginning.size(), 0);
    const std::optional<QByteArray> name = databaseInDump(QByteArray(beginning.data(), count > 0 ? count : 0));
    if (!name)
        return u"is damaged: it does not begin as a dump does"_s;
    if (*name != database.toUtf8())
        return u"is a dump of another database, %1"_s.arg(QString::fromUtf8(*name).simplified());
    return faultOfDump(path, bounds);
}

std::optional<QByteArray> databaseInDump(const QByteArray &beginning)
{
    constexpr auto kMagic = "PGDMP";
    constexpr int kCustomFormat = 1;
    constexpr int kOneByteOfCompression = 15; // from format 1.15 on, PostgreSQL 16
    constexpr int kParts = 7;                 // of the time, from the second to whether it is summer
    if (!beginning.startsWith(kMagic))
        return {};
    HeaderReader header(beginning.mid(5));
    const int major = header.byte();
    const int minor = header.byte();
    (void)header.byte(); // the revision
    const int numberBytes = header.byte();
    (void)header.byte(); // the bytes of an offset
    if (major != 1 || header.byte() != kCustomFormat)
        return {};
    if (minor >= kOneByteOfCompression)
        (void)header.byte();
    else
        (void)header.number(numberBytes);
    for (int part = 0; part < kParts; ++part) {
        if (!header.number(numberBytes))
            return {};
    }
    return header.text(numberBytes);
}

} // namespace corv::ctl
