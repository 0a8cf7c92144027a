#include "ctl/Typing.h"

#include "ctl/Meant.h"

#include <QStringList>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace corv::ctl {
namespace {

// Whether the value of this option is the next word of the line.
bool takesNextWord(const std::vector<Parameter> &options, const QString &word)
{
    return std::any_of(options.begin(), options.end(), [&word](const Parameter &option) {
        return option.kind == Kind::Value && QString::fromUtf8(option.name).split(u',').contains(word);
    });
}

// The words of the line that are neither options nor their values.
QStringList wordsOf(const std::vector<Parameter> &options, int argc, const char *const *argv)
{
    QStringList words;
    for (int i = 1; i < argc; ++i) {
        const QString word = QString::fromLocal8Bit(argv[i]);
        if (word == "--"_L1)
            break;
        if (takesNextWord(options, word))
            ++i;
        else if (!word.startsWith(u'-'))
            words.append(word);
    }
    return words;
}

const Command *find(const std::vector<Command> &commands, const QString &name)
{
    const auto found = std::find_if(commands.begin(), commands.end(), [&name](const Command &command) {
        return name == QLatin1StringView(command.name);
    });
    return found == commands.end() ? nullptr : &*found;
}

QStringList namesOf(const std::vector<Command> &commands)
{
    QStringList names;
    for (const Command &command : commands)
        names.append(QString::fromUtf8(command.name));
    return names;
}

// The only command of a topic that has this name, with its topic.
QString inATopic(const std::vector<Command> &commands, const QString &name)
{
    QStringList found;
    for (const Command &topic : commands) {
        if (find(topic.commands, name))
            found.append(u"%1 %2"_s.arg(QString::fromUtf8(topic.name), name));
    }
    return found.size() == 1 ? found.first() : QString();
}

Mistake noCommand(const QString &typed, const QString &meant, const QString &hint)
{
    const QString question = meant.isEmpty() ? QString() : u"; did you mean '%1'?"_s.arg(meant);
    return {u"no command '%1'%2"_s.arg(typed, question), hint};
}

} // namespace

Mistake mistakeIn(const std::vector<Command> &commands, const std::vector<Parameter> &options, int argc,
                  const char *const *argv)
{
    QStringList words = wordsOf(options, argc, argv);
    if (!words.isEmpty() && words.first() == "help"_L1)
        words.removeFirst();
    if (words.isEmpty())
        return {};

    const QString first = words.first();
    const Command *topic = find(commands, first);
    if (!topic) {
        const QString near = meant(first, namesOf(commands));
        return noCommand(first, near.isEmpty() ? inATopic(commands, first) : near, u"corvctl help lists them"_s);
    }
    if (topic->commands.empty() || words.size() < 2 || find(topic->commands, words[1]))
        return {};
    const QString near = meant(words[1], namesOf(topic->commands));
    return noCommand(u"%1 %2"_s.arg(first, words[1]), near.isEmpty() ? near : u"%1 %2"_s.arg(first, near),
                     u"corvctl help %1 lists them"_s.arg(first));
}

} // namespace corv::ctl
