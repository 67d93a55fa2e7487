#pragma once

#include "tree_generator.h"

#include <zo/project/archive.h>
#include <zo/test/support.h>

#include <archive.h>
#include <archive_entry.h>

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace zo::project::test {

using zo::test::readFile;
using zo::test::thrownBy;
using zo::test::writeFile;

inline std::string pathIn(const QTemporaryDir& dir, const char* name)
{
    return dir.filePath(QString::fromUtf8(name)).toStdString();
}

// A scratch directory, and the paths of names in it.
class Scratch : public testing::Test {
protected:
    std::string path(const char* name) const { return pathIn(dir, name); }

    QTemporaryDir dir;
};

// A project with nested, empty and hidden directories, non-ASCII names, a zero-byte file,
// varied modes, symbolic links and old times; bigFileSize > 0 adds a file of that size.
void makeSampleTree(const std::string& root, size_t bigFileSize = 0);

// One entry of a hand-made archive.
struct Item {
    std::string name;
    unsigned type = AE_IFREG;
    std::string content = {}; // a file's data or a link's target
    bool hardLink = false;
    int64_t declaredSize = -1; // a sparse file of that size when set
};

// The bytes of an archive of items, written by libarchive as configure sets it up (format,
// filters, options); a restricted pax tar without it.
QByteArray archiveOf(
    const std::vector<Item>& items, const std::function<void(archive*)>& configure = nullptr);
// A pax tar, or a zip, of items in their order.
void writeArchive(const std::string& path, const std::vector<Item>& items, bool zip = false);

} // namespace zo::project::test
