#pragma once

#include "ctl/doctor/Finding.h"

#include <QList>
#include <QMap>
#include <QString>

namespace corv::ctl {

// What packs the homes in backups and deletions.
struct Compressor
{
    bool canHaveIsal = false;     // whether Debian builds it for this architecture
    bool hasIgzip = false;        // whether the link of ours leads to it
    QMap<QString, QString> paths; // PATH of each unit that makes archives
};

// The compressor as this server has it.
Compressor readCompressor();

// Whether the compressor in force is the fast one, for all units.
bool isFast(const Compressor &compressor);

// What makes archives slower than they need to be.
QList<Finding> checkCompressor(const Compressor &compressor);

// How many bytes of a home the compressor in force and tar manage in a second, found out by a trial in memory that
// takes a second at most; 0 where it failed.
qint64 measureCompressor(const Compressor &compressor);

// PATH in what "systemctl show -p Environment --value" says; empty where it has none.
QString pathIn(const QByteArray &environment);

} // namespace corv::ctl
