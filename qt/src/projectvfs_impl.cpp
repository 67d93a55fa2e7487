#include "projectvfs_impl.h"

#include "liveness.h"
#include "logging.h"
#include "paths.h"
#include "savejournal.h"

#include <zo/file.h>
#include <zo/log.h>
#include <zo/os.h>
#include <zo/project/exceptions.h>
#include <zo/project/fileutils.h>
#include <zo/project/vfsfile.h>

#include <QCoreApplication>
#include <QFileInfo>
#include <QSet>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <map>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <vector>

namespace zo::project::detail {
namespace {

const QString kSwapExtension = QStringLiteral("csp");
const QString kBackupExtension = QStringLiteral("bck");

// The directory of an absolute path: "/a/b" gives "/a", "/b" gives "/".
QString directoryOf(const QString& path)
{
    const int slash = path.lastIndexOf(QLatin1Char('/'));
    return slash > 0 ? path.left(slash) : QStringLiteral("/");
}

// The last component of an absolute path.
QString nameOf(const QString& path)
{
    return path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
}

// The version a status shows; none for none.
std::optional<zo::os::FileVersion> versionIn(const std::optional<zo::os::FileStatus>& status)
{
    return status ? std::optional(zo::os::FileVersion::of(*status)) : std::nullopt;
}

// Up to these many swap files or directories are synced one by one; more are made durable by a
// sync of each file system they lie on, whose cost does not grow with them.
constexpr std::size_t kSyncedOneByOne = 4;

} // namespace

ProjectVFS_Impl::ProjectVFS_Impl(const QString& path)
    : QDir(path)
    , notCommittedChanged([](bool) {})
    , _swapExt(kSwapExtension)
    , _bckExt(kBackupExtension)
{
}

// The handler is not told: what it would tell may be gone already. No handle is left, as each
// one keeps the engine.
ProjectVFS_Impl::~ProjectVFS_Impl()
{
    leavePending();
}

void ProjectVFS_Impl::forgetPending()
{
    if (_entries.isEmpty())
        return;
    for (const QString& path : _entries.keys())
        closeHandles(path);
    leavePending();
    notCommittedChanged(false);
}

void ProjectVFS_Impl::leavePending()
{
    if (_entries.isEmpty())
        return;
    // What C streams wrote was never sealed.
    for (const QString& path : _entries.keys())
        sealContent(path);
    for (auto& [directory, mark] : _marks)
        zo::os::OwnerMark::keepUntilExit(std::move(mark));
    for (const QString& swap : qAsConst(_entries))
        leftForRecovery(swap);
    _entries.clear();
    _swaps.clear();
    _damaged.clear();
    _sources.clear();
    _marks.clear();
}

QString ProjectVFS_Impl::resolvedPath(const QString& path) const
{
    zo::os::BeneathResolver resolver(encoded(absolutePath()).toStdString());
    return resolvedPath(path, resolver);
}

QString ProjectVFS_Impl::resolvedPath(const QString& path, zo::os::BeneathResolver& resolver) const
{
    const std::optional<std::string> resolved = resolver.resolve(encoded(path).toStdString());
    if (!resolved)
        throw exception::PathOutsideProject(utf8(path));
    return decodedPath(*resolved);
}

void ProjectVFS_Impl::requireInside(const QString& path, bool followLastLink) const
{
    QString named = path;
    while (named.size() > 1 && named.endsWith(QLatin1Char('/')))
        named.chop(1);
    const QFileInfo info(named);
    const QString name = info.fileName();
    const bool ownName = !followLastLink && !name.isEmpty() && name != QLatin1String(".")
        && name != QLatin1String("..");
    if (ownName
        && !zo::os::resolveBeneath(
            encoded(absolutePath()).toStdString(), encoded(info.path()).toStdString()))
        throw exception::PathOutsideProject(utf8(path));
    if (!ownName)
        resolvedPath(path);
}

std::shared_ptr<zo::os::OwnerMark> ProjectVFS_Impl::ownerMark()
{
    const QString root = absolutePath();
    const auto known = _marks.find(root);
    if (known != _marks.end())
        return known->second;
    return _marks[root] = holdOwnerMark(root);
}

std::shared_ptr<zo::os::OwnerMark> ProjectVFS_Impl::markBeside(
    const QString& path, const QString& swap)
{
    const QString directory = directoryOf(swap);
    std::shared_ptr<zo::os::OwnerMark>& mark = _marks[directory];
    if (!mark)
        mark = holdOwnerMark(directory);
    if (!mark)
        throw exception::CreateSwapFile(utf8(path),
            "can not mark '" + utf8(directory)
                + "' as used by this process: " + std::strerror(errno));
    return mark;
}

void ProjectVFS_Impl::recordSource(
    const QString& path, const std::optional<zo::os::FileVersion>& source, bool sealed)
{
    _sources.insert(path, source);
    const auto swap = _entries.constFind(path);
    if (swap == _entries.cend())
        return;
    const std::shared_ptr<zo::os::OwnerMark> mark = markBeside(path, swap.value());
    stampAsWrittenNow(swap.value());
    mark->noteSource(encoded(swap.value()).toStdString(), source);
    if (sealed)
        sealContent(path);
}

void ProjectVFS_Impl::stampAsWrittenNow(const QString& swap)
{
    constexpr timespec kOmit { 0, UTIME_OMIT };
    constexpr timespec kNow { 0, UTIME_NOW };
    zo::os::setTimesAt(AT_FDCWD, encoded(swap).constData(), { kOmit, kNow });
}

void ProjectVFS_Impl::sealContent(const QString& path)
{
    const auto swap = _entries.constFind(path);
    if (swap == _entries.cend())
        return;
    // Made with the swap file; without it (the swap file unsealed) the swap file is judged
    // torn should the machine stop before it is committed.
    const auto mark = _marks.find(directoryOf(swap.value()));
    const QByteArray file = encoded(swap.value());
    const std::optional<zo::os::ContentSeal> content = zo::os::sealOf(file.constData());
    if (mark != _marks.end() && mark->second && content)
        mark->second->noteContent(file.toStdString(), *content);
}

void ProjectVFS_Impl::recordCurrentSource(const QString& path)
{
    recordSource(path, zo::os::versionOf(encoded(resolvedPath(path)).constData()));
}

bool ProjectVFS_Impl::sourceChanged(const QString& path) const
{
    zo::os::BeneathResolver resolver(encoded(absolutePath()).toStdString());
    return sourceChanged(path, resolver);
}

bool ProjectVFS_Impl::sourceChanged(const QString& path, zo::os::BeneathResolver& resolver) const
{
    const auto recorded = _sources.constFind(path);
    return recorded != _sources.cend()
        && zo::os::versionOf(encoded(resolvedPath(path, resolver)).constData()) != recorded.value();
}

void ProjectVFS_Impl::throwIfSourcesChanged(
    const QStringList& paths, zo::os::BeneathResolver& resolver) const
{
    std::vector<std::string> changed;
    for (const QString& path : paths)
        if (sourceChanged(path, resolver))
            changed.push_back(utf8(path));
    if (!changed.empty())
        throw exception::SourceFileChanged(changed);
}

void ProjectVFS_Impl::flushHandles(const QString& path)
{
    for (VFSFile* handle : qAsConst(_openOnSwap))
        if (handle->fileName() == path && handle->isWritable() && !handle->flush())
            markDamaged(path);
}

void ProjectVFS_Impl::writeOutHandles(const QString& path)
{
    flushHandles(path);
    throwIfDamaged(path);
}

void ProjectVFS_Impl::closeHandles(const QString& path)
{
    const QSet<VFSFile*> open = _openOnSwap;
    for (VFSFile* handle : open)
        if (handle->fileName() == path)
            handle->close();
}

bool ProjectVFS_Impl::isNotCommitted() const
{
    return !_entries.isEmpty();
}

bool ProjectVFS_Impl::isNotCommitted(const QString& path) const
{
    return _entries.contains(path);
}

QString ProjectVFS_Impl::makeSwapPath(const QString& path) const
{
    const QFileInfo info(path);
    // One substitution pass, so that a "%1" inside a file name is kept as it is.
    const QString name
        = QStringLiteral(".%1.%2.%3")
              .arg(info.fileName(), QString::number(QCoreApplication::applicationPid()), _swapExt);
    return QDir::cleanPath(info.dir().filePath(name));
}

QString ProjectVFS_Impl::makeBackupPath(const QString& path) const
{
    return path + _bckExt;
}

void ProjectVFS_Impl::addEntry(const QString& path, const QString& swapPath)
{
    _entries.insert(path, swapPath);
    _swaps.insert(swapPath);
    takenBack(swapPath);
    if (_entries.size() == 1)
        notCommittedChanged(true);
}

ProjectVFS_Impl::Entries::iterator ProjectVFS_Impl::removeEntry(const Entries::iterator& it)
{
    if (it != _entries.end()) {
        _swaps.remove(it.value());
        _damaged.remove(it.key());
        _sources.remove(it.key());
    }
    const auto next = it == _entries.end() ? it : _entries.erase(it);
    if (_entries.isEmpty()) {
        _marks.clear();
        notCommittedChanged(false);
    }
    return next;
}

void ProjectVFS_Impl::removeEntry(const QString& path)
{
    removeEntry(_entries.find(path));
}

void ProjectVFS_Impl::moveEntry(const VFSFile& file, const QString& oldPath, bool sourceMovedAlong)
{
    // The marks stay while the only entry changes its name: made anew, they would be younger
    // than the swap file they mark.
    const auto marks = _marks;
    const bool damaged = _damaged.contains(oldPath);
    const auto source = _sources.constFind(oldPath);
    const std::optional<std::optional<zo::os::FileVersion>> recorded
        = source != _sources.cend() ? std::optional(source.value()) : std::nullopt;
    removeEntry(oldPath);
    _marks.insert(marks.begin(), marks.end());
    addEntry(file.fileName(), absoluteFilePath(file.swapName()));
    // Their descriptors follow the renamed swap file; their names must too, so that the commit
    // of the new path writes them out and closes them.
    for (VFSFile* handle : qAsConst(_openOnSwap))
        if (handle->_fileName == oldPath) {
            handle->_fileName = file.fileName();
            handle->_swapName = file.swapName();
        }
    if (damaged)
        _damaged.insert(file.fileName());
    if (sourceMovedAlong)
        recordCurrentSource(file.fileName());
    else if (recorded)
        recordSource(file.fileName(), *recorded);
    else
        sealContent(file.fileName());
}

void ProjectVFS_Impl::markDamaged(const QString& path)
{
    if (_entries.contains(path))
        _damaged.insert(path);
}

void ProjectVFS_Impl::throwIfDamaged(const QString& path) const
{
    if (_damaged.contains(path))
        throw exception::SwapFileDamaged(utf8(path));
}

QString ProjectVFS_Impl::currentPath(const QString& path) const
{
    const auto it = _entries.constFind(path);
    return it != _entries.cend() ? it.value() : absoluteFilePath(path);
}

bool ProjectVFS_Impl::hasFile(const QString& path) const
{
    return QFileInfo(currentPath(path)).isFile();
}

bool ProjectVFS_Impl::hasPath(const QString& path) const
{
    return QFileInfo::exists(currentPath(path));
}

bool ProjectVFS_Impl::existsOrPending(const QString& path) const
{
    if (exists(path))
        return true;
    const auto it = _entries.constFind(path);
    return it != _entries.cend() && exists(it.value());
}

QString ProjectVFS_Impl::createSwapFile(
    const QString& path, const QString& swapPath, bool contentKept)
{
    const auto known = _entries.constFind(path);
    if (known != _entries.cend())
        return known.value();

    const QString source = resolvedPath(path);
    const QString swap = absoluteFilePath(swapPath);
    if (QFile::exists(swap))
        throw exception::SwapFileAlreadyExists(utf8(path));

    // The marks first, so that no swap file of this process is ever found without one in its
    // own directory (all a sandbox that sees only that directory can see). Seen before the
    // copy, a change made during it shows at commit.
    ownerMark();
    markBeside(path, swap);
    const std::optional<zo::os::FileVersion> version
        = zo::os::versionOf(encoded(source).constData());
    // Not synced: a commit syncs it, and until then its seal tells it from a torn one.
    if (version) {
        if (!zo::os::copyFile(encoded(source).constData(), encoded(swap).constData()))
            throw exception::CopySwapFile(utf8(path), swap, std::strerror(errno));
    } else {
        QFile created(swap);
        if (!created.open(QIODevice::WriteOnly | QIODevice::Truncate))
            throw exception::CreateSwapFile(utf8(path), utf8(created.errorString()));
        created.close();
    }
    addEntry(path, swap);
    recordSource(path, version, contentKept);
    return swap;
}

ProjectVFS_Impl::StagedCommit::StagedCommit(const QString& path, const QString& source,
    const QString& swap, const QString& backup, std::string swapDirectory,
    CommitDirectories& directories)
    : path(path)
    , source(source)
    , swap(swap)
    , backup(backup)
    , sourceDirectory(encoded(directoryOf(source)).toStdString())
    , swapDirectory(std::move(swapDirectory))
    , sourceName(encoded(nameOf(source)))
    , backupName(encoded(nameOf(backup)))
    , swapName(encoded(nameOf(swap)))
    , directories(&directories)
{
}

// Commit protocol. Until the swap file has replaced the source, the old content is always on
// disk as the source or as its backup, and the new content as the swap file; the backup is
// removed only once the new content is in place and the renames are durable (the directory is
// synced). A step that fails undoes the ones before it, so that the entry still matches a swap
// file on disk.
ProjectVFS_Impl::CommitDirectories::CommitDirectories(std::string root)
    : _root(root)
    , _resolver(std::move(root))
{
}

std::optional<zo::os::FileIdentity> ProjectVFS_Impl::CommitDirectories::identityOf(
    const std::string& directory) const
{
    const auto known = _identities.find(directory);
    if (known == _identities.end())
        return std::nullopt;
    return known->second;
}

int ProjectVFS_Impl::CommitDirectories::at(const std::string& directory)
{
    // Enough for the directories a commit goes through at once, far below any limit on open
    // files.
    constexpr std::size_t kMostOpen = 32;
    const auto open = _open.find(directory);
    if (open != _open.end()) {
        open->second.lastUse = ++_uses;
        return open->second.descriptor.get();
    }
    if (_open.size() >= kMostOpen)
        _open.erase(std::min_element(_open.begin(), _open.end(),
            [](const auto& a, const auto& b) { return a.second.lastUse < b.second.lastUse; }));
    zo::os::UniqueFd descriptor = zo::os::openDirectoryBeneath(_root, directory);
    const std::optional<zo::os::FileStatus> found
        = descriptor ? zo::os::status(descriptor.get()) : std::nullopt;
    if (!found)
        return -1;
    const auto [first, fresh] = _identities.emplace(directory, found->identity);
    if (!fresh && first->second != found->identity) {
        errno = ESTALE;
        return -1;
    }
    const int opened = descriptor.get();
    if (fresh && !_fileSystems.count(found->identity.device)) {
        zo::os::UniqueFd kept = zo::os::duplicate(opened);
        if (!kept)
            return -1;
        _fileSystems.emplace(found->identity.device, std::move(kept));
    }
    _open[directory] = { std::move(descriptor), ++_uses };
    return opened;
}

bool ProjectVFS_Impl::CommitDirectories::syncFileSystems() const
{
    return std::all_of(_fileSystems.begin(), _fileSystems.end(),
        [](const auto& fileSystem) { return zo::os::syncFileSystem(fileSystem.second.get()); });
}

ProjectVFS_Impl::StagedCommit ProjectVFS_Impl::prepareCommit(const QString& path,
    ProjectVFS::SourceChanges changes, CommitDirectories& directories, bool syncSwap)
{
    const QString swap = _entries.value(path);
    const std::optional<std::string> swapDirectory
        = directories.resolver().resolve(encoded(directoryOf(swap)).toStdString());
    // The source is the file beside the swap file unless that is a link (or missing, which
    // only the whole resolution names), or the path was named through "." or ".."; then the
    // path as the system resolves it, inside the project.
    const QString name = nameOf(path);
    const int swapAt = swapDirectory && directoryOf(absoluteFilePath(path)) == directoryOf(swap)
        ? directories.at(*swapDirectory)
        : -1;
    const std::optional<zo::os::FileStatus> beside
        = swapAt >= 0 ? zo::os::statusAt(swapAt, encoded(name).constData(), false) : std::nullopt;
    const bool sourceBeside = beside && beside->type != zo::os::EntryType::Link;
    const QString source = sourceBeside ? decodedPath(*swapDirectory) + QLatin1Char('/') + name
                                        : resolvedPath(path, directories.resolver());
    StagedCommit staged(path, source, swap, makeBackupPath(source),
        swapDirectory.value_or(std::string()), directories);
    if (!swapDirectory || staged.sourceAt() < 0 || staged.swapAt() < 0)
        throw exception::SwapFileRename(utf8(relativeFilePath(source)));

    // Only a file is put in place: a directory or a link in the swap file's place (not made by
    // this process) would replace the source with something else. The source stays.
    const std::optional<zo::os::FileStatus> swapFound
        = zo::os::statusAt(staged.swapAt(), staged.swapName.constData(), false);
    if (!swapFound || swapFound->type != zo::os::EntryType::File)
        throw exception::SwapFileMissing(utf8(relativeFilePath(swap)));
    staged.newContent = swapFound->identity;

    // A leftover backup of an interrupted commit whose source is back in place. Removing it
    // stops this commit on purpose; an unremovable one is tolerated. One that may belong to
    // another process's commit in progress is not touched, and stops this commit too.
    const int at = staged.sourceAt();
    staged.oldContent
        = sourceBeside ? beside : zo::os::statusAt(at, staged.sourceName.constData(), false);
    // Checked again here, and once more as the source is renamed, so that a change made while
    // the commit runs is found too.
    const auto recorded = _sources.constFind(path);
    staged.refusesChanges = changes == ProjectVFS::SourceChanges::Refuse;
    if (staged.refusesChanges && recorded != _sources.cend()
        && versionIn(staged.oldContent) != recorded.value())
        throw exception::SourceFileChanged({ utf8(path) });
    if (staged.oldContent && zo::os::statusAt(at, staged.backupName.constData(), false)
        && (zo::os::OwnerMarks().othersMayBeReplacing(encoded(directoryOf(source)).toStdString())
            || zo::os::removeAt(at, staged.backupName.constData())))
        throw exception::SourceFileBackupRemove(utf8(relativeFilePath(staged.backup)));

    // The swap data must reach the disk before the rename does: otherwise a crash could leave
    // the new name on an empty or partial file while the backup is already gone.
    if (syncSwap && !swapDurable(staged))
        throw exception::SwapFileRename(utf8(relativeFilePath(source)));
    return staged;
}

bool ProjectVFS_Impl::swapDurable(const StagedCommit& staged)
{
    const zo::os::UniqueFd swapFile
        = zo::os::openForReadingAt(staged.swapAt(), staged.swapName.constData());
    return swapFile && zo::os::syncFile(swapFile.get());
}

std::size_t ProjectVFS_Impl::durableSwaps(const std::vector<StagedCommit>& batch)
{
    if (batch.size() <= kSyncedOneByOne)
        return static_cast<std::size_t>(
            std::find_if_not(batch.begin(), batch.end(), swapDurable) - batch.begin());
    return batch.front().directories->syncFileSystems() ? batch.size() : 0;
}

void ProjectVFS_Impl::renameCommit(StagedCommit& staged)
{
    const int at = staged.sourceAt();
    if (staged.oldContent) {
        if (zo::os::renameAt(at, staged.sourceName.constData(), at, staged.backupName.constData()))
            staged.backedUp = true;
        else if (errno != ENOENT)
            throw exception::SourceFileRename(utf8(staged.source));
    }
    // What was renamed must be what the commit was prepared for: another program's change
    // since would go with the backup.
    if (staged.backedUp && staged.refusesChanges && !backupAsPrepared(staged)) {
        undoCommit(staged);
        throw exception::SourceFileChanged({ utf8(staged.path) });
    }
    // The swap file takes only a free name, so that a file another program made there meanwhile
    // (a new file's, or since the source was renamed) stays.
    if (!zo::os::renameToFreeNameAt(
            staged.swapAt(), staged.swapName.constData(), at, staged.sourceName.constData())) {
        const bool taken = errno == EEXIST;
        undoCommit(staged);
        if (taken)
            throw exception::SourceFileChanged({ utf8(staged.path) });
        throw exception::SwapFileRename(utf8(relativeFilePath(staged.source)));
    }
    staged.swapRenamed = true;
}

void ProjectVFS_Impl::undoCommit(const StagedCommit& staged)
{
    const int at = staged.sourceAt();
    // Only what this commit put in place goes back, and only to a free name: a file another
    // program made at the source's name meanwhile stays, and the old content then stays as the
    // backup.
    const std::optional<zo::os::FileStatus> placed = staged.swapRenamed
        ? zo::os::statusAt(at, staged.sourceName.constData(), false)
        : std::nullopt;
    if (placed && placed->identity == staged.newContent)
        zo::os::renameToFreeNameAt(
            at, staged.sourceName.constData(), staged.swapAt(), staged.swapName.constData());
    if (staged.backedUp)
        zo::os::renameToFreeNameAt(
            at, staged.backupName.constData(), at, staged.sourceName.constData());
}

// The swap file leaves its own directory, which differs from the source's when the source is
// reached through a link; both renames must be durable.
bool ProjectVFS_Impl::madeDurable(
    const StagedCommit& staged, std::vector<zo::os::FileIdentity>& synced)
{
    for (const std::string* directory : { &staged.sourceDirectory, &staged.swapDirectory }) {
        const std::optional<zo::os::FileIdentity> identity
            = staged.directories->identityOf(*directory);
        if (identity && std::find(synced.begin(), synced.end(), *identity) != synced.end())
            continue;
        if (!identity || !zo::os::syncDirectory(staged.directories->at(*directory)))
            return false;
        synced.push_back(*identity);
    }
    return true;
}

std::vector<ProjectVFS_Impl::StagedCommit>::iterator ProjectVFS_Impl::renamesDurable(
    std::vector<StagedCommit>::iterator first, std::vector<StagedCommit>::iterator last)
{
    std::set<std::pair<std::uint64_t, std::uint64_t>> directories;
    for (auto staged = first; staged != last; ++staged)
        for (const std::string* directory : { &staged->sourceDirectory, &staged->swapDirectory }) {
            const std::optional<zo::os::FileIdentity> identity
                = staged->directories->identityOf(*directory);
            if (!identity)
                return first;
            directories.emplace(identity->device, identity->inode);
        }
    if (directories.size() <= kSyncedOneByOne) {
        std::vector<zo::os::FileIdentity> synced;
        auto durable = first;
        while (durable != last && madeDurable(*durable, synced))
            ++durable;
        return durable;
    }
    return first->directories->syncFileSystems() ? last : first;
}

void ProjectVFS_Impl::commitFile(
    const QString& path, ProjectVFS::SourceChanges changes, CommitDirectories& directories)
{
    StagedCommit staged = prepareCommit(path, changes, directories, true);
    renameCommit(staged);
    std::vector<zo::os::FileIdentity> synced;
    if (!madeDurable(staged, synced)) {
        undoCommit(staged);
        throw exception::SwapFileRename(utf8(relativeFilePath(staged.source)));
    }
    removeBackup(staged);
}

void ProjectVFS_Impl::removeBackup(const StagedCommit& staged)
{
    // Only the backup this commit made: a new file's commit has none.
    if (!staged.backedUp)
        return;
    if (staged.refusesChanges && !backupAsPrepared(staged)) {
        zo::log::log(kEngineLog, zo::log::Warning,
            "Kept the backup '" + utf8(staged.backup)
                + "': another program wrote to the old file while it was saved");
        return;
    }
    zo::os::removeAt(staged.sourceAt(), staged.backupName.constData());
}

bool ProjectVFS_Impl::backupAsPrepared(const StagedCommit& staged)
{
    return versionIn(zo::os::statusAt(staged.sourceAt(), staged.backupName.constData(), false))
        == versionIn(staged.oldContent);
}

void ProjectVFS_Impl::commit(VFSFile& file, ProjectVFS::SourceChanges changes)
{
    const QString name = file.fileName();
    if (!_entries.contains(name)) {
        if (exists(absoluteFilePath(name)))
            return;
        throw exception::SourceFileDoesNotExists(utf8(name));
    }
    // Closing flushes, which may still fail and damage the entry; so may the other handles.
    file.close();
    writeOutHandles(name);
    CommitDirectories directories(encoded(absolutePath()).toStdString());
    if (changes == ProjectVFS::SourceChanges::Refuse)
        throwIfSourcesChanged({ name }, directories.resolver());
    {
        const zo::os::OwnerMark::Replacing replacing(ownerMark());
        commitFile(name, changes, directories);
    }
    closeHandles(name);
    removeEntry(name);
}

// The single-file protocol for every entry, step by step for all of them at once, so that the
// syncs do not grow with the files: the swap files synced together before the journal, one sync
// per directory for all the renames in it (or, for many, one per file system). A save of several
// files is all or nothing across a crash: its journal (savejournal.h) is durable before the first
// rename and goes only once the backups are gone, and whoever opens the project after a crash
// completes it. When an exception leaves, what is committed is durable, and the entry that failed
// and every later one stay pending, with no journal left that could redo them.
void ProjectVFS_Impl::commitAll(ProjectVFS::SourceChanges changes)
{
    if (_entries.isEmpty())
        return;
    for (const QString& path : _entries.keys())
        flushHandles(path);
    CommitDirectories directories(encoded(absolutePath()).toStdString());
    const zo::os::OwnerMark::Replacing replacing(ownerMark());
    std::exception_ptr failure;
    // 1. Every entry up to the first that cannot be committed, its swap file durable: synced
    // after all were checked, so that the disk writes them in one go. With changes refused,
    // every source another program changed is named before anything is renamed: past a
    // failure, the sources are still checked.
    const bool refused = changes == ProjectVFS::SourceChanges::Refuse;
    std::vector<std::string> changed;
    std::vector<StagedCommit> batch;
    for (auto it = _entries.cbegin(); it != _entries.cend(); ++it) {
        if (!failure) {
            try {
                throwIfDamaged(it.key());
                batch.push_back(prepareCommit(it.key(), changes, directories, false));
                continue;
            } catch (const exception::SourceFileChanged&) {
                changed.push_back(utf8(it.key()));
                continue;
            } catch (...) {
                failure = std::current_exception();
            }
        }
        if (refused && sourceChanged(it.key(), directories.resolver()))
            changed.push_back(utf8(it.key()));
    }
    if (!changed.empty())
        throw exception::SourceFileChanged(changed);
    const std::size_t durableSwapCount = durableSwaps(batch);
    if (durableSwapCount < batch.size()) {
        failure = std::make_exception_ptr(
            exception::SwapFileRename(utf8(relativeFilePath(batch[durableSwapCount].source))));
        batch.erase(batch.begin() + static_cast<std::ptrdiff_t>(durableSwapCount), batch.end());
    }

    // 2. The journal, durable before anything is renamed.
    std::optional<SaveJournal> journal;
    if (batch.size() > 1) {
        std::vector<FileToSave> files;
        for (const StagedCommit& staged : batch)
            files.push_back({ { staged.source, staged.swap, staged.backup }, staged.newContent,
                staged.oldContent });
        QString why;
        journal = SaveJournal::write(absolutePath(), files, why);
        if (!journal) {
            zo::log::log(kEngineLog, zo::log::Warning,
                "Can not write the save journal in '" + utf8(absolutePath()) + "': " + utf8(why));
            failure = std::make_exception_ptr(
                exception::SwapFileRename(utf8(relativeFilePath(batch.front().source))));
            batch.clear();
        }
    }

    // 3. The renames, up to the first that fails (and undoes itself).
    auto renamed = batch.begin();
    for (; renamed != batch.end(); ++renamed) {
        try {
            renameCommit(*renamed);
        } catch (...) {
            failure = std::current_exception();
            break;
        }
    }

    // 4. The directories; from the first entry whose directories cannot be synced on, the
    // renames are undone.
    const auto durable = renamesDurable(batch.begin(), renamed);
    if (durable != renamed) {
        failure = std::make_exception_ptr(
            exception::SwapFileRename(utf8(relativeFilePath(durable->source))));
        for (auto undone = renamed; undone != durable;)
            undoCommit(*--undone);
    }

    // 5. The backups and the journal. A save that stopped short drops its journal first, and
    // durably, so that nothing it undid is redone; a complete one keeps it until the backups
    // are gone, so that a crash in between leaves none behind.
    const bool complete = durable == batch.end();
    if (journal && !complete)
        journal->remove(true);
    for (auto committed = batch.begin(); committed != durable; ++committed) {
        removeBackup(*committed);
        const QString path = _entries.firstKey();
        closeHandles(path);
        _sources.remove(path);
        _swaps.remove(_entries.first());
        _entries.erase(_entries.begin());
    }
    if (journal && complete)
        journal->remove(false);
    if (_entries.isEmpty())
        _marks.clear();
    if (failure)
        std::rethrow_exception(failure);
}

void ProjectVFS_Impl::discardAll()
{
    for (const QString& path : _entries.keys())
        closeHandles(path);
    for (const QString& swap : qAsConst(_entries))
        QFile::remove(swap);
    _entries.clear();
    _swaps.clear();
    _damaged.clear();
    _sources.clear();
    _marks.clear();
}

void ProjectVFS_Impl::updateFromSource(const QString& path)
{
    const auto it = _entries.constFind(path);
    if (it == _entries.cend())
        return;
    const QString source = resolvedPath(path);
    const std::optional<zo::os::FileVersion> version
        = zo::os::versionOf(encoded(source).constData());
    zo::project::copy(source, it.value(), true);
    _damaged.remove(path);
    recordSource(path, version);
}

void ProjectVFS_Impl::discard(VFSFile& file)
{
    closeHandles(file.fileName());
    const auto it = _entries.find(file.fileName());
    if (it == _entries.end())
        return;
    QFile::remove(it.value());
    removeEntry(it);
}

void ProjectVFS_Impl::remove(VFSFile& file)
{
    const QString name = file.fileName();
    requireOwnSwap(name, absoluteFilePath(file.swapName()));
    // A link goes as a link: QFile::remove unlinks the name, never what it points to.
    if (isOnDisk(absoluteFilePath(name)) && !QFile::remove(absoluteFilePath(name)))
        throw IOWriteError(utf8(QStringLiteral("Can not remove file %1").arg(name)));

    const auto swap = _entries.find(name);
    if (swap == _entries.end())
        return;
    if (isOnDisk(swap.value()) && !QFile::remove(swap.value()))
        throw IOWriteError(
            utf8(QStringLiteral("Can not remove swap file %1").arg(file.swapName())));
    removeEntry(swap);
}

void ProjectVFS_Impl::requireOwnSwap(const QString& path, const QString& swap) const
{
    const std::optional<zo::os::FileStatus> found = zo::os::linkStatus(encoded(swap).constData());
    if (!_entries.contains(path) && found && found->type == zo::os::EntryType::File)
        throw exception::SwapFileAlreadyExists(utf8(path));
}

bool ProjectVFS_Impl::isOwnSwap(const QString& swap) const
{
    return _swaps.contains(swap);
}

void ProjectVFS_Impl::copy(VFSFile& file, const QString& path, bool overwrite)
{
    const QString newPath = pendingName(path);
    // What is read is the link's target, which must not leave the project.
    requireInside(file.fileName(), true);
    writeOutHandles(file.fileName());
    const QString from = currentPath(file.fileName());
    if (!overwrite && hasFile(newPath))
        throw AlreadyExists(utf8(newPath));

    const QString to = absoluteFilePath(makeSwapPath(newPath));
    requireOwnSwap(newPath, to);
    const std::optional<zo::os::FileVersion> version
        = zo::os::versionOf(encoded(resolvedPath(newPath)).constData());
    ownerMark();
    markBeside(newPath, to);
    zo::project::copy(from, to, overwrite);
    addEntry(newPath, to);
    recordSource(newPath, version);
    // The copy holds what the damaged swap file holds.
    if (_damaged.contains(file.fileName()))
        _damaged.insert(newPath);
}

void ProjectVFS_Impl::move(VFSFile& file, const QString& newPath, bool overwrite)
{
    file.move(newPath, overwrite);
}

QIODevice::OpenMode openModeOfStreamMode(const QString& mode)
{
    const bool update = mode.contains(QLatin1Char('+'));
    const QIODevice::OpenMode access = update ? QIODevice::ReadWrite : QIODevice::WriteOnly;
    QIODevice::OpenMode flags;
    if (mode.contains(QLatin1Char('r')))
        flags = update ? QIODevice::ReadWrite : QIODevice::ReadOnly;
    else if (mode.contains(QLatin1Char('w')))
        flags = access | QIODevice::Truncate;
    else if (mode.contains(QLatin1Char('a')))
        flags = access | QIODevice::Append;
    else if (update)
        flags = QIODevice::ReadWrite;
    if (!mode.contains(QLatin1Char('b')))
        flags |= QIODevice::Text;
    return flags;
}

FILE* openStream(
    const QDir& root, const QString& openedPath, QString mode, QIODevice::OpenMode flags)
{
    if (flags & QIODevice::Truncate)
        mode.replace(QLatin1Char('w'), QStringLiteral("r+"));
    return zo::os::fopen(root.filePath(openedPath).toUtf8().constData(), mode.toUtf8().constData());
}

} // namespace zo::project::detail
