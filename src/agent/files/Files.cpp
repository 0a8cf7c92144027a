#include "agent/files/Files.h"

#include "agent/files/Transfer.h"
#include "agent/hosting/Existing.h"
#include "common/Json.h"
#include "common/Run.h"
#include "common/Transfer.h"

#include <QStringList>
#include <QTimer>

#include <memory>
#include <optional>
#include <utility>

#include <pwd.h>

using namespace Qt::Literals::StringLiterals;

namespace corv::files {
namespace {

// More than a text of 2 MiB can become when each of its bytes is written as an escape, and more than 5000 entries can.
constexpr qsizetype kMaxAnswer = 16'777'216;
// What a file that the helper writes may grow to before it is ended. The largest transfer must not touch it: whoever
// looks for more at the end of a file is held to be about to write it.
constexpr qint64 kFileFence = kMaxTransfer + 1'048'576;

bool isOperation(const QString &name)
{
    static const QStringList operations = {u"list"_s,   u"read"_s,   u"write"_s,  u"mkdir"_s,
                                           u"rename"_s, u"delete"_s, u"upload"_s, u"download"_s};
    return operations.contains(name);
}

// Whether a path would reach the helper as it is: neither cut short at a NUL, nor with other characters in the place of
// halves of surrogate pairs.
bool canBePassed(const QString &path)
{
    return !path.contains(QChar(u'\0')) && path.isValidUtf16();
}

Reply download(const QStringList &helper)
{
    Download file;
    if (!file)
        return fail(u"cannot start"_s); // the last part of what the runner says without a place for the output

    hosting::Streams streams;
    streams.outputFile = file.descriptor();
    streams.maxFileSize = kFileFence;
    if (const QString error = hosting::runWith(u"runuser"_s, helper, streams); !error.isEmpty())
        return fail(error.section(": "_L1, -1));

    const std::optional<qint64> size = file.handOver();
    if (!size)
        return fail(u"cannot hand the file over"_s);
    return {{u"ok"_s, true}, {u"transfer"_s, file.name()}, {u"size"_s, *size}};
}

// What the helper answers is the account's word, not ours: it runs under the account's user, who may have stepped in.
Reply ask(const QStringList &helper, hosting::Streams streams)
{
    QByteArray output;
    streams.output = &output;
    streams.maxOutput = kMaxAnswer;
    if (const QString error = hosting::runWith(u"runuser"_s, helper, streams); !error.isEmpty())
        return fail(error);
    const Reply answer = parseObject(output);
    return answer.isEmpty() ? fail(u"the file helper gave no answer"_s) : answer;
}

// Closes a file that has no name any more once the reply is on its way: the system then gives its space back, which
// takes a good part of the time that copying it took.
void closeLater(Fd file)
{
    QTimer::singleShot(0, [kept = std::make_shared<Fd>(std::move(file))] { kept->reset(); });
}

Reply upload(const QStringList &helper, const QString &transfer)
{
    if (!validTransferName(transfer))
        return fail(u"bad transfer name"_s);
    Fd file = takeUpload(transfer);
    if (!file)
        return fail(u"the upload is missing or too big"_s);

    hosting::Streams streams;
    streams.inputFile = file.get();
    streams.maxFileSize = kFileFence; // whoever still has the upload open could let it grow
    const Reply answer = ask(helper, streams);
    closeLater(std::move(file));
    return answer;
}

} // namespace

Reply command(const QJsonObject &args, const QString &self)
{
    QString user;
    if (const QString problem = hosting::checkExisting(args, &user); !problem.isEmpty())
        return fail(problem);
    const passwd *entry = ::getpwnam(user.toLocal8Bit().constData());
    if (!entry)
        return fail(u"no such user"_s);
    const QString home = QString::fromLocal8Bit(entry->pw_dir);

    const QString operation = args.value("op"_L1).toString();
    if (!isOperation(operation))
        return fail(u"unknown file operation"_s);
    QStringList paths = {args.value("path"_L1).toString()};
    if (operation == "rename"_L1)
        paths.append(args.value("to"_L1).toString());
    for (const QString &path : std::as_const(paths)) {
        if (!canBePassed(path))
            return fail(u"that path is outside the account's home"_s);
    }

    const QStringList helper = QStringList{u"-u"_s, user, u"--"_s, self, u"--files"_s, operation, home} + paths;
    if (operation == "download"_L1)
        return download(helper);
    if (operation == "upload"_L1)
        return upload(helper, args.value("transfer"_L1).toString());
    hosting::Streams streams;
    if (operation == "write"_L1)
        streams.input = args.value("content"_L1).toString().toUtf8();
    return ask(helper, streams);
}

} // namespace corv::files
