#pragma once

#include <QByteArray>
#include <QString>

namespace corv::fuzz {

// Ends the fuzzer with a report when the condition does not hold. what: the rule that was broken.
void require(bool condition, const char *what);

// The same for two texts that are to be equal; both are shown.
void requireSame(const QString &found, const QString &wanted, const char *what);
void requireSame(const QByteArray &found, const QByteArray &wanted, const char *what);

// The text that the bytes stand for: what a client can send has come through the same conversion.
QString text(const QByteArray &bytes);

} // namespace corv::fuzz
