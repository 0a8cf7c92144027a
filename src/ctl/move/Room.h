#pragma once

#include <QString>

namespace corv::ctl::moving {

// What is left of a disk, for whoever is not root.
struct Left
{
    qint64 bytes = 0;
    qint64 entries = 0; // files and folders that can still be made; the most there can be where that is not counted

    bool operator==(const Left &) const = default;
};

// Where homes are.
inline const QString kHomesFolder = QStringLiteral("/home");

// How much of a disk another server may fill. What it sends may be more than it told of, without an end: a home has its
// limit not before it is this server's, and what root writes has none.
class Room
{
public:
    // folder: on that disk. bytes, entries: what is to come there, as was told.
    explicit Room(const QString &folder, qint64 bytes = 0, qint64 entries = 0);

    // Whether more may come.
    [[nodiscard]] bool isThere() const;
    // Why not.
    [[nodiscard]] QString problem() const;

private:
    QString m_folder;
    Left m_least;
};

// The part of it, for tests: what of a disk is to stay free, of which that much is free before what was told of comes.
Left leastLeft(const Left &free, qint64 bytes, qint64 entries);

} // namespace corv::ctl::moving
