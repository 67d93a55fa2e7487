#pragma once

// A project named on the command line by its directory or by an archive of it.

#include <zo/project/archive.h>

#include <QString>
#include <QTemporaryDir>

#include <memory>

namespace zo::cli {

class ProjectSource {
public:
    enum class Unpack {
        InTemp, // for reading: the archive's own directory may be read-only
        Beside, // for rewriting: the new archive is made on the old one's volume
    };

    // An archive is unpacked into a temporary directory that lives as long as this object.
    ProjectSource(const QString& path, Unpack where);

    const QString& path() const { return _path; }
    zo::project::ArchiveFormat format() const { return _format; }
    bool isArchive() const { return _unpacked != nullptr; }
    // The project's files: the directory itself, or the archive unpacked.
    QString directory() const;

private:
    QString _path;
    zo::project::ArchiveFormat _format;
    std::unique_ptr<QTemporaryDir> _unpacked;
};

} // namespace zo::cli
