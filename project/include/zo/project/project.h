#pragma once

#include <zo/project/zoproject_export.h>

#include <map>
#include <string>

namespace zo::project {

/// The file at a project's root that holds its metadata.
inline constexpr char metadataFileName[] = ".metadata";

// A project directory and its metadata, a copyable value. Construction touches no disk;
// every metadata call reads or replaces the ".metadata" file at the project root.
class ZOPROJECT_EXPORT Project {
public:
    explicit Project(std::string path);
    Project(const Project&) = default;
    Project(Project&&) = default;
    Project& operator=(const Project&) = default;
    Project& operator=(Project&&) = default;
    // Virtual, so that an object that extends a project (a watcher of its directory, say) can
    // be deleted through its Project part.
    virtual ~Project();

    const std::string& projectPath() const;

    // "" when the key is absent.
    std::string getMetadata(const std::string& key) const;
    // Persisted at once by an atomic replacement of the metadata file.
    void setMetadata(const std::string& key, const std::string& value);
    std::map<std::string, std::string> getMetadata() const;

private:
    std::string _path;
};

// Creates the directory (with parents) and an empty metadata file.
ZOPROJECT_EXPORT Project makeProject(const std::string& path);

} // namespace zo::project
