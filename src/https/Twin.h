#pragma once

#include "common/HttpsOptions.h"
#include "https/Recognise.h"

#include <QByteArray>
#include <QString>

namespace corv::https {

// An account's site on port 443.
struct Twin
{
    AccountSite site;
    bool www = true;        // with the www name beside the bare one
    bool renews = false;    // Apache gets and renews its certificate; else it uses the one that there is
    bool certified = false; // there is a certificate that browsers take
    SiteOptions options = {};
};

// What its certificate is for: the bare name, and the www name where that is one of its own.
QStringList namesOf(const Twin &twin);

// Its part of the file that Apache includes: the names of its certificate, and the site on port 443 with the same body
// as on port 80. tls holds the directives of the protocol's settings, each on a line of its own.
QByteArray twinText(const Twin &twin, const QByteArray &tls);

// What was chosen for all of them.
struct Authority
{
    QString directory;        // the URL of the authority; empty: the one that Apache knows
    QString caFile;           // whom to trust as that authority's server; empty: as the system does
    QString contact;          // a mail address
    QString bindingKeyFile;   // an external account binding, as Apache reads it; empty: none
    QString retry = {};       // after which Apache asks again by itself
    QString renewWindow = {}; // how long before its end a certificate is renewed
    QString check = {};       // how often Apache looks whether it is time for that
};

// What stands before all twins. With answersForOthers, names that nobody has get an answer of their own here; where the
// administrator has sites on port 443, one of these has it already.
QByteArray baseText(const Authority &authority, bool answersForOthers, const QByteArray &tls);

} // namespace corv::https
