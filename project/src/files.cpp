#include "files.h"

#include "errors.h"

#include <zo/path.h>

#include <filesystem>
#include <utility>

namespace zo::project::detail {

namespace {

void syncDirectory(const std::string& directory, const std::string& target)
{
    if (!os::syncDirectory(directory.c_str()))
        fail(target, "cannot sync directory '" + directory + "': " + systemError());
}

} // namespace

void renameInto(const std::string& temp, const std::string& target)
{
    if (!os::rename(temp.c_str(), target.c_str()))
        fail(target, "cannot replace: " + systemError());
    syncDirectory(Path(target).directory(), target);
}

AtomicFile::AtomicFile(std::string target, std::string_view purpose)
    : _target(std::move(target))
    , _temp(os::hiddenTemplateBeside(_target, purpose))
    , _fd(os::createTemporaryFile(_temp))
{
    if (!_fd)
        fail(_target, "cannot create a temporary file beside it: " + systemError());
}

AtomicFile::~AtomicFile()
{
    if (!_temp.empty())
        os::remove(_temp.c_str());
}

void AtomicFile::write(std::string_view data)
{
    if (!os::writeAll(_fd.get(), data.data(), data.size(), 0))
        fail(_target, "cannot write '" + _temp + "': " + systemError());
}

void AtomicFile::keep()
{
    // mkstemp creates the file private; the result is an ordinary shared file.
    if (!os::setPermissions(_fd.get(), 0644) || !os::syncFile(_fd.get()) || !_fd.close())
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
