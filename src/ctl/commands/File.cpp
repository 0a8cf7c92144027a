#include "ctl/commands/File.h"
#include "ctl/Command.h"
#include "ctl/Input.h"
#include "ctl/NewFile.h"
#include "ctl/Session.h"
#include "ctl/Transfer.h"
#include "ctl/screen/Escape.h"
#include "ctl/screen/Table.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

const Parameter kAccount = {"ACCOUNT", "the account's name", Kind::Required, Names::Account};
const Parameter kPath = {"PATH", "a path in the account's home"};

int list(Session &session, const Given &given)
{
    const Answer answer = ask(session, u"files"_s, fileArguments(given, u"list"_s));
    if (const std::optional<int> end = settled(session, answer))
        return *end;
    QList<Row> rows;
    for (const QJsonValue value : answer.reply.value("entries"_L1).toArray()) {
        const QJsonObject entry = value.toObject();
        const bool folder = entry.value("dir"_L1).toBool();
        const bool link = entry.value("link"_L1).toBool();
        rows.append({text(entry.value("name"_L1).toString(), folder ? Colour::Strong : Colour::None),
                     text(link     ? u"link"_s
                          : folder ? u"folder"_s
                                   : u"file"_s),
                     folder ? nothing() : bytes(entry.value("size"_L1).toInteger()), timeIn(entry, "mtime"_L1),
                     text(entry.value("mode"_L1).toString())});
    }
    printTable(session, {u"NAME"_s, u"KIND"_s, u"SIZE"_s, u"CHANGED"_s, u"MODE"_s}, rows);
    if (answer.reply.value("truncated"_L1).toBool())
        note(u"there are more entries than these %1"_s.arg(rows.size()));
    return kDone;
}

int read(Session &session, const Given &given)
{
    const Answer answer = ask(session, u"files"_s, fileArguments(given, u"read"_s));
    if (const std::optional<int> end = settled(session, answer))
        return *end;
    const QString content = answer.reply.value("content"_L1).toString();
    print((session.terminal.out ? escapedLines(content) : content).toUtf8());
    return kDone;
}

int write(Session &session, const Given &given)
{
    const QString from = given.has("--from") ? given.text("--from") : u"-"_s;
    const std::optional<QByteArray> content = readSource(session, from);
    if (!content)
        return kWrongUsage;
    if (!content->isValidUtf8())
        return fail(kWrongUsage, u"that is no text in UTF-8"_s, u"corvctl file put sends any file"_s);
    QJsonObject args = fileArguments(given, u"write"_s);
    args.insert(u"content"_s, QString::fromUtf8(*content));
    const Answer answer = ask(session, u"files"_s, args);
    return settledWith(session, answer,
                       u"%1: %2"_s.arg(given.text("PATH"), humanBytes(answer.reply.value("size"_L1).toInteger())));
}

int put(Session &session, const Given &given)
{
    if (given.has("--recursive"))
        return putFolder(session, given);
    const QString local = given.text("FILE");
    if (local == "-"_L1 && session.options.isOneOfMany)
        return fail(kWrongUsage, u"standard input cannot go to several servers: name a FILE"_s);
    QString path = given.text("PATH");
    if (path.isEmpty() || path.endsWith(u'/'))
        path += lastPart(local);
    if (local == "-"_L1 && lastPart(path) == "-"_L1)
        return fail(kWrongUsage, u"standard input has no name: give a PATH"_s);

    const QString name = transferName();
    const QJsonObject args = {
        {u"username"_s, given.text("ACCOUNT")}, {u"op"_s, u"upload"_s}, {u"path"_s, path}, {u"transfer"_s, name}};
    if (session.options.printOnly)
        return *settled(session, ask(session, u"files"_s, args));

    const Fd source(local == "-"_L1 ? ::dup(STDIN_FILENO)
                                    : ::open(QFile::encodeName(local).constData(), O_RDONLY | O_CLOEXEC));
    if (!source)
        return fail(kWrongUsage, u"cannot read %1: %2"_s.arg(local, QString::fromLocal8Bit(std::strerror(errno))));
    const Transferred sent = putIntoTransfer(session, source, name, escaped(lastPart(path)));
    if (sent.status != kDone)
        return fail(sent.status, u"%1: %2"_s.arg(local, sent.problem));

    const Answer answer = ask(session, u"files"_s, args);
    if (!answer.ok())
        removeFromTransfer(session, name); // what it takes it also removes
    return settledWith(session, answer, u"%1: %2"_s.arg(path, humanBytes(answer.reply.value("size"_L1).toInteger())));
}

