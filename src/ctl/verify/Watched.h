#pragma once

#include "ctl/verify/Fault.h"

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

#include <functional>

namespace corv::ctl {

// How a program that was watched came to its end.
struct Ended
{
    bool succeeded = false;
    bool wasStopped = false; // by us, before its time was over
    bool tookTooLong = false;
    QByteArray errors; // the beginning of its standard error: the first one is what matters
};

// What it is watched with.
struct Watch
{
    std::function<void(const QByteArray &)> output; // takes what it prints, piece by piece; none: it goes nowhere
    std::function<bool()> goesOn;                   // asked twice a second whether it may go on; none: it may
};

// Runs a program as readerCommand says, with a file as its standard input, which is read from its beginning, or with
// these bytes where the descriptor is negative.
Ended watchAsReader(const QStringList &program, int file, const QByteArray &input, const Bounds &bounds,
                    const Watch &watch, const QMap<QString, QString> &environment = {});

} // namespace corv::ctl
