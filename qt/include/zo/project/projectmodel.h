#pragma once

#include <zo/project/archive.h>
#include <zo/project/notifier.h>
#include <zo/project/projectvfs.h>
#include <zo/project/projectwatcher.h>
#include <zo/project/zoprojectqt_export.h>

#include <QByteArray>
#include <QDateTime>
#include <QDir>
#include <QMap>
#include <QMutex>
#include <QSet>
#include <QString>
#include <QStringList>

#include <atomic>
#include <cstdio>
#include <memory>
#include <optional>
#include <vector>

namespace zo::os {
class OwnerMark;
struct FileVersion;
} // namespace zo::os

namespace zo::project {

namespace detail {
struct SourceGate;
}

/// A fresh absolute path "<temp>/zo_project_model_<pid>_<n>" that does not exist yet, n counted
/// from 0 on every call. Nothing is created.
ZOPROJECTQT_EXPORT QString xGetNewTempPath();

/// A project kept in an archive (or any format of libzoproject). The archive is unpacked into a
/// private workspace under the temporary directory, edited there and packed back by save().
/// Beside each workspace a hidden record ".<workspace name>.source" names its source, so that
/// the work of a process that died can be found (recoverableWorkspaces) and taken over.
/// Paths of the file operations are relative to the workspace (an absolute one is used as it
/// is); they act on the workspace at once and never touch the source.
///
/// Operations on the workspace, load and save hold one non-recursive mutex, so a model may be
/// used from several threads; signals are emitted while it is held, so a slot connected
/// directly must not call back into a locking operation of the same model. The source watcher
/// belongs to the thread that made the model (the notifier's): its timer runs there and source
/// events arrive there, whichever thread loads, saves or switches watching; calls made on other
/// threads are queued to it. Watching needs that thread to run a Qt event loop.
class ZOPROJECTQT_EXPORT ProjectModel {
public:
    /// The workspace of a process that ended without removing it.
    struct RecoverableWorkspace {
        QString path; ///< the workspace directory
        QString sourcePath; ///< empty when the workspace has no record or no source
        ArchiveFormat format; ///< of the source; Native when unknown
        int pid; ///< of the process that made it
        QDateTime lastModified; ///< the newest modification in the workspace and its record
        /// Whether the source is no longer the version the workspace was loaded from or last
        /// saved to: saving over it would replace another program's changes.
        bool sourceChanged = false;
    };

    /// A new, empty, unsaved project: an empty workspace with its record.
    /// @throws IOWriteError or ArchiveError when the workspace cannot be created.
    ProjectModel();
    /// The notifier and the workspace go to the new object. The source watcher's connection
    /// still calls the object moved from, so the new one forwards source events only after
    /// its next load() or save().
    ProjectModel(ProjectModel&& other);
    ProjectModel& operator=(ProjectModel&&) = delete;
    ProjectModel(const ProjectModel&) = delete;
    ProjectModel& operator=(const ProjectModel&) = delete;
    /// Removes the workspace and its record; one that cannot be removed stays for recovery.
    ~ProjectModel();

    /// Replaces the workspace (removed) by a new empty one without source; unsaved.
    /// @throws IOWriteError or ArchiveError when the workspace cannot be created.
    void createNew();
    /// Unpacks path into a new workspace, which replaces the current one (removed); saved,
    /// with path as the source. On failure the new workspace is removed and the model stays
    /// as it was.
    /// @throws ArchiveError or UnsupportedFormat as importProject.
    void load(const QString& path, ArchiveFormat format);
    /// Packs the workspace into path (empty: the source), which becomes the source; saved.
    /// format Auto detects it from the name (zip when the name tells nothing), Native keeps
    /// the source's. Every save is safe, whatever safe says: the archive is written under a
    /// hidden name beside the target, synced and renamed over the target (a directory swapped
    /// with it).
    /// @throws PathNotFound when path is empty and there is no source.
    /// @throws exception::SourceFileChanged, writing nothing, when the save goes to the source
    /// and another program changed it (device, inode, size or modification time) since it was
    /// loaded or last saved, unless changes is Overwrite.
    /// @throws IOWriteError when the export fails: what was at the target stays as it was,
    /// unless only the final sync of the target's directory failed (the target then holds the
    /// new archive, see zo/replace.h), and the model is unsaved.
    void save(const QString& path, ArchiveFormat format, bool safe,
        ProjectVFS::SourceChanges changes = ProjectVFS::SourceChanges::Refuse);

