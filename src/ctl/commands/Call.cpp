#include "ctl/Command.h"
#include "ctl/Input.h"
#include "ctl/Session.h"
#include "ctl/screen/Escape.h"

#include "common/Json.h"

#include <QJsonDocument>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// Sends any request as it is, also one that this program does not know.
int call(Session &session, const Given &given)
{
    QByteArray json = QByteArray::fromStdString(given.bytes("JSON"));
    if (json == "-") {
        const std::optional<QByteArray> input = readSource(session, u"-"_s);
        if (!input)
            return kWrongUsage;
        json = *input;
    }
    QJsonParseError error = {};
    const QJsonDocument document =
        json.trimmed().isEmpty() ? QJsonDocument(QJsonObject()) : QJsonDocument::fromJson(json, &error);
    if (!document.isObject())
        return fail(kWrongUsage, u"the arguments are no JSON object"_s, error.errorString());

    const Answer answer = ask(session, given.text("COMMAND"), parseObject(json));
    if (const std::optional<int> end = settled(session, answer))
        return *end;
    print((session.terminal.out ? escapedJson(answer.line) : answer.line) + '\n');
    return kDone;
}

} // namespace

Command callCommand()
{
    return {
        "call",
        "Send one command of the protocol and print the reply line",
        {{"COMMAND", "the command, such as ping; man corv-protocol lists them", Kind::Required, Names::AgentCommand},
         {"JSON", "its arguments as a JSON object; - reads them from standard input", Kind::Optional}},
        call};
}

} // namespace corv::ctl
