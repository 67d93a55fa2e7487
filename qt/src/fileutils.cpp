#include <zo/project/fileutils.h>

#include <zo/unicode.h>

#include <QFile>
#include <QFileInfo>

#include <boost/filesystem.hpp>

#include <sys/stat.h>

#include <algorithm>
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

// Where a file is stored; two paths that name the same directory share it.
struct FileIdentity {
    dev_t device;
    ino_t inode;

    bool operator==(const FileIdentity& other) const
    {
        return device == other.device && inode == other.inode;
    }
};

// The identity of what path names, links followed; none when it cannot be read.
std::optional<FileIdentity> identityOf(const QString& path)
{
    struct stat status { };
    if (::stat(QFile::encodeName(path).constData(), &status) != 0) {
        return std::nullopt;
    }
    return FileIdentity { status.st_dev, status.st_ino };
}

// The directories a recursive walk is inside of, outermost first.
using DescentPath = std::vector<FileIdentity>;

// Enters a directory for the lifetime of the object unless it is already on the descent path,
// so that a symbolic link to an ancestor does not make a walk loop. A directory that cannot be
// identified is not entered either: it could be such an ancestor.
class DescentStep {
public:
    DescentStep(DescentPath& path, const QString& directory)
        : _path(path)
    {
        const std::optional<FileIdentity> identity = identityOf(directory);
        if (identity && std::find(path.begin(), path.end(), *identity) == path.end()) {
            path.push_back(*identity);
            _entered = true;
        }
    }
    ~DescentStep()
    {
        if (_entered) {
            _path.pop_back();
        }
    }
    DescentStep(const DescentStep&) = delete;
    DescentStep& operator=(const DescentStep&) = delete;

    bool entered() const { return _entered; }

private:
    DescentPath& _path;
    bool _entered = false;
};

struct ListingOptions {
    bool showHidden;
    bool recursive;
    bool includeDirs;
};

void appendListing(const QDir& dir, const QString& prefix, const ListingOptions& options,
    DescentPath& descent, QStringList& listing)
{
    QDir::Filters filters = QDir::AllEntries | QDir::NoDotAndDotDot;
    if (options.showHidden) {
        filters |= QDir::Hidden;
    }
    for (const QString& name : dir.entryList(filters, QDir::NoSort)) {
        const QString childPath = dir.filePath(name);
        if (!QDir(childPath).exists()) {
            listing.append(prefix + name);
            continue;
        }
        if (options.includeDirs) {
            listing.append(prefix + name);
        }
        if (options.recursive) {
            const DescentStep step(descent, childPath);
            if (step.entered()) {
                appendListing(
                    QDir(childPath), prefix + name + QLatin1Char('/'), options, descent, listing);
            }
        }
    }
}

struct FolderLimits {
    unsigned int maxCount;
    unsigned long long maxSize;

    bool reached(unsigned long long size, unsigned int count) const
    {
        return (maxCount != 0 && count >= maxCount) || (maxSize != 0 && size >= maxSize);
    }
};

// Returns whether a limit was reached, which ends the whole walk at once.
bool addFolderSize(
    const QString& path, unsigned long long& size, unsigned int& count, const FolderLimits& limits)
{
    const QFileInfoList entries = QDir(path).entryInfoList(
        QDir::Files | QDir::AllDirs | QDir::NoDotAndDotDot, QDir::DirsFirst);
    for (const QFileInfo& entry : entries) {
        if (entry.isSymLink()) {
            continue;
        }
        if (entry.isDir()) {
            // A nested walk that stops leaves the totals at a limit; the test below sees it.
            addFolderSize(entry.filePath(), size, count, limits);
        } else {
            size += static_cast<unsigned long long>(entry.size());
            ++count;
        }
        if (limits.reached(size, count)) {
            return true;
        }
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

} // namespace

QStringList listDirectory(const QString& path, bool showHidden, bool recursive, bool includeDirs)
{
    return xListFiles(QDir(path), QString(), showHidden, recursive, includeDirs);
}

QStringList xListFiles(
    const QDir& dir, const QString& prefix, bool showHidden, bool recursive, bool includeDirs)
{
    DescentPath descent;
    const DescentStep root(descent, dir.absolutePath());
    QStringList listing;
    appendListing(dir, prefix, { showHidden, recursive, includeDirs }, descent, listing);
    return listing;
}

void folderSize(const QString& path, unsigned long long* pSize, unsigned int* pCount,
    bool* pAborted, unsigned int maxCount, unsigned long long maxSize)
{
    if (pSize == nullptr) {
        throw std::runtime_error("folderSize() error: pSize parameter must not be NULL");
    }
    unsigned int localCount = 0;
    bool localAborted = false;
    unsigned int& count = pCount != nullptr ? *pCount : localCount;
    bool& aborted = pAborted != nullptr ? *pAborted : localAborted;
    aborted = addFolderSize(path, *pSize, count, { maxCount, maxSize });
}

bool hasEnoughSpaceDiskToCopyTo(const QString& path, long long size, long long* pMissing)
{
    QFileInfo existing(path);
    while (!existing.exists() && !existing.isRoot()) {
        existing = QFileInfo(existing.dir().absolutePath());
    }
    const auto available = static_cast<long long>(availableSpace(existing.absolutePath()));
    const long long missing = size + kSpaceReserve - available;
    if (pMissing != nullptr) {
        *pMissing = missing;
    }
    return missing < 0;
}

} // namespace zo::project
