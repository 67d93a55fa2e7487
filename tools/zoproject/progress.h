#pragma once

// The progress of long work on standard error, and its interruption by the stop signals
// (stop.h).

#include <zo/project/archive.h>

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QString>

#include <functional>

namespace zo::cli {

// "--quiet": no progress bar.
QCommandLineOption quietOption();

// One line: entries and bytes done of their totals (a total of 0 is not known yet), the rate
// and the time left; with columns, what fits in one column less, the least telling parts
// left out first.
QString progressLine(const zo::project::Progress& progress, qint64 elapsedMs, int columns = 0);

// Runs an import or an export through the library's progress overload, which work calls with
// the callback given and whose result it returns. A progress bar is drawn when standard error
// is a terminal and --quiet is not set; the stop signals cancel the work, so that the library
// cleans up, and then an error naming destination is thrown.
void withProgress(const QCommandLineParser& parser, const QString& destination,
    const std::function<bool(const zo::project::ProgressCallback&)>& work);

} // namespace zo::cli
