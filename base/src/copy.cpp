#include <zo/file.h>
#include <zo/owner.h>
#include <zo/path.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <memory>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

// The hash is compiled in, so that no library of it is needed at run time.
#define XXH_INLINE_ALL
#include <xxhash.h>

namespace zo::os {
namespace {

constexpr std::size_t kBlockSize = 256 * 1024;

// Reads up to size bytes at offset, as many as there are; -1 on failure.
ssize_t readBlock(int descriptor, char* data, std::size_t size, off_t offset)
{
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = ::pread(descriptor, data + done, size - done, offset + done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return -1;
        if (count == 0)
            break;
        done += static_cast<std::size_t>(count);
    }
    return static_cast<ssize_t>(done);
}

// Only ever called before anything was written to the new file, which is filled from its start.
bool copyByReadWrite(int from, int to)
{
    std::vector<char> buffer(kBlockSize);
    for (off_t offset = 0;;) {
        const ssize_t count = readBlock(from, buffer.data(), buffer.size(), offset);
        if (count <= 0)
            return count == 0;
        if (!writeAll(to, buffer.data(), static_cast<std::size_t>(count), offset))
            return false;
        offset += count;
    }
}

// A new file with a hidden name beside name, returned in hidden, made only once this process's
// owner mark is there (held in mark until the name is gone), so that what a crash leaves is
// judged by it.
UniqueFd createHiddenBeside(int directory, const char* name, mode_t mode, std::string& hidden,
    std::shared_ptr<OwnerMark>& mark)
{
    mark = OwnerMark::hold("/proc/self/fd/" + std::to_string(directory));
    if (!mark)
        return UniqueFd();
    hidden = hiddenTemplateBeside(name, "copy");
    return createUniqueFileAt(directory, hidden, mode);
}

// An unnamed file in the directory, which cannot be seen at all until it is linked in; where the
// file system has none, a hidden file as createHiddenBeside makes it.
UniqueFd openUnnamedIn(int directory, const char* name, mode_t mode, std::string& hidden,
    std::shared_ptr<OwnerMark>& mark)
{
    UniqueFd fd = createUnnamedFile(directory, ".", mode);
    if (fd || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL))
        return fd;
    return createHiddenBeside(directory, name, mode, hidden, mark);
}

// Gives the new file the source's exact mode, which the umask may have narrowed. A change of
// mode is a journalled inode update; a status read is not, and usually finds nothing to change.
bool hasPermissions(int fd, mode_t mode)
{
    const std::optional<FileStatus> created = status(fd);
    return created && (created->permissions == mode || setPermissions(fd, mode));
}

} // namespace

bool copyContent(int from, int to, std::uint64_t size)
{
    if (::ioctl(to, FICLONE, from) == 0)
        return true;
    // Up to the end of the file, whatever it gained since it was measured: the measured size
    // only makes the first call ask for everything at once.
    constexpr std::uint64_t kMostAtOnce = 1ULL << 30;
    loff_t offset = 0;
    for (bool first = true;; first = false) {
        const ssize_t copied = ::copy_file_range(from, &offset, to, nullptr,
            static_cast<std::size_t>(first && size > 0 ? std::min(size, kMostAtOnce) : kMostAtOnce),
            0);
        if (copied < 0 && errno == EINTR)
            continue;
        if (copied < 0 && first && (errno == EXDEV || errno == ENOSYS || errno == EINVAL))
            return copyByReadWrite(from, to); // file systems the kernel cannot copy between
        if (copied <= 0)
            return copied == 0;
    }
}

bool haveSameContent(int first, int second)
{
    std::vector<char> firstBlock(kBlockSize);
    std::vector<char> secondBlock(kBlockSize);
    for (off_t offset = 0;;) {
        const ssize_t firstRead = readBlock(first, firstBlock.data(), kBlockSize, offset);
        const ssize_t secondRead = readBlock(second, secondBlock.data(), kBlockSize, offset);
        if (firstRead < 0 || firstRead != secondRead)
            return false;
        if (firstRead == 0)
            return true;
        if (std::memcmp(firstBlock.data(), secondBlock.data(), static_cast<std::size_t>(firstRead))
            != 0)
            return false;
        offset += firstRead;
    }
}

std::optional<ContentSeal> sealOf(int descriptor)
{
    // Small enough for the heap's quick path: most sealed files fit in one block.
    constexpr std::size_t kSealBlock = 64 * 1024;
    XXH3_state_t state;
    XXH3_INITSTATE(&state);
    if (XXH3_64bits_reset(&state) != XXH_OK)
        return std::nullopt;
    std::vector<char> block(kSealBlock);
    ContentSeal seal;
    for (;;) {
        const ssize_t count
            = readBlock(descriptor, block.data(), block.size(), static_cast<off_t>(seal.size));
        if (count < 0)
            return std::nullopt;
        if (count == 0)
            break;
        XXH3_64bits_update(&state, block.data(), static_cast<std::size_t>(count));
        seal.size += static_cast<std::uint64_t>(count);
    }
    seal.hash = XXH3_64bits_digest(&state);
    return seal;
}

std::optional<ContentSeal> sealOf(const char* path)
{
    const UniqueFd file = openForReading(path);
    return file ? sealOf(file.get()) : std::nullopt;
}

bool copyFile(const char* from, const char* to, CopyTarget target)
{
    const UniqueFd in = openForReading(from);
    const Path path { std::string(to) };
    const UniqueFd directory = in ? openPlace(path.directory().c_str()) : UniqueFd();
    return directory && copyFileAt(in.get(), directory.get(), path.filename().c_str(), target);
}

bool copyFileAt(int from, int directory, const char* name, CopyTarget target)
{
    const std::optional<FileStatus> status = os::status(from);
    if (!status)
        return false;
    const mode_t mode = status->permissions;

    // The name the content is written under, removed again when the copy fails; none for an
    // unnamed file.
    std::string written;
    std::shared_ptr<OwnerMark> mark;
    UniqueFd out;
    if (target == CopyTarget::Unseen) {
        out = createFileAt(directory, name, mode);
        if (out)
            written = name;
    } else if (target == CopyTarget::Replacing) {
        // Named at once: the rename that puts it in place needs a name to rename.
        out = createHiddenBeside(directory, name, mode, written, mark);
    } else {
        out = openUnnamedIn(directory, name, mode, written, mark);
    }
    if (!out)
        return false;
    const auto dropWritten = [&] {
        if (!written.empty()) {
            const int saved = errno;
            removeAt(directory, written.c_str());
            errno = saved;
        }
    };
    if (!copyContent(from, out.get(), status->size) || !hasPermissions(out.get(), mode)) {
        dropWritten();
        return false;
    }
    if (target == CopyTarget::Unseen) {
        if (out.close())
            return true;
        dropWritten();
        return false;
    }
    if (target == CopyTarget::Replacing) {
        if (out.close() && renameAt(directory, written.c_str(), directory, name))
            return true;
        dropWritten();
        return false;
    }
    if (written.empty())
        return linkUnnamedFile(out.get(), directory, name) && out.close();
    // link refuses an existing target, as an unnamed file's linkat does.
    const bool linked
        = out.close() && ::linkat(directory, written.c_str(), directory, name, 0) == 0;
    dropWritten();
    return linked;
}

} // namespace zo::os