    /// Starts or stops polling the source for changes by other programs, reported through
    /// notifier() on the thread that made the model; the choice carries over to the next
    /// source. Called on another thread, the timer starts or stops once that thread's event
    /// loop gets to it.
    /// @throws std::logic_error, changing nothing, when enable is true and the thread that made
    /// the model has no Qt event loop (a thread not started by QThread, or the main thread
    /// without a QCoreApplication), where no timer can run.
    void enableWatching(bool enable);
    /// Whether polling is on.
    bool isWatching() const;
    /// False after createNew(), writeFile(), recoverWorkspace(), a failed save() or an outside
    /// change of the source; true after load() and save().
    bool isSaved() const;
    /// The model's signals; owned by the model.
    detail::Notifier* notifier() const;
    /// Checks the source now (on another thread than the model's: once the model's thread gets
    /// to it); a non-empty referenceList states what the previous check saw.
    void checkSourcePendingChanges(const QSet<QString>& referenceList);
    /// Takes the source watcher's report: unsaved, and events relayed through notifier() by
    /// path relative to the source.
    void onSourceContentChanged(const QMap<QString, FileSystemEvent>& events);
    /// The archive last loaded or saved; empty for a new project.
    QString getSourcePath() const;
    /// The format of the source; Native when there is none.
    ArchiveFormat xGetSourceFormat();

    /// Whether relative is a regular file in the workspace. This and every file operation
    /// below throw exception::PathOutsideProject, before anything is read or written, for a
    /// path that leads outside the workspace (through "..", elsewhere, or through a link that
    /// leaves it).
    bool hasFile(const QString& relative) const;
    /// Whether anything is at relative in the workspace.
    bool hasPath(const QString& relative) const;
    /// The size of the file at relative.
    /// @throws PathNotFound when it does not exist.
    qint64 fileSize(const QString& relative) const;
    /// A C stream on the workspace file that the caller owns; mode as for std::fopen. Modes
    /// "w", "w+", "a" and "a+" create a missing parent directory.
    /// @return null on failure.
    FILE* fopen(const QString& relative, const QString& mode);
    /// The whole content of the file at relative.
    /// @throws PathNotFound when it does not exist; IOReadError when it cannot be opened.
    QByteArray readFile(const QString& relative) const;
    /// Replaces the content of the file at relative, creating it and its parents; unsaved.
    /// @throws IOWriteError when it cannot be opened or not all of data reached it.
    void writeFile(const QString& relative, const QByteArray& data);
    /// Creates a directory, with its parents when recursive.
    /// @throws PathNotFound when the parent is missing and recursive is false.
    /// @throws IOWriteError when the directory cannot be created.
    void mkdir(const QString& relative, bool recursive);
    /// Copies within the workspace, as zo::project::copy.
    void copy(const QString& from, const QString& to, bool overwrite);
    /// Moves within the workspace, as zo::project::move.
    void move(const QString& from, const QString& to, bool overwrite);
    /// Deletes a file or tree in the workspace, as zo::project::remove.
    void remove(const QString& relative);
    /// Copies an outside file or tree into the workspace at relative, making its parents.
    /// @throws PathNotFound when relative is absolute, or as zo::project::copy.
    void importFile(const QString& source, const QString& relative, bool overwrite);
    /// Copies a file or tree of other's workspace into this one. other is read without its
    /// lock.
    /// @throws PathNotFound when a path is absolute, or as zo::project::copy.
    void importFile(const ProjectModel& other, const QString& sourceRelative,
        const QString& relative, bool overwrite);
    /// Imports the entry again from the source (loaded or saved models only).
    /// @throws PathNotFound when there is no source, or as zo::project::copy.
    void importFromSource(const QString& relative, bool overwrite);
    /// Copies a file or tree of the workspace out; a relative destination's directory is made
    /// under the temporary directory.
    /// @throws PathNotFound when destination is empty, or as zo::project::copy.
    void exportFile(const QString& relative, const QString& destination, bool overwrite) const;
    /// The entries below relative as listDirectory() gives them (relative itself when it is a
    /// file). The metadata file is never listed.
    QStringList getFileList(
        const QString& relative, bool showHidden, bool recursive, bool includeDirs) const;
    /// The absolute path of relative in the workspace.
    QString getFileLocalPath(const QString& relative) const;

