#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

// In place of the command runner and of the user database, so that handlers get past their first step without a process
// being started. Everybody with the name "alice" is an account, "bob" is a user that is none.

namespace corv::fuzz {

// What the tools that are run next answer, one element a call: a text that begins with "!" is a failure with the rest
// as its error output, any other is the standard output. When there are no more, tools succeed and print nothing.
void setAnswers(const QList<QByteArray> &answers);

struct Call
{
    QString program;
    QStringList args;
    QByteArray input;
};

// The calls since setAnswers, in order.
const QList<Call> &calls();

} // namespace corv::fuzz
