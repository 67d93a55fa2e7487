#pragma once

// A project named on the command line by its directory or by an archive of it, to be changed.

#include <zo/owner.h>
#include <zo/project/archive.h>

#include <QCommandLineParser>
#include <QString>
#include <QTemporaryDir>

#include <memory>

namespace zo::cli {

class ProjectSource {
public:
    // An archive is unpacked into a hidden directory beside it, on the volume the rewritten
    // archive is written to, that lives as long as this object; with progress as the parser's
    // options ask (see withProgress).
    ProjectSource(const QString& path, const QCommandLineParser& parser);

    bool isArchive() const { return _unpacked != nullptr; }
    // The project's files: the directory itself, or the archive unpacked.
    std::string directory() const;
    // Packs the unpacked project back into the archive, which it replaces whole or not at all,
    // keeping its permissions; nothing for a directory.
    void save(const QCommandLineParser& parser) const;

private:
    QString _path;
    zo::project::ArchiveFormat _format;
    // This process's owner mark beside the archive, held while the unpacked copy is there.
    std::shared_ptr<zo::os::OwnerMark> _mark;
    std::unique_ptr<QTemporaryDir> _unpacked;
};

} // namespace zo::cli
