#include "ctl/notify/Message.h"

#include "ctl/screen/Escape.h"
#include "ctl/screen/Terminal.h"

#include <QRegularExpression>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

constexpr qsizetype kMostLines = 40;
// A line of a mail has at most 998 bytes, and a character at most four.
constexpr qsizetype kLongestLine = 240;
constexpr qsizetype kLongestHeadline = 200;

// A header has one line of ASCII; what else is in a name is of no use in it.
QString plainAscii(const QString &text)
{
    QString plain = text.simplified().left(kLongestHeadline);
    for (QChar &c : plain) {
        if (c.unicode() < u' ' || c.unicode() > u'~')
            c = u'?';
    }
    return plain;
}

// The end of the journal, indented, with nothing in it that could steer the terminal on which the mail is read.
QString quotedLog(const QByteArray &log)
{
    const QStringList lines = QString::fromUtf8(log).split(u'\n', Qt::SkipEmptyParts);
    QString quoted;
    for (const QString &line : lines.mid(std::max<qsizetype>(lines.size() - kMostLines, 0)))
        quoted += u"    "_s + escaped(line.left(kLongestLine)).left(kLongestLine) + u'\n';
    return quoted;
}

QString reason(const Event &event)
{
    return event.result.isEmpty() ? QString() : u" (%1)"_s.arg(event.result);
}

} // namespace

QString headline(const Event &event)
{
    if (event.unit.isEmpty())
        return plainAscii(u"%1: a test of corvctl notify"_s.arg(event.host));
    return plainAscii(u"%1: %2 failed%3"_s.arg(event.host, event.unit, reason(event)));
}

QString messageText(const Event &event)
{
    const QString host = escaped(event.host);
    if (event.unit.isEmpty()) {
        return u"This is a test, sent by \"corvctl notify test\" on %1 at %2.\n"
               "A failed backup of that server is told in the same way.\n"_s.arg(host, humanTime(event.time));
    }
    const QString log = quotedLog(event.log);
    return u"%1 failed on %2 at %3%4.\n"_s.arg(escaped(event.unit), host, humanTime(event.time),
                                               escaped(reason(event))) +
           (log.isEmpty() ? QString() : u"\nThe end of its journal:\n\n"_s + log) +
           u"\nAs root on %1, \"corvctl doctor\" and \"journalctl -u %2\" tell more.\n"_s.arg(host,
                                                                                              escaped(event.unit));
}

QByteArray mailText(const QStringList &recipients, const Event &event)
{
    const QString headers = u"From: root\n"
                            "To: %1\n"
                            "Subject: %2\n"
                            "Auto-Submitted: auto-generated\n"
                            "MIME-Version: 1.0\n"
                            "Content-Type: text/plain; charset=utf-8\n"
                            "Content-Transfer-Encoding: 8bit\n"
                            "\n"_s.arg(recipients.join(", "_L1), headline(event));
    return (headers + messageText(event)).toUtf8();
}

QMap<QString, QString> facts(const Event &event)
{
    return {{u"CORV_HOST"_s, event.host},
            {u"CORV_UNIT"_s, event.unit},
            {u"CORV_RESULT"_s, event.result},
            {u"CORV_TIME"_s, QString::number(event.time)},
            {u"CORV_SUBJECT"_s, headline(event)}};
}

bool isRecipient(const QString &text)
{
    static const QRegularExpression recipient(QRegularExpression::anchoredPattern(
        uR"([A-Za-z0-9][A-Za-z0-9._+=-]{0,63}(?:@[A-Za-z0-9](?:[A-Za-z0-9.-]{0,252}[A-Za-z0-9])?)?)"_s));
    return recipient.match(text).hasMatch();
}

} // namespace corv::ctl
