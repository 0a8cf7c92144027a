#pragma once

#include <QtGlobal>

#include <functional>
#include <map>
#include <set>

namespace corv {

// The memory that all clients together may keep busy, with requests that are not whole yet and with replies that nobody
// takes. It is spent first come first served: whoever finds no room waits in line. Root's clients never wait, nor does
// the oldest one of each user, so that there is always one that gets on; what these hold counts all the same.
class Budget
{
public:
    using Call = std::function<void()>;

    explicit Budget(qint64 bytes);

    // Enters a client of that user, and returns its number. onRoom is called when a client that had to wait has got
    // what it asked for; it must not call back at once, since others are being served from the line.
    quint64 enter(quint32 uid, Call onRoom);
    // The client has gone, and gives back all that it held.
    void leave(quint64 client);

    // Whether a client may hold that many bytes in all. If not, it is in line for them from now on.
    bool ask(quint64 client, qint64 bytes);
    // What a client really holds from now on, in bytes, in the place of what it held or was promised.
    void hold(quint64 client, qint64 bytes);

    // How many clients of that user there are.
    [[nodiscard]] qsizetype clientsOf(quint32 uid) const;
    // What all hold, in bytes.
    [[nodiscard]] qint64 used() const
    {
        return m_used;
    }

private:
    struct Client
    {
        quint32 uid;
        Call onRoom;
        qint64 held = 0;
        qint64 asked = 0;
        quint64 ticket = 0; // its place in the line; 0: none
    };

    [[nodiscard]] bool neverWaits(quint64 number, const Client &client) const;
    void serveLine();
    void grant(Client &client);

    qint64 m_bytes;
    qint64 m_used = 0;
    quint64 m_lastNumber = 0;
    quint64 m_lastTicket = 0;
    std::map<quint64, Client> m_clients;
    std::map<quint32, std::set<quint64>> m_byUser; // in the order of their coming
    std::map<quint64, quint64> m_line;             // clients by ticket
};

} // namespace corv
