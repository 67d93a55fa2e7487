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

/// A project directory edited through swap files: nothing written through it reaches a
/// project file before commit(). The first write to a file copies it to a hidden swap file
/// beside it, ".<name>.<pid>.csp", and every later access goes there; commit() renames the
/// source to "<name>bck", the swap file to the source's name, syncs the directory and deletes
/// the backup. Swap files left by crashed processes are found by recoverableFiles() and taken
/// over or dropped with recoverFile() and abandonFile(). Opening a project (and setPath) puts
/// back the source of a commit that was killed between its two renames.
///
/// A commit of several files is all or nothing, also across a crash: before its first rename
/// it leaves a journal in the root (".save.zo-journal-<pid>.<unique>") that names every file,
/// and opening the project after its process ended completes that save.
///
/// Swap files are written without a sync; a commit makes them durable, all of a commit's
/// together. Until then the owner mark notes what each holds (a size and a hash, anew whenever a
/// handle that wrote closes), so that after the machine stopped, a swap file whose content did
/// not all reach the disk is told apart (RecoverableState::torn) and never recovered. What is
/// written to a swap file by other means than a handle of this class (a C stream, the path
/// createSwapFile returns) is noted when the ProjectVFS lets its pending files go.
///
/// Paths are relative to the root unless absolute. Handles returned by file() and open() share
/// the engine state and stay valid after the ProjectVFS is gone. Use from one thread.
///
/// A project path that leads outside the root, through "..", as an absolute path elsewhere or
/// through a symbolic link that leaves the root, is refused with exception::PathOutsideProject
/// by every operation that reads or writes through it (mkpath and mkdir included), before
/// anything is done. Before its first swap file below the root, the project leaves a hidden
/// owner mark there (".zo-owner-<pid>.<unique>") by which other processes, also in other pid
/// namespaces or on other hosts, tell that this one still runs.
class ZOPROJECTQT_EXPORT ProjectVFS {
public:
    /// A swap file left by some process; paths are relative to the project root.
    struct RecoverableInfo {
        QString swapPath; ///< the swap file
        QString sourcePath; ///< the file it is a change of
        pid_t pid; ///< of the process that made it; 0 when the name's process id does not fit
    };

    /// What is known of the process that made a swap file, as QLockFile::getLockInfo tells of
    /// a lock's owner. The owner is judged running unless it is proven gone, in any pid
    /// namespace and, where the file system carries locks, on any host.
    struct OwnerInfo {
        /// How the owner stands.
        enum class State {
            Running, ///< it still runs: its files are never moved or deleted
            Ended, ///< it is proven gone: its files may be recovered or abandoned
            InUseElsewhere ///< it cannot be told (another host): treated as running
        };
        State state = State::InUseElsewhere; ///< how it stands
        qint64 pid = 0; ///< in its own pid namespace
        QString hostName; ///< empty where unknown
        QString program; ///< the file name of its program; empty where unknown
        QDateTime started; ///< invalid where unknown
    };

    /// What is known of a swap file that recoverableFiles() found.
    struct RecoverableState {
        OwnerInfo owner; ///< the process that made the swap file
        /// The source is no longer the file the swap file was made from (by device, inode,
        /// size and modification time, as its owner noted them); for a swap file of an older
        /// version, which noted nothing, the source was modified after the swap file was made.
        bool sourceChanged = false;
        /// The machine stopped before the swap file was written out, and it no longer holds
        /// what its owner wrote (a torn file): recoverFile refuses it (exception::SwapFileTorn).
        bool torn = false;
    };

    /// A commit of several files that a process began and did not finish, found by its
    /// journal, which lies in the root, in a directory below it or in one above it.
    struct InterruptedSave {
        QString journalPath; ///< relative to the root
        OwnerInfo owner; ///< the process that began it or took it over
        /// Every file it saves, relative to the root; empty when the journal is damaged (torn
        /// before it was complete, so that the save never began).
        QStringList files;
    };

    /// What opening the project, or setPath, does with the work of processes that ended
    /// unfinished.
    enum class Unfinished {
        /// Completes their interrupted saves whose journals this process's user owns (removing
        /// the journals of those that never began) and puts back the sources of their
        /// interrupted single-file commits.
        Complete,
        /// Changes nothing: a look at the project, such as a status report.
        Leave
    };

    /// Whether a commit may replace a source that another program changed since its swap file
    /// was made (or last refreshed from the source).
    enum class SourceChanges {
        Refuse, ///< throw exception::SourceFileChanged (see commit() for what stays)
        Overwrite ///< commit anyway: that program's change is replaced
    };

