#pragma once

#include <QString>

#include <map>
#include <string>
#include <vector>

namespace corv::ctl {

struct Session;

// What a parameter's value names, for completion on the shell's command line.
enum class Names { Nothing, Account, File, AgentCommand, Backup, PhpVersion };

enum class Kind {
    Required, // a word at its place
    Optional, // a word at its place that may be left out
    Words,    // any number of words, the last of all
    Flag,     // an option without a value
    Value     // an option with a value
};

// A word or option of a command. Options are written with their dashes, "--wait" or "-l,--long"; words in capitals.
struct Parameter
{
    const char *name;
    const char *help;
    Kind kind = Kind::Required;
    Names names = Names::Nothing;
    std::vector<const char *> choices = {}; // the only values that are taken; any where there are none
};

// What was given for a command's parameters, by the name of the word or of the long option ("--wait").
class Given
{
public:
    explicit Given(std::map<std::string, std::string> values,
                   std::map<std::string, std::vector<std::string>> words = {})
        : m_values(std::move(values)), m_words(std::move(words))
    {}

    [[nodiscard]] bool has(const char *name) const
    {
        return m_values.contains(name);
    }
    // The bytes as they were typed; empty when it was not given.
    [[nodiscard]] std::string bytes(const char *name) const
    {
        const auto found = m_values.find(name);
        return found == m_values.end() ? std::string() : found->second;
    }
    [[nodiscard]] QString text(const char *name) const
    {
        return QString::fromStdString(bytes(name));
    }
    // Each of the words of a parameter that takes any number of them.
    [[nodiscard]] std::vector<std::string> words(const char *name) const
    {
        const auto found = m_words.find(name);
        return found == m_words.end() ? std::vector<std::string>() : found->second;
    }

private:
    std::map<std::string, std::string> m_values;
    std::map<std::string, std::vector<std::string>> m_words;
};

// Does a command's work and returns the exit status.
using Handler = int (*)(Session &, const Given &);

// A command of corvctl: one with a handler, or a topic that has commands of its own.
struct Command
{
    const char *name;
    const char *help; // one sentence; the first line of the command's help
    std::vector<Parameter> parameters = {};
    Handler handler = nullptr;
    std::vector<Command> commands = {};
    bool isSurvey = false; // of several servers, what it prints with --plain is made one line for each
};

// The topics, one function each; main lists them.
Command accountCommand();
Command backupCommand();
Command banCommand();
Command callCommand();
Command completionCommand();
Command databaseCommand();
Command doctorCommand();
Command fileCommand();
Command firewallCommand();
Command helpCommand(const std::vector<Command> &others); // last, since it knows of all others
Command hostCommand();
Command httpsCommand();
Command metricsCommand();
Command notifyCommand();
Command offsiteCommand();
Command phpCommand();
Command proxyCommand();
Command quotaCommand();
Command serverCommand();
Command serviceCommand();
Command statusCommand();
Command updateCommand();

} // namespace corv::ctl
