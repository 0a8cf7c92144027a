#pragma once

#include "ctl/metrics/Sample.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>

namespace corv::ctl {

// What a collector works with.
struct Circumstances
{
    QString settings;  // the path of the agent's settings file
    QByteArray socket; // where the agent listens
    qint64 now = 0;    // in seconds since 1970
    QJsonObject kept;  // what it kept the last time, and is to keep
};

// What a collector gives. problem says why it is not all there is, empty where it is.
struct Collected
{
    QList<Sample> samples;
    QJsonObject keep; // what it finds in kept the next time
    QString problem;
};

// Each reads and changes nothing, and may take its time: it works in a process of its own.
Collected collectAgent(const Circumstances &here);    // AgentMetrics.cpp
Collected collectRequests(const Circumstances &here); // AgentMetrics.cpp
Collected collectSecurity(const Circumstances &here); // AgentMetrics.cpp
Collected collectUpdates(const Circumstances &here);  // AgentMetrics.cpp
Collected collectAccounts(const Circumstances &here); // ServerMetrics.cpp
Collected collectUse(const Circumstances &here);      // ServerMetrics.cpp
Collected collectDisks(const Circumstances &here);    // ServerMetrics.cpp
Collected collectServices(const Circumstances &here); // ServerMetrics.cpp
Collected collectDoctor(const Circumstances &here);   // ServerMetrics.cpp
Collected collectBackups(const Circumstances &here);  // BackupMetrics.cpp
Collected collectOffsite(const Circumstances &here);  // BackupMetrics.cpp
Collected collectHttps(const Circumstances &here);    // HttpsMetrics.cpp

} // namespace corv::ctl
