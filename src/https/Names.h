#pragma once

#include "common/Certificate.h"
#include "common/HttpsState.h"
#include "https/Twin.h"

#include <QByteArray>
#include <QList>
#include <QSet>

#include <optional>

namespace corv::https {

// The names that others than us answer for on port 443.
struct Others
{
    QSet<QString> names;
    QStringList patterns; // names with * and ? in them
    bool any = false;     // whether there is any site there

    bool operator==(const Others &) const = default;
};

// The names in what "apache2 -t -D DUMP_VHOSTS" prints, but for those from the file of that path.
Others parseVhosts(const QByteArray &output, const QString &ownFile);

// Whether others answer for the name.
bool isTaken(const Others &others, const QString &name);

// What is known of an account's site before it is put on port 443.
struct Candidate
{
    AccountSite site;
    SiteOptions options = {};
    bool optionsAreClear = true;                 // false: the file with its choices cannot be read
    bool certified = false;                      // there is a valid certificate for it
    std::optional<Certificate> certificate = {}; // the one that there is
};

// The twins of the sites, in their order, and what is to be told of each site that has none or lacks a name. Each name
// belongs to the first that has it, as on port 80, and never to one of ours where others have it. A certificate is
// asked for only where all its names lead here and no order has to wait; a www name that does not lead here is left
// out.
struct Plan
{
    QList<Twin> twins;
    QMap<QString, SiteState> sites; // by account; names and refusals not filled in
    QStringList unseen;             // names that were never asked whether they lead here
};
Plan plan(const QList<Candidate> &candidates, const Others &others, const State &state, qint64 now, int room);

} // namespace corv::https
