#pragma once

// A project named on the command line by its directory or by an archive of it, to be changed.

#include <zo/owner.h>
#include <zo/project/archive.h>

#include <QString>
#include <QTemporaryDir>

#include <memory>

namespace zo::cli {

class ProjectSource {
public:
    // An archive is unpacked into a hidden directory beside it, on the volume the rewritten
    // archive is written to, that lives as long as this object.
    explicit ProjectSource(const QString& path);

    const QString& path() const { return _path; }
    zo::project::ArchiveFormat format() const { return _format; }
    bool isArchive() const { return _unpacked != nullptr; }
    // The project's files: the directory itself, or the archive unpacked.
    QString directory() const;

private:
    QString _path;
    zo::project::ArchiveFormat _format;
    // This process's owner mark beside the archive, held while the unpacked copy is there.
    std::shared_ptr<zo::os::OwnerMark> _mark;
    std::unique_ptr<QTemporaryDir> _unpacked;
};

} // namespace zo::cli
