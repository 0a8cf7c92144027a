#include "ctl/Command.h"
#include "ctl/CommandLine.h"
#include "ctl/Described.h"
#include "ctl/Session.h"

#include <QStringList>

using namespace Qt::Literals::StringLiterals;

// What a shell completes comes from the same tables as the command line itself.

namespace corv::ctl {
namespace {

// What may stand at one position of a command line.
struct Position
{
    QString path;   // the commands before it, such as "account keys"
    QString after;  // the option that it is the value of; empty for a word
    int number = 0; // how many words stand between the path and it
    Names names = Names::Nothing;
    QList<QStringList> words; // words, each with what is said of it
};

bool isOption(const Parameter &parameter)
{
    return parameter.kind == Kind::Flag || parameter.kind == Kind::Value;
}

QStringList spellings(const Parameter &parameter)
{
    return QString::fromUtf8(parameter.name).split(u',');
}

QList<QStringList> wordsFor(const Parameter &parameter)
{
    QList<QStringList> words;
    for (const char *choice : parameter.choices)
        words.append({QString::fromUtf8(choice), {}});
    if (parameter.names == Names::AgentCommand) {
        for (const Described &command : described())
            words.append({QString::fromUtf8(command.name), {}});
    }
    return words;
}

void addValues(const std::vector<Parameter> &parameters, const QString &path, QList<Position> *positions)
{
    for (const Parameter &parameter : parameters) {
        if (parameter.kind != Kind::Value)
            continue;
        for (const QString &spelling : spellings(parameter))
            positions->append({path, spelling, 0, parameter.names, wordsFor(parameter)});
    }
}

void addPositions(const std::vector<Command> &commands, const QString &path, QList<Position> *positions)
{
    Position first = {path, {}, 0, Names::Nothing, {}};
    for (const Command &command : commands)
        first.words.append({QString::fromUtf8(command.name), QString::fromUtf8(command.help)});
    positions->append(first);

    for (const Command &command : commands) {
        const QString below = (path + u' ' + QString::fromUtf8(command.name)).trimmed();
        if (!command.commands.empty()) {
            addPositions(command.commands, below, positions);
            continue;
        }
        addValues(command.parameters, below, positions);
        int number = 0;
        for (const Parameter &parameter : command.parameters) {
            if (!isOption(parameter))
                positions->append({below, {}, number++, parameter.names, wordsFor(parameter)});
        }
    }
}

// Each command's path with its options, each with what is said of it.
QList<Position> optionsOf(const std::vector<Command> &commands, const QString &path)
{
    QList<Position> all;
    for (const Command &command : commands) {
        const QString below = (path + u' ' + QString::fromUtf8(command.name)).trimmed();
        all += optionsOf(command.commands, below);
        Position options = {below, {}, 0, Names::Nothing, {}};
        for (const Parameter &parameter : command.parameters) {
            if (isOption(parameter))
                options.words.append({spellings(parameter).last(), QString::fromUtf8(parameter.help)});
        }
        if (!options.words.isEmpty())
            all.append(options);
    }
    return all;
}

QList<QStringList> commonWords()
{
    QList<QStringList> words;
    for (const Parameter &option : commonOptions())
        words.append({spellings(option).last(), QString::fromUtf8(option.help)});
    words.append({u"--help"_s, u"Print help"_s});
    words.append({u"--version"_s, u"Print the version"_s});
    return words;
}

QString quoted(QString text)
{
    return u'\'' + text.replace(u'\'', u"'\\''"_s) + u'\'';
}

// "NAME" and "NAME:what it does", as zsh takes them.
QString namesOf(const QList<QStringList> &words, bool withHelp)
{
    QStringList all;
    for (const QStringList &word : words)
        all.append(withHelp ? quoted(word[0] + u':' + word[1]) : word[0]);
    return all.join(u' ');
}

// The words that open a path, as patterns of a case statement on "PATH WORD".
QString pathPatterns(const QList<Position> &positions)
{
    QStringList patterns;
    for (const Position &position : positions) {
        if (!position.after.isEmpty() || position.number != 0)
            continue;
        for (const QStringList &word : position.words) {
            if (!word[1].isEmpty())
                patterns.append(u'"' + position.path + u' ' + word[0] + u'"');
        }
    }
    return patterns.join(u" | "_s);
}

// All options that take a value, as patterns.
QString valuePatterns(const QList<Position> &positions)
{
    QStringList patterns;
    for (const Position &position : positions) {
        if (!position.after.isEmpty() && !patterns.contains(position.after))
            patterns.append(position.after);
    }
    return patterns.join(u" | "_s);
}

// The one shape of both scripts: what was typed is read from the left into a path and a position, then looked up.
const auto kBash = uR"script(# Completion for corvctl; written by "corvctl completion bash".
_corvctl_accounts() {
    getent passwd | awk -F: '$5 ~ /^Corvane account/ { print $1 }'
}

_corvctl_backups() {
    corvctl --plain backup list 2>/dev/null </dev/null | cut -f 1
}

_corvctl_php() {
    find /etc/php -maxdepth 3 -path "*/fpm/pool.d" 2>/dev/null | cut -d / -f 4
}

_corvctl() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev="" path="" position=0 i word
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ -n $prev ]]; then
            prev=""
            continue
        fi
        case $word in
        %1) prev=$word ;;
        -*) ;;
        *)
            case "$path $word" in
            %2) path=${path:+$path }$word ;;
            *) position=$((position + 1)) ;;
            esac
            ;;
        esac
    done

    local words=""
    if [[ -n $prev ]]; then
        case "$path:$prev" in
