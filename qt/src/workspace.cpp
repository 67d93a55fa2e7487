#include "workspace.h"

#include "paths.h"

#include <zo/project/fileutils.h>
#include <zo/project/projectmodel.h>
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

[[noreturn]] void failToReplace(const QString& target, const char* step)
{
    const std::string reason = std::system_category().message(errno);
    throw IOWriteError(QStringLiteral("cannot %1 '%2': %3")
                           .arg(QLatin1String(step), target, QString::fromStdString(reason))
                           .toUtf8()
                           .toStdString());
}

// Flushes what a save wrote: a tree with its whole file system at once, at a small part of the
// cost of a sync per file, or the one file.
void syncTree(const QString& path, const QString& target)
{
    const QByteArray root = encoded(path);
    const bool synced = QFileInfo(path).isDir() ? zo::os::syncFileSystem(root.constData())
                                                : zo::os::syncFile(root.constData());
    if (!synced)
        failToReplace(target, "sync the replacement of");
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
    QJsonObject fields { { QStringLiteral("source"), record.sourcePath },
        { QStringLiteral("format"), static_cast<int>(record.format) } };
    if (const auto& version = record.sourceVersion)
        // As text: JSON numbers do not hold 64 bits.
        fields.insert(QStringLiteral("version"),
            QStringLiteral("%1 %2 %3 %4 %5")
                .arg(version->identity.device)
                .arg(version->identity.inode)
                .arg(version->size)
                .arg(version->modifiedSeconds)
                .arg(version->modifiedNanoseconds));
    const QByteArray text = QJsonDocument(fields).toJson(QJsonDocument::Compact);
    const QByteArray target = encoded(recordPathOf(workspace));
    std::string written = zo::os::hiddenTemplateBeside(target.toStdString(), "record");
    zo::os::UniqueFd file = zo::os::createTemporaryFile(written);
    if (!file)
        return false;
    const bool replaced = zo::os::setPermissions(file.get(), 0644)
        && zo::os::writeAll(file.get(), text.constData(), static_cast<std::size_t>(text.size()), 0)
        && zo::os::syncFile(file.get()) && file.close()
        && zo::os::rename(written.c_str(), target.constData());
    if (!replaced)
        zo::os::remove(written.c_str());
    return replaced;
}

std::optional<WorkspaceRecord> readRecord(const QString& workspace)
{
    QFile file(recordPathOf(workspace));
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QJsonObject fields = QJsonDocument::fromJson(file.readAll()).object();
    WorkspaceRecord record { fields.value(QStringLiteral("source")).toString(),
        static_cast<ArchiveFormat>(
            fields.value(QStringLiteral("format")).toInt(static_cast<int>(ArchiveFormat::Native))),
        std::nullopt };
    const QStringList version
        = fields.value(QStringLiteral("version")).toString().split(QLatin1Char(' '));
    if (version.size() == 5)
        record.sourceVersion
            = zo::os::FileVersion { { version[0].toULongLong(), version[1].toULongLong() },
                  version[2].toULongLong(), version[3].toLongLong(), version[4].toInt() };
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

void replaceDurably(const QString& replacement, const QString& target)
{
    syncTree(replacement, target);
    const QFileInfo targetInfo(target);
    const bool directoryOverDirectory
        = targetInfo.isDir() && !targetInfo.isSymLink() && QFileInfo(replacement).isDir();
    if (directoryOverDirectory) {
        // rename() cannot replace a directory that has entries; an exchange swaps both at once.
        if (!zo::os::exchange(encoded(replacement).constData(), encoded(target).constData()))
            failToReplace(target, "replace");
    } else if (!zo::os::rename(encoded(replacement).constData(), encoded(target).constData())) {
        failToReplace(target, "replace");
    }
    if (!zo::os::syncDirectory(encoded(targetInfo.path()).constData())) {
        // The previous tree is still whole beside it; it goes back rather than out.
        const int syncError = errno;
        if (directoryOverDirectory)
            zo::os::exchange(encoded(replacement).constData(), encoded(target).constData());
        errno = syncError;
        failToReplace(target, "sync the directory of");
    }
    // The previous content, exchanged out of the way; left hidden beside the saved tree when it
    // cannot go, as the save itself is complete.
    if (directoryOverDirectory)
        removeQuietly(replacement);
}

} // namespace zo::project::detail
