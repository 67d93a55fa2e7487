// zoproject watch: the changes other programs make below a directory, as they happen.
#include "command.h"

#include <zo/process.h>
#include <zo/project/projectwatcher.h>

#include <QCoreApplication>
#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSocketNotifier>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <stdexcept>

namespace zo::cli {
namespace {

using zo::project::FileSystemEvent;
using zo::project::ProjectWatcher;

// Prints each batch of changes as it is found, one line per path relative to root.
void printChanges(const QDir& root, const QMap<QString, FileSystemEvent>& changes, bool json)
{
    static const char* const kinds[] = { "added", "removed", "modified" };
    for (auto change = changes.cbegin(); change != changes.cend(); ++change) {
        const QString path = root.relativeFilePath(change.key());
        const QString kind = QLatin1String(kinds[change.value()]);
        if (json) // one object per line, for a reader that takes lines as they come
            print(QString::fromUtf8(QJsonDocument(
                QJsonObject { { QStringLiteral("event"), kind }, { QStringLiteral("path"), path } })
                                        .toJson(QJsonDocument::Compact)));
        else
            print(kind + QLatin1Char(' ') + path);
    }
    std::fflush(stdout); // seen as they happen, also through a pipe
}

QCommandLineOption intervalOption()
{
    return QCommandLineOption(QStringLiteral("interval"),
        QStringLiteral("Seconds between two checks (default 5)."), QStringLiteral("SECONDS"),
        QStringLiteral("5"));
}

QCommandLineOption hiddenOption()
{
    return QCommandLineOption(QStringLiteral("hidden"),
        QStringLiteral("Report hidden files (names that begin with a dot) too."));
}

// Watches until SIGINT or SIGTERM, which end the program with status 0.
int watch(const QCommandLineParser& parser)
{
    bool isNumber = false;
    const double seconds = parser.value(intervalOption()).toDouble(&isNumber);
    if (!isNumber || !(seconds > 0) || seconds > 86400)
        throw UsageError("--interval takes a number of seconds above 0, at most 86400");
    // Keys of an absolute root are absolute, which relativeFilePath takes as they are.
    const QDir root(projectDirectory(parser.positionalArguments().first()));

    const int stopSignals = zo::os::signalPipe({ SIGINT, SIGTERM });
    if (stopSignals < 0)
        throw std::runtime_error("cannot catch SIGINT and SIGTERM");
    QSocketNotifier stopRequest(stopSignals, QSocketNotifier::Read);
    QObject::connect(&stopRequest, &QSocketNotifier::activated, QCoreApplication::instance(),
        &QCoreApplication::quit);

    ProjectWatcher watcher(root.path(), parser.isSet(hiddenOption()), nullptr);
    const bool json = jsonRequested(parser);
    QObject::connect(&watcher,
        qOverload<const QMap<QString, FileSystemEvent>&>(&ProjectWatcher::contentChanged),
        [&root, json](
            const QMap<QString, FileSystemEvent>& changes) { printChanges(root, changes, json); });
    watcher.setInterval(std::max(1, qRound(seconds * 1000)));
    watcher.enableWatching(true);
    return QCoreApplication::exec();
}

} // namespace

Command watchCommand()
{
    return { QStringLiteral("watch"),
        QStringLiteral("Print the changes other programs make below a directory."),
        QStringLiteral("DIR"),
        { { QStringLiteral("DIR"), QStringLiteral("The directory to watch.") } }, 1, 1,
        { intervalOption(), hiddenOption(), jsonOption() }, watch };
}

} // namespace zo::cli
