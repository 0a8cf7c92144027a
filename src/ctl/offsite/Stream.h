#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

#include <functional>

namespace corv::ctl {

// A program at one end of a stream: its name on PATH, its arguments, variables beside this process's own.
struct EndOfStream
{
    QString program;
    QStringList args;
    QMap<QString, QString> environment;
    int outputFile = -1; // where the receiving one writes to; what it prints is kept where there is none
};

// What became of a stream.
struct Streamed
{
    QString problem;  // why the receiver was not given all of it, or failed; empty when all went well
    qint64 bytes = 0; // that went from one to the other
    QByteArray said;  // the end of what the receiver printed
};

// Asked when the sender has ended well and before the receiver learns of it: the bytes that came and the last of them,
// as many as kKeptTail. Returns why that cannot be all; empty where it can.
using EndCheck = std::function<QString(qint64 bytes, const QByteArray &tail)>;
constexpr qsizetype kKeptTail = 1024;

// Runs two programs, the output of one being the input of the other. The receiver sees the end of its input only when
// the sender has ended well and the check is content; else it is killed before, so that it takes no part for the whole.
// It dies with this process as well. Both are given so many milliseconds.
Streamed stream(const EndOfStream &sender, const EndOfStream &receiver, int milliseconds, const EndCheck &check = {});

// What tar writes at the end of each archive, and nothing that was cut off has for certain: whole blocks, the last two
// of them empty.
QString tarEndProblem(qint64 bytes, const QByteArray &tail);

} // namespace corv::ctl
