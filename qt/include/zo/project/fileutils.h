#pragma once

#include <zo/project/zoprojectqt_export.h>

#include <QDir>
#include <QString>
#include <QStringList>

#include <stdexcept>
#include <string>

/// @file
/// Plain file-system utilities: the errors every file operation of the library throws,
/// listings, sizes, free space, and recursive copy, move and removal. Messages name the paths
/// concerned and the cause.

namespace zo::project {

/// A file operation failed for a reason other than a missing path or an existing destination.
class ZOPROJECTQT_EXPORT IOError : public std::runtime_error {
public:
    /// @{
    /// An error whose what() is message.
    explicit IOError(const std::string& message);
    explicit IOError(const char* message);
    /// @}
    ~IOError() override;
};

/// Something could not be read.
class ZOPROJECTQT_EXPORT IOReadError : public IOError {
public:
    /// @{
    /// An error whose what() is message.
    explicit IOReadError(const std::string& message);
    explicit IOReadError(const char* message);
    /// @}
    ~IOReadError() override;
};

/// Something could not be written, created or removed.
class ZOPROJECTQT_EXPORT IOWriteError : public IOError {
public:
    /// @{
    /// An error whose what() is message.
    explicit IOWriteError(const std::string& message);
    explicit IOWriteError(const char* message);
    /// @}
    ~IOWriteError() override;
};

/// A path that should exist does not (or an empty or absolute path where a relative one is
/// needed). Not an IOError: callers tell a missing path apart from a failing one.
class ZOPROJECTQT_EXPORT PathNotFound : public std::runtime_error {
public:
    /// @{
    /// An error whose what() is message.
    explicit PathNotFound(const std::string& message);
    explicit PathNotFound(const char* message);
    /// @}
    ~PathNotFound() override;
};

/// Not an IOError: the destination exists and may not be overwritten, or equals the source.
class ZOPROJECTQT_EXPORT AlreadyExists : public std::runtime_error {
public:
    /// @{
    /// An error whose what() is message.
    explicit AlreadyExists(const std::string& message);
    explicit AlreadyExists(const char* message);
    /// @}
    ~AlreadyExists() override;
};

/// Entries below path, relative to it, "/"-separated, a directory before its contents, in the
/// order the file system returns them: regular files, and directories when includeDirs; hidden
/// ones when showHidden; the whole tree when recursive. Links to directories are followed,
/// except back into a directory being listed; a directory replaced by a link while it is listed
/// is not. Dangling links, fifos, sockets and devices are left out. Never throws: what cannot be
/// read is not listed.
ZOPROJECTQT_EXPORT QStringList listDirectory(
    const QString& path, bool showHidden, bool recursive, bool includeDirs);

/// The worker of listDirectory: the entries below dir, each name prefixed with prefix.
ZOPROJECTQT_EXPORT QStringList xListFiles(
    const QDir& dir, const QString& prefix, bool showHidden, bool recursive, bool includeDirs);

/// Adds the sizes and the number of the visible regular files below path to *pSize and *pCount,
/// never following nor counting a link, directories first and by name, stopping as soon as
/// either reaches its limit (0: no limit); *pAborted tells whether it did. pCount and pAborted
/// may be null.
/// @throws std::runtime_error when pSize is null.
ZOPROJECTQT_EXPORT void folderSize(const QString& path, unsigned long long* pSize,
    unsigned int* pCount, bool* pAborted, unsigned int maxCount, unsigned long long maxSize);

/// Whether size bytes plus a 10 MiB reserve fit on the volume that would hold path (its
/// nearest existing ancestor's volume). *pMissing, unless null, receives the bytes lacking
/// (negative when there is room). A volume whose free space cannot be read counts as full.
ZOPROJECTQT_EXPORT bool hasEnoughSpaceDiskToCopyTo(
    const QString& path, long long size, long long* pMissing);

/// Deletes a file, a link (never what it points to), a fifo, socket or device, or a directory
/// tree. Each directory is held open while it is emptied, so that one replaced by a link
/// meanwhile is never followed, and depth is no limit.
/// @throws PathNotFound when nothing is at path.
/// @throws IOWriteError or std::runtime_error when an entry cannot be deleted (a directory that
/// stays); what was deleted before stays deleted.
ZOPROJECTQT_EXPORT void remove(const QString& path);

/// Copies a file or a directory tree, following links in the source except back into a
/// directory being copied or written; fifos, sockets and devices are not copied, and a source
/// that is one copies nothing. Each directory is held open while it is copied, so that one
/// replaced by a link meanwhile is never followed, and depth is no limit. Overwriting a
/// directory leaves it mirroring the source: entries only it had are deleted; a link in the
/// destination is replaced, never written through; with overwrite, a file copied onto a
/// directory replaces that whole directory tree. No partial file is ever seen under a
/// destination name: a new directory is built under a hidden name beside it and named when
/// complete (or when the copy fails, with the complete files copied so far), and a file written
/// into an existing directory takes its name once complete, so that a file it overwrites stays
/// as it was when the copy fails. What was copied is on the disk when this returns; nothing is
/// rolled back.
/// @throws PathNotFound when src does not exist.
/// @throws AlreadyExists when dst exists and overwrite is false.
/// @throws IOWriteError when a directory would be copied into itself or src over a directory
/// that holds it, by any path (naming both paths, before anything is made), or a destination
/// entry cannot be created or replaced.
/// @throws std::runtime_error when the destination's volume lacks the room, or a read, a
/// write or the final flush fails.
ZOPROJECTQT_EXPORT void copy(const QString& src, const QString& dst, const bool& overwrite);

/// Renames src to dst, or, across volumes, copies it (as copy does) and then removes src: what
/// copy leaves out (fifos, sockets, devices, dangling links) is then gone, and links within
/// become copies of what they point to.
/// @throws PathNotFound, AlreadyExists, IOReadError, IOWriteError or std::runtime_error as
/// copy and remove do, the message naming both paths; AlreadyExists also when dst is src, by
/// its path or as the same file reached by another (a hard link, a bind mount).
/// A failure leaves what was done: after a failed copy src is untouched.
ZOPROJECTQT_EXPORT void move(const QString& src, const QString& dst, const bool& overwrite);

} // namespace zo::project
