#include <zo/project/exceptions.h>

#include <utility>

namespace zo::project::exception {
namespace {

std::string withReason(const std::string& message, const std::string& reason)
{
    return reason.empty() ? message : message + ": " + reason;
}

std::string joined(const std::vector<std::string>& paths)
{
    std::string text;
    for (const std::string& path : paths)
        text += (text.empty() ? "" : ", ") + path;
    return text;
}

} // namespace

// The odd spacing in some prefixes is part of the messages other programs match on.
ProjectVFS::ProjectVFS(const std::string& message)
    : std::runtime_error(message)
{
}
ProjectVFS::~ProjectVFS() = default;

ProjectPathDoesNotExists::ProjectPathDoesNotExists(const std::string& path)
    : ProjectVFS("Project path '" + path + "' does not exist")
{
}
ProjectPathDoesNotExists::~ProjectPathDoesNotExists() = default;

ProjectNotCommitted::ProjectNotCommitted(const std::string& path)
    : ProjectVFS("Project  '" + path + "' is not committed")
{
}
ProjectNotCommitted::~ProjectNotCommitted() = default;

SwapFileAlreadyExists::SwapFileAlreadyExists(const std::string& path)
    : ProjectVFS("A swap file already exists for: " + path)
{
}
SwapFileAlreadyExists::~SwapFileAlreadyExists() = default;

CreateSwapFile::CreateSwapFile(const std::string& path, const std::string& reason)
    : ProjectVFS(withReason("Can not create swap file for: " + path, reason))
{
}
CreateSwapFile::~CreateSwapFile() = default;

CopySwapFile::CopySwapFile(const std::string& path, QString tempPath, const std::string& reason)
    : ProjectVFS(withReason("Can not copy swap file for: " + path, reason))
    , _tempPath(std::move(tempPath))
{
}
CopySwapFile::~CopySwapFile() = default;

QString CopySwapFile::tempPath() const
{
    return _tempPath;
}

OpenSwapFile::OpenSwapFile(
    const std::string& path, QFileDevice::FileError fileError, const std::string& reason)
    : ProjectVFS(withReason("Can not open swap file for: " + path, reason))
    , _fileError(fileError)
{
}
OpenSwapFile::~OpenSwapFile() = default;

QFileDevice::FileError OpenSwapFile::fileError()
{
    return _fileError;
}

SwapFileCommit::SwapFileCommit(const std::string& message)
    : ProjectVFS(message)
{
}
SwapFileCommit::~SwapFileCommit() = default;

SourceFileRename::SourceFileRename(const std::string& path)
    : SwapFileCommit("Can not rename source file: " + path)
{
}
SourceFileRename::~SourceFileRename() = default;

SourceFileBackupRemove::SourceFileBackupRemove(const std::string& path)
    : SwapFileCommit("Can not remove source file backup: " + path)
{
}
SourceFileBackupRemove::~SourceFileBackupRemove() = default;

SwapFileRename::SwapFileRename(const std::string& path)
    : SwapFileCommit("Can not rename swap file: " + path)
{
}
SwapFileRename::~SwapFileRename() = default;

SwapFileRemove::SwapFileRemove(const std::string& path)
    : SwapFileCommit("Can not remove swap file: " + path)
{
}
SwapFileRemove::~SwapFileRemove() = default;

SwapFileDamaged::SwapFileDamaged(const std::string& path)
    : SwapFileCommit("Can not commit swap file after a failed write: " + path)
{
}
SwapFileDamaged::~SwapFileDamaged() = default;

SwapFileTorn::SwapFileTorn(const std::string& path)
    : SwapFileCommit(
        "Can not recover swap file, the machine stopped before it was written out: " + path)
{
}
SwapFileTorn::~SwapFileTorn() = default;

SourceFileDoesNotExists::SourceFileDoesNotExists(const std::string& path)
    : SwapFileCommit("Source file does not exist for:" + path)
{
}
SourceFileDoesNotExists::~SourceFileDoesNotExists() = default;

SwapFileMissing::SwapFileMissing(const std::string& path)
    : SwapFileCommit("A swap file doesn't exist anymore: " + path)
{
}
SwapFileMissing::~SwapFileMissing() = default;

SourceFileChanged::SourceFileChanged(const std::vector<std::string>& paths)
    : SwapFileCommit("Source file changed by another program: " + joined(paths))
    , _paths(paths)
{
}
SourceFileChanged::~SourceFileChanged() = default;

const std::vector<std::string>& SourceFileChanged::paths() const
{
    return _paths;
}

PathOutsideProject::PathOutsideProject(const std::string& path)
    : ProjectVFS("Path leads outside the project: " + path)
{
}
PathOutsideProject::~PathOutsideProject() = default;

} // namespace zo::project::exception
