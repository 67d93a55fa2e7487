#include "files.h"

#include "errors.h"

#include <zo/os.h>
#include <zo/path.h>

#include <fcntl.h>
#include <filesystem>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace zo::project::detail {

UniqueFd::UniqueFd(UniqueFd&& other) noexcept
    : _fd(std::exchange(other._fd, -1))
{
}

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept
{
    if (this != &other) {
        close();
        _fd = std::exchange(other._fd, -1);
    }
    return *this;
}

UniqueFd::~UniqueFd()
{
    close();
}

bool UniqueFd::close()
{
    // Linux frees the descriptor even when close fails, so it is never retried.
    return _fd < 0 || ::close(std::exchange(_fd, -1)) == 0;
}

bool writeAll(int fd, const void* data, size_t size, off_t offset)
{
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = ::pwrite(fd, bytes, size, offset);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        bytes += written;
        size -= static_cast<size_t>(written);
        offset += written;
    }
    return true;
}

bool copyContent(int from, int to)
{
    std::vector<char> buffer(128 * 1024);
    for (off_t offset = 0;;) {
        const ssize_t count = ::pread(from, buffer.data(), buffer.size(), offset);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return count == 0;
        if (!writeAll(to, buffer.data(), static_cast<size_t>(count), offset))
            return false;
        offset += count;
    }
}

namespace {

std::string parentDirectory(const std::string& path)
{
    const auto slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

void syncDirectory(const std::string& directory, const std::string& target)
{
    if (!zo::os::syncDirectory(directory.c_str()))
        fail(target, "cannot sync directory '" + directory + "': " + systemError());
}

} // namespace

std::string tempTemplateBeside(const std::string& path)
{
    return parentDirectory(path) + "/." + Path(path).filename() + ".XXXXXX";
}

void renameInto(const std::string& temp, const std::string& target)
{
    if (!zo::os::rename(temp.c_str(), target.c_str()))
        fail(target, "cannot replace: " + systemError());
    syncDirectory(parentDirectory(target), target);
}

AtomicFile::AtomicFile(std::string target)
    : _target(std::move(target))
    , _temp(tempTemplateBeside(_target))
    , _fd(::mkostemp(_temp.data(), O_CLOEXEC))
{
    if (!_fd)
        fail(_target, "cannot create a temporary file beside it: " + systemError());
}

AtomicFile::~AtomicFile()
{
    if (!_temp.empty())
        ::unlink(_temp.c_str());
}

void AtomicFile::write(std::string_view data)
{
    if (!writeAll(_fd.get(), data.data(), data.size(), 0))
        fail(_target, "cannot write '" + _temp + "': " + systemError());
}

void AtomicFile::keep()
{
    // mkstemp creates the file private; the result is an ordinary shared file.
    if (::fchmod(_fd.get(), 0644) != 0 || !zo::os::syncFile(_fd.get()) || !_fd.close())
        fail(_target, "cannot write '" + _temp + "': " + systemError());
    renameInto(_temp, _target);
    _temp.clear();
}

TreeGuard::~TreeGuard()
{
    if (_path.empty())
        return;
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
}

} // namespace zo::project::detail
