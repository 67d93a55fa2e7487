#include <zo/project/projectvfs.h>

#include "liveness.h"
#include "logging.h"
#include "paths.h"
#include "projectvfs_impl.h"
#include "savejournal.h"

#include <zo/leftover.h>
#include <zo/log.h>
#include <zo/os.h>
#include <zo/owner.h>
#include <zo/project/exceptions.h>
#include <zo/project/fileutils.h>
#include <zo/project/project.h>
#include <zo/project/vfsfile.h>
#include <zo/treewalk.h>

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>
#include <limits>
#include <map>
#include <set>
#include <utility>

namespace zo::project {
namespace {

using OwnerInfo = ProjectVFS::OwnerInfo;

// Whether the owner of a swap file may still use it: only a proven end lets it be moved or
// removed.
bool mayStillRun(const OwnerInfo& owner, const ProjectVFS::RecoverableInfo& info)
{
    if (owner.state == OwnerInfo::State::Ended)
        return false;
    const std::string swap = info.swapPath.toStdString();
    const std::string pid = std::to_string(info.pid);
    zo::log::log(detail::kFacadeLog, zo::log::Info,
        owner.state == OwnerInfo::State::Running
            ? "Not removing '" + swap + "' because process '" + pid + "' is still running"
            : "Not removing '" + swap + "' because process '" + pid + "' on '"
                + owner.hostName.toStdString() + "' may still use it");
    return true;
}

// Renames and makes the rename survive a crash; never replaces what is at to. A rename that
// cannot be made durable is undone.
bool renameDurably(const QString& from, const QString& to)
{
    const QByteArray source = detail::encoded(from);
    const QByteArray target = detail::encoded(to);
    const QByteArray fromDirectory = detail::encoded(QFileInfo(from).absolutePath());
    const QByteArray toDirectory = detail::encoded(QFileInfo(to).absolutePath());
    if (!zo::os::renameToFreeName(source.constData(), target.constData()))
        return false;
    if (zo::os::syncDirectory(toDirectory.constData())
        && (fromDirectory == toDirectory || zo::os::syncDirectory(fromDirectory.constData())))
        return true;
    zo::os::renameToFreeName(target.constData(), source.constData());
    return false;
}

} // namespace

ProjectVFS::ProjectVFS(const QString& path, Unfinished unfinished)
    : _impl(std::make_shared<detail::ProjectVFS_Impl>(path))
{
    _impl->unfinished = unfinished;
    // A facade without a path stands for no project, although its root reads as ".".
    if (!path.isEmpty())
        xRestoreInterruptedCommits();
}

ProjectVFS::ProjectVFS(ProjectVFS&& other) noexcept = default;
ProjectVFS& ProjectVFS::operator=(ProjectVFS&& other) noexcept = default;
ProjectVFS::~ProjectVFS() = default;

QString ProjectVFS::path() const
{
    return _impl->path();
}

QString ProjectVFS::filePath(const QString& path) const
{
    return _impl->filePath(path);
}

QString ProjectVFS::relativeFilePath(const QString& path) const
{
    return _impl->relativeFilePath(path);
}

QString ProjectVFS::absoluteFilePath(const QString& path) const
{
    return _impl->absoluteFilePath(path);
}

bool ProjectVFS::mkpath(const QString& path) const
{
    _impl->requireInside(path, true);
    return _impl->mkpath(path);
}

bool ProjectVFS::mkdir(const QString& path) const
{
    _impl->requireInside(path, true);
    return _impl->mkdir(path);
}

bool ProjectVFS::exists() const
{
    return _impl->exists();
}

bool ProjectVFS::isNotCommitted() const
{
    return _impl->isNotCommitted();
}

bool ProjectVFS::isNotCommitted(const QString& path) const
{
    return _impl->isNotCommitted(path);
}

bool ProjectVFS::hasFile(const QString& path) const
{
    return _impl->hasFile(path);
}

bool ProjectVFS::hasPath(const QString& path) const
{
    return _impl->hasPath(path);
}

QString ProjectVFS::makeSwapPath(const QString& path) const
{
    return _impl->makeSwapPath(path);
}

QString ProjectVFS::makeBackupPath(const QString& path) const
{
    return _impl->makeBackupPath(path);
}

std::unique_ptr<VFSFile> ProjectVFS::file(const QString& path)
{
    _impl->requireInside(path, false);
    return std::make_unique<VFSFile>(_impl->shared_from_this(), path);
}

void ProjectVFS::commit(const QString& path, SourceChanges changes)
{
    file(path)->commit(changes);
}

void ProjectVFS::discard(const QString& path)
{
    file(path)->discard();
}

std::unique_ptr<VFSFile> ProjectVFS::open(const QString& path, QIODevice::OpenMode mode)
{
    auto handle = file(path);
    _impl->requireInside(path, true);
    if (!handle->open(mode)) {
        // Qt refuses such a mode before it sets an error, and then says "Unknown error".
        const std::string reason = (mode & QIODevice::ReadWrite)
            ? handle->errorString().toStdString()
            : "the open mode neither reads nor writes";
        throw exception::OpenSwapFile(path.toStdString(), handle->error(), reason);
    }
    return handle;
}

FILE* ProjectVFS::fopen(const QString& path, const QString& mode)
{
    const QIODevice::OpenMode flags = detail::openModeOfStreamMode(mode);
    const auto handle = open(path, flags);
    handle->close();
    return detail::openStream(*_impl, handle->openedPath(), mode, flags);
}

QString ProjectVFS::createSwapFile(const QString& path)
{
    // The committed-changed handler runs here with no handle holding the engine, and it may
    // release this facade; the call keeps its own owner.
    const auto impl = _impl;
    const QString named = detail::pendingName(path);
    return impl->createSwapFile(named, impl->makeSwapPath(named));
}

void ProjectVFS::setCommittedChangedHandler(std::function<void(bool)>&& handler)
{
    _impl->notCommittedChanged = std::move(handler);
}

void ProjectVFS::setPath(const QString& path)
{
    // The unchanged path is refused on purpose: callers compare before they switch.
    if (path == _impl->path() || !_impl->exists(path))
        throw exception::ProjectPathDoesNotExists(path.toStdString());
    // The old root's pending files are not the new root's; they stay there for recovery.
    _impl->forgetPending();
    _impl->setPath(path);
    xRestoreInterruptedCommits();
}

bool ProjectVFS::exists(const QString& path) const
{
    return _impl->existsOrPending(path);
}

void ProjectVFS::commit(SourceChanges changes)
{
    _impl->commitAll(changes);
}

void ProjectVFS::discard()
{
    _impl->discardAll();
}

QStringList ProjectVFS::getFileList(
    const QString& path, bool showHidden, bool recursive, bool includeDirs) const
{
    _impl->requireInside(path, true);
    if (_impl->hasFile(path))
        return { _impl->relativeFilePath(path) };
    // Listed below the project root, whatever the process's working directory is.
    QStringList list = listDirectory(_impl->filePath(path), showHidden, recursive, includeDirs);
    list.removeAll(QLatin1String(metadataFileName));
    return list;
}

void ProjectVFS::importFile(const QString& source, const QString& destination, bool overwrite) const
{
    if (destination.isEmpty())
        throw PathNotFound("destination is empty");
    if (source.isEmpty())
        throw PathNotFound("source is empty");
    if (!QDir::isRelativePath(destination))
        throw PathNotFound(
            (destination + QStringLiteral(" is not a relative path.")).toStdString());

    _impl->requireInside(destination, true);
    const QString parent = QFileInfo(destination).path();
    if (!parent.isEmpty())
        _impl->mkpath(parent);
    zo::project::copy(source, _impl->filePath(destination), overwrite);
}

void ProjectVFS::exportFile(const QString& path, const QString& destination, bool overwrite)
{
    const auto handle = file(path);
    _impl->requireInside(path, true);
    _impl->writeOutHandles(path);
    zo::project::copy(_impl->filePath(handle->openedPath()), destination, overwrite);
}

void ProjectVFS::copy(const QString& source, const QString& destination, bool overwrite)
{
    if (!_impl->hasFile(source))
        throw PathNotFound(source.toStdString());
    _impl->copy(*file(source), destination, overwrite);
}

void ProjectVFS::move(const QString& source, const QString& destination, bool overwrite)
{
    if (!_impl->hasFile(source))
        throw PathNotFound(_impl->filePath(source).toStdString());
    _impl->requireInside(destination, false);
    _impl->move(*file(source), destination, overwrite);
}

void ProjectVFS::remove(const QString& given)
{
    const auto impl = _impl; // outlives a handler that releases this facade, as above
    const QString path = detail::pendingName(given); // "x/" is x
    impl->requireInside(path, false);
    if (impl->hasFile(path)) {
        impl->remove(*file(path));
        return;
    }
    // A link, to a directory too, goes as a link: a walk from it would empty its target.
    const QString absolute = impl->absoluteFilePath(path);
    if (QFileInfo(absolute).isSymLink()) {
        zo::project::remove(absolute);
        return;
    }

    // Files are removed with their swap files first. The walk holds each directory open and
    // follows no symbolic link, not even one put in a directory's place meanwhile, so nothing
    // outside the tree is reached through one; links themselves go with the tree. Another
    // process's swap file stops the removal before anything is removed.
    QStringList files;
    QString othersSwap;
    zo::os::WalkOptions options;
    options.followLinks = false;
    zo::os::walkTree(
        detail::encoded(absolute).toStdString(), options, [&](const zo::os::WalkEntry& entry) {
            if (entry.type != zo::os::EntryType::File)
                return zo::os::WalkStep::Continue;
            const QString found = absolute + QLatin1Char('/') + detail::decodedPath(entry.path);
            if (!detail::isSwapName(entry.name, impl->swapExtension()))
                files.append(impl->relativeFilePath(found));
            else if (!impl->isOwnSwap(found))
                othersSwap = impl->relativeFilePath(found);
            return othersSwap.isEmpty() ? zo::os::WalkStep::Continue : zo::os::WalkStep::Stop;
        });
    if (!othersSwap.isEmpty())
        throw exception::SwapFileAlreadyExists(othersSwap.toStdString());
    bool allRemoved = true;
    for (const QString& entry : qAsConst(files)) {
        try {
            impl->remove(*file(entry));
        } catch (const IOWriteError& e) {
            zo::log::log(detail::kFacadeLog, zo::log::Warning, e.what());
            allRemoved = false;
        }
    }

    if (!allRemoved || QFileInfo(absolute).isDir())
        zo::project::remove(absolute);
}

void ProjectVFS::updateFromSource(const QString& path)
{
    _impl->updateFromSource(path);
}

namespace {

// What ended processes may have left below the root: their swap files, as recoverableFiles()
// lists them, and the journals of their saves (absolute).
struct LeftBelow {
    std::vector<ProjectVFS::RecoverableInfo> swapFiles;
    QStringList journals;
    // The directories (absolute) that hold owner marks.
    QStringList markDirectories;
};

// Swap files are looked for in the root and in every directory below it that is neither hidden
// nor reached through a link, and that this process may read and write; a link to such a
// directory inside the project is looked into too, one level deep. The walk opens each
// directory by its entry in its parent and never through a link, so a directory replaced by a
// link meanwhile is not followed. A directory's swap files come before those of the
// directories below it, in the order the walk meets the directories.
LeftBelow findLeftBelow(detail::ProjectVFS_Impl& impl)
{
    using RecoverableInfo = ProjectVFS::RecoverableInfo;
    const QString suffix = QStringLiteral(".") + impl.swapExtension();
    // The lazy first group is the whole source name, dots and line breaks included; the suffix
    // test already guarantees the real ending.
    QRegularExpression swapName(QStringLiteral("^\\.(.*?)\\.(\\d+).") + impl.swapExtension(),
        QRegularExpression::DotMatchesEverythingOption);
    swapName.optimize();

    // Each swap file with the place of its directory in the walk.
    std::vector<std::pair<int, RecoverableInfo>> found;
    const auto consider = [&](const QString& relativePath, int directory) {
        const int slash = relativePath.lastIndexOf(QLatin1Char('/'));
        const QRegularExpressionMatch match = swapName.match(relativePath.mid(slash + 1));
        if (!match.hasMatch())
            return;
        // An id too large for any process parses as 0, which never counts as running.
        bool parsed = false;
        const qlonglong id = match.captured(2).toLongLong(&parsed);
        const bool fits = parsed && id <= std::numeric_limits<pid_t>::max();
        found.push_back({ directory,
            { relativePath, relativePath.left(slash + 1) + match.captured(1),
                fits ? static_cast<pid_t>(id) : 0 } });
    };
    // Looked into only where this process may read and write, a link to it followed.
    const auto scannable = [](const zo::os::WalkEntry& entry) {
        return zo::os::isReadableAndWritableAt(entry.directory(), std::string(entry.name).c_str());
    };
    const QString root = impl.absolutePath();
    const std::string rootBytes = detail::encoded(root).toStdString();
    // A swap file is listed under one name: a linked directory that the walk looks into by
    // itself too, or that another link leads to, is not listed through the link. Listed twice,
    // a swap file could be abandoned under the name its user took for another file.
    zo::os::BeneathResolver resolver(rootBytes);
    const std::optional<std::string> physicalRoot = resolver.resolve(rootBytes);
    std::set<std::string> lookedInto { "" }; // below the root, as the walk names them
    std::set<std::string> linkedDirectories;
    std::map<int, std::string> linkAt; // by place in the walk: the directory a link leads to

    // directories[depth]: the place in the walk of the directory whose entries are at that
    // depth, or -1 when it is not looked into.
    LeftBelow left;
    std::vector<int> directories { 0 };
    int walked = 0;
    zo::os::WalkOptions options;
    options.includeHidden = true;
    options.followLinks = false;
    // What ended processes leave has a hidden name; a file or device under another name is
    // nothing to look at, nor to keep for the next walk.
    options.arrange = [](zo::os::DirectoryListing& listing) {
        auto& entries = listing.entries;
        entries.erase(std::remove_if(entries.begin(), entries.end(),
                          [](const zo::os::ListedEntry& entry) {
                              return entry.name.front() != '.'
                                  && entry.type != zo::os::EntryType::Directory
                                  && entry.type != zo::os::EntryType::Link;
                          }),
            entries.end());
    };
    options.cache = &impl.leftBelowListings;
    zo::os::walkTree(rootBytes, options, [&](const zo::os::WalkEntry& entry) {
        const auto depth = static_cast<size_t>(entry.depth);
        directories.resize(depth + 1);
        if (entry.type == zo::os::EntryType::Directory) {
            if (entry.name.front() == '.')
                return zo::os::WalkStep::SkipDirectory;
            directories.push_back(scannable(entry) ? ++walked : -1);
            if (directories.back() >= 0)
                lookedInto.emplace(entry.path);
        } else if (entry.type == zo::os::EntryType::Link && entry.name.front() != '.') {
            const QString linked = detail::decodedPath(entry.path);
            const QDir target(root + QLatin1Char('/') + linked);
            const std::optional<std::string> resolved = resolver.resolve(std::string(entry.path));
            if (!target.exists() || !scannable(entry) || !resolved || !physicalRoot
                || !linkedDirectories.insert(*resolved).second)
                return zo::os::WalkStep::Continue;
            const std::size_t rootEnd = *physicalRoot == "/" ? 1 : physicalRoot->size() + 1;
            linkAt[++walked] = resolved->substr(std::min(resolved->size(), rootEnd));
            for (const QString& name :
                target.entryList({ QLatin1Char('*') + suffix }, QDir::Files | QDir::Hidden))
                consider(linked + QLatin1Char('/') + name, walked);
        } else if (directories[depth] >= 0
            && detail::isSwapName(entry.name, impl.swapExtension())) {
            consider(detail::decodedPath(entry.path), directories[depth]);
        } else if (directories[depth] >= 0 && entry.type == zo::os::EntryType::File
            && detail::journalOwner(entry.name)) {
            left.journals << root + QLatin1Char('/') + detail::decodedPath(entry.path);
        } else if (directories[depth] >= 0 && zo::os::isOwnerMarkName(entry.name)) {
            const QString directory
                = QFileInfo(root + QLatin1Char('/') + detail::decodedPath(entry.path)).path();
            if (left.markDirectories.isEmpty() || left.markDirectories.last() != directory)
                left.markDirectories << directory;
        }
        return zo::os::WalkStep::Continue;
    });
    found.erase(std::remove_if(found.begin(), found.end(),
                    [&](const auto& swap) {
                        const auto link = linkAt.find(swap.first);
                        return link != linkAt.end() && lookedInto.count(link->second);
                    }),
        found.end());
    std::stable_sort(
        found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    for (auto& [directory, info] : found)
        left.swapFiles.push_back(std::move(info));
    return left;
}

} // namespace

std::vector<ProjectVFS::RecoverableInfo> ProjectVFS::recoverableFiles()
{
    return findLeftBelow(*_impl).swapFiles;
}

const std::vector<ProjectVFS::RecoverableInfo>& ProjectVFS::recoverableFilesWhenOpened() const
{
    return _impl->foundWhenOpened;
}

const std::vector<QString>& ProjectVFS::restoredWhenOpened() const
{
    return _impl->restoredWhenOpened;
}

const std::vector<ProjectVFS::InterruptedSave>& ProjectVFS::interruptedSavesWhenOpened() const
{
    return _impl->savesLeftWhenOpened;
}

ProjectVFS::OwnerInfo ProjectVFS::ownerOf(const RecoverableInfo& info) const
{
    return inspect({ info }).front().owner;
}

std::vector<ProjectVFS::RecoverableState> ProjectVFS::inspect(
    const std::vector<RecoverableInfo>& found) const
{
    zo::os::OwnerMarks marks;
    std::vector<RecoverableState> states;
    for (const RecoverableInfo& info : found) {
        const QString swap = _impl->absoluteFilePath(info.swapPath);
        const std::string swapBytes = detail::encoded(swap).toStdString();
        RecoverableState state;
        state.owner = detail::ownerInfoOf(detail::judgeOwner(marks, swap, info.pid), info.pid);
        QString source = _impl->absoluteFilePath(info.sourcePath);
        try {
            source = _impl->resolvedPath(info.sourcePath);
        } catch (const exception::PathOutsideProject&) {
        }
        if (const auto noted = marks.notedSource(swapBytes, info.pid)) {
            state.sourceChanged = zo::os::versionOf(detail::encoded(source).constData()) != *noted;
        } else {
            const QFileInfo swapInfo(swap);
            const QFileInfo sourceInfo(source);
            const QDateTime made
                = swapInfo.birthTime().isValid() ? swapInfo.birthTime() : swapInfo.lastModified();
            state.sourceChanged = sourceInfo.exists() && sourceInfo.lastModified() > made;
        }
        state.torn = marks.mayBeTorn(swapBytes, info.pid);
        states.push_back(state);
    }
    return states;
}

void ProjectVFS::recoverFile(const RecoverableInfo& info)
{
    const auto impl = _impl; // outlives a handler that releases this facade, as above
    const QString sourcePath = detail::pendingName(info.sourcePath);
    impl->requireInside(info.swapPath, false);
    impl->requireInside(sourcePath, true);
    const QString swap = impl->absoluteFilePath(info.swapPath);
    const std::string swapBytes = detail::encoded(swap).toStdString();
    const QString newSwap = impl->absoluteFilePath(impl->makeSwapPath(sourcePath));
    zo::os::OwnerMarks marks;
    const OwnerInfo owner
        = detail::ownerInfoOf(detail::judgeOwner(marks, swap, info.pid), info.pid);
    const auto noted = marks.notedSource(swapBytes, info.pid);
    if (marks.mayBeTorn(swapBytes, info.pid))
        throw exception::SwapFileTorn(info.swapPath.toStdString());
    // This process's marks before its swap file.
    impl->ownerMark();
    impl->markBeside(sourcePath, newSwap);

    bool transferred;
    if (mayStillRun(owner, info)) {
        // The owner may still work on its file; take a copy and leave its swap file alone.
        transferred = QFile::copy(swap, newSwap);
    } else {
        // An ended process of this process's own id left the file under the name this one
        // gives it: it is taken over where it is.
        transferred
            = swap == newSwap ? !impl->isNotCommitted(sourcePath) : renameDurably(swap, newSwap);
        // The file keeps the time of its dead owner's last write, from before this process's
        // mark; stamped now, it names this process as its live owner.
        if (transferred)
            detail::ProjectVFS_Impl::stampAsWrittenNow(newSwap);
    }
    if (!transferred)
        throw exception::SwapFileRename(impl->relativeFilePath(info.swapPath).toStdString());
    impl->addEntry(sourcePath, newSwap);
    if (noted)
        impl->recordSource(sourcePath, *noted);
    else
        impl->recordCurrentSource(sourcePath);
}

void ProjectVFS::abandonFile(const RecoverableInfo& info)
{
    _impl->requireInside(info.swapPath, false);
    // A file that is gone has no owner to spare; its removal fails.
    if (detail::isOnDisk(_impl->absoluteFilePath(info.swapPath))
        && mayStillRun(ownerOf(info), info))
        return;
    if (!_impl->QDir::remove(info.swapPath))
        throw exception::SwapFileRemove(info.swapPath.toStdString());
}

namespace {

// A commit killed after its renames, before it removed the backup: the dead owner's mark noted
// the source's version when the swap file was made, and a backup that is still that version
// beside a source in place, with the swap file gone, is that commit's and holds nothing else.
void removeBackupsOfCompletedCommits(
    const detail::ProjectVFS_Impl& impl, zo::os::OwnerMarks& marks, const QStringList& directories)
{
    // The files of a save left to its journal are that save's.
    QSet<QString> saved;
    for (const ProjectVFS::InterruptedSave& save : impl.savesLeftWhenOpened)
        for (const QString& file : save.files)
            saved.insert(impl.absoluteFilePath(file));
    const QString suffix = QLatin1Char('.') + impl.swapExtension();
    for (const QString& directory : directories)
        for (const auto& [pending, version] :
            marks.notesOfEnded(detail::encoded(directory).toStdString())) {
            const QString swap = directory + QLatin1Char('/') + detail::decodedPath(pending);
            const QFileInfo swapInfo(swap);
            QString name = swapInfo.fileName();
            if (!version || detail::isOnDisk(swap) || !name.endsWith(suffix))
                continue;
            name.chop(suffix.size());
            name = name.left(name.lastIndexOf(QLatin1Char('.'))).mid(1);
            QString source;
            try {
                source = impl.resolvedPath(
                    impl.relativeFilePath(swapInfo.path() + QLatin1Char('/') + name));
            } catch (const exception::PathOutsideProject&) {
                continue;
            }
            const QString backup = impl.makeBackupPath(source);
            if (detail::isOnDisk(source) && !saved.contains(source)
                && zo::os::versionOf(detail::encoded(backup).constData()) == version
                && !marks.othersMayBeReplacing(
                    detail::encoded(QFileInfo(source).absolutePath()).toStdString())
                && QFile::remove(backup))
                zo::log::log(detail::kFacadeLog, zo::log::Info,
                    "Removed the backup '" + impl.relativeFilePath(backup).toStdString()
                        + "' of a completed commit");
        }
}

} // namespace

// A commit killed between its two renames leaves no source: the old content is in the backup
// and the new one in the swap file. The backup is put back so that abandoning the swap file
// loses nothing; a swap file whose owner may still run may belong to a commit in progress and
// is left to it, as is every backup while another process may be replacing files here, and the
// backup of a file of a save whose journal is left: completing the save renames the swap file
// over the source, which must still be as the save found it. A file that merely ends like a
// backup has no swap file and is never touched.
void ProjectVFS::xRestoreInterruptedCommits()
{
    LeftBelow left = findLeftBelow(*_impl);
    if (xCompleteInterruptedSaves(left.journals))
        left = findLeftBelow(*_impl);
    _impl->foundWhenOpened = std::move(left.swapFiles);
    _impl->restoredWhenOpened.clear();
    if (_impl->unfinished == Unfinished::Leave)
        return;
    QSet<QString> saved;
    for (const InterruptedSave& save : _impl->savesLeftWhenOpened)
        saved.unite(QSet<QString>(save.files.begin(), save.files.end()));
    zo::os::OwnerMarks marks;
    removeBackupsOfCompletedCommits(*_impl, marks, left.markDirectories);
    // The marks crashed editors left, once every swap file they mark is gone. Hidden
    // temporaries stay for status to list and the next save beside them to remove.
    left.markDirectories << _impl->absolutePath();
    for (const QString& directory : qAsConst(left.markDirectories))
        zo::os::removeEndedLeftovers(
            detail::encoded(directory).toStdString(), zo::os::Cleanup::OwnerMarks, [this](int pid) {
                const auto& found = _impl->foundWhenOpened;
                return std::any_of(found.begin(), found.end(),
                    [pid](const RecoverableInfo& info) { return info.pid == pid; });
            });

    zo::os::BeneathResolver resolver(detail::encoded(_impl->absolutePath()).toStdString());
    for (const RecoverableInfo& info : _impl->foundWhenOpened) {
        if (saved.contains(info.sourcePath))
            continue;
        QString source;
        try {
            source = _impl->resolvedPath(info.sourcePath, resolver);
        } catch (const exception::PathOutsideProject&) {
            continue;
        }
        const QString backup = _impl->makeBackupPath(source);
        if (detail::isOnDisk(source) || !detail::isOnDisk(backup))
            continue;
        const QString swap = _impl->absoluteFilePath(info.swapPath);
        // Only where the dead owner noted that the file had a source when its swap file was
        // made: a user's own file that merely ends like a backup stays where it is.
        const auto noted = marks.notedSource(detail::encoded(swap).toStdString(), info.pid);
        if (!noted || !*noted
            || detail::judgeOwner(marks, swap, info.pid).liveness != zo::os::Liveness::Ended
            || marks.othersMayBeReplacing(
                detail::encoded(QFileInfo(source).absolutePath()).toStdString()))
            continue;
        const std::string names = "'" + _impl->relativeFilePath(backup).toStdString() + "' to '"
            + info.sourcePath.toStdString() + "'";
        if (renameDurably(backup, source)) {
            _impl->restoredWhenOpened.push_back(info.sourcePath);
            zo::log::log(detail::kFacadeLog, zo::log::Info,
                "Renamed the backup " + names + " after an interrupted commit");
        } else {
            zo::log::log(detail::kFacadeLog, zo::log::Warning,
                "Can not rename the backup " + names + " after an interrupted commit");
        }
    }
}

// A save's journal lies in the root of the project that saved, which may hold this one or lie
// inside it: one in the root, below it or above it may name files here, and is completed whole,
// as opening its own root would, since the save is all or nothing.
bool ProjectVFS::xCompleteInterruptedSaves(QStringList journals)
{
    const QString root = QFileInfo(_impl->absolutePath()).canonicalFilePath();
    for (QDir above(root); !root.isEmpty() && above.cdUp();)
        journals += detail::journalsIn(above.path());
    zo::os::OwnerMarks marks;
    std::vector<InterruptedSave> left;
    bool completed = false;
    for (const QString& journal : qAsConst(journals)) {
        const QFileInfo info(journal);
        const pid_t pid = *detail::journalOwner(detail::encoded(info.fileName()).toStdString());
        const zo::os::OwnerVerdict verdict = detail::judgeOwner(marks, journal, pid);
        if (_impl->unfinished == Unfinished::Complete && verdict.liveness == zo::os::Liveness::Ended
            && detail::completeSave(journal)) {
            completed = true;
            continue;
        }
        InterruptedSave save { _impl->relativeFilePath(journal), detail::ownerInfoOf(verdict, pid),
            {} };
        for (const QString& source : detail::savedSources(journal).value_or(QStringList()))
            save.files << _impl->relativeFilePath(info.absolutePath() + QLatin1Char('/') + source);
        left.push_back(std::move(save));
    }
    _impl->savesLeftWhenOpened = std::move(left);
    return completed;
}

} // namespace zo::project
