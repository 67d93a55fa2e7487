#include <zo/changeevents.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>

namespace zo::os {
namespace {

// What changes a directory's listing of names, sizes and times, or whether it can be read.
constexpr std::uint32_t kWatchedChanges = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO
    | IN_MODIFY | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;

std::optional<ChangeEvent::Kind> kindOf(const inotify_event& event)
{
    if ((event.mask & IN_Q_OVERFLOW) != 0)
        return ChangeEvent::Kind::Overflow;
    if ((event.mask & IN_IGNORED) != 0)
        return ChangeEvent::Kind::Gone;
    if ((event.mask & (IN_DELETE_SELF | IN_MOVE_SELF)) != 0)
        return ChangeEvent::Kind::Moved;
    if (event.len != 0)
        return ChangeEvent::Kind::Entry;
    if ((event.mask & IN_ATTRIB) != 0)
        return ChangeEvent::Kind::Itself;
    return std::nullopt; // IN_UNMOUNT: its IN_IGNORED follows
}

} // namespace

ChangeEvents::ChangeEvents()
    : _fd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
{
}

int ChangeEvents::watch(int directory, const char* name)
{
    // The kernel resolves /proc/self/fd/N to the open directory itself, whatever its path is
    // now; IN_DONT_FOLLOW and IN_ONLYDIR refuse a link or a file as name.
    const std::string path = "/proc/self/fd/" + std::to_string(directory) + "/" + name;
    return ::inotify_add_watch(
        _fd.get(), path.c_str(), kWatchedChanges | IN_DONT_FOLLOW | IN_ONLYDIR | IN_EXCL_UNLINK);
}

void ChangeEvents::unwatch(int watch)
{
    ::inotify_rm_watch(_fd.get(), watch);
}

bool ChangeEvents::read(const std::function<void(const ChangeEvent&)>& handle)
{
    alignas(inotify_event) std::array<char, 64 * 1024> buffer;
    for (;;) {
        const ssize_t count = ::read(_fd.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return errno == EAGAIN;
        for (ssize_t at = 0; at < count;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            if (const std::optional<ChangeEvent::Kind> kind = kindOf(*event))
                handle(ChangeEvent { *kind, event->wd,
                    *kind == ChangeEvent::Kind::Entry ? std::string_view(event->name)
                                                      : std::string_view() });
        }
    }
}

MountChanges::MountChanges()
    : _fd(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC))
{
}

bool MountChanges::changed()
{
    if (!_fd)
        return true;
    // The kernel flags the open table once per change and clears the flag as poll reports it.
    pollfd table { _fd.get(), POLLPRI, 0 };
    while (::poll(&table, 1, 0) < 0)
        if (errno != EINTR)
            return true;
    return (table.revents & (POLLERR | POLLPRI)) != 0;
}

bool reportsAllChanges(int directory)
{
    const std::optional<FileSystem> fileSystem = fileSystemOf(directory);
    if (!fileSystem)
        return false;
    // Network file systems, FUSE, and those whose content the kernel makes up as it is read.
    constexpr std::array<std::uint32_t, 18> kUnreported { 0x6969 /* NFS */, 0x517B /* SMB */,
        0xFF534D42 /* CIFS */, 0xFE534D42 /* SMB2 */, 0x65735546 /* FUSE */, 0x73757245 /* Coda */,
        0x5346414F /* AFS */, 0x6B414653 /* kAFS */, 0x00C36400 /* Ceph */, 0x01021997 /* 9p */,
        0x564C /* NCP */, 0x01161970 /* GFS2 */, 0x7461636F /* OCFS2 */, 0x0BD00BD0 /* Lustre */,
        0x47504653 /* GPFS */, 0x786F4256 /* vboxsf */, 0x9FA0 /* proc */, 0x62656572 /* sysfs */ };
    for (const std::uint32_t unreported : kUnreported)
        if (fileSystem->type == unreported)
            return false;
    return true;
}

} // namespace zo::os
