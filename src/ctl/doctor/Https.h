#pragma once

#include "common/HttpsState.h"
#include "ctl/doctor/Finding.h"
#include "ctl/https/View.h"

#include <QList>

namespace corv::ctl {

// What is wrong with HTTPS for accounts, by what is kept of it and what is to be told of each site.
QList<Finding> checkHttps(const https::State &state, const QList<HttpsSite> &sites);

} // namespace corv::ctl
