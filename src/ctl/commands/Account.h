#pragma once

#include <QJsonObject>
#include <QString>

namespace corv::ctl {

class Given;
struct Session;

// The argument username of a request, from the word ACCOUNT.
QJsonObject accountIn(const Given &given);

// Adds what is read from a file, or from standard input for "-", to a request. False, after a word on standard error,
// when it cannot be read.
bool addSource(const Session &session, const QString &path, const QString &member, QJsonObject *args);

// The commands of the topic that have a source of their own; each returns the exit status.
int createAccount(Session &session, const Given &given);
int deleteAccount(Session &session, const Given &given);
int suspendAccount(Session &session, const Given &given);
int resumeAccount(Session &session, const Given &given);
int changeDomain(Session &session, const Given &given);
int accountHttps(Session &session, const Given &given);
int publishAccount(Session &session, const Given &given);
int listAccounts(Session &session, const Given &given);
int showAccount(Session &session, const Given &given);
int exportOfAccount(Session &session, const Given &given);
int moveOfAccount(Session &session, const Given &given);
int moveOfAllAccounts(Session &session, const Given &given);
int forwardOfAccount(Session &session, const Given &given);
int forwardedToAccount(Session &session, const Given &given);
int restoreOfAccount(Session &session, const Given &given);
int accountState(Session &session, const Given &given);

} // namespace corv::ctl
