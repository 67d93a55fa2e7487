#include "sample_tree.h"

#include <zo/project/project.h>

#include <QCryptographicHash>
#include <QFile>

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zo::project::test {
namespace {

namespace fs = std::filesystem;

// Numbered 4 KiB runs of varying bytes: every block is distinct, yet each compressor
// shrinks it quickly.
void writeBigFile(const fs::path& path, size_t size)
{
    fs::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary);
    for (size_t written = 0, number = 0; written < size; ++number) {
        std::string block = std::to_string(number);
        block.resize(4096, static_cast<char>('a' + number % 26));
        const size_t count = std::min(block.size(), size - written);
        out.write(block.data(), static_cast<std::streamsize>(count));
        written += count;
    }
    ASSERT_TRUE(out.flush()) << path;
}

// Old, distinct times, deepest entries first so that no later change touches a parent.
void ageTree(const fs::path& root)
{
    std::vector<fs::path> paths;
    for (const auto& entry : fs::recursive_directory_iterator(root))
        paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end(),
        [](const fs::path& a, const fs::path& b) { return a.native().size() > b.native().size(); });
    time_t seconds = 1500000000;
    for (const fs::path& path : paths) {
        const timespec times[2] = { { seconds, 0 }, { seconds, 0 } };
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
        seconds += 3601;
    }
}

std::string digest(const fs::path& path)
{
    QFile file(QString::fromStdString(path.string()));
    QCryptographicHash hash(QCryptographicHash::Sha1);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly) && hash.addData(&file)) << path;
    return hash.result().toHex().toStdString();
}

} // namespace

void writeFile(const std::string& path, const std::string& content, mode_t mode)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream out(path, std::ios::binary);
    ASSERT_TRUE(out << content) << path;
    fs::permissions(path, static_cast<fs::perms>(mode));
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void makeSampleTree(const std::string& rootPath, size_t bigFileSize)
{
    const fs::path root(rootPath);
    makeProject(rootPath).setMetadata("title", "Sample ✓");
    writeFile(root / "docs/chapter 1/notes.txt", "notes\n");
    writeFile(root / ".hidden", "hidden\n");
    writeFile(root / ".config/settings.ini", "[a]\nb=c\n", 0600);
    writeFile(root / "ünïcødé/日本語.txt", "テキスト\n");
    writeFile(root / "zero", "");
    writeFile(root / "run.sh", "#!/bin/sh\n", 0755);
    fs::create_directories(root / "docs/empty");
    fs::create_directories(root / "locked");
    fs::permissions(root / "locked", static_cast<fs::perms>(0750));
    fs::create_symlink("docs/chapter 1/notes.txt", root / "notes-link");
    fs::create_symlink("../zero", root / "docs/zero-link");
    if (bigFileSize > 0)
        writeBigFile(root / "data/big.bin", bigFileSize);
    ageTree(root);
}

std::vector<std::string> listing(const std::string& root, int details)
{
    std::vector<std::string> lines;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        struct stat status { };
        EXPECT_EQ(::lstat(entry.path().c_str(), &status), 0);
        const bool link = S_ISLNK(status.st_mode);
        if (link && !(details & Links))
            continue;
        std::string line = (link                             ? "l "
                                   : S_ISDIR(status.st_mode) ? "d "
                                                             : "f ")
            + entry.path().lexically_relative(root).string();
        if ((details & Modes) && !link)
            line += " mode " + std::to_string(status.st_mode & 07777);
        if ((details & Times) && !link)
            line += " time " + std::to_string(status.st_mtime);
        if (link)
            line += " -> " + fs::read_symlink(entry.path()).string();
        else if (S_ISREG(status.st_mode))
            line += " sha1 " + digest(entry.path());
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

} // namespace zo::project::test
