#include "ctl/CommandLine.h"

#include "ctl/Described.h"

#include <CLI/CLI.hpp>

#include <cstring>
#include <memory>

namespace corv::ctl {
namespace {

// The name under which a parameter is given to its handler: a word's own, an option's last one.
std::string key(const Parameter &parameter)
{
    const char *comma = std::strrchr(parameter.name, ',');
    return comma ? comma + 1 : parameter.name;
}

bool isWord(const Parameter &parameter)
{
    return parameter.kind == Kind::Required || parameter.kind == Kind::Optional;
}

void addParameter(CLI::App &app, const Parameter &parameter)
{
    if (parameter.kind == Kind::Flag) {
        app.add_flag(parameter.name, parameter.help);
        return;
    }
    CLI::Option *option = app.add_option(parameter.name, parameter.help);
    option->expected(1);
    option->type_name(isWord(parameter) ? "" : "VALUE");
    if (parameter.kind == Kind::Required)
        option->required();
    if (!parameter.choices.empty())
        option->check(CLI::IsMember(std::vector<std::string>(parameter.choices.begin(), parameter.choices.end())));
}

// Adds a command with all below it, those that the line does not name by name and help only.
void addCommand(CLI::App &parent, const Command &command, const char *wanted, const char *wantedBelow)
{
    CLI::App *app = parent.add_subcommand(command.name, command.help);
    if (wanted && std::strcmp(wanted, command.name) != 0)
        return;
    for (const Parameter &parameter : command.parameters)
        addParameter(*app, parameter);
    for (const Command &below : command.commands)
        addCommand(*app, below, wantedBelow, nullptr);
    if (!command.commands.empty())
        app->require_subcommand(1);
}

void addOptions(CLI::App &app, Options *options)
{
    app.set_version_flag("--version", std::string("corvctl ") + version());
    app.add_flag("--json", options->json, "Print the reply line unchanged");
    app.add_flag("--plain", options->plain, "Print tab-separated values without titles");
    app.add_flag("-n,--print-only", options->printOnly, "Print the request instead of sending it");
    app.add_option("--confirm", options->confirm, "Confirm a dangerous step with the name that it asks for")
        ->type_name("NAME");
    app.add_option("--timeout", options->timeout, "Wait so many seconds for a reply")
        ->check(CLI::Range(1, 1'000'000))
        ->type_name("SECONDS");
    app.add_option("--socket", options->socket, "Where the agent listens")->type_name("PATH");
    app.add_option("-c,--config", options->config, "The agent's settings file")->type_name("FILE");
    app.add_option("-H,--host", options->hosts, "Run on another server; may be given several times")
        ->type_name("[USER@]HOST")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->allow_extra_args(false);
}

// The command that was named, and its app.
const Command *chosen(const std::vector<Command> &commands, const CLI::App &app, const CLI::App **its)
{
    for (const Command &command : commands) {
        const CLI::App *found = app.get_subcommand(command.name);
        if (!found->parsed())
            continue;
        *its = found;
        return command.commands.empty() ? &command : chosen(command.commands, *found, its);
    }
    return nullptr;
}

Given givenTo(const Command &command, const CLI::App &app)
{
    std::map<std::string, std::string> values;
    for (const Parameter &parameter : command.parameters) {
        const std::string name = key(parameter);
        const CLI::Option *option = app.get_option(name);
        if (option->count() > 0)
            values[name] = option->results().back();
    }
    return Given(std::move(values));
}

} // namespace

Parsed parseCommandLine(const std::vector<Command> &commands, int argc, const char *const *argv, Options *options)
{
    CLI::App app("Administers the Corvane hosting agent of this or another server.", "corvctl");
    addOptions(app, options);
    app.require_subcommand(1);
    app.fallthrough();
    for (const Command &command : commands)
        addCommand(app, command, nullptr, nullptr);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        const int code = app.exit(error, std::cout, std::cerr);
        return {nullptr, Given({}), code == 0 ? kDone : kWrongUsage};
    }

    const CLI::App *its = nullptr;
    const Command *command = chosen(commands, app, &its);
    if (!command)
        return {nullptr, Given({}), kWrongUsage};
    return {command->handler, givenTo(*command, *its), kDone};
}

} // namespace corv::ctl
