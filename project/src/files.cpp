#include "files.h"

#include "errors.h"

#include <zo/leftover.h>
#include <zo/path.h>

#include <filesystem>
#include <utility>

namespace zo::project::detail {

namespace {

[[noreturn]] void failStep(const std::string& target, os::ReplaceStep step, const std::string& temp)
{
    const std::string cause = systemError();
    switch (step) {
    case os::ReplaceStep::Create:
        fail(target, "cannot create a temporary file beside it: " + cause);
    case os::ReplaceStep::Write:
    case os::ReplaceStep::SyncFile:
        fail(target, "cannot write '" + temp + "': " + cause);
    case os::ReplaceStep::Rename:
        fail(target, "cannot replace: " + cause);
    case os::ReplaceStep::SyncDirectory:
        break;
    }
    fail(target,
        "cannot sync directory '" + Path(target).directory() + "': " + cause
            + "; the new content is in place but may not outlast a system crash");
}

} // namespace

void removeLeftoversBeside(const std::string& path)
{
    os::removeEndedLeftovers(Path(path).directory());
}

void renameInto(const std::string& temp, const std::string& target)
{
    os::ReplaceStep failed {};
    if (!os::renameDurably(temp.c_str(), target.c_str(), failed))
        failStep(target, failed, temp);
}

AtomicFile::AtomicFile(std::string target, std::string_view purpose)
    : _target(std::move(target))
    , _file(_target, purpose)
{
    if (!_file)
        failStep(_target, os::ReplaceStep::Create, _file.path());
}

void AtomicFile::write(std::string_view data)
{
    if (!_file.write(data))
        failStep(_target, _file.failedStep(), _file.path());
}

void AtomicFile::keep()
{
    if (!_file.commit())
        failStep(_target, _file.failedStep(), _file.path());
}

TreeGuard::~TreeGuard()
{
    if (_path.empty())
        return;
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
}

} // namespace zo::project::detail
