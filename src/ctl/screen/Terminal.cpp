#include "ctl/screen/Terminal.h"

#include "ctl/Client.h"
#include "ctl/screen/Busy.h"

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwchar>

#include <sys/ioctl.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr int kUsualColumns = 80;
// Who gets a reply within this time, in seconds, needs no note.
constexpr int kPatientSeconds = 2;
// How often a bar is drawn, in milliseconds.
constexpr qint64 kRedraw = 100;
constexpr int kLongestBar = 30;
constexpr auto kClearLine = "\r\x1b[K";

int columnsOf(int descriptor)
{
    winsize size = {};
    if (::ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    return kUsualColumns;
}

void draw(const QString &line)
{
    (void)std::fputs(kClearLine, stderr);
    (void)std::fputs(line.toUtf8().constData(), stderr);
    (void)std::fflush(stderr);
}

int widthOf(char32_t character)
{
    if (character < 0x80)
        return 1;
    // Without it the C library knows no character outside ASCII.
    static const char *const locale = std::setlocale(LC_CTYPE, "C.UTF-8");
    return locale ? std::max(0, ::wcwidth(static_cast<wchar_t>(character))) : 1;
}

} // namespace

Terminal findTerminal()
{
    Terminal found;
    found.in = ::isatty(STDIN_FILENO) == 1;
    found.out = ::isatty(STDOUT_FILENO) == 1;
    found.error = ::isatty(STDERR_FILENO) == 1;
    const QByteArray kind = qgetenv("TERM");
    const bool dumb = kind.isEmpty() || kind == "dumb";
    found.colour = found.out && !dumb && qgetenv("NO_COLOR").isEmpty();
    found.moves = found.error && !dumb;
    found.columns = found.out ? columnsOf(STDOUT_FILENO) : std::max(0, qEnvironmentVariableIntValue("COLUMNS"));
    return found;
}

QString coloured(const Terminal &terminal, Colour colour, const QString &text)
{
    if (!terminal.colour || colour == Colour::None)
        return text;
    const int code = colour == Colour::Good ? 32 : colour == Colour::Warning ? 33 : colour == Colour::Bad ? 31 : 1;
    return u"\x1b[%1m%2\x1b[0m"_s.arg(QString::number(code), text);
}

int displayWidth(const QString &text)
{
    int width = 0;
    for (const char32_t character : text.toUcs4())
        width += widthOf(character);
    return width;
}

QString shortened(const QString &text, int columns)
{
    // A text of some megabytes is not looked at to its end.
    const QList<uint> characters = text.left(4 * columns + 4).toUcs4();
    int width = 0;
    qsizetype fitting = 0; // characters that leave room for the ellipsis
    for (qsizetype i = 0; i < characters.size(); ++i) {
        width += widthOf(characters[i]);
        if (width <= columns - 1)
            fitting = i + 1;
        if (width > columns)
            return QString::fromUcs4(reinterpret_cast<const char32_t *>(characters.constData()), fitting) + u'…';
    }
    return text;
}

void Spinner::show(const Waiting &waiting, const QString &stage)
{
    if (!m_terminal.moves || waiting.seconds < kPatientSeconds)
        return;
    const char turning = "|/-\\"[m_turn++ % 4];
    const QString what = !waiting.taken   ? u"the agent over there is working, or busy with another request"_s
                         : *waiting.taken ? (stage.isEmpty() ? u"the agent is working"_s : u"the agent has "_s + stage)
                                          : busyWith(waiting.agent);
    const QString line = u"%1 %2 (%3 s)"_s.arg(QChar::fromLatin1(turning), what, QString::number(waiting.seconds));
    draw(shortened(line, columnsOf(STDERR_FILENO) - 1));
}

Spinner::~Spinner()
{
    if (m_turn > 0)
        draw({});
}

Progress::Progress(const Terminal &terminal, const QString &what, qint64 total)
    : m_terminal(terminal), m_what(what), m_total(total)
{
    m_clock.start();
}

void Progress::show(qint64 done)
{
    if (!m_terminal.moves)
        return;
    const qint64 now = m_clock.elapsed();
    if (m_drawnAt >= 0 && now - m_drawnAt < kRedraw)
        return;
    m_drawnAt = now;
    draw(progressLine(m_what, done, m_total, static_cast<double>(now) / 1000, columnsOf(STDERR_FILENO) - 1));
}

void Progress::rename(const QString &what)
{
    m_what = what;
}

void Progress::clear()
{
    if (m_drawnAt >= 0)
        draw({});
    m_drawnAt = -1;
}

Progress::~Progress()
{
    clear();
}

QString progressLine(const QString &what, qint64 done, qint64 total, double seconds, int columns)
{
    const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
    QString numbers = humanBytes(done) + u"  "_s + humanBytes(static_cast<qint64>(rate)) + u"/s"_s;
    if (total > 0 && done <= total) {
        numbers = u"%1 %  "_s.arg(QString::number(100 * done / total).rightJustified(3)) + numbers;
        if (rate > 0)
            numbers += u"  %1 left"_s.arg(humanSeconds(static_cast<qint64>(static_cast<double>(total - done) / rate)));
    }
    const int nameColumns = std::max(8, columns - static_cast<int>(numbers.size()) - 16);
    const QString name = shortened(what, nameColumns);
    const int room = columns - displayWidth(name) - static_cast<int>(numbers.size()) - 6;
    if (total <= 0 || done > total || room < 5)
        return name + u"  "_s + numbers;
    const int length = std::min(room, kLongestBar);
    const int filled = static_cast<int>(length * done / total);
    return name + u"  ["_s + QString(filled, u'#') + QString(length - filled, u'.') + u"]  "_s + numbers;
}

QString humanBytes(qint64 bytes)
{
    if (bytes < 0)
        return u"unknown"_s;
    if (bytes < 1024)
        return u"%1 B"_s.arg(bytes);
    static const char *const units[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    double value = static_cast<double>(bytes);
    size_t unit = 0;
    value /= 1024;
    // 1023.96 would be written as 1024.0.
    while (value >= 1023.95 && unit < std::size(units) - 1) {
        value /= 1024;
        ++unit;
    }
    return u"%1 %2"_s.arg(QString::number(value, 'f', 1), QLatin1StringView(units[unit]));
}

QString humanTime(qint64 secondsSince1970)
{
    const auto seconds = static_cast<time_t>(secondsSince1970);
    tm parts = {};
    char text[64];
    if (!::localtime_r(&seconds, &parts) || std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &parts) == 0)
        return QString::number(secondsSince1970);
    return QString::fromLatin1(text);
}

QString humanSeconds(qint64 seconds)
{
    constexpr qint64 minute = 60;
    constexpr qint64 hour = 60 * minute;
    constexpr qint64 day = 24 * hour;
    if (seconds < minute)
        return u"%1 s"_s.arg(seconds);
    if (seconds < hour)
        return u"%1 min"_s.arg(seconds / minute);
    if (seconds < day)
        return u"%1 h %2 min"_s.arg(QString::number(seconds / hour), QString::number(seconds % hour / minute));
    return u"%1 d %2 h"_s.arg(QString::number(seconds / day), QString::number(seconds % day / hour));
}

} // namespace corv::ctl
