// Writes the seed corpora of the fuzz targets: <dir>/import holds a small project packed in
// every archive format, <dir>/metadata that project's metadata file.
#include <zo/project/archive.h>
#include <zo/project/project.h>

#include <filesystem>
#include <fstream>
#include <utility>

namespace fs = std::filesystem;
using zo::project::ArchiveFormat;

int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    const fs::path seeds = argv[1];
    const fs::path project = seeds / "project";
    fs::remove_all(seeds);
    fs::create_directories(project / "docs");
    fs::create_directories(seeds / "import");
    fs::create_directories(seeds / "metadata");
    std::ofstream(project / "docs" / "main.xml") << "<doc>seed</doc>\n";
    fs::create_symlink("docs/main.xml", project / "main");
    zo::project::makeProject(project.string()).setMetadata("title", "100% = seed\n");
    fs::copy_file(project / ".metadata", seeds / "metadata" / "seed");

    const std::pair<ArchiveFormat, const char*> formats[]
        = { { ArchiveFormat::Native, "seed.zop" }, { ArchiveFormat::Zip, "seed.zip" },
              { ArchiveFormat::Tar, "seed.tar" }, { ArchiveFormat::TarGz, "seed.tar.gz" },
              { ArchiveFormat::TarBz2, "seed.tar.bz2" }, { ArchiveFormat::TarXz, "seed.tar.xz" },
              { ArchiveFormat::TarZstd, "seed.tar.zst" }, { ArchiveFormat::SevenZip, "seed.7z" } };
    for (const auto& [format, name] : formats)
        zo::project::exportProject(project.string(), (seeds / "import" / name).string(), format);
    fs::remove_all(project);
    return 0;
}
