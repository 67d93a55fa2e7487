#include "workspaces.h"

#include "command.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonObject>

#include <algorithm>
#include <stdexcept>

namespace zo::cli {
namespace {

using zo::project::ArchiveFormat;
using zo::project::ProjectModel;

QString sourceOf(const Workspace& workspace)
{
    return workspace.sourcePath.isEmpty() ? QStringLiteral("no source") : workspace.sourcePath;
}

// Copied into a model of its own rather than adopted, so that a failed save leaves the
// workspace where the next attempt finds it; it goes only once the archive is written.
void save(const Workspace& workspace, const QString& target, bool toSource)
{
    ProjectModel model;
    model.load(workspace.path, ArchiveFormat::Directory);
    // Native, the source's own format, is what a save asks for by detecting it.
    const bool detect = !toSource || workspace.format == ArchiveFormat::Native;
    model.save(target, detect ? ArchiveFormat::Auto : workspace.format, true);
    ProjectModel::abandonWorkspace(workspace);
}

} // namespace

Workspaces workspacesOf(const QString& directory)
{
    Workspaces workspaces;
    for (const Workspace& workspace : ProjectModel::recoverableWorkspaces())
        (!workspace.sourcePath.isEmpty()
                    && isWithin(QDir::cleanPath(QFileInfo(workspace.sourcePath).absoluteFilePath()),
                        directory)
                ? workspaces.belonging
                : workspaces.others)
            .push_back(workspace);
    return workspaces;
}

void printWorkspaces(const std::vector<Workspace>& workspaces, const QString& heading)
{
    if (workspaces.empty())
        return;
    print(heading);
    for (const Workspace& workspace : workspaces)
        print(QStringLiteral("  %1  (%2, modified %3, process %4)")
                  .arg(QFileInfo(workspace.path).fileName(), sourceOf(workspace),
                      workspace.lastModified.toString(Qt::ISODate))
                  .arg(workspace.pid));
}

QJsonArray workspacesJson(const std::vector<Workspace>& workspaces)
{
    QJsonArray array;
    for (const Workspace& workspace : workspaces)
        array.append(QJsonObject { { "path", workspace.path },
            { "sourcePath", workspace.sourcePath }, { "pid", workspace.pid },
            { "modified", workspace.lastModified.toUTC().toString(Qt::ISODate) } });
    return array;
}

void recoverWorkspace(
    const QString& name, const QString& target, bool abandon, bool dryRun, bool force)
{
    const std::vector<Workspace> workspaces = ProjectModel::recoverableWorkspaces();
    const auto found
        = std::find_if(workspaces.begin(), workspaces.end(), [&name](const Workspace& workspace) {
              return workspace.path == name || QFileInfo(workspace.path).fileName() == name;
          });
    if (found == workspaces.end())
        throw std::runtime_error("'" + name.toStdString() + "': no workspace of an ended process");
    const QString workspaceName = QFileInfo(found->path).fileName();
    if (abandon) {
        if (!dryRun)
            ProjectModel::abandonWorkspace(*found);
        print(QString::fromLatin1(dryRun ? "would abandon %1" : "abandoned %1").arg(workspaceName));
        return;
    }
    const QString destination = target.isEmpty() ? found->sourcePath : target;
    if (destination.isEmpty())
        throw UsageError(
            workspaceName.toStdString() + " has no source archive; name where to save it");
    const bool toSource = QFileInfo(destination).absoluteFilePath()
        == QFileInfo(found->sourcePath).absoluteFilePath();
    if (toSource && found->sourceChanged && !force)
        throw std::runtime_error("'" + destination.toStdString()
            + "': changed by another program since " + workspaceName.toStdString()
            + " was loaded from it; nothing was saved: --force saves over it, a PATH saves "
              "elsewhere");
    if (!dryRun)
        save(*found, QFileInfo(destination).absoluteFilePath(), target.isEmpty());
    print(QString::fromLatin1(dryRun ? "would save %1 to %2" : "saved %1 to %2")
              .arg(workspaceName, destination));
}

} // namespace zo::cli