    /// The workspace's metadata value of key; empty when absent.
    /// @throws ArchiveError when the metadata file cannot be read.
    QString getMetadata(const QString& key) const;
    /// Sets and persists a metadata value in the workspace, as Project::setMetadata. Takes no
    /// lock and leaves the saved flag alone.
    /// @throws ArchiveError when the metadata file cannot be replaced.
    void setMetadata(const QString& key, const QString& value);
    /// Every metadata key of the workspace and its value.
    /// @throws ArchiveError when the metadata file cannot be read.
    QMap<QString, QString> getMetadata() const;

    /// Workspaces under the temporary directory whose process is proven gone, by the owner
    /// marks models leave there (see ProjectVFS::ownerOf); those of processes that may still
    /// run, in any pid namespace, are left out.
    static std::vector<RecoverableWorkspace> recoverableWorkspaces();
    /// Takes the workspace over as this model's unsaved content, with its source and the source
    /// version it was loaded from (see save): it is renamed to a workspace name of this
    /// process, and the current workspace is removed.
    /// @throws PathNotFound when workspace is not one.
    /// @throws IOWriteError while its process may still run or when it cannot be renamed; the
    /// model is then as it was.
    void recoverWorkspace(const RecoverableWorkspace& workspace);
    /// Removes the workspace and its record.
    /// @return false (nothing removed) while its process may still run.
    /// @throws PathNotFound when workspace is not one.
    static bool abandonWorkspace(const RecoverableWorkspace& workspace);

private:
    void xSetSaved(bool saved);
    void xReset();
    void xWatchSource(const QString& path);
    void xInitProject(ProjectWatcher* watcher);
    void xRelay(const QDir* source, const QMap<QString, FileSystemEvent>& events);
    QString xResolve(const QString& relative) const;
    void xSetSource(const QString& path, ArchiveFormat format);
    void xCheckRelative(const QString& path) const;

    // This process's owner mark in the temporary directory, made before its workspace.
    std::shared_ptr<zo::os::OwnerMark> _mark;
    std::unique_ptr<detail::Notifier> _notifier;
    QString _sourcePath;
    // Lives on the notifier's thread; shared with a check that runs on it, so that it is never
    // deleted under the check. Guarded by _watcherMutex.
    std::shared_ptr<ProjectWatcher> _sourceWatcher;
    std::unique_ptr<ProjectWatcher> _project;
    // The source's version when it was loaded or last saved; null when there was none. Held by
    // pointer, as libzo's types stay out of the public headers.
    std::shared_ptr<const zo::os::FileVersion> _sourceVersion;
    mutable QMutex _mutex;
    // Guards _sourcePath alone, which getSourcePath reads without the model's mutex.
    mutable QMutex _sourcePathMutex;
    // Guards _sourceWatcher and _watching, which the watching calls reach without the model's
    // mutex; never held while a signal is emitted.
    mutable QMutex _watcherMutex;
    std::atomic<ArchiveFormat> _sourceFormat { ArchiveFormat::Native };
    std::atomic<bool> _watching { false };
    std::atomic<bool> _saved { true };
    // Closed when this object goes; the source watchers' reports pass through it.
    std::shared_ptr<detail::SourceGate> _gate;
};

} // namespace zo::project
