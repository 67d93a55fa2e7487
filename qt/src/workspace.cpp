#include "workspace.h"

#include "paths.h"

#include <zo/project/fileutils.h>
#include <zo/project/projectmodel.h>
#include <zo/replace.h>
#include <zo/treewalk.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace zo::project::detail {
namespace {

QString recordPathOf(const QString& workspace)
{
    const QFileInfo info(workspace);
    return info.path() + QStringLiteral("/.") + info.fileName() + QStringLiteral(".source");
}

} // namespace

QString createWorkspaceDirectory()
{
    for (;;) {
        const QString path = xGetNewTempPath();
        if (QDir().mkdir(path))
            return path;
        // Taken by another model meanwhile, or the temporary directory refuses new entries.
        if (!QFileInfo::exists(path))
            throw IOWriteError(
                QStringLiteral("cannot create the workspace %1").arg(path).toUtf8().toStdString());
    }
}

bool writeRecord(const QString& workspace, const WorkspaceRecord& record)
{
    // Absolute, as the recovery may run in another working directory.
    const QString source
        = record.sourcePath.isEmpty() ? QString() : QFileInfo(record.sourcePath).absoluteFilePath();
    QJsonObject fields { { QStringLiteral("source"), source },
        { QStringLiteral("format"), static_cast<int>(record.format) } };
    if (const auto& version = record.sourceVersion)
        // As text: JSON numbers do not hold 64 bits.
        fields.insert(
            QStringLiteral("version"), QString::fromStdString(zo::os::versionText(*version)));
    const QByteArray text = QJsonDocument(fields).toJson(QJsonDocument::Compact);
    zo::os::ReplaceStep failed {};
    return zo::os::replaceFile(encoded(recordPathOf(workspace)).toStdString(), "record",
        std::string_view(text.constData(), static_cast<std::size_t>(text.size())), failed);
}

std::optional<WorkspaceRecord> readRecord(const QString& workspace)
{
    QFile file(recordPathOf(workspace));
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QJsonObject fields = QJsonDocument::fromJson(file.readAll()).object();
    // Older versions stored the path as given: relative to a working directory unknown now.
    QString source = fields.value(QStringLiteral("source")).toString();
    if (QDir::isRelativePath(source))
        source.clear();
    WorkspaceRecord record { source,
        static_cast<ArchiveFormat>(
            fields.value(QStringLiteral("format")).toInt(static_cast<int>(ArchiveFormat::Native))),
        std::nullopt };
    record.sourceVersion
        = zo::os::versionFromText(fields.value(QStringLiteral("version")).toString().toStdString());
    return record;
}

void removeWorkspace(const QString& workspace)
{
    if (QFileInfo::exists(workspace))
        remove(workspace);
    QFile::remove(recordPathOf(workspace));
}

int ownerOfWorkspace(const QString& name)
{
    static const QRegularExpression pattern(QStringLiteral("^zo_project_model_(\\d+)_\\d+$"));
    const QRegularExpressionMatch match = pattern.match(name);
    return match.hasMatch() ? match.captured(1).toInt() : 0;
}

QDateTime lastModifiedOf(const QString& workspace)
{
    qint64 newestMs = std::max(QFileInfo(workspace).lastModified().toMSecsSinceEpoch(),
        QFileInfo(recordPathOf(workspace)).lastModified().toMSecsSinceEpoch());
    zo::os::WalkOptions options;
    options.includeHidden = true;
    options.followLinks = false;
    zo::os::walkTree(
        encoded(workspace).toStdString(), options, [&newestMs](const zo::os::WalkEntry& entry) {
            if (const zo::os::FileStatus* status = entry.status())
                newestMs = std::max<qint64>(newestMs, status->modifiedMilliseconds());
            return zo::os::WalkStep::Continue;
        });
    return QDateTime::fromMSecsSinceEpoch(newestMs);
}

QString temporaryPathBeside(const QString& target)
{
    return decodedPath(zo::os::unusedHiddenPathBeside(encoded(target).toStdString(), "save"));
}

void replaceDirectory(const QString& replacement, const QString& target)
{
    const QByteArray from = encoded(replacement);
    const QByteArray to = encoded(target);
    zo::os::ReplaceStep failed {};
    std::string previous;
    // The whole tree with one flush of its file system, at a small part of the cost of a sync
    // per file.
    if (!zo::os::syncFileSystem(from.constData()))
        failed = zo::os::ReplaceStep::SyncFile;
    else if (zo::os::swapIntoPlace(from.toStdString(), to.toStdString(), previous, failed))
        return removeQuietly(decodedPath(previous)); // the previous tree, swapped out of the way
    // Not swapped, the new tree goes; swapped, the previous one stays whole under the hidden
    // name, as a system crash could still undo the swap.
    const int error = errno;
    if (failed != zo::os::ReplaceStep::SyncDirectory)
        removeQuietly(previous.empty() ? replacement : decodedPath(previous));
    const char* step = failed == zo::os::ReplaceStep::SyncFile ? "sync the replacement of"
        : failed == zo::os::ReplaceStep::Rename                ? "replace"
                                                               : "sync the directory of";
    throw IOWriteError(QStringLiteral("cannot %1 '%2': %3")
                           .arg(QLatin1String(step), target,
                               QString::fromStdString(std::system_category().message(error)))
                           .toUtf8()
                           .toStdString());
}

} // namespace zo::project::detail
