#include <zo/project/fileutils.h>

#include "paths.h"

#include <zo/owner.h>
#include <zo/path.h>
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
#include <string_view>
#include <unordered_set>
#include <utility>
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

using zo::os::EntryType;
using zo::os::UniqueFd;

// Kept free on every volume a copy writes to.
constexpr long long kSpaceReserve = 10LL * 1024 * 1024;
// Larger files are measured against the free space before their copy is tried.
constexpr std::uint64_t kSpaceCheckedCopySize = 5ULL * 1024 * 1024;
// Flaky steps are tried this many times in a row, without pause.
constexpr int kAttempts = 3;

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

QString systemError(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// A path below the top of an operation, for messages only: the path the caller gave, then the
// names the directories hold, decoded.
QString shownBelow(const QString& top, std::string_view relative)
{
    return relative.empty() ? top : QDir(top).filePath(detail::decodedPath(relative));
}

// Appends name to a relative path.
void descendInto(std::string& relative, std::string_view name)
{
    if (!relative.empty())
        relative += '/';
    relative += name;
}

// The entry a path names, as the directory that holds it, opened once at the top of an
// operation, and its name there: below it, every step names entries of directories held open.
// A path ending in "/" names the same entry; a link there is the entry, not what it points to.
struct Place {
    explicit Place(const QString& path)
    {
        if (path.isEmpty())
            return; // names nothing, although the system would take it for "."
        std::string entry = detail::encoded(path).toStdString();
        while (entry.size() > 1 && entry.back() == '/')
            entry.pop_back();
        const zo::Path split(entry);
        name = split.filename();
        if (name.empty())
            name = "."; // the root
        directory = zo::os::openPlace(split.directory().c_str());
    }

    std::optional<zo::os::FileStatus> status(bool followLink) const
    {
        if (!directory)
            return std::nullopt;
        return zo::os::statusAt(directory.get(), name.c_str(), followLink);
    }

    UniqueFd directory;
    std::string name;
};

// Removes entries below the path the caller gave, which names them in messages.
class Removal {
public:
    explicit Removal(QString top)
        : _top(std::move(top))
    {
    }

    // Removes name of the open directory after the checks every removed entry gets: a
    // directory with everything below it, anything else as a file.
    void remove(int directory, const char* name, EntryType type)
    {
        checkRemovable(directory, name, type);
        if (type == EntryType::Directory)
            removeTree(directory, name);
        else
            removeFile(directory, name);
    }

    // Removes name of the open directory, whatever it is but a directory, without the checks.
    void removeFile(int directory, const char* name) const
    {
        if (zo::os::removeAt(directory, name))
            return;
        if (errno == ENOENT)
            throw notFound();
        throw IOWriteError(message(QStringLiteral("Delete file error: %1, %2"),
            QString::number(QFileDevice::RemoveError), systemError(errno)));
    }

private:
    QString shown() const { return shownBelow(_top, _relative); }

    PathNotFound notFound() const
    {
        return PathNotFound(message(QStringLiteral("Delete file error: %1 not found"), shown()));
    }

    // Tested on what goes: a file or directory itself, but for a link the directory that holds
    // it, never the link's target.
    void checkRemovable(int directory, const char* name, EntryType type) const
    {
        if (zo::os::isWritableAt(directory, type == EntryType::Link ? "." : name))
            return;
        if (errno == ENOENT)
            throw notFound();
        throw IOWriteError(message(
            QStringLiteral("Delete file error: the path to remove is not writable: %1"), shown()));
    }

    void removeEmptied(int parent, const char* name) const
    {
        if (!succeedsWithinAttempts([&] { return zo::os::removeDirectoryAt(parent, name); })) {
            throw std::runtime_error(message(
                QStringLiteral(
                    "Delete file error: an unknown exception occurred during the removal of %1"),
                shown()));
        }
    }

    // Opens name of the open directory as a directory to empty. One replaced by anything else
    // since it was listed goes as a file, and one that cannot be read is removed as it is, which
    // fails unless it is empty; either way no descriptor is returned.
    UniqueFd openTree(int parent, const char* name, zo::os::FileIdentity& identity)
    {
        UniqueFd directory = zo::os::openDirectoryAt(parent, name);
        const std::optional<zo::os::FileStatus> status
            = directory ? zo::os::status(directory.get()) : std::nullopt;
        if (status) {
            identity = status->identity;
            return directory;
        }
        if (errno == ELOOP || errno == ENOTDIR)
            removeFile(parent, name);
        else
            removeEmptied(parent, name);
        return UniqueFd();
    }

    // Empties the directory name of parent, deepest entries first, and removes it. Each
    // directory is read whole before its entries go.
    void removeTree(int parent, const char* name)
    {
        zo::os::FileIdentity identity;
        UniqueFd top = openTree(parent, name, identity);
        if (!top)
            return;
        zo::os::DirectoryDescent descent(std::move(top), identity);
        struct Level {
            zo::os::DirectoryListing entries;
            std::size_t next = 0;
            std::size_t relativeLength = 0;
            std::string name; ///< in its parent
        };
        std::vector<Level> levels(1);
        levels[0].entries.read(descent.directory());
        levels[0].relativeLength = _relative.size();
        for (;;) {
            Level& level = levels.back();
            if (level.next < level.entries.entries.size()) {
                const zo::os::ListedEntry entry = level.entries.entries[level.next++];
                _relative.resize(level.relativeLength);
                descendInto(_relative, entry.name);
                const int directory = descent.directory();
                checkRemovable(directory, entry.name.data(), entry.type);
                if (entry.type != EntryType::Directory) {
                    removeFile(directory, entry.name.data());
                    continue;
                }
                UniqueFd child = openTree(directory, entry.name.data(), identity);
                if (!child)
                    continue;
                // Only a mount of a directory inside itself could lead back.
                if (!descent.enter(std::move(child), identity, false)) {
                    removeEmptied(directory, entry.name.data());
                    continue;
                }
                levels.push_back({});
                levels.back().entries.read(descent.directory());
                levels.back().relativeLength = _relative.size();
                levels.back().name = std::string(entry.name);
                continue;
            }
            _relative.resize(level.relativeLength);
            if (levels.size() == 1)
                break;
            if (!succeedsWithinAttempts([&] { return descent.leave(); })) {
                throw std::runtime_error(message(
                    QStringLiteral(
                        "Delete file error: an unknown exception occurred during cdUp of %1"),
                    shown()));
            }
            removeEmptied(descent.directory(), level.name.c_str());
            levels.pop_back();
        }
        removeEmptied(parent, name);
    }

    QString _top;
    std::string _relative;
};

// Removes what a failed step left, if anything; its own failure would hide the one reported.
void removeQuietly(int directory, const char* name)
{
    const std::optional<zo::os::FileStatus> status = zo::os::statusAt(directory, name, false);
    try {
        if (status)
            Removal(QString()).remove(directory, name, status->type);
    } catch (const std::exception&) {
    }
}

// A copy in progress, from the top given by the caller down, one directory at a time. A
// directory copied where nothing is yet is built under a hidden name beside its destination and
// renamed into place once complete: its files can be written under their own names, which costs
// a journalled file system less than an unnamed file linked in, and still no one sees a partial
// file under a destination name. Messages name the destination, never the hidden name.
class TreeCopy {
public:
    TreeCopy(QString src, QString dst, bool overwrite)
        : _src(std::move(src))
        , _dst(std::move(dst))
        , _overwrite(overwrite)
    {
    }

    // Copies; returns what the source was, Other when nothing was copied.
    EntryType run();

private:
    // What is copied: a file or a directory, open, with its status; other entries only pass
    // the checks.
    struct Source {
        UniqueFd fd;
        zo::os::FileStatus status;
        bool throughLink = false;
    };

    // A source directory being copied, and its destination, where the descents are.
    struct Level {
        zo::os::DirectoryListing entries;
        std::size_t next = 0;
        std::size_t relativeLength = 0;
        // The destination's entries from before, which go unless the source has them too.
        zo::os::DirectoryListing stale;
        bool checked = false; ///< the destination directory passed its checks
        bool fresh = false; ///< the destination was made by this copy: nothing else is in it
        bool unseen = false; ///< the destination lies in a tree built under a hidden name
        // Set on the top of a tree built under a hidden name: where it is, and the names.
        UniqueFd builtIn;
        std::string hidden;
        std::string name;
        // This process's owner mark beside the hidden tree while it is built, by which a later
        // cleanup tells a live copy's tree from a dead one's.
        std::shared_ptr<zo::os::OwnerMark> mark;
    };

    QString shownSource() const { return shownBelow(_src, _relative); }
    QString shownDestination() const { return shownBelow(_dst, _relative); }

    AlreadyExists destinationExists() const
    {
        return AlreadyExists(
            message(QStringLiteral("Copy file error: %1 already exists"), shownDestination()));
    }
    IOWriteError notCreated() const
    {
        return IOWriteError(message(
            QStringLiteral("Copy file error: %1 could not be created"), shownDestination()));
    }
    std::runtime_error failure(int error) const
    {
        return std::runtime_error(
            message(QStringLiteral(
                        "Copy file error: an exception occurred during the copy from %1 to %2: %3"),
                shownSource(), shownDestination(), systemError(error)));
    }

    Source openSource(int directory, const char* name, EntryType type, bool followLink) const;
    void checkTopDestination() const;
    void checkDestination(Level& level) const;
    std::optional<zo::os::FileStatus> lookUpDestination(int directory, const char* name) const;
    long long missingSpace(int directory, std::uint64_t size) const;
    void copyFile(const Source& source, int directory, const char* name,
        const std::optional<zo::os::FileStatus>& existing, bool unseen) const;
    void refuseCopyOntoItself(const Source& source, int sourceDirectory, int directory,
        const std::optional<zo::os::FileStatus>& existing) const;
    void enterDirectory(Source source, int directory, const char* name,
        const std::optional<zo::os::FileStatus>& existing, const Level* parent);
    UniqueFd makeDirectory(int directory, const char* name) const;
    void copyNext(Level& level);
    void finishLevel();
    void nameBuiltTree(const Level& level) const;
    void copyLevels();

    const QString _src;
    const QString _dst;
    const bool _overwrite;
    // Below the tops: the source directory, the destination's parent.
    std::string _relative;
    std::optional<zo::os::DirectoryDescent> _source;
    std::optional<zo::os::DirectoryDescent> _destination;
    std::vector<Level> _levels;
};

// Opening is the test of readability: an entry that cannot be opened is not readable. One that
// vanished, or is no longer what it was listed as, is not found; it is never followed.
TreeCopy::Source TreeCopy::openSource(
    int directory, const char* name, EntryType type, bool followLink) const
{
    Source source;
    source.throughLink = followLink;
    source.status.type = type;
    if (type == EntryType::File)
        source.fd = zo::os::openForReadingAt(directory, name, followLink);
    else if (type == EntryType::Directory)
        source.fd = zo::os::openDirectoryAt(directory, name, followLink);
    const bool opened = type == EntryType::Other ? zo::os::isReadableAt(directory, name)
                                                 : static_cast<bool>(source.fd);
    if (!opened && (errno == ENOENT || errno == ELOOP || errno == ENOTDIR))
        throw PathNotFound(message(QStringLiteral("Copy file error: %1 not found"), shownSource()));
    if (!opened) {
        // Names the destination although the source was tested: other programs match it so.
        throw PathNotFound(
            message(QStringLiteral("Copy file error: source path is not readable: %1"),
                shownDestination()));
    }
    if (source.fd) {
        const std::optional<zo::os::FileStatus> status = zo::os::status(source.fd.get());
        if (!status)
            throw failure(errno);
        source.status = *status;
    }
    return source;
}

void TreeCopy::checkTopDestination() const
{
    const QDir parent = QFileInfo(_dst).dir();
    if (!parent.exists()) {
        throw PathNotFound(
            message(QStringLiteral("Copy file error: %1 destination path not found"), _dst));
    }
    if (!QFileInfo(parent.absolutePath()).isWritable()) {
        // Names the directory above the tested one; other programs match it so.
        const QFileInfo shownParent(parent.absolutePath());
        throw IOWriteError(
            message(QStringLiteral("Copy file error: destination directory is not writable: %1"),
                shownParent.absolutePath()));
    }
}

// The entries of one directory share their destination's checks; the first of them makes them.
void TreeCopy::checkDestination(Level& level) const
{
    if (level.checked)
        return;
    if (!zo::os::isWritableAt(_destination->directory(), ".")) {
        const QFileInfo shownParent(QFileInfo(shownDestination()).dir().absolutePath());
        throw IOWriteError(
            message(QStringLiteral("Copy file error: destination directory is not writable: %1"),
                shownParent.absolutePath()));
    }
    level.checked = true;
}

// A link in the destination's place is replaced, never written through; a dangling one is in
// the way all the same.
std::optional<zo::os::FileStatus> TreeCopy::lookUpDestination(int directory, const char* name) const
{
    std::optional<zo::os::FileStatus> existing = zo::os::statusAt(directory, name, false);
    if (!existing || existing->type != EntryType::Link)
        return existing;
    if (!_overwrite)
        throw destinationExists();
    Removal(shownDestination()).removeFile(directory, name);
    return std::nullopt;
}

// What hasEnoughSpaceDiskToCopyTo reports missing for a new entry of the open directory: the
// volume measured holds the directory above it, as for a path whose last component does not
// exist yet. The top is measured by its path as the caller gave it.
long long TreeCopy::missingSpace(int directory, std::uint64_t size) const
{
    long long missing = 0;
    if (_relative.empty()) {
        hasEnoughSpaceDiskToCopyTo(_dst, static_cast<long long>(size), &missing);
        return missing;
    }
    const UniqueFd above = zo::os::openPlaceAt(directory, "..");
    const std::optional<std::uint64_t> available
        = above ? zo::os::availableSpace(above.get()) : std::nullopt;
    return static_cast<long long>(size) + kSpaceReserve
        - static_cast<long long>(available.value_or(0));
}

// Files are copied without a sync each; the copy as a whole is synced once before it returns.
void TreeCopy::copyFile(const Source& source, int directory, const char* name,
    const std::optional<zo::os::FileStatus>& existing, bool unseen) const
{
    const std::uint64_t size = source.status.size;
    if (existing) {
        if (!_overwrite)
            throw destinationExists();
        if (!zo::os::isWritableAt(directory, name)) {
            throw IOWriteError(
                message(QStringLiteral("Copy file error: destination path is not writable: %1"),
                    shownDestination()));
        }
        // Compared byte for byte, not by a checksum: contents that merely share one are copied.
        if (existing->type == EntryType::File && existing->size == size) {
            const UniqueFd held = zo::os::openForReadingAt(directory, name);
            if (held && zo::os::haveSameContent(source.fd.get(), held.get()))
                return;
        }
        // Anything but a directory is replaced by a rename, and stays when the copy fails.
        if (existing->type == EntryType::Directory)
            Removal(shownDestination()).remove(directory, name, existing->type);
    }
    const auto noSpace = [&](const char* format, long long missing) {
        return std::runtime_error(message(QString::fromLatin1(format),
            QString::number(missing >> 20), shownSource(), shownDestination()));
    };
    if (size > kSpaceCheckedCopySize) {
        const long long missing = missingSpace(directory, size);
        if (missing >= 0)
            throw noSpace(kNoSpaceBeforeCopy, missing);
    }
    const bool replacing = existing && existing->type != EntryType::Directory;
    const zo::os::CopyTarget target = replacing ? zo::os::CopyTarget::Replacing
        : unseen                                ? zo::os::CopyTarget::Unseen
                                                : zo::os::CopyTarget::Visible;
    int copyError = 0;
    const bool copied = succeedsWithinAttempts([&] {
        if (zo::os::copyFileAt(source.fd.get(), directory, name, target))
            return true;
        copyError = errno;
        const long long missing = missingSpace(directory, size);
        if (missing >= 0)
            throw noSpace(kNoSpaceAfterFailedCopy, missing);
        return false;
    });
    if (!copied)
        throw failure(copyError);
}

// Whether the open directory is ancestor or lies below it: ".." is followed up to the root, so
// that no spelling of a path, link or bind mount hides it.
bool liesWithin(int directory, const zo::os::FileIdentity& ancestor)
{
    UniqueFd above;
    for (int at = directory;;) {
        const std::optional<zo::os::FileStatus> status = zo::os::status(at);
        if (status && status->identity == ancestor)
            return true;
        UniqueFd next = zo::os::openPlaceAt(at, "..");
        const std::optional<zo::os::FileStatus> nextStatus
            = next ? zo::os::status(next.get()) : std::nullopt;
        if (!status || !nextStatus || nextStatus->identity == status->identity)
            return false; // the root
        above = std::move(next);
        at = above.get();
    }
}

// Refused before anything is made: a copy into itself would copy itself, deeper and deeper, and
// one over a directory that holds it would delete itself as an entry the source lacks.
void TreeCopy::refuseCopyOntoItself(const Source& source, int sourceDirectory, int directory,
    const std::optional<zo::os::FileStatus>& existing) const
{
    const zo::os::FileIdentity& identity = source.status.identity;
    if (source.status.type == EntryType::Directory && liesWithin(directory, identity)) {
        throw IOWriteError(message(
            QStringLiteral("Copy file error: %1 cannot be copied into itself, at %2"), _src, _dst));
    }
    if (!existing || existing->type != EntryType::Directory || existing->identity == identity)
        return;
    const UniqueFd above = source.status.type == EntryType::Directory
        ? zo::os::openPlaceAt(source.fd.get(), "..")
        : UniqueFd();
    if (liesWithin(sourceDirectory, existing->identity)
        || (above && liesWithin(above.get(), existing->identity))) {
        throw IOWriteError(
            message(QStringLiteral("Copy file error: %1 lies inside %2, which cannot be replaced "
                                   "by it"),
                _src, _dst));
    }
}

UniqueFd TreeCopy::makeDirectory(int directory, const char* name) const
{
    UniqueFd made;
    if (zo::os::makeDirectoryAt(directory, name, 0777))
        made = zo::os::openDirectoryAt(directory, name);
    if (!made)
        throw notCreated();
    return made;
}

// Makes or opens the destination of a source directory and goes down into both. With
// overwrite, what the destination held that the source does not goes once the copy is done.
void TreeCopy::enterDirectory(Source source, int directory, const char* name,
    const std::optional<zo::os::FileStatus>& existing, const Level* parent)
{
    // A link to a directory the copy is inside of, or writes into, would make it loop.
    const zo::os::FileIdentity identity = source.status.identity;
    if (_destination->isInside(identity))
        return;
    if (!_source)
        _source.emplace(std::move(source.fd), identity);
    else if (!_source->enter(std::move(source.fd), identity, source.throughLink))
        return;
    Level level;
    if (!level.entries.read(_source->directory()))
        throw failure(errno);
    level.relativeLength = _relative.size();
    UniqueFd made;
    if (existing) {
        if (!_overwrite)
            throw destinationExists();
        if (existing->type == EntryType::Directory) {
            made = zo::os::openDirectoryAt(directory, name);
            if (!made || !level.stale.read(made.get()))
                throw notCreated();
        } else {
            Removal(shownDestination()).remove(directory, name, existing->type);
            made = makeDirectory(directory, name);
            level.fresh = true;
        }
    } else if (parent && parent->fresh) {
        made = makeDirectory(directory, name);
        level.fresh = true;
        level.unseen = parent->unseen;
    } else {
        level.mark
            = zo::os::OwnerMark::holdBeside(detail::encoded(shownDestination()).toStdString());
        level.hidden = zo::os::hiddenTemplateBeside(name, "copy");
        if (!zo::os::makeUniqueDirectoryAt(directory, level.hidden, 0777))
            throw notCreated();
        made = zo::os::openDirectoryAt(directory, level.hidden.c_str());
        level.builtIn = zo::os::duplicate(directory);
        level.name = name;
        level.fresh = true;
        level.unseen = true;
    }
    const std::optional<zo::os::FileStatus> madeStatus
        = made ? zo::os::status(made.get()) : std::nullopt;
    const bool held = madeStatus && (level.hidden.empty() || level.builtIn)
        && _destination->enter(std::move(made), madeStatus->identity, false);
    if (!held) {
        if (!level.hidden.empty())
            removeQuietly(directory, level.hidden.c_str());
        throw notCreated();
    }
    _levels.push_back(std::move(level));
}

void TreeCopy::copyNext(Level& level)
{
    const zo::os::ListedEntry listed = level.entries.entries[level.next++];
    _relative.resize(level.relativeLength);
    descendInto(_relative, listed.name);
    const char* name = listed.name.data();
    // Fifos, sockets, devices and dangling links are not copied; links are followed.
    EntryType type = listed.type;
    const bool isLink = type == EntryType::Link;
    if (isLink) {
        const std::optional<zo::os::FileStatus> target
            = zo::os::statusAt(_source->directory(), name, true);
        type = target ? target->type : EntryType::Other;
    }
    if (type != EntryType::File && type != EntryType::Directory)
        return;
    Source source = openSource(_source->directory(), name, type, isLink);
    if (source.status.type != EntryType::File && source.status.type != EntryType::Directory)
        return;
    checkDestination(level);
    const int directory = _destination->directory();
    const std::optional<zo::os::FileStatus> existing
        = level.fresh ? std::nullopt : lookUpDestination(directory, name);
    if (source.status.type == EntryType::File)
        copyFile(source, directory, name, existing, level.unseen);
    else
        enterDirectory(std::move(source), directory, name, existing, &level);
}

void TreeCopy::nameBuiltTree(const Level& level) const
{
    if (zo::os::renameToFreeNameAt(
            level.builtIn.get(), level.hidden.c_str(), level.builtIn.get(), level.name.c_str()))
        return;
    const int error = errno;
    removeQuietly(level.builtIn.get(), level.hidden.c_str());
    if (error == EEXIST || error == ENOTEMPTY)
        throw destinationExists();
    throw notCreated();
}

void TreeCopy::finishLevel()
{
    const Level& level = _levels.back();
    _relative.resize(level.relativeLength);
    if (!level.stale.entries.empty()) {
        std::unordered_set<std::string_view> copied;
        for (const zo::os::ListedEntry& entry : level.entries.entries)
            copied.insert(entry.name);
        for (const zo::os::ListedEntry& entry : level.stale.entries) {
            if (copied.count(entry.name) != 0)
                continue;
            descendInto(_relative, entry.name);
            Removal(shownDestination())
                .remove(_destination->directory(), entry.name.data(), entry.type);
            _relative.resize(level.relativeLength);
        }
    }
    // A directory that moved while the copy was inside it is not followed up.
    if ((_levels.size() > 1 && !_source->leave()) || !_destination->leave())
        throw failure(errno);
    if (level.builtIn)
        nameBuiltTree(level);
    _levels.pop_back();
    if (!_levels.empty())
        _relative.resize(_levels.back().relativeLength);
}

// A copy that fails midway keeps what it copied so far under the destination's name, complete
// files only, as a copy made in place would.
void TreeCopy::copyLevels()
{
    try {
        while (!_levels.empty()) {
            Level& level = _levels.back();
            if (level.next < level.entries.entries.size())
                copyNext(level);
            else
                finishLevel();
        }
    } catch (const std::exception&) {
        for (const Level& level : _levels) {
            if (!level.builtIn)
                continue;
            try {
                nameBuiltTree(level);
            } catch (const std::exception&) {
            }
        }
        throw;
    }
}

EntryType TreeCopy::run()
{
    // Links are followed at the top: the caller named the source through them.
    const Place from(_src);
    const std::optional<zo::os::FileStatus> named = from.status(true);
    if (!named)
        throw PathNotFound(message(QStringLiteral("Copy file error: %1 not found"), _src));
    Source source = openSource(from.directory.get(), from.name.c_str(), named->type, true);
    checkTopDestination();
    const EntryType type = source.status.type;
    if (type != EntryType::File && type != EntryType::Directory)
        return EntryType::Other;
    const Place to(_dst);
    const std::optional<zo::os::FileStatus> place
        = to.directory ? zo::os::status(to.directory.get()) : std::nullopt;
    if (!place)
        throw failure(errno);
    refuseCopyOntoItself(source, from.directory.get(), to.directory.get(), to.status(false));
    const std::optional<zo::os::FileStatus> existing
        = lookUpDestination(to.directory.get(), to.name.c_str());
    if (type == EntryType::File) {
        copyFile(source, to.directory.get(), to.name.c_str(), existing, false);
        return type;
    }
    _destination.emplace(zo::os::duplicate(to.directory.get()), place->identity);
    enterDirectory(std::move(source), to.directory.get(), to.name.c_str(), existing, nullptr);
    copyLevels();
    return type;
}

struct FolderLimits {
    unsigned int maxCount;
    unsigned long long maxSize;

    bool any() const { return maxCount != 0 || maxSize != 0; }
    bool reached(unsigned long long size, unsigned int count) const
    {
        return (maxCount != 0 && count >= maxCount) || (maxSize != 0 && size >= maxSize);
    }
};

// Directories first, then by name: the order decides where a limit stops the count.
void directoriesFirstByName(zo::os::DirectoryListing& listing)
{
    std::vector<std::pair<QString, zo::os::ListedEntry>> keyed;
    keyed.reserve(listing.entries.size());
    for (const zo::os::ListedEntry& entry : listing.entries)
        keyed.emplace_back(detail::decodedPath(entry.name), entry);
    std::sort(keyed.begin(), keyed.end(), [](const auto& a, const auto& b) {
        const bool aIsDirectory = a.second.type == EntryType::Directory;
        const bool bIsDirectory = b.second.type == EntryType::Directory;
        return aIsDirectory != bIsDirectory ? aIsDirectory : a.first < b.first;
    });
    for (std::size_t at = 0; at < keyed.size(); ++at)
        listing.entries[at] = keyed[at].second;
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
    const FolderLimits limits { maxCount, maxSize };
    zo::os::WalkOptions options;
    options.followLinks = false;
    // Without a limit the order does not matter, and one walk in the order of the directory
    // reads adds everything up.
    if (limits.any())
        options.arrange = directoriesFirstByName;
    // A limit is tested after each file and after each directory is done, which ends the walk
    // when the next entry is no deeper than that directory's own entries.
    bool stopped = false;
    std::optional<int> pendingDepth;
    zo::os::walkTree(
        detail::encoded(path).toStdString(), options, [&](const zo::os::WalkEntry& entry) {
            if (pendingDepth && entry.depth <= *pendingDepth) {
                stopped = true;
                return zo::os::WalkStep::Stop;
            }
            if (entry.type == EntryType::Directory && limits.reached(*pSize, count))
                pendingDepth = entry.depth;
            const zo::os::FileStatus* status
                = entry.type == EntryType::File ? entry.status() : nullptr;
            if (status == nullptr)
                return zo::os::WalkStep::Continue;
            *pSize += status->size;
            ++count;
            stopped = limits.reached(*pSize, count);
            return stopped ? zo::os::WalkStep::Stop : zo::os::WalkStep::Continue;
        });
    aborted = stopped || pendingDepth.has_value();
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

// The checks are made on what the path names, links followed; the entry itself goes: a link as a
// link, never what it points to.
void remove(const QString& path)
{
    const Place place(path);
    const std::optional<zo::os::FileStatus> named = place.status(false);
    if (!named)
        throw PathNotFound(message(QStringLiteral("Delete file error: %1 not found"), path));
    Removal(path).remove(place.directory.get(), place.name.c_str(), named->type);
}

void copy(const QString& src, const QString& dst, const bool& overwrite)
{
    const EntryType copied = TreeCopy(src, dst, overwrite).run();
    if (copied == EntryType::Other)
        return;
    // What was copied is durable before this returns; a move removes its source only after.
    // A single file needs itself and its directory flushed. A tree gets one flush of the
    // destination's file system, at a small part of the cost of a sync per file.
    const QFileInfo target(dst);
    const QByteArray path = detail::encoded(target.filePath());
    const bool synced = copied == EntryType::Directory ? zo::os::syncFileSystem(path.constData())
                                                       : zo::os::syncFile(path.constData())
            && zo::os::syncDirectory(detail::encoded(target.absolutePath()).constData());
    if (!synced) {
        throw std::runtime_error(
            message(QStringLiteral(
                        "Copy file error: an exception occurred during the copy from %1 to %2: %3"),
                src, dst, systemError(errno)));
    }
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
    // The same file by another path too (a hard link, a bind mount): a move by copy and removal
    // would remove it.
    const std::optional<zo::os::FileStatus> srcStatus = Place(src).status(false);
    const std::optional<zo::os::FileStatus> dstStatus = Place(dst).status(false);
    if (dstInfo == srcInfo
        || (srcStatus && dstStatus && srcStatus->identity == dstStatus->identity)) {
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
