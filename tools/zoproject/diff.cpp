// The diff command: what recovering a swap file would change in its source, before it is done.
#include "command.h"
#include "scan.h"

#include <dtl/dtl.hpp>

#include <QCryptographicHash>
#include <QFile>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

namespace zo::cli {
namespace {

using Lines = std::vector<std::string>;

constexpr size_t kContext = 3;
// As git judges: a NUL byte in the first 8000 bytes makes a file binary.
constexpr int kBinaryProbe = 8000;
// Beyond this many lines, the edit script is searched with less memory.
constexpr size_t kHugeLines = 100000;

QByteArray contentOf(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw std::runtime_error(
            "'" + path.toStdString() + "': " + file.errorString().toStdString());
    QByteArray content = file.readAll();
    if (file.error() != QFileDevice::NoError)
        throw std::runtime_error(
            "'" + path.toStdString() + "': " + file.errorString().toStdString());
    return content;
}

// Each line with its line break; the last one without, when the file does not end in one.
Lines linesOf(const QByteArray& content)
{
    Lines lines;
    for (qsizetype start = 0; start < content.size();) {
        const qsizetype end = content.indexOf('\n', start);
        const qsizetype next = end < 0 ? content.size() : end + 1;
        lines.emplace_back(content.constData() + start, static_cast<size_t>(next - start));
        start = next;
    }
    return lines;
}

struct Edit {
    char mark; // ' ', '-' or '+'
    const std::string* line;
};

// "-3,2": where a hunk starts on one side and how many of its lines are there. A side without
// lines starts at the line before, as patch expects.
QString range(size_t before, size_t count)
{
    const size_t start = count == 0 ? before : before + 1;
    return count == 1 ? QString::number(start) : QStringLiteral("%1,%2").arg(start).arg(count);
}

void printLine(char mark, const std::string& line)
{
    const bool broken = !line.empty() && line.back() == '\n';
    print(QLatin1Char(mark)
        + fromBytes(
            QByteArray(line.data(), static_cast<qsizetype>(line.size() - (broken ? 1 : 0)))));
    if (!broken)
        print(QStringLiteral("\\ No newline at end of file"));
}

// The edits in hunks, each with up to kContext unchanged lines around its changes; changes
// closer than twice that share a hunk.
void printHunks(const std::vector<Edit>& edits)
{
    // Lines of each side before each edit.
    std::vector<size_t> before[2] = { { 0 }, { 0 } };
    std::vector<size_t> changes;
    for (size_t at = 0; at < edits.size(); ++at) {
        const char mark = edits[at].mark;
        before[0].push_back(before[0].back() + (mark != '+' ? 1 : 0));
        before[1].push_back(before[1].back() + (mark != '-' ? 1 : 0));
        if (mark != ' ')
            changes.push_back(at);
    }
    for (size_t first = 0; first < changes.size();) {
        size_t last = first;
        while (last + 1 < changes.size() && changes[last + 1] - changes[last] <= 2 * kContext + 1)
            ++last;
        const size_t from = changes[first] - std::min(changes[first], kContext);
        const size_t to = std::min(edits.size(), changes[last] + kContext + 1);
        print(QStringLiteral("@@ -%1 +%2 @@")
                  .arg(range(before[0][from], before[0][to] - before[0][from]),
                      range(before[1][from], before[1][to] - before[1][from])));
        for (size_t at = from; at < to; ++at)
            printLine(edits[at].mark, *edits[at].line);
        first = last + 1;
    }
}

void printTextDiff(const QByteArray& source, const QByteArray& swap)
{
    const Lines from = linesOf(source);
    const Lines to = linesOf(swap);
    dtl::Diff<std::string, Lines> diff(from, to);
    if (from.size() + to.size() > kHugeLines)
        diff.onHuge();
    diff.compose();
    const auto script = diff.getSes().getSequence();
    std::vector<Edit> edits;
    edits.reserve(script.size());
    for (const auto& [line, info] : script)
        edits.push_back({ info.type == dtl::SES_ADD ? '+'
                : info.type == dtl::SES_DELETE      ? '-'
                                                    : ' ',
            &line });
    // Within each run of changes the removed lines come first, as patch and people expect.
    for (auto run = edits.begin(); run != edits.end();) {
        const auto isChange = [](const Edit& edit) { return edit.mark != ' '; };
        run = std::find_if(run, edits.end(), isChange);
        const auto end = std::find_if_not(run, edits.end(), isChange);
        std::stable_partition(run, end, [](const Edit& edit) { return edit.mark == '-'; });
        run = end;
    }
    printHunks(edits);
}

QString describeContent(const QString& name, const QByteArray& content)
{
    return QStringLiteral("  %1: %2 bytes, SHA-256 %3")
        .arg(name)
        .arg(content.size())
        .arg(QString::fromLatin1(
            QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex()));
}

void printDiff(const zo::project::ProjectVFS& project, const SwapFile& swap)
{
    const QString& sourcePath = swap.info.sourcePath;
    const QString& swapPath = swap.info.swapPath;
    const QByteArray source
        = swap.sourceExists ? contentOf(project.absoluteFilePath(sourcePath)) : QByteArray();
    const QByteArray content = contentOf(project.absoluteFilePath(swapPath));
    if (source == content && swap.sourceExists)
        return;
    const bool binary
        = source.left(kBinaryProbe).contains('\0') || content.left(kBinaryProbe).contains('\0');
    if (binary) {
        print(QStringLiteral("Binary files differ (swap file of %1):")
                  .arg(describeOwner(swap.owner)));
        print(describeContent(sourcePath, source));
        print(describeContent(swapPath, content));
        return;
    }
    print(
        QStringLiteral("--- %1").arg(swap.sourceExists ? sourcePath : QStringLiteral("/dev/null")));
    print(QStringLiteral("+++ %1").arg(swapPath));
    printTextDiff(source, content);
}

// The one rule of recover: with two arguments, the first is the project directory. The project
// is opened to leave what crashes left unfinished, as status does: a save that opening would
// complete is told, and its swap files are shown as what it puts in place.
int diff(const QCommandLineParser& parser)
{
    QStringList arguments = parser.positionalArguments();
    const QString directory = arguments.size() == 2 ? arguments.takeFirst() : QStringLiteral(".");
    const zo::project::ProjectVFS project(
        projectDirectory(directory), zo::project::ProjectVFS::Unfinished::Leave);
    const QString path = projectPath(project.path(), arguments.first());
    std::vector<Save> saves = savesToComplete(project);
    saves.erase(std::remove_if(saves.begin(), saves.end(),
                    [&](const Save& save) { return !save.files.contains(path); }),
        saves.end());
    printSaves(saves);
    bool found = !saves.empty();
    for (const SwapFile& swap : scanProject(project))
        if (swap.info.sourcePath == path || swap.info.swapPath == path) {
            printDiff(project, swap);
            found = true;
        }
    if (!found)
        throw std::runtime_error("'" + bytesOf(arguments.first()) + "': no swap file there");
    return kSuccess;
}

} // namespace

Command diffCommand()
{
    return { QStringLiteral("diff"),
        QStringLiteral("Show what recovering a file would change in it."),
        QStringLiteral("[DIR] PATH"),
        { projectDirectoryArgument(),
            { QStringLiteral("PATH"),
                QStringLiteral("A file or its swap file, relative to DIR; each swap file of "
                               "the file is shown against it.") } },
        1, 2, {}, diff };
}

} // namespace zo::cli
