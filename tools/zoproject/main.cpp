// zoproject: inspect, recover and pack projects from the command line. Each command lives in
// a source file of its own; this file parses what comes before the command and dispatches.
#include "command.h"
#include "stop.h"

#include <zo/file.h>
#include <zo/process.h>
#include <zo/project/version.h>

#include <QCoreApplication>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>

namespace zo::cli {
namespace {

const QString kTopUsage
    = QStringLiteral("usage: zoproject [--help] [--version] [-C DIR] COMMAND [ARGUMENTS]");

QList<Command> commandTable()
{
    return { statusCommand(), diffCommand(), recoverCommand(), packCommand(), unpackCommand(),
        lsCommand(), metaCommand(), watchCommand(), demoCommand() };
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

QCommandLineOption directoryOption()
{
    return QCommandLineOption(QStringLiteral("C"),
        QStringLiteral("Run as if started in DIR; each further -C is taken relative to the one "
                       "before."),
        QStringLiteral("DIR"));
}

void changeDirectories(const QStringList& directories)
{
    for (const QString& directory : directories)
        if (!zo::os::changeDirectory(bytesOf(directory).c_str()))
            throw std::runtime_error(
                "'" + bytesOf(directory) + "': cannot change into it: " + std::strerror(errno));
}

constexpr int kColumns = 80;

// Wrapped within kColumns, the lines after the first indented below the command's arguments.
QString usageLine(const Command& command)
{
    const QString start = QStringLiteral("usage: zoproject ") + command.name;
    QStringList words;
    for (const QCommandLineOption& option : command.options) {
        // The first long name: the others are aliases.
        const QStringList names = option.names();
        const auto name = std::find_if(names.begin(), names.end(),
            [](const QString& candidate) { return candidate.size() > 1; });
        QString word = QStringLiteral("[--") + *name;
        if (!option.valueName().isEmpty())
            word += QLatin1Char(' ') + option.valueName();
        words << word + QLatin1Char(']');
    }
    if (!command.synopsis.isEmpty())
        words << command.synopsis;
    QString text = start;
    int lineStart = 0;
    for (const QString& word : qAsConst(words)) {
        if (text.size() - lineStart + 1 + word.size() > kColumns) {
            lineStart = text.size() + 1;
            text += QLatin1Char('\n') + QString(start.size(), QLatin1Char(' '));
        }
        text += QLatin1Char(' ') + word;
    }
    return text;
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
        stderr, "zoproject: %s\n%s\n", toBytes(message).constData(), usage.toUtf8().constData());
    return kUsage;
}

QString programDescription(const QList<Command>& commands)
{
    QString text = QStringLiteral("Inspect, recover and pack projects.\n\nCommands:\n");
    int width = 0;
    for (const Command& command : commands)
        width = std::max(width, static_cast<int>(command.name.size()));
    for (const Command& command : commands)
        text += QStringLiteral("  %1  %2\n").arg(command.name, -width).arg(command.summary);
    return text
        + QStringLiteral("\n\"zoproject help COMMAND\" shows a command's arguments and options.");
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

// The help command, which needs the others and the program's own help.
Command helpCommand(const QList<Command>& commands, const QCommandLineParser& program)
{
    return { QStringLiteral("help"), QStringLiteral("Show the help of the program or a command."),
        QStringLiteral("[COMMAND]"),
        { { QStringLiteral("COMMAND"), QStringLiteral("The command to show the help of.") } }, 0, 1,
        {}, [&commands, &program](const QCommandLineParser& parser) {
            const QStringList arguments = parser.positionalArguments();
            if (arguments.isEmpty()) {
                print(helpText(program, kTopUsage));
                return static_cast<int>(kSuccess);
            }
            const Command* command = findCommand(commands, arguments.first());
            if (!command)
                throw UsageError("no such command: " + bytesOf(arguments.first()));
            return commandHelp(*command);
        } };
}

int run(const QStringList& arguments)
{
    QList<Command> commands = commandTable();
    QCommandLineParser parser;
    commands << helpCommand(commands, parser);
    parser.setApplicationDescription(programDescription(commands));
    parser.addOption(helpOption());
    parser.addOption(versionOption());
    parser.addOption(directoryOption());
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
    const Command* command = findCommand(commands, name);
    if (!command)
        return usageError(QStringLiteral("unknown command '%1'").arg(name), kTopUsage);
    changeDirectories(parser.values(directoryOption()));
    try {
        return runCommand(*command, QStringList { arguments.first() } + rest);
    } catch (const UsageError& error) {
        return usageError(fromBytes(error.what()), usageLine(*command));
    }
}

// Ends with the status run gave, or the error's 1, or, after a stop signal, with that signal
// once everything is cleaned up. A reader that went away (SIGPIPE) needs no message.
int finish(int status, const char* error)
{
    if (error == nullptr) {
        try {
            finishOutput();
        } catch (const std::exception& failure) {
            return finish(kFailure, failure.what());
        }
    }
    const int signalNumber = stopSignal();
    if (error != nullptr && signalNumber != SIGPIPE) {
        std::fflush(stdout);
        std::fprintf(stderr, "zoproject: %s\n", error);
    }
    if (signalNumber != 0)
        zo::os::endBySignal(signalNumber);
    return status;
}

} // namespace
} // namespace zo::cli

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    // As given, not as the locale decodes them.
    QStringList arguments;
    for (int at = 0; at < argc; ++at)
        arguments << zo::cli::fromBytes(argv[at]);
    try {
        return zo::cli::finish(zo::cli::run(arguments), nullptr);
    } catch (const std::exception& error) {
        return zo::cli::finish(zo::cli::kFailure, error.what());
    }
}
