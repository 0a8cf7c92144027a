#include "ctl/CommandLine.h"

#include "ctl/Described.h"
#include "ctl/Meant.h"
#include "ctl/Typing.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <optional>
#include <set>

namespace corv::ctl {
namespace {

constexpr auto kHost = "--host";
constexpr int kMostWords = 10'000;

// The name under which a parameter is given to its handler: a word's own, an option's last one.
std::string key(const Parameter &parameter)
{
    const char *comma = std::strrchr(parameter.name, ',');
    return comma ? comma + 1 : parameter.name;
}

bool isWord(const Parameter &parameter)
{
    return parameter.kind == Kind::Required || parameter.kind == Kind::Optional || parameter.kind == Kind::Words;
}

void addParameter(CLI::App &app, const Parameter &parameter)
{
    if (parameter.kind == Kind::Flag) {
        app.add_flag(parameter.name, parameter.help);
        return;
    }
    CLI::Option *option = app.add_option(parameter.name, parameter.help);
    option->expected(1);
    if (parameter.kind == Kind::Words)
        option->expected(0, kMostWords)->allow_extra_args();
    option->type_name(isWord(parameter) ? "" : "VALUE");
    if (parameter.kind == Kind::Required)
        option->required();
    if (!parameter.choices.empty())
        option->check(CLI::IsMember(std::vector<std::string>(parameter.choices.begin(), parameter.choices.end())));
}

// Adds a command with all below it. What the line does not name is added by name and help alone: most of a run's time
// would go into the parameters of commands that nobody asked for.
void addCommand(CLI::App &parent, const Command &command, const std::set<std::string> &words)
{
    CLI::App *app = parent.add_subcommand(command.name, command.help);
    if (!words.contains(command.name))
        return;
    for (const Parameter &parameter : command.parameters)
        addParameter(*app, parameter);
    for (const Command &below : command.commands)
        addCommand(*app, below, words);
    if (!command.commands.empty())
        app->require_subcommand(1);
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

Given givenTo(const std::vector<Parameter> &parameters, const CLI::App &app)
{
    std::map<std::string, std::string> values;
    std::map<std::string, std::vector<std::string>> words;
    for (const Parameter &parameter : parameters) {
        const std::string name = key(parameter);
        const CLI::Option *option = app.get_option(name);
        if (option->count() > 0)
            values[name] = option->results().back();
        if (option->count() > 0 && parameter.kind == Kind::Words)
            words[name] = option->results();
    }
    return Given(std::move(values), std::move(words));
}

void readCommonOptions(const CLI::App &app, Options *options)
{
    const Given given = givenTo(commonOptions(), app);
    options->json = given.has("--json");
    options->plain = given.has("--plain");
    options->printOnly = given.has("--print-only");
    if (given.has("--confirm"))
        options->confirm = given.bytes("--confirm");
    options->timeout = given.text("--timeout").toInt();
    options->socket = given.bytes("--socket");
    options->config = given.bytes("--config");
    options->hosts = app.get_option(kHost)->results();
}

// Where the only thing that is missing is the name of an account and this server has but one, that is named.
void hintAtAccount(const Command &command, const CLI::App &app, bool isHere)
{
    const bool isMissing =
        std::any_of(command.parameters.begin(), command.parameters.end(), [&app](const Parameter &parameter) {
            return parameter.kind == Kind::Required && parameter.names == Names::Account &&
                   app.get_option(key(parameter))->empty();
        });
    const std::optional<QStringList> names = isMissing && isHere ? accountNames({}) : std::nullopt;
    if (names && names->size() == 1)
        std::cerr << "the only account is '" << names->first().toStdString() << "'\n";
}

} // namespace

const std::vector<Parameter> &commonOptions()
{
    static const std::vector<Parameter> options = {
        {"--json", "Print the reply line unchanged", Kind::Flag},
        {"--plain", "Print tab-separated values without titles", Kind::Flag},
        {"-n,--print-only", "Print the request instead of sending it", Kind::Flag},
        {"--confirm", "Confirm a dangerous step with the NAME that it asks for", Kind::Value},
        {"--timeout", "Wait so many seconds for a reply", Kind::Value},
        {"--socket", "The PATH of the agent's socket", Kind::Value, Names::File},
        {"-c,--config", "The agent's settings FILE", Kind::Value, Names::File},
        {"-H,--host", "Run on another server, [USER@]HOST or @GROUP; may be given several times", Kind::Value},
    };
    return options;
}

Parsed parseCommandLine(const std::vector<Command> &commands, int argc, const char *const *argv, Options *options)
{
    CLI::App app("Administers the Corvane hosting agent of this or another server.", "corvctl");
    app.set_version_flag("-v,--version", std::string("corvctl ") + version());
    for (const Parameter &option : commonOptions())
        addParameter(app, option);
    app.get_option("--timeout")->check(CLI::Range(1, 1'000'000));
    app.get_option(kHost)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)->allow_extra_args(false);
    app.require_subcommand(1);
    app.fallthrough();
    const std::set<std::string> words(argv + 1, argv + argc);
    for (const Command &command : commands)
        addCommand(app, command, words);

    const Mistake mistake = mistakeIn(commands, commonOptions(), argc, argv);
    if (!mistake.problem.isEmpty())
        return {nullptr, Given({}), fail(kWrongUsage, mistake.problem, mistake.hint)};

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        const int code = app.exit(error, std::cout, std::cerr);
        const CLI::App *its = nullptr;
        const Command *command = chosen(commands, app, &its);
        if (command && error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError))
            hintAtAccount(*command, *its, app.get_option(kHost)->empty());
        return {nullptr, Given({}), code == 0 ? kDone : kWrongUsage};
    }

    readCommonOptions(app, options);
    const CLI::App *its = nullptr;
    const Command *command = chosen(commands, app, &its);
    if (!command)
        return {nullptr, Given({}), kWrongUsage};
    return {command->handler, givenTo(command->parameters, *its), kDone, command->isSurvey};
}

} // namespace corv::ctl
