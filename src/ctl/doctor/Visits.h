#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>

namespace corv::ctl {

// What a web server is asked for: a page, under a host name, as a visitor does.
struct Visit
{
    QString address; // a numeric one
    int port = 80;
    QString host;                             // the name asked for
    QByteArray path = QByteArrayLiteral("/"); // letters, digits, dots, dashes and slashes
};

// What came of it.
struct Visited
{
    int status = 0;                // of the answer; 0: there was none
    bool isServersOwnPage = false; // whether the page is the one that Apache itself makes for that status
    bool wasAsked = false;         // false: there was no time left, or no such address or name can be asked for
    bool isLate = false;           // whether the answer, or its beginning, did not come in time
    QString problem;               // why there was no answer
    bool isSuspensions = false;    // whether the page is the word of an account's site that is suspended
};

// Makes all of these visits side by side, some dozens at a time, and waits for each answer so many milliseconds at
// most, and three times that for all of them. The results are in the order of the visits. An answer may be anything;
// its beginning alone is read.
QList<Visited> visit(const QList<Visit> &visits, int milliseconds);

// What the beginning of an answer tells, or all of it: its status and whether the page is Apache's own,
// or a suspended site's. Nothing where
// more has to come for that, or where it is no answer of HTTP.
std::optional<Visited> readAnswer(const QByteArray &beginning, bool isAll);

} // namespace corv::ctl
