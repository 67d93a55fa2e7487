// Listing a project and reading its metadata without unpacking it.

#include "sample_tree.h"

#include <zo/project/contents.h>
#include <zo/project/project.h>

#include <gtest/gtest.h>

namespace {

using namespace zo::project;
using namespace zo::project::test;

// One line per entry: kind, path, size and link target.
std::vector<std::string> listed(const std::string& source)
{
    std::vector<std::string> lines;
    listProject(source, ArchiveFormat::Auto, [&lines](const ProjectEntry& entry) {
        lines.push_back(std::to_string(static_cast<int>(entry.kind)) + " " + entry.path + " "
            + std::to_string(entry.size) + " " + entry.linkTarget);
        return true;
    });
    return lines;
}

TEST(Contents, AreListedAsAnUnpackingWritesThemAndTheMetadataIsRead)
{
    const QTemporaryDir dir;
    const std::string archive = pathIn(dir, "a.tar");
    writeArchive(archive,
        { { "./d/f", AE_IFREG, "abc" }, { "g", AE_IFREG, "d/f", true }, { "l", AE_IFLNK, "d/f" },
            { "d", AE_IFDIR } });
    EXPECT_EQ(listed(archive),
        (std::vector<std::string> { "0 d/f 3 ", "0 g 3 d/f", "2 l 0 d/f", "1 d 0 " }));
    writeArchive(archive, { { "g", AE_IFREG, "d/f", true } });
    EXPECT_NE(thrownBy([&] { listed(archive); }).find("entry 'g': hard link"), std::string::npos);

    makeProject(pathIn(dir, "project")).setMetadata("title", "T\n=%");
    exportProject(pathIn(dir, "project"), pathIn(dir, "p.zop"), ArchiveFormat::Auto);
    for (const char* source : { "project", "p.zop" })
        EXPECT_EQ(readProjectMetadata(pathIn(dir, source), ArchiveFormat::Auto),
            (std::map<std::string, std::string> { { "title", "T\n=%" } }));
}

} // namespace
