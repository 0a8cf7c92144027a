#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QString>

namespace corv::ctl {

struct Waiting;

enum class Colour { None, Good, Warning, Bad, Strong };

// What the standard streams are connected to.
struct Terminal
{
    bool in = false; // whether standard input is one, and so on
    bool out = false;
    bool error = false;
    bool colour = false; // whether colours go to standard output
    bool moves = false;  // whether standard error can draw over its last line
    int columns = 0;     // the width that tables keep to; 0: any
};

// The terminal as the streams and the environment (NO_COLOR, TERM, COLUMNS) tell.
Terminal findTerminal();

// The text in a colour, where the terminal has any. The text must be escaped already.
QString coloured(const Terminal &terminal, Colour colour, const QString &text);

// How many columns of a terminal the text takes.
int displayWidth(const QString &text);

// The beginning of the text that takes at most so many columns, with an ellipsis where something is missing.
QString shortened(const QString &text, int columns);

// A note on standard error that a reply is waited for, from the second second on. It vanishes with the object.
class Spinner
{
public:
    explicit Spinner(const Terminal &terminal) : m_terminal(terminal) {}
    Spinner(const Spinner &) = delete;
    Spinner &operator=(const Spinner &) = delete;
    Spinner(Spinner &&) = delete;
    Spinner &operator=(Spinner &&) = delete;
    ~Spinner();

    // stage: how far the agent is, where that is known.
    void show(const Waiting &waiting, const QString &stage = {});

private:
    const Terminal &m_terminal;
    int m_turn = 0;
};

// A bar on standard error for what is copied: how much, how fast, how long still. It vanishes with the object.
class Progress
{
public:
    // what: escaped; total: in bytes, negative where it is not known.
    Progress(const Terminal &terminal, const QString &what, qint64 total);
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;
    Progress(Progress &&) = delete;
    Progress &operator=(Progress &&) = delete;
    ~Progress();

    // So many bytes are done.
    void show(qint64 done);
    // It speaks of something else from now on (escaped).
    void rename(const QString &what);
    // Takes it away until it is shown again.
    void clear();

private:
    const Terminal &m_terminal;
    QString m_what;
    qint64 m_total;
    qint64 m_drawnAt = -1; // in milliseconds since the beginning
    QElapsedTimer m_clock;
};

// The bar's line for so many columns; seconds since the beginning.
QString progressLine(const QString &what, qint64 done, qint64 total, double seconds, int columns);

// Sizes for people: "17 B", "1.5 MiB".
QString humanBytes(qint64 bytes);

// Times for people, in the local time zone: "2026-11-21 13:02".
QString humanTime(qint64 secondsSince1970);

// Spans for people: "45 s", "12 min", "3 h 20 min", "5 d 3 h".
QString humanSeconds(qint64 seconds);

} // namespace corv::ctl
