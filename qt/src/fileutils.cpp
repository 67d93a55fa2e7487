#include <zo/project/fileutils.h>

#include "paths.h"

#include <zo/owner.h>
#include <zo/treewalk.h>
#include <zo/unicode.h>

#include <QByteArray>
#include <QFile>
#include <QFileInfo>

#include <boost/filesystem.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <vector>

namespace zo::project {

IOError::IOError(const std::string& message)
    : std::runtime_error(message)
{
}
IOError::IOError(const char* message)
    : std::runtime_error(message)
{
}
IOError::~IOError() = default;

IOReadError::IOReadError(const std::string& message)
    : IOError(message)
{
}
IOReadError::IOReadError(const char* message)
    : IOError(message)
{
}
IOReadError::~IOReadError() = default;

IOWriteError::IOWriteError(const std::string& message)
    : IOError(message)
{
}
IOWriteError::IOWriteError(const char* message)
    : IOError(message)
{
}
IOWriteError::~IOWriteError() = default;

PathNotFound::PathNotFound(const std::string& message)
    : std::runtime_error(message)
{
}
PathNotFound::PathNotFound(const char* message)
    : std::runtime_error(message)
{
}
PathNotFound::~PathNotFound() = default;

AlreadyExists::AlreadyExists(const std::string& message)
    : std::runtime_error(message)
{
}
AlreadyExists::AlreadyExists(const char* message)
    : std::runtime_error(message)
{
}
AlreadyExists::~AlreadyExists() = default;

namespace {

// Kept free on every volume a copy writes to.
constexpr long long kSpaceReserve = 10LL * 1024 * 1024;
// Larger files are measured against the free space before their copy is tried.
constexpr qint64 kSpaceCheckedCopySize = 5LL * 1024 * 1024;
// Flaky steps are tried this many times in a row, without pause.
constexpr int kAttempts = 3;
constexpr QDir::Filters kEveryEntry = QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot;

// Other programs match both spellings; each belongs to its own check.
constexpr char kNoSpaceBeforeCopy[]
    = "Copy file error: No space disk left. Extra %1 MiB are needed to copy from %2 to %3";
constexpr char kNoSpaceAfterFailedCopy[]
    = "Copy file error: No space disk left. Extra %1 Mib are needed to copy from %2 to %3";

// Fills every placeholder in one pass, so that a "%2" inside a path is kept as it is.
template <typename... Args> std::string message(const QString& format, const Args&... args)
{
    return format.arg(args...).toUtf8().toStdString();
}

template <typename Step> bool succeedsWithinAttempts(Step step)
{
    for (int attempt = 0; attempt < kAttempts; ++attempt)
        if (step())
            return true;
    return false;
}

struct FolderLimits {
    unsigned int maxCount;
    unsigned long long maxSize;

