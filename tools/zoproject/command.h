#pragma once

// What every command of the zoproject program shares: its entry in the command table, the
// errors that end it and the way it prints.

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QJsonDocument>
#include <QList>
#include <QString>

#include <functional>
#include <stdexcept>

namespace zo::cli {

enum ExitStatus : int { kSuccess = 0, kFailure = 1, kUsage = 2, kRecoverable = 3 };

// A malformed command line: reported with the command's usage line and status 2. Every other
// exception ends the program with its message and status 1.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A positional argument as the help text describes it.
struct Argument {
    QString name;
    QString description;
};

constexpr int kAnyNumber = -1;

struct Command {
    QString name;
    QString summary; // one line, for the command list and the help text
    QString synopsis; // the positional arguments as the usage line shows them
    QList<Argument> arguments;
    int minArguments = 0;
    int maxArguments = 0; // or kAnyNumber
    QList<QCommandLineOption> options;
    // Gets the parsed command line, its positional arguments checked against the bounds above.
    std::function<int(const QCommandLineParser&)> run;
};

// The command table, one function per command source file, in the order help lists them.
Command statusCommand();
Command recoverCommand();
Command packCommand();
Command unpackCommand();
Command lsCommand();
Command metaCommand();
Command demoCommand();
Command watchCommand();

// Options more than one command takes.
QCommandLineOption jsonOption();
bool jsonRequested(const QCommandLineParser& parser);

// A line on standard output, in UTF-8.
void print(const QString& line);
void printJson(const QJsonDocument& document);

// The absolute path of a project directory that must exist.
QString projectDirectory(const QString& path);

} // namespace zo::cli
