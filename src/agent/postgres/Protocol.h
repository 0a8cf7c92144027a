#pragma once

#include <QByteArray>

#include <functional>

// As much of PostgreSQL's protocol (version 3) as it takes to ask the server one question and to follow what others say
// to it. Nothing here reads or writes a stream.
namespace corv::postgres {

// What a message holds beyond so many bytes is passed over.
constexpr qsizetype kKeptBytes = 4'096;

// Tells the messages of one direction of a connection apart, in whatever pieces they come.
class MessageScanner
{
public:
    // Called with each message that is complete: its type, 0 for the first one of a client, and the beginning of what
    // it holds.
    using Seen = std::function<void(char type, const QByteArray &body)>;

    // A client's first message has no type.
    enum class Side { Client, Server };
    explicit MessageScanner(Side side) : m_isTyped(side == Side::Server) {}

    // Takes what came next. False, from then on, when it is no message: a length that cannot be.
    bool take(const char *data, qsizetype size, const Seen &seen);

private:
    [[nodiscard]] qsizetype headSize() const;
    bool begin();

    bool m_isTyped;
    bool m_isBroken = false;
    bool m_isInBody = false;
    qsizetype m_rest = 0; // bytes of the body that are still to come
    char m_type = 0;
    QByteArray m_head;
    QByteArray m_body;
};

// A client's first message: which role wants which database, and the settings of its session ("-csearch_path=...").
QByteArray startMessage(const QByteArray &role, const QByteArray &database, const QByteArray &options);

// Asks for the statements to be run.
QByteArray queryMessage(const QByteArray &statements);

// The client's last message.
QByteArray goodbyeMessage();

// Whether the body of a message of the type R says that the client is let in.
bool letsIn(const QByteArray &body);

// A field of an error (type E): 'M' its text, 'V' its severity in English, 'C' its code. Empty where there is none.
QByteArray errorField(const QByteArray &body, char field);

// The first column of a row (type D), as text. Empty where there is none, or where it does not stand there whole.
QByteArray firstColumn(const QByteArray &body);

} // namespace corv::postgres