    bool reached(unsigned long long size, unsigned int count) const
    {
        return (maxCount != 0 && count >= maxCount) || (maxSize != 0 && size >= maxSize);
    }
};

struct SizedEntry {
    std::string name;
    QString sortKey;
    bool isDirectory;
    unsigned long long size;
};

// A directory's visible entries, links left out, directories first and then by name: the
// order decides where a limit stops the count.
std::vector<SizedEntry> sizedEntries(const std::string& directory)
{
    std::vector<SizedEntry> entries;
    zo::os::WalkOptions options;
    options.followLinks = false;
    options.recursive = false;
    zo::os::walkTree(directory, options, [&](const zo::os::WalkEntry& entry) {
        const bool isDirectory = entry.type == zo::os::EntryType::Directory;
        const zo::os::FileStatus* status
            = entry.type == zo::os::EntryType::File ? entry.status() : nullptr;
        if (isDirectory || status)
            entries.push_back({ std::string(entry.name), detail::decodedPath(entry.name),
                isDirectory, status ? status->size : 0 });
        return zo::os::WalkStep::Continue;
    });
    std::sort(entries.begin(), entries.end(), [](const SizedEntry& a, const SizedEntry& b) {
        return a.isDirectory != b.isDirectory ? a.isDirectory : a.sortKey < b.sortKey;
    });
    return entries;
}

// Returns whether a limit was reached, which ends the whole walk at once.
bool addFolderSize(const std::string& path, unsigned long long& size, unsigned int& count,
    const FolderLimits& limits)
{
    for (const SizedEntry& entry : sizedEntries(path)) {
        if (entry.isDirectory) {
            // A nested walk that stops leaves the totals at a limit; the test below sees it.
            addFolderSize(path + '/' + entry.name, size, count, limits);
        } else {
            size += entry.size;
            ++count;
        }
        if (limits.reached(size, count))
            return true;
    }
    return false;
}

// Bytes available to an unprivileged process on the volume holding directory; 0 when the
// query fails, which callers read as no space.
unsigned long long availableSpace(const QString& directory)
{
    try {
        const boost::filesystem::path path(directory.toStdWString(), zo::unicodeFacet());
        return boost::filesystem::space(path).available;
    } catch (const boost::system::system_error&) {
        return 0;
    }
}

// The path of the entry a path names, never of what a link there points to ("link/" resolves
// through it).
QString namedEntryPath(const QString& path)
{
    QString entry = path;
    while (entry.size() > 1 && entry.endsWith(QLatin1Char('/')))
        entry.chop(1);
    return entry;
}

void removeFile(const QString& path)
{
    QFile file(path);
    if (!file.remove()) {
        throw IOWriteError(message(QStringLiteral("Delete file error: %1, %2"),
            QString::number(file.error()), file.errorString()));
    }
}

void removeDirectoryTree(const QString& path)
{
    QDir dir(path);
    // System adds dangling links, which must go too for the directory to go.
    for (const QString& name : dir.entryList(kEveryEntry | QDir::System, QDir::NoSort))
        remove(dir.filePath(name));
    const QString name = dir.dirName();
    if (!succeedsWithinAttempts([&dir] { return dir.cdUp(); })) {
        throw std::runtime_error(message(
            QStringLiteral("Delete file error: an unknown exception occurred during cdUp of %1"),
            path));
    }
    if (!succeedsWithinAttempts([&dir, &name] { return dir.rmdir(name); })) {
        throw std::runtime_error(message(
            QStringLiteral(
                "Delete file error: an unknown exception occurred during the removal of %1"),
            path));
    }
}

// Whether the destination already holds the source's bytes. Compared block by block rather
// than by a checksum of each whole content: large files are never held in memory, and two
// contents that merely share a 16-bit checksum are still copied.
bool holdsSameData(const QFileInfo& srcInfo, const QString& dst)
{
    QFile source(srcInfo.filePath());
    if (!source.open(QIODevice::ReadOnly)) {
        // The bare path, without the usual prefix, is what other programs expect here.
        throw IOReadError(srcInfo.canonicalFilePath().toUtf8().toStdString());
    }
    QFile destination(dst);
    if (!destination.open(QIODevice::ReadOnly))
        return false;
    constexpr qint64 kBlockSize = 256 * 1024;
    QByteArray sourceBlock(kBlockSize, Qt::Uninitialized);
    QByteArray destinationBlock(kBlockSize, Qt::Uninitialized);
    qint64 compared = 0;
    for (;;) {
        const qint64 sourceRead = source.read(sourceBlock.data(), kBlockSize);
        const qint64 destinationRead = destination.read(destinationBlock.data(), kBlockSize);
        if (sourceRead < 0 || sourceRead != destinationRead)
            return false;
        if (sourceRead == 0) {
            // What cannot be read in full is not the same.
            return compared == srcInfo.size();
        }
        if (std::memcmp(sourceBlock.constData(), destinationBlock.constData(),
                static_cast<size_t>(sourceRead))
            != 0)
            return false;
        compared += sourceRead;
    }
}

AlreadyExists destinationExists(const QString& dst)
{
    return AlreadyExists(message(QStringLiteral("Copy file error: %1 already exists"), dst));
}

std::runtime_error noSpaceError(
    const char* format, long long missing, const QString& src, const QString& dst)
{
    return std::runtime_error(
        message(QString::fromLatin1(format), QString::number(missing >> 20), src, dst));
}

std::runtime_error copyFailure(const QString& src, const QString& dst, int error)
{
    return std::runtime_error(message(
        QStringLiteral("Copy file error: an exception occurred during the copy from %1 to %2: %3"),
        src, dst, QString::fromLocal8Bit(std::strerror(error))));
}

// A copy in progress. A directory copied where nothing is yet is built under a hidden name
// beside its destination and renamed into place once complete: its files can be written under
// their own names, which costs a journalled file system less than an unnamed file linked in,
// and still no one sees a partial file under a destination name. Messages name the
// destination, never the hidden name.
class CopyRun {
public:
    zo::os::DescentPath descent;

