#pragma once

#include <zo/project/notifier.h>
#include <zo/project/projectvfs.h>
#include <zo/project/projectwatcher.h>
#include <zo/project/zoprojectqt_export.h>

#include <QByteArray>
#include <QMap>
#include <QSet>
#include <QString>

#include <memory>
#include <vector>

namespace zo::project {

/// A project kept as a plain directory and edited in place through swap files, as ProjectVFS
/// does: no file in the directory changes before save(), except by the operations said to act
/// at once (import, move, remove, mkdir). It tells through notifier() whether it is saved and
/// which files other programs changed (while watching); its own writes are never reported.
///
/// A project constructed without a path has no root until setPath(), load() or createNew();
/// until then every operation on files throws exception::ProjectPathDoesNotExists with an
/// empty path. A directory that does not exist leaves the project as it was.
/// Use from one thread.
class ZOPROJECTQT_EXPORT ProjectDir : private ProjectVFS {
public:
    /// A project without a root, saved.
    ProjectDir();
    /// The project rooted at path, saved and not watching; interrupted commits are put back
    /// as ProjectVFS does.
    explicit ProjectDir(const QString& path);
    /// The moved-from project is left without a path, saved, and with a new notifier.
    ProjectDir(ProjectDir&& other);
    ProjectDir& operator=(ProjectDir&&) = delete;
    /// Forgets pending edits, whose swap files stay on disk for recovery.
    ~ProjectDir() override;

    /// The root; empty before the project has one.
    QString path() const;

    /// Opens path as the project, saved.
    /// @throws exception::ProjectPathDoesNotExists when path does not exist.
    void load(const QString& path);
    /// Drops every pending edit of the current project (deleting its swap files) and starts an
    /// unsaved one at path.
    /// @throws exception::ProjectPathDoesNotExists when path does not exist; nothing is
    /// dropped then.
    void createNew(const QString& path);
    /// Opens path as the project; the saved flag stays as it is.
    /// @throws exception::ProjectPathDoesNotExists when path does not exist.
    void setPath(const QString& path);
    /// Drops every pending edit, deleting its swap file; the saved flag stays as it is.
    void close();
    /// Commits every pending edit as ProjectVFS::commit(changes) does: what open handles
    /// buffer is written out first, and unless changes is Overwrite, a source another program
    /// changed since it was opened for writing stops the save before anything is renamed
    /// (exception::SourceFileChanged). On failure the flag stays unsaved and the failing file
    /// and those after it stay pending.
    /// @throws exception::SwapFileCommit (one of its kinds) on failure.
    void save(SourceChanges changes = SourceChanges::Refuse);

    /// The content of path: its pending edit, else the file.
    /// @throws exception::OpenSwapFile when it cannot be opened.
    QByteArray readFile(const QString& path);
    /// Replaces the content of path in its swap file (made now if need be); unsaved.
    /// @throws exception::OpenSwapFile when the swap file cannot be made or opened.
    /// @throws IOWriteError when not all of data reached it; the edit is then damaged and can
    /// only be discarded.
    void writeFile(const QString& path, const QByteArray& data);
    /// Copies an outside file or tree into the project at once, as ProjectVFS::importFile();
    /// unsaved.
    void importFile(const QString& source, const QString& destination, bool overwrite);
    /// Moves a file and its pending edit at once, as ProjectVFS::move(); unsaved.
    void move(const QString& source, const QString& destination, bool overwrite);
    /// Removes a file or tree with its swap files at once, as ProjectVFS::remove(); unsaved.
    void remove(const QString& path);
    /// Creates a directory at once, with its parents when recursive. Creating a directory does
    /// not make the project unsaved.
    /// @throws PathNotFound when the parent is missing and recursive is false.
    /// @throws IOWriteError when the directory cannot be created.
    void mkdir(const QString& path, bool recursive);
    /// Copies the pending content (or the file) out of the project; a relative destination's
    /// directory is made under the temporary directory.
    /// @throws PathNotFound when destination is empty, or as zo::project::copy.
    void exportFile(const QString& path, const QString& destination, bool overwrite);

    /// Swap files in the project, of other processes too, to recover or abandon.
    std::vector<RecoverableInfo> recoverableFiles();
    /// Takes a swap file over as this project's pending edit, as ProjectVFS::recoverFile().
    void recoverFile(const ProjectVFS::RecoverableInfo& info);
    /// Deletes a swap file unless its process runs, as ProjectVFS::abandonFile().
    void abandonFile(const ProjectVFS::RecoverableInfo& info);
    using ProjectVFS::inspect;
    using ProjectVFS::ownerOf;

    /// Starts or stops polling the directory for changes by other programs, reported through
    /// notifier(); the choice carries over to the next root.
    void setWatching(bool on);
    /// Whether polling is on.
    bool isWatching() const;
    /// False after an edit, an outside change or createNew(); true again after save() or
    /// load().
    bool isSaved() const;
    /// Checks the directory now; a non-empty paths states what the previous check saw.
    void checkSourcePendingChanges(const QSet<QString>& paths);
    /// The project's signals; owned by the project.
    detail::Notifier2* notifier() const;

private:
    ProjectWatcher& xRequireWatcher() const;
    // Runs operation with watching suspended, so that the project's own writes are not
    // reported back as outside changes.
    template <typename Operation> void xBlocked(const Operation& operation);
    void setSaved(bool saved);
    void init();
    void cleanEventList(const QMap<QString, FileSystemEvent>& eventList);

    std::unique_ptr<ProjectWatcher> _watcher;
    std::unique_ptr<detail::Notifier2> _notifier;
    bool _saved = true;
    bool _watching = false;
};

} // namespace zo::project