%3        esac
    elif [[ $cur == -* ]]; then
        words="%4"
        case $path in
%5        esac
    else
        case "$path:$position" in
%6        esac
    fi
    # Not by compgen, which has the shell expand what stands in a name; and what comes on the line as it is holds
    # nothing that the shell takes for more than a word.
    local -a all
    IFS=$' \t\n' read -r -d "" -a all <<<"$words"
    for word in "${all[@]}"; do
        [[ $word != "$cur"* || $word == *[!A-Za-z0-9._-]* ]] || COMPREPLY+=("$word")
    done
}
complete -F _corvctl corvctl
)script"_s;

const auto kZsh = uR"script(#compdef corvctl
# Completion for corvctl; written by "corvctl completion zsh".
_corvctl_accounts() {
    local -a accounts
    accounts=(${(f)"$(getent passwd | awk -F: '$5 ~ /^Corvane account/ { print $1 }')"})
    compadd -a accounts
}

_corvctl_backups() {
    local -a backups
    backups=(${(f)"$(corvctl --plain backup list 2>/dev/null </dev/null | cut -f 1)"})
    compadd -a backups
}

_corvctl_php() {
    local -a versions
    versions=(${(f)"$(find /etc/php -maxdepth 3 -path '*/fpm/pool.d' 2>/dev/null | cut -d / -f 4)"})
    compadd -a versions
}

_corvctl() {
    local prev="" trail="" word
    local -i position=0 i
    local -a items
    for ((i = 2; i < CURRENT; i++)); do
        word=$words[i]
        if [[ -n $prev ]]; then
            prev=""
            continue
        fi
        case $word in
        %1) prev=$word ;;
        -*) ;;
        *)
            case "$trail $word" in
            %2) trail=${trail:+$trail }$word ;;
            *) position=$((position + 1)) ;;
            esac
            ;;
        esac
    done

    if [[ -n $prev ]]; then
        case "$trail:$prev" in
%3        esac
    elif [[ $words[CURRENT] == -* ]]; then
        items=(%4)
        case $trail in
%5        esac
    else
        case "$trail:$position" in
%6        esac
    fi
    (( ! $#items )) || _describe word items
}

_corvctl "$@"
)script"_s;