    /// The project rooted at path. Unless told to leave them, completes the interrupted saves
    /// of ended processes and puts back, from their backups, the sources of commits that were
    /// killed between their two renames (unless the swap file's owner still runs): see
    /// Unfinished. Whatever cannot be done is logged; nothing is thrown for it.
    explicit ProjectVFS(const QString& path, Unfinished unfinished = Unfinished::Complete);
    /// @{
    /// Takes over the engine state; the object moved from is left without one.
    ProjectVFS(ProjectVFS&& other) noexcept;
    ProjectVFS& operator=(ProjectVFS&& other) noexcept;
    /// @}
    ProjectVFS(const ProjectVFS&) = delete;
    ProjectVFS& operator=(const ProjectVFS&) = delete;
    /// Forgets the pending changes: their swap files stay on disk, for recovery.
    virtual ~ProjectVFS();

    /// The root as given.
    QString path() const;
    /// path joined to the root (an absolute path as it is), as QDir::filePath.
    QString filePath(const QString& path) const;
    /// path relative to the root, as QDir::relativeFilePath.
    QString relativeFilePath(const QString& path) const;
    /// path joined to the root's absolute path, as QDir::absoluteFilePath.
    QString absoluteFilePath(const QString& path) const;
    /// Creates the directory path with its parents, directly (no swap file).
    /// @return whether it exists now.
    bool mkpath(const QString& path) const;
    /// Creates the directory path, whose parent must exist, directly (no swap file).
    /// @return whether it was created.
    bool mkdir(const QString& path) const;
    /// Whether the root exists.
    bool exists() const;
    /// Whether any change is pending.
    bool isNotCommitted() const;
    /// Whether a change of path is pending.
    bool isNotCommitted(const QString& path) const;
    /// Whether path is a regular file, read through its pending swap file if it has one.
    bool hasFile(const QString& path) const;
    /// Whether anything is at path, read through its pending swap file if it has one.
    bool hasPath(const QString& path) const;
    /// This process's swap file name for path: ".<name>.<pid>.csp" in path's directory.
    QString makeSwapPath(const QString& path) const;
    /// The backup name a commit gives path's old content: path followed by "bck".
    QString makeBackupPath(const QString& path) const;

    /// A closed handle on path, which may be a link whose target lies outside (the handle then
    /// names the link itself); touches no disk.
    /// @throws exception::PathOutsideProject when path's directory is not inside the project.
    std::unique_ptr<VFSFile> file(const QString& path);
    /// Commits the pending change of path: see commit(SourceChanges) for what is written out
    /// first and what is checked.
    /// @throws exception::SwapFileCommit (one of its kinds) on failure.
    void commit(const QString& path, SourceChanges changes = SourceChanges::Refuse);
    /// Drops the pending change of path, as VFSFile::discard().
    void discard(const QString& path);
    /// A handle on path opened with mode, as VFSFile::open().
    /// @throws exception::PathOutsideProject when path, links followed, leads outside the root.
    /// @throws exception::OpenSwapFile when the file cannot be opened.
    std::unique_ptr<VFSFile> open(const QString& path, QIODevice::OpenMode mode);
    /// A C stream on path that the caller owns, as VFSFile::fopen().
    /// @return null when only the final C open fails.
    /// @throws exception::OpenSwapFile when the file cannot be opened.
    FILE* fopen(const QString& path, const QString& mode);
    /// Makes path's swap file now, as VFSFile::createSwapFile().
    /// @return its absolute path.
    QString createSwapFile(const QString& path);

    /// Told true when the first swap file is pending and false when a single-file operation
    /// leaves none; the whole-project commit() and discard() do not call it.
    void setCommittedChangedHandler(std::function<void(bool)>&& handler);

    /// Moves the facade to another root, with the same recovery of interrupted saves and
    /// commits as the constructor.
    /// @throws exception::ProjectPathDoesNotExists for the current path as well as a missing
    /// one.
    void setPath(const QString& path);
    /// Whether path exists, also as a new file that so far exists only as its swap file.
    bool exists(const QString& path) const;
    /// Commits every pending file in path order, all or nothing across a crash (see the class
    /// comment). First writes out what the open handles of those files still buffer (a handle
    /// whose write failed damages its file: SwapFileDamaged). Unless changes is Overwrite,
    /// then checks every source against the version its swap file was made from and, when
    /// another program changed any, throws exception::SourceFileChanged naming each and
    /// commits nothing; a change made while the commit runs is found as that file is renamed
    /// and stops the commit there. Whatever changes is asked, a file another program makes at
    /// a new file's name, or at a source's name between its two renames, stays and stops the
    /// commit with exception::SourceFileChanged. A source that is a link inside the project
    /// stays a link: its target takes the new content. Otherwise stops at the first failure (the
    /// exception::SwapFileCommit family), which leaves that file and every later one pending;
    /// what was committed before it is durable, and no journal is left that could complete the
    /// rest. The journal itself failing throws exception::SwapFileRename for the first file
    /// and commits nothing. A file whose swap file is gone throws exception::SwapFileMissing
    /// and keeps its source. Handles still open on a committed file are closed: what they
    /// write afterwards goes nowhere.
    /// @throws exception::SwapFileCommit (one of its kinds) on failure.
    void commit(SourceChanges changes = SourceChanges::Refuse);
    /// Drops every pending change, deleting its swap file; handles still open on them are
    /// closed.
    void discard();

