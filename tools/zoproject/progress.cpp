#include "progress.h"

#include "command.h"
#include "stop.h"

#include <zo/process.h>

#include <QElapsedTimer>
#include <QLocale>
#include <QStringList>

#include <cstdio>
#include <stdexcept>
#include <unistd.h>

namespace zo::cli {
namespace {

using zo::project::Progress;

constexpr qint64 kRedrawMs = 100;

// "m:ss", or "h:mm:ss" from an hour on.
QString clockTime(qint64 seconds)
{
    const QString minutes
        = QStringLiteral("%1:%2").arg(seconds / 60 % 60).arg(seconds % 60, 2, 10, QLatin1Char('0'));
    return seconds < 3600
        ? minutes
        : QStringLiteral("%1:%2").arg(seconds / 3600).arg(minutes.rightJustified(5, '0'));
}

QString ofTotal(const QString& done, uint64_t total, const QString& totalText)
{
    return total == 0 ? done : done + QStringLiteral(" of ") + totalText;
}

// Drawn over itself at most 10 times a second, from the first tenth of a second on, so that
// quick work shows none; ended with a newline once drawn.
class ProgressBar {
public:
    explicit ProgressBar(bool shown)
        : _shown(shown)
    {
        _clock.start();
    }

    ~ProgressBar()
    {
        if (_drawn) {
            draw();
            std::fputc('\n', stderr);
        }
    }

    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    void update(const Progress& progress)
    {
        _latest = progress;
        if (_shown && _clock.elapsed() - _lastDraw >= kRedrawMs)
            draw();
    }

private:
    void draw()
    {
        _lastDraw = _clock.elapsed();
        _drawn = true;
        // Back to the line's start, and clear what a longer line left. Asked each time: the
        // terminal may have been resized.
        const int columns = zo::os::terminalColumns(STDERR_FILENO).value_or(0);
        std::fprintf(
            stderr, "\r%s\033[K", progressLine(_latest, _lastDraw, columns).toUtf8().constData());
        std::fflush(stderr);
    }

    const bool _shown;
    QElapsedTimer _clock;
    qint64 _lastDraw = 0;
    bool _drawn = false;
    Progress _latest;
};

} // namespace

QCommandLineOption quietOption()
{
    return QCommandLineOption(
        { QStringLiteral("q"), QStringLiteral("quiet") }, QStringLiteral("Show no progress bar."));
}

QString progressLine(const Progress& progress, qint64 elapsedMs, int columns)
{
    const QLocale locale;
    const auto size = [&locale](uint64_t bytes) {
        return locale.formattedDataSize(static_cast<qint64>(bytes));
    };
    QString entries;
    if (progress.bytesTotal > 0)
        entries = QStringLiteral("%1% ").arg(100 * progress.bytesDone / progress.bytesTotal, 3);
    entries += ofTotal(QStringLiteral("%1").arg(progress.entriesDone), progress.entriesTotal,
                   QString::number(progress.entriesTotal))
        + QStringLiteral(" entries");
    // The most telling first.
    QStringList parts { entries,
        ofTotal(size(progress.bytesDone), progress.bytesTotal, size(progress.bytesTotal)) };
    if (elapsedMs > 0 && progress.bytesDone > 0) {
        const double bytesPerSecond
            = 1000.0 * static_cast<double>(progress.bytesDone) / static_cast<double>(elapsedMs);
        parts << QStringLiteral("%1/s").arg(size(static_cast<uint64_t>(bytesPerSecond)));
        if (progress.bytesTotal > progress.bytesDone)
            parts << QStringLiteral("%1 left").arg(clockTime(static_cast<qint64>(
                static_cast<double>(progress.bytesTotal - progress.bytesDone) / bytesPerSecond)));
    }
    QString line = parts.takeFirst();
    for (const QString& part : qAsConst(parts)) {
        const QString longer = line + QStringLiteral(", ") + part;
        if (columns > 0 && longer.size() >= columns)
            break;
        line = longer;
    }
    // The last column is left free: writing into it wraps on some terminals.
    return columns > 0 ? line.left(columns - 1) : line;
}

void withProgress(const QCommandLineParser& parser, const QString& destination,
    const std::function<bool(const zo::project::ProgressCallback&)>& work)
{
    catchStopSignals();
    bool finished = false;
    {
        ProgressBar bar(
            !parser.isSet(quietOption().names().constLast()) && zo::os::isTerminal(STDERR_FILENO));
        finished = work([&bar](const Progress& progress) {
            bar.update(progress);
            return !stopRequested();
        });
    }
    if (!finished)
        throw std::runtime_error("'" + bytesOf(destination) + "': interrupted; left as it was");
}

} // namespace zo::cli