const auto kFish = uR"script(# Completion for corvctl; written by "corvctl completion fish".
function __corvctl_accounts
    getent passwd | awk -F: '$5 ~ /^Corvane account/ { print $1 }'
end

function __corvctl_backups
    corvctl --plain backup list 2>/dev/null </dev/null | cut -f 1
end

function __corvctl_php
    find /etc/php -maxdepth 3 -path "*/fpm/pool.d" 2>/dev/null | cut -d / -f 4
end

# Whether so many words stand behind this path.
function __corvctl_at
    set -l words (commandline -opc)
    set -e words[1]
    set -l path
    set -l position 0
    set -l value no
    for word in $words
        if test $value = yes
            set value no
            continue
        end
        switch $word
            case %1
                set value yes
            case '-*'
            case '*'
                if contains -- (string trim -- "$path $word") %2
                    set path (string trim -- "$path $word")
                else
                    set position (math $position + 1)
                end
        end
    end
    test "$path" = "$argv[1]"; and test "$argv[2]" = any -o "$argv[2]" = $position
end

complete -c corvctl -f
)script"_s;

// The lines of a case statement for bash or zsh that give what may stand at the positions.
QString cases(const QList<Position> &positions, bool zsh)
{
    QString text;
    for (const Position &position : positions) {
        QString action;
        if (position.names == Names::Account)
            action = zsh ? u"_corvctl_accounts"_s : u"words=$(_corvctl_accounts)"_s;
        else if (position.names == Names::Backup)
            action = zsh ? u"_corvctl_backups"_s : u"words=$(_corvctl_backups)"_s;
        else if (position.names == Names::PhpVersion)
            action = zsh ? u"_corvctl_php"_s : u"words=$(_corvctl_php)"_s;
        else if (position.names == Names::File)
            // Readline quotes what it knows to be a file's name: it may be one that a tenant has chosen.
            action =
                zsh ? u"_files"_s : u"compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- \"$cur\"); return"_s;
        else if (!position.words.isEmpty())
            action = zsh ? u"items=(%1)"_s.arg(namesOf(position.words, true))
                         : u"words=\"%1\""_s.arg(namesOf(position.words, false));
        else
            continue;
        const QString what = position.after.isEmpty() ? QString::number(position.number) : position.after;
        // The values of the common options, which have no path, are the same behind any.
        const bool common = !position.after.isEmpty() && position.path.isEmpty();
        text += u"        %1\"%2:%3\") %4 ;;\n"_s.arg(common ? u"*"_s : QString(), common ? QString() : position.path,
                                                      what, action);
    }
    return text;
}

QString optionCases(const QList<Position> &options, bool zsh)
{
    QString text;
    for (const Position &position : options)
        text += (zsh ? u"        \"%1\") items+=(%2) ;;\n"_s : u"        \"%1\") words+=\" %2\" ;;\n"_s)
                    .arg(position.path, namesOf(position.words, zsh));
    return text;
}

QString withCases(const QString &script, const QList<Position> &words, const QList<Position> &values,
                  const QList<Position> &options, bool zsh)
{
    return script.arg(valuePatterns(values), pathPatterns(words), cases(values, zsh), namesOf(commonWords(), zsh),
                      optionCases(options, zsh), cases(words, zsh));
}

QString fishLine(const QString &condition, const QString &arguments, const QString &help)
{
    QString line = u"complete -c corvctl"_s;
    if (!condition.isEmpty())
        line += u" -n "_s + quoted(condition);
    line += u' ' + arguments;
    if (!help.isEmpty())
        line += u" -d "_s + quoted(help);
    return line + u'\n';
}

QString fishArguments(const Position &position)
{
    if (position.names == Names::Account)
        return u"-a '(__corvctl_accounts)'"_s;
    if (position.names == Names::Backup)
        return u"-a '(__corvctl_backups)'"_s;
    if (position.names == Names::PhpVersion)
        return u"-a '(__corvctl_php)'"_s;
    if (position.names == Names::File)
        return u"-F"_s;
    return u"-a "_s + quoted(namesOf(position.words, false));
}

