#pragma once

#include <zo/project/zoproject_export.h>

#include <map>
#include <string>

/// Projects: directories with a metadata file, their archives, and (in libzoproject-qt) their
/// crash-safe editing.
namespace zo::project {

/// The file at a project's root that holds its metadata.
inline constexpr char metadataFileName[] = ".metadata";

/// A project directory and its metadata, a copyable value. Construction touches no disk;
/// every metadata call reads or replaces the ".metadata" file at the project root, so two
/// objects on one path see each other's changes.
class ZOPROJECT_EXPORT Project {
public:
    /// A project rooted at path, which need not exist yet.
    explicit Project(std::string path);
    /// @{
    /// Copies and moves the path only.
    Project(const Project&) = default;
    Project(Project&&) = default;
    Project& operator=(const Project&) = default;
    Project& operator=(Project&&) = default;
    /// @}
    // Virtual, so that an object that extends a project (a watcher of its directory, say) can
    // be deleted through its Project part.
    virtual ~Project();

    /// The root as given to the constructor.
    const std::string& projectPath() const;

    /// The value of key, "" when the key or the metadata file is absent.
    /// @throws ArchiveError when the metadata file cannot be read or decoded.
    std::string getMetadata(const std::string& key) const;
    /// Sets key to value and persists it at once: the metadata file is written under a hidden
    /// name beside it, synced and renamed over it, so a crash leaves the old file or the new
    /// one, never a mix.
    /// @throws ArchiveError when the file cannot be read or replaced; it is then unchanged.
    void setMetadata(const std::string& key, const std::string& value);
    /// Every key and its value; empty when the metadata file is absent.
    /// @throws ArchiveError when the metadata file cannot be read or decoded.
    std::map<std::string, std::string> getMetadata() const;

private:
    std::string _path;
};

/// Creates the directory path (with parents) and, unless one is there already, an empty
/// metadata file, written as setMetadata writes it.
/// @throws ArchiveError when the directory or the file cannot be created.
ZOPROJECT_EXPORT Project makeProject(const std::string& path);

} // namespace zo::project
