#include <zo/file.h>
#include <zo/owner.h>
#include <zo/path.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <memory>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace zo::os {
namespace {

// Only ever called before anything was written to the new file, which is filled from its start.
bool copyByReadWrite(int from, int to)
{
    std::vector<char> buffer(256 * 1024);
    for (off_t offset = 0;;) {
        const ssize_t count = ::read(from, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return count == 0;
        if (!writeAll(to, buffer.data(), static_cast<std::size_t>(count), offset))
            return false;
        offset += count;
    }
}

// An unnamed file in to's directory, which cannot be seen at all until it is linked in; where
// the file system has none, a file with a hidden name beside to, returned in hidden, under this
// process's mark there.
UniqueFd openUnnamedBeside(
    const char* to, mode_t mode, std::string& hidden, std::shared_ptr<OwnerMark>& mark)
{
    UniqueFd fd = createUnnamedFile(Path(to).directory().c_str(), mode);
    if (fd || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL))
        return fd;
    mark = OwnerMark::holdBeside(to);
    hidden = hiddenTemplateBeside(to, "copy");
    return createTemporaryFile(hidden);
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
    for (bool first = true;; first = false) {
        const ssize_t copied = ::copy_file_range(from, nullptr, to, nullptr,
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

bool copyFile(const char* from, const char* to, CopyTarget target)
{
    const UniqueFd in = openForReading(from);
    const std::optional<FileStatus> status = in ? os::status(in.get()) : std::nullopt;
    if (!status)
        return false;
    const mode_t mode = status->permissions;

    // The name the content is written under, removed again when the copy fails; none for an
    // unnamed file.
    std::string written;
    std::shared_ptr<OwnerMark> mark;
    UniqueFd out;
    if (target == CopyTarget::Unseen) {
        out = createFileAt(AT_FDCWD, to, mode);
        if (out)
            written = to;
    } else {
        out = openUnnamedBeside(to, mode, written, mark);
    }
    if (!out)
        return false;
    const auto dropWritten = [&written] {
        if (!written.empty()) {
            const int saved = errno;
            os::remove(written.c_str());
            errno = saved;
        }
    };
    if (!copyContent(in.get(), out.get(), status->size) || !hasPermissions(out.get(), mode)) {
        dropWritten();
        return false;
    }
    if (target == CopyTarget::Unseen) {
        if (out.close())
            return true;
        dropWritten();
        return false;
    }
    if (written.empty())
        return linkUnnamedFile(out.get(), to) && out.close();
    // link refuses an existing target, as an unnamed file's linkat does.
    const bool linked = out.close() && ::link(written.c_str(), to) == 0;
    dropWritten();
    return linked;
}

} // namespace zo::os
