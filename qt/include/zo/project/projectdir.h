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

// A project kept as a plain directory and edited in place through swap files: nothing in the
// directory changes before save(). It tells through notifier() whether it is saved and which
// files other programs changed (while watching).
//
// A project constructed without a path has no root until setPath(), load() or createNew();
// until then every operation on files throws exception::ProjectPathDoesNotExists with an
// empty path. A directory that does not exist leaves the project as it was.
// Use from one thread.
class ZOPROJECTQT_EXPORT ProjectDir : private ProjectVFS {
public:
    ProjectDir();
    explicit ProjectDir(const QString& path);
    // The moved-from project is left without a path, saved, and with a new notifier.
    ProjectDir(ProjectDir&& other);
    ProjectDir& operator=(ProjectDir&&) = delete;
    ~ProjectDir() override;

    // The root; empty before the project has one.
    QString path() const;

    // Opens path as the project, saved.
    void load(const QString& path);
    // Drops every pending edit of the current project and starts an unsaved one at path.
    void createNew(const QString& path);
    void setPath(const QString& path);
    // Drops every pending edit; the saved flag stays as it is.
    void close();
    /// Commits every pending edit as ProjectVFS::commit(changes) does: what open handles
    /// buffer is written out first, and unless changes is Overwrite, a source another program
    /// changed since it was opened for writing stops the save before anything is renamed
    /// (exception::SourceFileChanged). On failure the flag stays unsaved and the failing file
    /// and those after it stay pending.
    void save(SourceChanges changes = SourceChanges::Refuse);

    QByteArray readFile(const QString& path);
    // Writes to the file's swap file; IOWriteError when not all of data reached it.
    void writeFile(const QString& path, const QByteArray& data);
    void importFile(const QString& source, const QString& destination, bool overwrite);
    void move(const QString& source, const QString& destination, bool overwrite);
    void remove(const QString& path);
    // Creating a directory does not make the project unsaved.
    void mkdir(const QString& path, bool recursive);
    // Copies the pending content (or the file) out of the project; a relative destination's
    // directory is made under the temporary directory.
    void exportFile(const QString& path, const QString& destination, bool overwrite);

    // Swap files left by other processes, to recover or abandon.
    std::vector<RecoverableInfo> recoverableFiles();
    void recoverFile(const ProjectVFS::RecoverableInfo& info);
    void abandonFile(const ProjectVFS::RecoverableInfo& info);
    using ProjectVFS::inspect;
    using ProjectVFS::ownerOf;

    void setWatching(bool on);
    bool isWatching() const;
    bool isSaved() const;
    // Checks the directory now; a non-empty paths states what the previous check saw.
    void checkSourcePendingChanges(const QSet<QString>& paths);
    // Owned by the project.
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