int get(Session &session, const Given &given)
{
    if (given.has("--recursive"))
        return getFolder(session, given);
    if (session.options.isOneOfMany)
        return fail(kWrongUsage, u"files of several servers cannot have one name: name one server"_s);
    QString local = given.text("FILE");
    if (local.isEmpty())
        local = u"."_s;
    if (local != "-"_L1 && QFileInfo(local).isDir())
        local += u'/' + lastPart(given.text("PATH"));
    if (local == "-"_L1 && session.terminal.out)
        return fail(kWrongUsage, u"standard output is a terminal"_s, u"name a FILE, or use corvctl file cat"_s);

    const Answer answer = ask(session, u"files"_s, fileArguments(given, u"download"_s));
    if (answer.fate == Answer::Fate::Printed || !answer.ok())
        return *settled(session, answer);
    const int status = fetchDownload(session, answer.reply, local, escaped(lastPart(given.text("PATH"))));
    if (status != kDone || local == "-"_L1)
        return status;
    return settledWith(session, answer, u"%1: %2"_s.arg(local, humanBytes(answer.reply.value("size"_L1).toInteger())));
}

int makeFolder(Session &session, const Given &given)
{
    return settledWith(session, ask(session, u"files"_s, fileArguments(given, u"mkdir"_s)),
                       u"%1 is made"_s.arg(given.text("PATH")));
}

int move(Session &session, const Given &given)
{
    QJsonObject args = fileArguments(given, u"rename"_s);
    args.insert(u"to"_s, given.text("TO"));
    return settledWith(session, ask(session, u"files"_s, args),
                       u"%1 is %2 now"_s.arg(given.text("PATH"), given.text("TO")));
}

int remove(Session &session, const Given &given)
{
    const QString path = given.text("PATH");
    const QString name = lastPart(path);
    const std::optional<QString> typed = confirmation(
        session, u"This deletes %1 with all that is in it. Type %2 to go on:"_s.arg(escaped(path), escaped(name)));
    if (!typed)
        return kWrongUsage;
    if (*typed != name)
        return fail(kWrongUsage, u"that is not the name, so nothing was deleted"_s);
    return settledWith(session, ask(session, u"files"_s, fileArguments(given, u"delete"_s)),
                       u"%1 is deleted"_s.arg(path));
}

} // namespace

QJsonObject fileArguments(const Given &given, const QString &operation)
{
    return {{u"username"_s, given.text("ACCOUNT")}, {u"op"_s, operation}, {u"path"_s, given.text("PATH")}};
}

QString lastPart(const QString &path)
{
    return QFileInfo(path.endsWith(u'/') ? path.chopped(1) : path).fileName();
}

int fetchDownload(const Session &session, const QJsonObject &download, const QString &local, const QString &what)
{
    const QString name = download.value("transfer"_L1).toString();
    const qint64 size = download.value("size"_L1).toInteger(-1);
    // A device or a pipe must not be replaced by a file.
    const bool inPlace = QFileInfo::exists(local) && !QFileInfo(local).isFile();
    if (local == "-"_L1 || inPlace) {
        const Fd target(inPlace ? ::open(QFile::encodeName(local).constData(), O_WRONLY | O_CLOEXEC)
                                : ::dup(STDOUT_FILENO));
        const Transferred taken = takeFromTransfer(session, name, size, target, what);
        return taken.status == kDone ? kDone : fail(taken.status, taken.problem);
    }
    NewFile file(local);
    if (!file.isOpen()) {
        const QString problem = QString::fromLocal8Bit(std::strerror(errno));
        removeFromTransfer(session, name);
        return fail(kRefused, u"%1: cannot write: %2"_s.arg(local, problem));
    }
    const Transferred taken = takeFromTransfer(session, name, size, file.descriptor(), what);
    if (taken.status != kDone)
        return fail(taken.status, u"%1: %2"_s.arg(local, taken.problem));
    return file.keep() ? kDone : fail(kRefused, u"%1: cannot be replaced"_s.arg(local));
}

Command fileCommand()
{
    return {
        "file",
        "The files of an account, used with its user's own rights",
        {},
        nullptr,
        {{"ls", "List a folder", {kAccount, {"PATH", "the folder; the home without this", Kind::Optional}}, list},
         {"cat", "Print a text file", {kAccount, kPath}, read},
         {"write",
          "Write a text file from standard input",
          {kAccount, kPath, {"--from", "take the text from this file", Kind::Value, Names::File}},
          write},
         {"edit",
          "Edit a text file with $EDITOR, and write it back unless it was changed meanwhile",
          {kAccount, kPath},
          editFile},
         {"put",
          "Send a file of up to 256 MiB",
          {kAccount,
           {"FILE", "a file of this machine; - for standard input", Kind::Required, Names::File},
           {"PATH", "where it goes; its own name in the home without this", Kind::Optional},
           {"-r,--recursive", "send a folder with all that is in it", Kind::Flag}},
          put},
         {"get",
          "Fetch a file of up to 256 MiB",
          {kAccount,
           kPath,
           {"FILE", "where it goes; here without this, - for standard output", Kind::Optional, Names::File},
           {"-r,--recursive", "fetch a folder with all that is in it", Kind::Flag}},
          get},
         {"mkdir", "Make a folder", {kAccount, kPath}, makeFolder},
         {"mv", "Rename or move a file or folder; replaces nothing", {kAccount, kPath, {"TO", "the new path"}}, move},
         {"rm", "Delete a file or folder with all that is in it; asks for its name", {kAccount, kPath}, remove}}};
}

} // namespace corv::ctl
