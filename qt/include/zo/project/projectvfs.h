#pragma once

#include <zo/project/zoprojectqt_export.h>

#include <QDateTime>
#include <QIODevice>
#include <QString>
#include <QStringList>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace zo::project {

class VFSFile;
namespace detail {
class ProjectVFS_Impl;
}

// A project directory edited through swap files: nothing written through it reaches a project
// file before commit(). Swap files left by crashed processes are found by recoverableFiles()
// and taken over or dropped with recoverFile() and abandonFile(). Opening a project (and
// setPath) puts back the source of a commit that was killed between its two renames.
//
// Handles returned by file() and open() share the engine state and stay valid after the
// ProjectVFS is gone. Use from one thread.
class ZOPROJECTQT_EXPORT ProjectVFS {
public:
    // A swap file left by some process; paths are relative to the project root.
    struct RecoverableInfo {
        QString swapPath;
        QString sourcePath;
        pid_t pid; // 0 when the name's process id does not fit
    };

    explicit ProjectVFS(const QString& path);
    ProjectVFS(ProjectVFS&& other) noexcept;
    ProjectVFS& operator=(ProjectVFS&& other) noexcept;
    ProjectVFS(const ProjectVFS&) = delete;
    ProjectVFS& operator=(const ProjectVFS&) = delete;
    virtual ~ProjectVFS();

    QString path() const;
    QString filePath(const QString& path) const;
    QString relativeFilePath(const QString& path) const;
    QString absoluteFilePath(const QString& path) const;
    bool mkpath(const QString& path) const;
    bool mkdir(const QString& path) const;
    bool exists() const;
    bool isNotCommitted() const;
    bool isNotCommitted(const QString& path) const;
    bool hasFile(const QString& path) const;
    bool hasPath(const QString& path) const;
    QString makeSwapPath(const QString& path) const;
    QString makeBackupPath(const QString& path) const;

    std::unique_ptr<VFSFile> file(const QString& path);
    void commit(const QString& path);
    void discard(const QString& path);
    // Throws exception::OpenSwapFile when the file cannot be opened.
    std::unique_ptr<VFSFile> open(const QString& path, QIODevice::OpenMode mode);
    // A C stream the caller owns; null when only the final C open fails.
    FILE* fopen(const QString& path, const QString& mode);
    QString createSwapFile(const QString& path);

    // Told true when the first swap file is pending and false when a single-file operation
    // leaves none; the whole-project commit() and discard() do not call it.
    void setCommittedChangedHandler(std::function<void(bool)>&& handler);

    // Refuses the current path as well as a missing one (exception::ProjectPathDoesNotExists).
    void setPath(const QString& path);
    // True also for a new file that so far exists only as its swap file.
    bool exists(const QString& path) const;
    // Commits every pending file in path order; stops at the first failure, which leaves it
    // and every later file pending.
    void commit();
    void discard();

    QStringList getFileList(
        const QString& path, bool showHidden, bool recursive, bool includeDirs) const;
    // Copies an outside file or tree to the relative destination directly, without swap file.
    void importFile(const QString& source, const QString& destination, bool overwrite) const;
    // Copies the pending content (or the file itself) out of the project.
    void exportFile(const QString& path, const QString& destination, bool overwrite);
    void copy(const QString& source, const QString& destination, bool overwrite);
    void move(const QString& source, const QString& destination, bool overwrite);
    // Removes a file with its swap file, or a directory tree; never through a symbolic link.
    void remove(const QString& path);
    // Replaces a pending swap file by the current content of its source.
    void updateFromSource(const QString& path);

    std::vector<RecoverableInfo> recoverableFiles();
    /// What recoverableFiles() returned when the project was opened or its path last set, in
    /// the walk that put back the sources of interrupted commits: a caller that lists the swap
    /// files right after opening needs no second walk. Empty for a facade without a path.
    const std::vector<RecoverableInfo>& recoverableFilesWhenOpened() const;
    // Takes the swap file over as this process's pending change of info.sourcePath; a file of
    // a process that still runs is copied rather than moved.
    void recoverFile(const RecoverableInfo& info);
    // Deletes the swap file unless its process still runs.
    void abandonFile(const RecoverableInfo& info);

private:
    // Whether the process that made a swap file last modified at swapModified still runs: a
    // process of that id which started later only reused it. An empty programName accepts any
    // program; an invalid time skips the test of the start.
    static bool isProcessRunning(
        pid_t pid, const std::string& programName, const QDateTime& swapModified);
    bool isOwnerRunning(const RecoverableInfo& info, const std::string& programName) const;
    void xRestoreInterruptedCommits();

    std::shared_ptr<detail::ProjectVFS_Impl> _impl;
};

} // namespace zo::project
