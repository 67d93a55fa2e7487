#pragma once

#include <zo/project/archive.h>
#include <zo/project/notifier.h>
#include <zo/project/projectwatcher.h>
#include <zo/project/zoprojectqt_export.h>

#include <QByteArray>
#include <QDateTime>
#include <QMap>
#include <QMutex>
#include <QSet>
#include <QString>
#include <QStringList>

#include <atomic>
#include <cstdio>
#include <memory>
#include <vector>

namespace zo::project {

// A fresh absolute path "<temp>/zo_project_model_<pid>_<n>" that does not exist yet, n counted
// from 0 on every call. Nothing is created.
ZOPROJECTQT_EXPORT QString xGetNewTempPath();

// A project kept in an archive (or any format of libzoproject). The archive is unpacked into a
// private workspace under the temporary directory, edited there and packed back by save().
// Beside each workspace a hidden record ".<workspace name>.source" names its source, so that
// the work of a process that died can be found (recoverableWorkspaces) and taken over.
//
// Operations on the workspace, load and save hold one non-recursive mutex, so a model may be
// used from several threads; signals are emitted while it is held, so a slot connected
// directly must not call back into a locking operation of the same model.
class ZOPROJECTQT_EXPORT ProjectModel {
public:
    // The workspace of a process that ended without removing it.
    struct RecoverableWorkspace {
        QString path; // the workspace directory
        QString sourcePath; // empty when the workspace has no record
        ArchiveFormat format; // of the source; Native when unknown
        int pid; // of the process that made it
        QDateTime lastModified;
    };

    // A new, empty, unsaved project.
    ProjectModel();
    // The notifier and the workspace go to the new object. The source watcher's connection
    // still calls the object moved from, so the new one forwards source events only after
    // its next load() or save().
    ProjectModel(ProjectModel&& other);
    ProjectModel& operator=(ProjectModel&&) = delete;
    ProjectModel(const ProjectModel&) = delete;
    ProjectModel& operator=(const ProjectModel&) = delete;
    // Removes the workspace.
    ~ProjectModel();

    void createNew();
    // Unpacks path into a new workspace; on failure the model stays as it was.
    void load(const QString& path, ArchiveFormat format);
    // Packs the workspace into path (empty: the source). format 0 detects it from the name
    // (zip when the name tells nothing), 1 keeps the source's. Every save is safe, whatever
    // safe says: the archive is written under a hidden name beside the target, synced and
    // renamed over the target (a directory swapped with it). A failed save throws IOWriteError
    // and leaves what was at the target as it was, unless only the final sync of the target's
    // directory failed: the target then holds the new archive (see zo/replace.h).
    void save(const QString& path, ArchiveFormat format, bool safe);

    void enableWatching(bool enable);
    bool isWatching() const;
    bool isSaved() const;
    // Owned by the model.
    detail::Notifier* notifier() const;
    void checkSourcePendingChanges(const QSet<QString>& referenceList);
    void onSourceContentChanged(const QMap<QString, FileSystemEvent>& events);
    QString getSourcePath() const;
    ArchiveFormat xGetSourceFormat();

    // Paths are relative to the workspace (an absolute one is used as it is).
    bool hasFile(const QString& relative) const;
    bool hasPath(const QString& relative) const;
    qint64 fileSize(const QString& relative) const;
    // Modes "w", "w+", "a" and "a+" create a missing parent directory; null on failure.
    FILE* fopen(const QString& relative, const QString& mode);
    QByteArray readFile(const QString& relative) const;
    void writeFile(const QString& relative, const QByteArray& data);
    void mkdir(const QString& relative, bool recursive);
    void copy(const QString& from, const QString& to, bool overwrite);
    void move(const QString& from, const QString& to, bool overwrite);
    void remove(const QString& relative);
    void importFile(const QString& source, const QString& relative, bool overwrite);
    void importFile(const ProjectModel& other, const QString& sourceRelative,
        const QString& relative, bool overwrite);
    // Imports the entry again from the source (loaded or saved models only).
    void importFromSource(const QString& relative, bool overwrite);
    void exportFile(const QString& relative, const QString& destination, bool overwrite) const;
    // The metadata file is never listed.
    QStringList getFileList(
        const QString& relative, bool showHidden, bool recursive, bool includeDirs) const;
    QString getFileLocalPath(const QString& relative) const;

    QString getMetadata(const QString& key) const;
    // Takes no lock and leaves the saved flag alone.
    void setMetadata(const QString& key, const QString& value);
    QMap<QString, QString> getMetadata() const;

    // Workspaces under the temporary directory whose process has ended.
    static std::vector<RecoverableWorkspace> recoverableWorkspaces();
    // Takes the workspace over as this model's unsaved content, with its source.
    void recoverWorkspace(const RecoverableWorkspace& workspace);
    // Removes the workspace and its record; false (nothing removed) while its process runs.
    static bool abandonWorkspace(const RecoverableWorkspace& workspace);

private:
    void xSetSaved(bool saved);
    void xReset();
    void xInitProject(ProjectWatcher* watcher);
    QString xResolve(const QString& relative) const;
    void xSetSource(const QString& path, ArchiveFormat format);
    void xCheckRelative(const QString& path) const;

    std::unique_ptr<detail::Notifier> _notifier;
    QString _sourcePath;
    std::unique_ptr<ProjectWatcher> _sourceWatcher;
    std::unique_ptr<ProjectWatcher> _project;
    mutable QMutex _mutex;
    // Guards _sourcePath alone, which getSourcePath reads without the model's mutex.
    mutable QMutex _sourcePathMutex;
    std::atomic<ArchiveFormat> _sourceFormat { ArchiveFormat::Native };
    std::atomic<bool> _watching { false };
    std::atomic<bool> _saved { true };
    // Expires with this object; connections made for it stop calling it then.
    std::shared_ptr<const bool> _alive = std::make_shared<const bool>(true);
};

} // namespace zo::project