    bool building() const { return !_hidden.isEmpty(); }

    // The path as the caller knows it.
    QString shown(const QString& path) const
    {
        if (building() && (path == _hidden || path.startsWith(_hidden + QLatin1Char('/'))))
            return _target + path.mid(_hidden.size());
        return path;
    }

    // Paths below hidden are shown below target while it lives.
    class Building {
    public:
        Building(CopyRun& run, const QString& hidden, const QString& target)
            : _run(run)
        {
            _run._hidden = hidden;
            _run._target = target;
        }
        ~Building() { _run._hidden.clear(); }
        Building(const Building&) = delete;
        Building& operator=(const Building&) = delete;

    private:
        CopyRun& _run;
    };

private:
    QString _hidden;
    QString _target;
};

// Files are copied without a sync each; the copy as a whole is synced once before it returns.
void copyFile(const QString& src, const QString& dst, const zo::os::FileStatus& source,
    const std::optional<QFileInfo>& dstInfo, bool overwrite, const CopyRun& run)
{
    const QString shownDst = run.shown(dst);
    const auto size = static_cast<qint64>(source.size);
    if (dstInfo && dstInfo->exists()) {
        if (!overwrite)
            throw destinationExists(shownDst);
        if (!dstInfo->isWritable()) {
            throw IOWriteError(message(
                QStringLiteral("Copy file error: destination path is not writable: %1"), shownDst));
        }
        if (dstInfo->isFile() && dstInfo->size() == size && holdsSameData(QFileInfo(src), dst))
            return;
        remove(dst);
    }
    long long missing = 0;
    if (size > kSpaceCheckedCopySize && !hasEnoughSpaceDiskToCopyTo(dst, size, &missing))
        throw noSpaceError(kNoSpaceBeforeCopy, missing, src, shownDst);
    const QByteArray from = QFile::encodeName(src);
    const QByteArray to = QFile::encodeName(dst);
    const zo::os::CopyTarget target
        = run.building() ? zo::os::CopyTarget::Unseen : zo::os::CopyTarget::Visible;
    int copyError = 0;
    const bool copied = succeedsWithinAttempts([&] {
        if (zo::os::copyFile(from.constData(), to.constData(), target))
            return true;
        copyError = errno;
        if (!hasEnoughSpaceDiskToCopyTo(dst, size, &missing))
            throw noSpaceError(kNoSpaceAfterFailedCopy, missing, src, shownDst);
        return false;
    });
    if (!copied)
        throw copyFailure(src, shownDst, copyError);
}

IOWriteError notCreated(const QString& path)
{
    return IOWriteError(message(QStringLiteral("Copy file error: %1 could not be created"), path));
}

void makeDirectory(const QString& path, const CopyRun& run)
{
    if (!QDir().mkdir(path))
        throw notCreated(run.shown(path));
}

// Whether the directory that receives the copies has passed its checks; its entries share it.
struct DestinationDirectory {
    bool checked = false;
};

void copyEntry(const QString& src, const QString& dst, bool overwrite, CopyRun& run,
    DestinationDirectory& parent);

// Copies the entries of src into the directory dst; with overwrite, the names in stale that
// src does not have go, so that dst ends up mirroring src.
void copyEntries(
    const QString& src, const QString& dst, QStringList stale, bool overwrite, CopyRun& run)
{
    const QDir srcDir(src);
    const QDir dstDir(dst);
    DestinationDirectory children;
    for (const QString& name : srcDir.entryList(kEveryEntry, QDir::NoSort)) {
        copyEntry(srcDir.filePath(name), dstDir.filePath(name), overwrite, run, children);
        stale.removeAll(name);
    }
    for (const QString& name : qAsConst(stale))
        remove(dstDir.filePath(name));
}

// Builds the copy of src under a hidden name beside dst and gives it dst's name when complete.
// A copy that fails midway still leaves what it copied so far under dst, complete files only,
// as a copy made in place would.
void buildDirectory(const QString& src, const QString& dst, bool overwrite, CopyRun& run)
{
    const QString entry = namedEntryPath(dst);
    const std::shared_ptr<zo::os::OwnerMark> mark
        = zo::os::OwnerMark::holdBeside(detail::encoded(entry).toStdString());
    std::string hidden = zo::os::hiddenTemplateBeside(detail::encoded(entry).toStdString(), "copy");
    if (!zo::os::makeUniqueDirectory(hidden, 0777))
        throw notCreated(dst);
    const QString hiddenPath = detail::decodedPath(hidden);
    std::exception_ptr failure;
    try {
        const CopyRun::Building building(run, hiddenPath, QDir(dst).path());
        copyEntries(src, hiddenPath, {}, overwrite, run);
    } catch (const std::exception&) {
        failure = std::current_exception();
    }
    if (!zo::os::renameToFreeName(hidden.c_str(), detail::encoded(entry).constData())) {
        const int error = errno;
        detail::removeQuietly(hiddenPath); // the copy's failure is what the caller hears of
        if (failure)
            std::rethrow_exception(failure);
        if (error == EEXIST || error == ENOTEMPTY)
            throw destinationExists(dst);
        throw notCreated(dst);
    }
    if (failure)
        std::rethrow_exception(failure);
}

// Leaves the destination mirroring the source: entries found only in the destination go.
void copyDirectory(const QString& src, const zo::os::FileIdentity& source, const QString& dst,
    const std::optional<QFileInfo>& dstInfo, bool overwrite, CopyRun& run)
{
    // A link to a directory the copy is inside of would make it loop.
    const zo::os::DescentStep step(run.descent, source);
    if (!step.entered())
        return;
    const bool exists = dstInfo && dstInfo->exists();
    if (!exists && !run.building()) {
        buildDirectory(src, dst, overwrite, run);
        return;
    }
    QStringList stale;
    if (!exists) {
        makeDirectory(dst, run);
    } else if (!overwrite) {
        throw destinationExists(run.shown(dst));
    } else if (dstInfo->isDir()) {
        stale = QDir(dst).entryList(kEveryEntry, QDir::NoSort);
    } else {
        remove(dst);
        makeDirectory(dst, run);
    }
    copyEntries(src, dst, stale, overwrite, run);
}

void checkDestinationDirectory(const QString& dst, const CopyRun& run)
{
    const QString shownDst = run.shown(dst);
    const QDir parent = QFileInfo(dst).dir();
    if (!parent.exists()) {
        throw PathNotFound(
            message(QStringLiteral("Copy file error: %1 destination path not found"), shownDst));
    }
    if (!QFileInfo(parent.absolutePath()).isWritable()) {
        // Names the directory above the tested one; other programs match it so.
        const QFileInfo shownParent(QFileInfo(shownDst).dir().absolutePath());
        throw IOWriteError(
            message(QStringLiteral("Copy file error: destination directory is not writable: %1"),
                shownParent.absolutePath()));
    }
}

void copyEntry(const QString& src, const QString& dst, bool overwrite, CopyRun& run,
    DestinationDirectory& parent)
{
    // Read straight from the system: a tree copy makes these checks for every entry.
    const QByteArray srcPath = QFile::encodeName(src);
    const std::optional<zo::os::FileStatus> source = zo::os::status(srcPath.constData());
    if (!source)
        throw PathNotFound(message(QStringLiteral("Copy file error: %1 not found"), src));
    if (!zo::os::isReadable(srcPath.constData())) {
        // Names the destination although the source was tested: other programs match it so.
        throw PathNotFound(message(
            QStringLiteral("Copy file error: source path is not readable: %1"), run.shown(dst)));
    }
    // The entries of one directory share their destination's; the first of them checks it.
    if (!parent.checked) {
        checkDestinationDirectory(dst, run);
        parent.checked = true;
    }
    // A link in the destination's place is replaced, never written through; a dangling one
    // is in the way all the same.
    const QString dstEntry = namedEntryPath(dst);
    const std::optional<zo::os::FileStatus> named
        = zo::os::linkStatus(QFile::encodeName(dstEntry).constData());
    const bool isLink = named && named->type == zo::os::EntryType::Link;
    if (isLink) {
        if (!overwrite)
            throw destinationExists(run.shown(dst));
        removeFile(dstEntry);
    }
    // Most entries of a copy go where nothing is; only what is in the way is looked at more.
    std::optional<QFileInfo> dstInfo;
    if (named && !isLink)
        dstInfo.emplace(dst);
    if (source->type == zo::os::EntryType::File)
        copyFile(src, dst, *source, dstInfo, overwrite, run);
    else if (source->type == zo::os::EntryType::Directory)
        copyDirectory(src, source->identity, dst, dstInfo, overwrite, run);
}

std::string moveFailure(const QString& src, const QString& dst, const std::exception& error)
{
    return message(
        QStringLiteral("Move file error: an exception occurred during the move from %1 to %2 (%3)"),
        src, dst, QString::fromUtf8(error.what()));
}

} // namespace

QStringList listDirectory(const QString& path, bool showHidden, bool recursive, bool includeDirs)
{
    return xListFiles(QDir(path), QString(), showHidden, recursive, includeDirs);
}

QStringList xListFiles(
    const QDir& dir, const QString& prefix, bool showHidden, bool recursive, bool includeDirs)
{
    zo::os::WalkOptions options;
    options.includeHidden = showHidden;
    options.recursive = recursive;
    QStringList listing;
    zo::os::walkTree(
        QFile::encodeName(dir.path()).toStdString(), options, [&](const zo::os::WalkEntry& entry) {
            // Dangling links, fifos, sockets and devices are not listed.
            if (entry.type == zo::os::EntryType::File
                || (includeDirs && entry.type == zo::os::EntryType::Directory))
                listing.append(prefix.isEmpty() ? detail::decodedPath(entry.path)
                                                : prefix + detail::decodedPath(entry.path));
            return zo::os::WalkStep::Continue;
        });
    return listing;
}

void folderSize(const QString& path, unsigned long long* pSize, unsigned int* pCount,
    bool* pAborted, unsigned int maxCount, unsigned long long maxSize)
{
    if (pSize == nullptr)
        throw std::runtime_error("folderSize() error: pSize parameter must not be NULL");
    unsigned int localCount = 0;
    bool localAborted = false;
    unsigned int& count = pCount != nullptr ? *pCount : localCount;
    bool& aborted = pAborted != nullptr ? *pAborted : localAborted;
    const std::string root = QFile::encodeName(path).toStdString();
    if (maxCount != 0 || maxSize != 0) {
        aborted = addFolderSize(root, *pSize, count, { maxCount, maxSize });
        return;
    }
    // Without a limit the order does not matter, and one walk in the order of the directory
    // reads adds everything up.
    zo::os::WalkOptions options;
    options.followLinks = false;
    zo::os::walkTree(root, options, [&](const zo::os::WalkEntry& entry) {
        if (entry.type == zo::os::EntryType::File) {
            if (const zo::os::FileStatus* status = entry.status()) {
                *pSize += status->size;
                ++count;
            }
        }
        return zo::os::WalkStep::Continue;
    });
    aborted = false;
}

bool hasEnoughSpaceDiskToCopyTo(const QString& path, long long size, long long* pMissing)
{
    QFileInfo existing(path);
    while (!existing.exists() && !existing.isRoot())
        existing = QFileInfo(existing.dir().absolutePath());
    const auto available = static_cast<long long>(availableSpace(existing.absolutePath()));
    const long long missing = size + kSpaceReserve - available;
    if (pMissing != nullptr)
        *pMissing = missing;
    return missing < 0;
}

void remove(const QString& path)
{
    const QFileInfo info(path);
    const QFileInfo entry(namedEntryPath(path));
    if (!info.exists() && !entry.isSymLink())
        throw PathNotFound(message(QStringLiteral("Delete file error: %1 not found"), path));
    // A dangling link has no target whose permissions could be tested.
    if (info.exists() && !info.isWritable()) {
        throw IOWriteError(message(
            QStringLiteral("Delete file error: the path to remove is not writable: %1"), path));
    }
    // A link goes as a link: what it points to is not the caller's to delete.
    if (entry.isSymLink() || info.isFile()) {
        removeFile(entry.filePath());
        return;
    }
    removeDirectoryTree(path);
}

void copy(const QString& src, const QString& dst, const bool& overwrite)
{
    CopyRun run;
    DestinationDirectory parent;
    copyEntry(src, dst, overwrite, run, parent);
    // What was copied is durable before this returns; a move removes its source only after.
    // A single file needs itself and its directory flushed. A tree gets one flush of the
    // destination's file system, at a small part of the cost of a sync per file.
    const QFileInfo target(dst);
    const QByteArray path = QFile::encodeName(target.filePath());
    const bool synced = target.isDir() ? zo::os::syncFileSystem(path.constData())
                                       : zo::os::syncFile(path.constData())
            && zo::os::syncDirectory(QFile::encodeName(target.absolutePath()).constData());
    if (!synced)
        throw copyFailure(src, dst, errno);
}

void move(const QString& src, const QString& dst, const bool& overwrite)
{
    const QFileInfo srcInfo(src);
    if (!srcInfo.exists())
        throw PathNotFound(message(QStringLiteral("Move file error: %1 not found"), src));
    if (!srcInfo.isWritable()) {
        // Names the containing directory although the source itself was tested; kept so.
        throw IOWriteError(
            message(QStringLiteral("Move file error: %1 isn't writable"), srcInfo.path()));
    }
    const QFileInfo dstInfo(dst);
    if (dstInfo.exists() && !overwrite) {
        throw AlreadyExists(
            message(QStringLiteral("Move file error: %1 already exists"), dstInfo.filePath()));
    }
    if (dstInfo == srcInfo) {
        throw AlreadyExists("Move file error: destination and source files/folders are the same. "
                            "On some OS a same name with a different case can be considered as "
                            "the same name.");
    }
    try {
        if (!QDir().rename(src, dst)) {
            copy(src, dst, overwrite);
            remove(src);
        }
    } catch (const IOReadError& error) {
        throw IOReadError(moveFailure(src, dst, error));
    } catch (const IOWriteError& error) {
        throw IOWriteError(moveFailure(src, dst, error));
    } catch (const PathNotFound& error) {
        throw PathNotFound(moveFailure(src, dst, error));
    } catch (const AlreadyExists& error) {
        throw AlreadyExists(moveFailure(src, dst, error));
    } catch (const std::exception& error) {
        throw std::runtime_error(moveFailure(src, dst, error));
    }
}

} // namespace zo::project
