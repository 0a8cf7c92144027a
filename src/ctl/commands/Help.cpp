#include "ctl/Command.h"
#include "ctl/CommandLine.h"
#include "ctl/Session.h"

#include <string>
#include <vector>

namespace corv::ctl {
namespace {

// What the option --help prints behind the same words.
int help(Session &session, const Given &given)
{
    const std::string topic = given.bytes("TOPIC");
    const std::string command = given.bytes("COMMAND");
    std::vector<const char *> line = {"corvctl"};
    if (!topic.empty())
        line.push_back(topic.c_str());
    if (!command.empty())
        line.push_back(command.c_str());
    line.push_back("--help");
    Options options;
    return parseCommandLine(*session.commands, static_cast<int>(line.size()), line.data(), &options).status;
}

} // namespace

Command helpCommand(const std::vector<Command> &others)
{
    Parameter topic = {"TOPIC", "a topic, or a command that has none", Kind::Optional};
    for (const Command &command : others)
        topic.choices.push_back(command.name);
    topic.choices.push_back("help");
    return {"help",
            "Print help on all commands, a topic or one command",
            {topic, {"COMMAND", "a command of the topic", Kind::Optional}},
            help};
}

} // namespace corv::ctl
