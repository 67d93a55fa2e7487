#pragma once

// The workspaces archive projects of ended processes left in the temporary directory. Listed
// by status, saved or removed by recover.

#include <zo/project/projectmodel.h>

#include <QJsonArray>
#include <QString>

#include <vector>

namespace zo::cli {

using Workspace = zo::project::ProjectModel::RecoverableWorkspace;

// The workspaces whose source archive lies in a directory, and the others.
struct Workspaces {
    std::vector<Workspace> belonging;
    std::vector<Workspace> others;
};
// directory is absolute and clean; a workspace without a source belongs nowhere.
Workspaces workspacesOf(const QString& directory);

// Under heading; nothing when there are none.
void printWorkspaces(const std::vector<Workspace>& workspaces, const QString& heading);
QJsonArray workspacesJson(const std::vector<Workspace>& workspaces);

// Saves the workspace named by its directory's name or path to target (its source archive
// when empty, which another program must not have changed since, unless force), then removes
// it; with abandon only removes it; with dryRun says what it would do.
void recoverWorkspace(
    const QString& name, const QString& target, bool abandon, bool dryRun, bool force);

} // namespace zo::cli
