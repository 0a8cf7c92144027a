#pragma once

#include "common/Fd.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <sys/types.h>

namespace corv::https {

// A web server that runs apart from the real one, and its end.
class Spaces
{
public:
    enum class End { Up, Down, NoTime, NoSpaces };

    Spaces() = default;
    ~Spaces();
    Spaces(const Spaces &) = delete;
    Spaces &operator=(const Spaces &) = delete;
    Spaces(Spaces &&) = delete;
    Spaces &operator=(Spaces &&) = delete;

    // Starts program in name spaces of its own, where the folder store can be written to without a change of the real
    // one, or with isReadOnly not at all. False when no process can be had for it.
    bool start(const QString &program, const QStringList &words, const QString &store, bool isFull);

    // Waits until the server has written its process id, or has ended, at most so many milliseconds; ends it. NoTime
    // also where it was killed: there was no memory for it.
    End wait(int milliseconds);

    // What it wrote, on its standard streams and into its log.
    QByteArray output();

private:
    void stop();

    pid_t m_keeper = -1; // the parent of the first process of the name space
    Fd m_report;         // its one byte says what became of it
    Fd m_output;         // a file in memory
};

} // namespace corv::https