// How fish is told of an option, and of what its value may be.
QString fishOption(const Parameter &option)
{
    QString text;
    for (const QString &spelling : spellings(option))
        text += spelling.startsWith("--"_L1) ? u" -l "_s + spelling.sliced(2) : u" -s "_s + spelling.sliced(1);
    // Without -x, or -F, fish offers files for whatever an option's value is.
    if (option.kind == Kind::Value)
        text += option.names == Names::File ? u" -r -F"_s : u" -x"_s;
    if (const QList<QStringList> words = wordsFor(option); !words.isEmpty())
        text += u" -a "_s + quoted(namesOf(words, false));
    return text.sliced(1);
}

QString fishCommands(const std::vector<Command> &commands, const QString &path)
{
    QString text;
    for (const Command &command : commands) {
        const QString name = QString::fromUtf8(command.name);
        const QString below = (path + u' ' + name).trimmed();
        text += fishLine(u"__corvctl_at \"%1\" 0"_s.arg(path), u"-a "_s + name, QString::fromUtf8(command.help));
        text += fishCommands(command.commands, below);
        for (const Parameter &parameter : command.parameters) {
            if (isOption(parameter))
                text += fishLine(u"__corvctl_at \"%1\" any"_s.arg(below), fishOption(parameter),
                                 QString::fromUtf8(parameter.help));
        }
    }
    return text;
}

QString fish(const std::vector<Command> &commands, const QList<Position> &words, const QList<Position> &values)
{
    QStringList paths;
    for (const Position &position : words) {
        if (!position.path.isEmpty() && !paths.contains(position.path))
            paths.append(position.path);
        for (const QStringList &word : position.words) {
            const QString path = (position.path + u' ' + word[0]).trimmed();
            if (!word[1].isEmpty() && !paths.contains(path))
                paths.append(path);
        }
    }
    for (QString &path : paths)
        path = quoted(path);

    QString text = kFish.arg(valuePatterns(values).remove(u'|'), paths.join(u' '));
    for (const Parameter &option : commonOptions())
        text += fishLine({}, fishOption(option), QString::fromUtf8(option.help));
    text += fishCommands(commands, {});
    for (const Position &position : words) {
        const bool commandNames = !position.words.isEmpty() && !position.words[0][1].isEmpty();
        if (!commandNames &&
            (position.names == Names::Account || position.names == Names::File || position.names == Names::Backup ||
             position.names == Names::PhpVersion || !position.words.isEmpty()))
            text += fishLine(u"__corvctl_at \"%1\" %2"_s.arg(position.path, QString::number(position.number)),
                             fishArguments(position), {});
    }
    return text;
}

// cppcheck-suppress constParameter // a handler as all others
int completion(Session &session, const Given &given)
{
    QList<Position> positions;
    addValues(commonOptions(), {}, &positions);
    addPositions(*session.commands, {}, &positions);
    QList<Position> words;
    QList<Position> values;
    // Values of a command's own options come before those of the common ones, whose pattern holds for any path.
    for (const Position &position : positions) {
        if (position.after.isEmpty())
            words.append(position);
        else if (position.path.isEmpty())
            values.append(position);
        else
            values.prepend(position);
    }
    const QList<Position> options = optionsOf(*session.commands, {});

    const QString shell = given.text("bash|zsh|fish");
    if (shell == "fish"_L1)
        print(fish(*session.commands, words, values).toUtf8());
    else
        print(withCases(shell == "zsh"_L1 ? kZsh : kBash, words, values, options, shell == "zsh"_L1).toUtf8());
    return kDone;
}

} // namespace

Command completionCommand()
{
    return {"completion",
            "Print the completion script for a shell",
            {{"bash|zsh|fish", "the shell", Kind::Required, Names::Nothing, {"bash", "zsh", "fish"}}},
            completion};
}

} // namespace corv::ctl
