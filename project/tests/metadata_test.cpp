#include "sample_tree.h"

#include <zo/project/project.h>

#include <gtest/gtest.h>

#include <QDir>

#include <sys/stat.h>

namespace {

using zo::project::ArchiveError;
using zo::project::Project;
using namespace std::string_literals;
using namespace zo::project::test;

class Metadata : public testing::Test {
protected:
    std::string path(const char* name) const { return pathIn(dir, name); }

    QTemporaryDir dir;
};

ino_t inodeOf(const std::string& file)
{
    struct stat status { };
    EXPECT_EQ(::stat(file.c_str(), &status), 0);
    return status.st_ino;
}

TEST_F(Metadata, AnyBytesRoundTripAtomicallyAndEveryCopyReadsTheFile)
{
    const std::map<std::string, std::string> expected = {
        { "", "empty key" },
        { "empty value", "" },
        { "multi\nline\r\n", "a\nb\n\n" },
        { "quotes \"'`", "back\\slash" },
        { "a=b", "c=d%41%" },
        { "nul\0key"s, "nul\0value"s },
        { "ünïcødé 日本", "✓ \xff\xfe not UTF-8" },
    };
    Project writer = zo::project::makeProject(path("p"));
    const Project reader = writer;
    for (const auto& [key, value] : expected) {
        // Every set replaces the file rather than rewriting it in place.
        const ino_t before = inodeOf(path("p/.metadata"));
        writer.setMetadata(key, value);
        EXPECT_NE(inodeOf(path("p/.metadata")), before) << key;
    }
    EXPECT_EQ(
        QDir(dir.filePath("p")).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
        QStringList { ".metadata" });

    EXPECT_EQ(reader.getMetadata(), expected);
    EXPECT_EQ(Project(path("p")).getMetadata("a=b"), "c=d%41%");
    EXPECT_EQ(reader.getMetadata("absent"), "");
    writer.setMetadata("a=b", "changed");
    EXPECT_EQ(reader.getMetadata("a=b"), "changed");
}

TEST_F(Metadata, MakeProjectCreatesParentsOrKeepsAProjectAndAMissingOneOnlyReads)
{
    const Project created = zo::project::makeProject(path("a/b/c"));
    EXPECT_EQ(created.projectPath(), path("a/b/c"));
    EXPECT_EQ(QFileInfo(dir.filePath("a/b/c/.metadata")).size(), 0);
    EXPECT_TRUE(created.getMetadata().empty());

    Project(path("a/b/c")).setMetadata("title", "kept");
    EXPECT_EQ(zo::project::makeProject(path("a/b/c")).getMetadata("title"), "kept");

    writeFile(path("file"), "x");
    EXPECT_THROW(zo::project::makeProject(path("file")), ArchiveError);

    Project missing(path("missing"));
    EXPECT_TRUE(missing.getMetadata().empty());
    EXPECT_PRED_FORMAT2(testing::IsSubstring, path("missing/.metadata"),
        thrownBy([&] { missing.setMetadata("key", "value"); }));
}

TEST_F(Metadata, CorruptFileIsAnErrorNamingItAndIsNotOverwritten)
{
    const std::string header = "zo-project-metadata 1\n";
    const std::string corrupt[] = {
        "garbage",
        header + "key=value",
        header + "no equals sign\n",
        header + "bad=%G1\n",
        header + "raw=equals=sign\n",
        header + "twice=1\ntwice=2\n",
    };
    const std::string file = path(".metadata");
    Project project(dir.path().toStdString());
    for (const std::string& content : corrupt) {
        writeFile(file, QByteArray::fromStdString(content));
        EXPECT_PRED_FORMAT2(testing::IsSubstring, file, thrownBy([&] { project.getMetadata(); }));
        EXPECT_THROW(project.setMetadata("key", "value"), ArchiveError);
        EXPECT_EQ(readFile(file).toStdString(), content);
    }
}

} // namespace
