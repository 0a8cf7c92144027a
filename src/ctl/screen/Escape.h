#pragma once

#include <QByteArray>
#include <QString>

namespace corv::ctl {

// The text with everything that could steer a terminal, or make it show something else than is there, written out:
// control characters (\n, \t, \x1b), backslashes (\\), invisible and direction-changing characters (\u202e), halves of
// pairs and characters that do not exist. Accounts choose the names of files, their contents and lines of logs, so no
// string of a reply may reach a terminal without this. The result is one line.
QString escaped(const QString &text);

// The same for a text of several lines: line feeds and tabs stay.
QString escapedLines(const QString &text);

// What a tool said in several lines, as one sentence: lines are joined by "; " where the one before does not end with a
// sign of its own, blanks and tabs become one blank. It is not escaped yet.
QString oneSentence(const QString &text);

// JSON on a terminal: what it may hold as it is but a terminal should not get is written in JSON's own way (\u009b), so
// that it stays the same JSON.
QByteArray escapedJson(const QByteArray &json);

} // namespace corv::ctl