    /// The entries below path as listDirectory() gives them, without the metadata file;
    /// a file itself when path names one.
    QStringList getFileList(
        const QString& path, bool showHidden, bool recursive, bool includeDirs) const;
    /// Copies an outside file or tree to the relative destination directly, without swap file,
    /// making its parent directories.
    /// @throws PathNotFound when either path is empty or destination is absolute, or as
    /// zo::project::copy.
    void importFile(const QString& source, const QString& destination, bool overwrite) const;
    /// Copies the pending content (or the file itself) out of the project.
    /// Throws what zo::project::copy throws.
    void exportFile(const QString& path, const QString& destination, bool overwrite);
    /// Copies a file's current content to a new pending change at destination, as
    /// VFSFile::copy().
    /// @throws PathNotFound when source is no file; AlreadyExists when destination is one and
    /// overwrite is false.
    void copy(const QString& source, const QString& destination, bool overwrite);
    /// Moves a file and its swap file on disk now, as VFSFile::move().
    /// @throws PathNotFound when source is no file, or as zo::project::move.
    void move(const QString& source, const QString& destination, bool overwrite);
    /// Removes a file with its swap file, or a directory tree with the swap files in it; never
    /// through a symbolic link.
    /// @throws IOWriteError, PathNotFound or std::runtime_error as zo::project::remove.
    void remove(const QString& path);
    /// Replaces a pending swap file by the current content of its source, which also clears a
    /// damaged change; nothing when no change is pending.
    /// Throws what zo::project::copy throws.
    void updateFromSource(const QString& path);

    /// Every swap file below the root, those of running processes and of this one included:
    /// the root's first, then each directory's, a directory before the directories below it.
    /// Hidden directories, directories this process may not both read and write, and
    /// directories reached through a link (other than a link to a directory inside the
    /// project, whose own swap files count) are left out. Never throws for file-system reasons.
    std::vector<RecoverableInfo> recoverableFiles();
    /// Whether the process that made info's swap file still runs, and what is known of it.
    OwnerInfo ownerOf(const RecoverableInfo& info) const;
    /// ownerOf and more for each of found, reading each directory's owner marks once.
    std::vector<RecoverableState> inspect(const std::vector<RecoverableInfo>& found) const;
    /// What recoverableFiles() returned when the project was opened or its path last set, in
    /// the walk that put back the sources of interrupted commits: a caller that lists the swap
    /// files right after opening needs no second walk. Empty for a facade without a path.
    const std::vector<RecoverableInfo>& recoverableFilesWhenOpened() const;
    /// The sources (as RecoverableInfo::sourcePath names them) that opening the project, or
    /// last setting its path, put back from the backups of interrupted commits.
    const std::vector<QString>& restoredWhenOpened() const;
    /// The interrupted saves that opening the project, or setting its path, left as they were:
    /// those whose process may still run, those of other users (which only their own user
    /// completes) and, with Unfinished::Leave, every one.
    const std::vector<InterruptedSave>& interruptedSavesWhenOpened() const;
    /// Takes the swap file over as this process's pending change of info.sourcePath, with the
    /// source version its owner noted, so that a later commit still sees what another program
    /// changed since. A file whose owner may still run (ownerOf) is copied, never moved; the
    /// move is durable once this returns.
    /// @throws exception::SwapFileRename when the transfer fails (the target exists, or this is
    /// the process's own file): both files stay.
    /// @throws exception::SwapFileTorn when the swap file is torn (RecoverableState::torn): it
    /// stays.
    void recoverFile(const RecoverableInfo& info);
    /// Deletes the swap file unless its owner may still run (then only logs why not).
    /// @throws exception::SwapFileRemove when the removal fails.
    void abandonFile(const RecoverableInfo& info);

private:
    void xRestoreInterruptedCommits();
    // Completes the saves of ended processes among journals and those above the root; records
    // the others. Whether any was completed.
    bool xCompleteInterruptedSaves(QStringList journals);

    std::shared_ptr<detail::ProjectVFS_Impl> _impl;
};

} // namespace zo::project
