#pragma once

#include <QList>
#include <QString>

namespace corv::ctl {

// A fault keeps something from working, or will; a note is for the administrator to know, and may be meant so.
enum class Level { Fault, Note };

// One thing that is not as it should be.
struct Finding
{
    Level level;
    QString problem; // a sentence without a full stop; names in it may hold any character
    QString mend;    // the shell command, to be run as root, that mends it
};

// A word that the shell takes as it stands; quoted where it holds anything but plain characters.
QString shellWord(const QString &word);

} // namespace corv::ctl
