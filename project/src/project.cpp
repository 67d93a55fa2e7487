#include <zo/project/project.h>

#include "errors.h"
#include "files.h"
#include "metadata.h"

#include <filesystem>
#include <optional>
#include <utility>

namespace zo::project {
namespace {

using namespace detail;

std::string metadataPath(const std::string& project)
{
    return project + "/" + metadataFileName;
}

// The whole file, or nothing when it does not exist.
std::optional<std::string> readFile(const std::string& path)
{
    const UniqueFd fd = os::openForReading(path.c_str());
    if (!fd && errno == ENOENT)
        return std::nullopt;
    if (!fd)
        fail(path, "cannot open: " + systemError());
    std::string text;
    if (!os::readAll(fd.get(), text))
        fail(path, "cannot read: " + systemError());
    return text;
}

Metadata readMetadata(const std::string& file)
{
    const auto text = readFile(file);
    return text ? decodeMetadata(*text, file) : Metadata();
}

void writeMetadata(const std::string& file, const Metadata& metadata)
{
    AtomicFile out(file, "meta");
    out.write(encodeMetadata(metadata));
    out.keep();
}

} // namespace

Project::Project(std::string path)
    : _path(std::move(path))
{
}

Project::~Project() = default;

const std::string& Project::projectPath() const
{
    return _path;
}

std::string Project::getMetadata(const std::string& key) const
{
    const Metadata metadata = getMetadata();
    const auto found = metadata.find(key);
    return found == metadata.end() ? std::string() : found->second;
}

void Project::setMetadata(const std::string& key, const std::string& value)
{
    const std::string file = metadataPath(_path);
    Metadata metadata = readMetadata(file);
    metadata[key] = value;
    writeMetadata(file, metadata);
}

std::map<std::string, std::string> Project::getMetadata() const
{
    return readMetadata(metadataPath(_path));
}

Project makeProject(const std::string& path)
{
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (error)
        fail(path, "cannot create the project directory: " + error.message());
    const std::string file = metadataPath(path);
    // An existing project keeps its metadata.
    if (!readFile(file))
        writeMetadata(file, {});
    return Project(path);
}

} // namespace zo::project
