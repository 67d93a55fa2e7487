// zoproject: inspect, recover and pack projects from the command line. Each command lives in
// a source file of its own; this file parses what comes before the command and dispatches.
#include "command.h"

#include <zo/project/version.h>

#include <QCoreApplication>

#include <algorithm>
#include <cstdio>
#include <exception>

namespace zo::cli {
namespace {

const QString kTopUsage
    = QStringLiteral("usage: zoproject [--help] [--version] COMMAND [ARGUMENTS]");

QList<Command> commandTable()
{
    return { statusCommand(), recoverCommand(), packCommand(), unpackCommand(), lsCommand(),
        metaCommand(), watchCommand(), demoCommand() };
}

QCommandLineOption helpOption()
{
    return QCommandLineOption(
        { QStringLiteral("h"), QStringLiteral("help") }, QStringLiteral("Show this help."));
}

QCommandLineOption versionOption()
{
    return QCommandLineOption({ QStringLiteral("v"), QStringLiteral("version") },
        QStringLiteral("Show the program's version."));
}

QString usageLine(const Command& command)
{
    QString line = QStringLiteral("usage: zoproject ") + command.name;
    for (const QCommandLineOption& option : command.options) {
        line += QStringLiteral(" [--") + option.names().constLast();
        if (!option.valueName().isEmpty())
            line += QLatin1Char(' ') + option.valueName();
        line += QLatin1Char(']');
    }
    if (!command.synopsis.isEmpty())
        line += QLatin1Char(' ') + command.synopsis;
    return line;
}

// Qt's help text starts with the path the program was started by; the usage line replaces it.
QString helpText(const QCommandLineParser& parser, const QString& usage)
{
    QString text = parser.helpText();
    return text.replace(0, text.indexOf(QLatin1Char('\n')), usage).trimmed();
}

int usageError(const QString& message, const QString& usage)
{
    std::fprintf(
        stderr, "zoproject: %s\n%s\n", message.toUtf8().constData(), usage.toUtf8().constData());
    return kUsage;
}

QString programDescription(const QList<Command>& commands)
{
    QString text = QStringLiteral("Inspect, recover and pack projects.\n\nCommands:\n");
    int width = 4; // "help"
    for (const Command& command : commands)
        width = std::max(width, static_cast<int>(command.name.size()));
    for (const Command& command : commands)
        text += QStringLiteral("  %1  %2\n").arg(command.name, -width).arg(command.summary);
    text += QStringLiteral("  %1  Show the help of a command.\n\n")
                .arg(QStringLiteral("help"), -width);
    return text
        + QStringLiteral("\"zoproject help COMMAND\" shows a command's arguments and options.");
}

void setUp(QCommandLineParser& parser, const Command& command)
{
    parser.setApplicationDescription(command.summary);
    parser.addOption(helpOption());
    parser.addOptions(command.options);
    for (const Argument& argument : command.arguments)
        parser.addPositionalArgument(argument.name, argument.description);
}

int commandHelp(const Command& command)
{
    QCommandLineParser parser;
    setUp(parser, command);
    print(helpText(parser, usageLine(command)));
    return kSuccess;
}

// arguments: the program's path, then everything after the command's name.
int runCommand(const Command& command, const QStringList& arguments)
{
    QCommandLineParser parser;
    setUp(parser, command);
    if (!parser.parse(arguments))
        throw UsageError(parser.errorText().toStdString());
    if (parser.isSet(helpOption().names().constLast()))
        return commandHelp(command);
    const int count = parser.positionalArguments().size();
    if (count < command.minArguments)
        throw UsageError("missing arguments");
    if (command.maxArguments != kAnyNumber && count > command.maxArguments)
        throw UsageError("too many arguments");
    return command.run(parser);
}

const Command* findCommand(const QList<Command>& commands, const QString& name)
{
    const auto found = std::find_if(commands.begin(), commands.end(),
        [&name](const Command& command) { return command.name == name; });
    return found == commands.end() ? nullptr : &*found;
}

int run(const QStringList& arguments)
{
    const QList<Command> commands = commandTable();
    QCommandLineParser parser;
    parser.setApplicationDescription(programDescription(commands));
    parser.addOption(helpOption());
    parser.addOption(versionOption());
    // Everything from the command's name on is the command's to parse.
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    if (!parser.parse(arguments))
        return usageError(parser.errorText(), kTopUsage);
    if (parser.isSet(helpOption().names().constLast())) {
        print(helpText(parser, kTopUsage));
        return kSuccess;
    }
    if (parser.isSet(versionOption().names().constLast())) {
        print(QStringLiteral("zoproject " ZO_PROJECT_VERSION_STRING));
        return kSuccess;
    }
    QStringList rest = parser.positionalArguments();
    if (rest.isEmpty())
        return usageError(QStringLiteral("no command given"), kTopUsage);
    const QString name = rest.takeFirst();
    if (name == QLatin1String("help")) {
        if (rest.isEmpty()) {
            print(helpText(parser, kTopUsage));
            return kSuccess;
        }
        const Command* command = rest.size() == 1 ? findCommand(commands, rest.first()) : nullptr;
        return command ? commandHelp(*command)
                       : usageError(QStringLiteral("no such command: %1").arg(rest.join(' ')),
                           QStringLiteral("usage: zoproject help [COMMAND]"));
    }
    const Command* command = findCommand(commands, name);
    if (!command)
        return usageError(QStringLiteral("unknown command '%1'").arg(name), kTopUsage);
    try {
        return runCommand(*command, QStringList { arguments.first() } + rest);
    } catch (const UsageError& error) {
        return usageError(QString::fromUtf8(error.what()), usageLine(*command));
    }
}

} // namespace
} // namespace zo::cli

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    try {
        return zo::cli::run(QCoreApplication::arguments());
    } catch (const std::exception& error) {
        std::fflush(stdout);
        std::fprintf(stderr, "zoproject: %s\n", error.what());
        return zo::cli::kFailure;
    }
}
