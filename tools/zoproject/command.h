#pragma once

// What every command of the zoproject program shares: its entry in the command table, the
// errors that end it, the way it prints, and arguments kept as the bytes they were given as.

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QJsonDocument>
#include <QList>
#include <QString>

#include <functional>
#include <stdexcept>
#include <string>

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
Command diffCommand();
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

// Bytes as text without loss: valid UTF-8 decoded, every other byte kept as the lone surrogate
// U+DC80 + byte, which toBytes turns back into it. Arguments, and the paths the libraries give,
// are held so, so that a name that is not UTF-8 reaches the file system and the messages as
// it was given.
QString fromBytes(const QByteArray& bytes);
QByteArray toBytes(const QString& text);
// An argument or a message for the libraries and the exceptions: its bytes.
std::string bytesOf(const QString& text);
// A path for Qt's file classes and the Qt library, which decode names with QFile::decodeName.
QString qtPath(const QString& path);

// Text on one line whatever it holds: a backslash, a line break and a carriage return are
// written as "\\", "\n" and "\r", and in a key "=" as "\=". For names and metadata in
// line-oriented output.
QString oneLine(const std::string& text, bool isKey = false);

// A line on standard output, as bytes (see toBytes). Throws when standard output cannot take
// it, so that a full disk or a closed pipe ends the command with an error.
void print(const QString& line);
void printJson(const QJsonDocument& document);
// Writes out what standard output still buffers; throws as print.
void finishOutput();

// DIR as status, diff and recover take it.
Argument projectDirectoryArgument();

// The absolute path of a project directory that must exist and be readable; the error names
// path and the cause.
QString projectDirectory(const QString& path);

// Whether path lies in directory or below it (both absolute and clean).
bool isWithin(const QString& path, const QString& directory);

} // namespace zo::cli
