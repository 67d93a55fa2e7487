// Writes the seed corpora of the fuzz targets: <dir>/import holds a small project packed in
// every archive format, <dir>/metadata that project's metadata file, <dir>/roundtrip one input
// per format of the round trip, its first byte.
#include <zo/project/archive.h>
#include <zo/project/project.h>

#include <filesystem>
#include <fstream>
#include <string>

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
    fs::create_directories(seeds / "roundtrip");
    std::ofstream(project / "docs" / "main.xml") << "<doc>seed</doc>\n";
    fs::create_symlink("docs/main.xml", project / "main");
    zo::project::makeProject(project.string()).setMetadata("title", "100% = seed\n");
    fs::copy_file(project / zo::project::metadataFileName, seeds / "metadata" / "seed");

    // One seed per archive format, named by the format's own name (aliases would repeat one).
    for (const std::string& name : zo::project::formatNames()) {
        const ArchiveFormat format = *zo::project::formatNamed(name);
        if (format != ArchiveFormat::Directory && zo::project::formatName(format) == name)
            zo::project::exportProject(
                project.string(), (seeds / "import" / ("seed." + name)).string(), format);
    }
    fs::remove_all(project);

    // The choices after the first byte: the same varied bytes for every format.
    std::string choices;
    for (unsigned value = 1; choices.size() < 512; value = value * 1103515245 + 12345)
        choices += static_cast<char>(value >> 16);
    for (char format = 0; format < 9; ++format)
        std::ofstream(seeds / "roundtrip" / ("seed" + std::to_string(format)), std::ios::binary)
            << format << choices;
    return 0;
}
