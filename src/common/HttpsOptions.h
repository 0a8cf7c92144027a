#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

// What corv-https and corvctl both know of the sites' HTTPS: where things lie, and what is chosen for an account.
namespace corv::https {

// Chosen by the administrator: the authority, the contact; and a file for each account that has a choice of its own.
constexpr auto kSettingsFile = "/etc/corvane/https.conf";
constexpr auto kOptionsFolder = "/etc/corvane/https.d";
// Certificates and keys: the ones that Apache gets and renews, and copies of those that were brought. Below
// /etc/corvane, so that each backup has them.
constexpr auto kStore = "/etc/corvane/https/md";
constexpr auto kStagingFolder = "/etc/corvane/https/md/staging";
constexpr auto kOwnFolder = "/etc/corvane/https/own";
// The one file that Apache includes, and its name for a2ensite. It sorts behind the administrator's sites, so that the
// first of these stays the one that answers for names that nobody has.
constexpr auto kSiteName = "zz-corv-https";
constexpr auto kEnabledSite = "/etc/apache2/sites-enabled/zz-corv-https.conf";
// What is generated. It is written anew before each start of Apache, so it need not outlive the system, and a full disk
// does not keep a suspended site on-line.
constexpr auto kRunFolder = "/run/corvane/https";
constexpr auto kLiveFile = "/run/corvane/https/sites.conf";
// What was seen of the names, and what had to be left out.
constexpr auto kStateFolder = "/var/lib/corvane/https";
constexpr auto kStateFile = "/var/lib/corvane/https/state.json";
// What probes of names ask for, below /.well-known/corv-probe/.
constexpr auto kProbeFolder = "/run/corvane/https/probe";

// What was chosen for an account's site; as it is here where nothing was.
struct SiteOptions
{
    bool off = false;      // no HTTPS for this site
    bool redirect = false; // port 80 sends visitors to HTTPS, once there is a certificate
    bool hsts = false;     // browsers are told to come by HTTPS alone
    bool noWww = false;    // the www name is left out
    QString own;           // names the copies of a certificate and key that were brought; empty: Apache gets one

    bool operator==(const SiteOptions &) const = default;
};

// The choices in the text of an account's file, a word a line; nothing where any line is none of these.
std::optional<SiteOptions> parseOptions(const QByteArray &text);

// The text that parseOptions reads as these choices.
QByteArray optionsText(const SiteOptions &options);

// The file with an account's choices.
QString optionsPath(const QString &account);

// The copies of a certificate with its chain, and of its key, that an account's file names.
QString ownCertificatePath(const QString &own);
QString ownKeyPath(const QString &own);

} // namespace corv::https
