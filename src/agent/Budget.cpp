#include "agent/Budget.h"

#include <utility>

namespace corv {

Budget::Budget(qint64 bytes) : m_bytes(bytes) {}

quint64 Budget::enter(quint32 uid, Call onRoom)
{
    const quint64 number = ++m_lastNumber;
    m_clients.emplace(number, Client{uid, std::move(onRoom)});
    m_byUser[uid].insert(number);
    return number;
}

void Budget::leave(quint64 client)
{
    const auto found = m_clients.find(client);
    if (found == m_clients.end())
        return;

    const quint32 uid = found->second.uid;
    m_used -= found->second.held;
    m_line.erase(found->second.ticket);
    m_clients.erase(found);
    std::set<quint64> &others = m_byUser[uid];
    others.erase(client);
    if (others.empty()) {
        m_byUser.erase(uid);
    } else if (Client &oldest = m_clients.at(*others.begin()); oldest.ticket != 0) {
        grant(oldest);
    }
    serveLine();
}

bool Budget::ask(quint64 client, qint64 bytes)
{
    Client &asking = m_clients.at(client);
    const bool fits = m_line.empty() && m_used - asking.held + bytes <= m_bytes;
    if (bytes <= asking.held || fits || neverWaits(client, asking))
        return true;

    asking.asked = bytes;
    if (asking.ticket == 0) {
        asking.ticket = ++m_lastTicket;
        m_line.emplace(asking.ticket, client);
    }
    return false;
}

void Budget::hold(quint64 client, qint64 bytes)
{
    Client &holder = m_clients.at(client);
    const qint64 before = std::exchange(holder.held, bytes);
    m_used += bytes - before;
    if (bytes < before)
        serveLine();
}

qsizetype Budget::clientsOf(quint32 uid) const
{
    const auto found = m_byUser.find(uid);
    return found == m_byUser.end() ? 0 : static_cast<qsizetype>(found->second.size());
}

bool Budget::neverWaits(quint64 number, const Client &client) const
{
    return client.uid == 0 || *m_byUser.at(client.uid).begin() == number;
}

// Lets those in front of the line have what they asked for, as far as it goes. Whoever is in front holds up those
// behind: else a big request would wait as long as there are small ones.
void Budget::serveLine()
{
    while (!m_line.empty()) {
        Client &first = m_clients.at(m_line.begin()->second);
        if (m_used - first.held + first.asked > m_bytes)
            return;
        grant(first);
    }
}

void Budget::grant(Client &client)
{
    m_line.erase(std::exchange(client.ticket, 0));
    m_used += client.asked - client.held;
    client.held = client.asked;
    client.onRoom();
}

} // namespace corv
