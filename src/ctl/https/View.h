#pragma once

#include "common/Certificate.h"
#include "common/HttpsOptions.h"
#include "common/HttpsState.h"

#include <QList>
#include <QString>

#include <optional>

namespace corv::ctl {

// What is told of one account's site on port 443.
struct HttpsSite
{
    enum class Stage {
        Off,     // it was switched off for this account
        LeftOut, // it cannot be there
        Waiting, // it has no certificate yet
        Served,  // with a certificate that is good
        Ending,  // likewise, which should have been renewed
        Expired, // with one that is not good any more, or not yet
    };
    QString account;
    QString domain;
    QStringList names; // that it answers to; none where it is left out
    Stage stage = Stage::Waiting;
    QString remark;     // why it is not served, or what is missing; empty where all is well
    qint64 ends = 0;    // of its certificate, in seconds since 1970; 0 without one
    qint64 begins = 0;  // likewise
    bool isOwn = false; // with a certificate that was brought
};

// A word for each stage, as the list shows it.
QString stageWord(HttpsSite::Stage stage);

// What is to be told of a site, by what is kept of it. certificate is the one that there is, now the time in seconds
// since 1970.
HttpsSite judgeSite(const QString &account, const https::State &state, const https::SiteOptions &options,
                    const std::optional<Certificate> &certificate, qint64 now);

// What is kept of HTTPS; nothing where it is switched off.
std::optional<https::State> readHttps();

// All sites that were seen at the last reload of Apache, by account. For root, who may read the certificates.
QList<HttpsSite> readHttpsSites(const https::State &state, qint64 now);

// The one of an account; nothing where it was not seen there.
std::optional<HttpsSite> readHttpsSite(const QString &account, const https::State &state, qint64 now);

} // namespace corv::ctl
