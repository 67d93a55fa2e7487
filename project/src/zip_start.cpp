#include "zip_start.h"

#include <zo/os.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>

namespace zo::project::detail {
namespace {

using File = std::unique_ptr<FILE, int (*)(FILE*)>;

// Fixed sizes of the end-of-central-directory record (comment left out), of the zip64 end
// locator and of the zip64 end record without extensible data.
constexpr size_t endSize = 22;
constexpr size_t locatorSize = 20;
constexpr size_t zip64EndSize = 56;
constexpr size_t longestComment = 0xffff;

File openFile(const std::string& path)
{
    return File(zo::os::fopen(path.c_str(), "rb"), std::fclose);
}

uint64_t littleEndian(const std::string& bytes, size_t at, int width)
{
    uint64_t value = 0;
    for (int i = width - 1; i >= 0; --i)
        value = value << 8 | static_cast<unsigned char>(bytes[at + static_cast<size_t>(i)]);
    return value;
}

bool signatureAt(const std::string& bytes, size_t at, const char (&signature)[5])
{
    return bytes.compare(at, 4, signature, 4) == 0;
}

// The bytes from start on, with the file position kept here: libarchive seeks within them.
struct View {
    File file;
    int64_t start;
    int64_t size;
    int64_t position = 0;
    std::array<char, 64 * 1024> buffer {};
};

la_ssize_t readView(archive* reader, void* data, const void** buffer)
{
    View& view = *static_cast<View*>(data);
    if (std::fseek(view.file.get(), view.start + view.position, SEEK_SET) != 0) {
        archive_set_error(reader, errno, "cannot seek in the archive");
        return -1;
    }
    const size_t count = std::fread(view.buffer.data(), 1, view.buffer.size(), view.file.get());
    if (count == 0 && std::ferror(view.file.get())) {
        archive_set_error(reader, errno, "cannot read the archive");
        return -1;
    }
    view.position += static_cast<int64_t>(count);
    *buffer = view.buffer.data();
    return static_cast<la_ssize_t>(count);
}

la_int64_t seekView(archive*, void* data, la_int64_t offset, int whence)
{
    View& view = *static_cast<View*>(data);
    const int64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? view.position : view.size;
    if (base + offset < 0)
        return ARCHIVE_FATAL;
    view.position = base + offset;
    return view.position;
}

int closeView(archive*, void* data)
{
    // The reader owns the view from the moment it is opened.
    const std::unique_ptr<View> owned(static_cast<View*>(data));
    return ARCHIVE_OK;
}

// Where the zip starts by what its end records state, the end record lying at end in tail and at
// endAt in the file.
uint64_t statedStart(const std::string& tail, size_t end, uint64_t endAt)
{
    // A zip64 states where its end record is; the difference to where it is is the data in front.
    const size_t locator = end - locatorSize;
    if (end >= locatorSize + zip64EndSize && signatureAt(tail, locator, "PK\6\7")
        && signatureAt(tail, locator - zip64EndSize, "PK\6\6")) {
        const uint64_t stated = littleEndian(tail, locator + 8, 8);
        const uint64_t actual = endAt - locatorSize - zip64EndSize;
        return actual >= stated ? actual - stated : 0;
    }
    const uint64_t directory = littleEndian(tail, end + 12, 4) + littleEndian(tail, end + 16, 4);
    return endAt >= directory ? endAt - directory : 0;
}

} // namespace

uint64_t zipStart(const std::string& path)
{
    const File file = openFile(path);
    if (!file || std::fseek(file.get(), 0, SEEK_END) != 0)
        return 0;
    const auto size = static_cast<uint64_t>(std::max(std::ftell(file.get()), 0L));
    std::string tail(
        std::min<uint64_t>(size, zip64EndSize + locatorSize + endSize + longestComment), '\0');
    const auto tailStart = static_cast<long>(size - tail.size());
    if (std::fseek(file.get(), tailStart, SEEK_SET) != 0
        || std::fread(tail.data(), 1, tail.size(), file.get()) != tail.size()
        || tail.size() < endSize)
        return 0;
    // The end record is the one whose comment reaches to the end; a comment may hold the
    // signature too.
    size_t end = tail.size() - endSize;
    while (!signatureAt(tail, end, "PK\5\6")
        || end + endSize + littleEndian(tail, end + 20, 2) != tail.size())
        if (end-- == 0)
            return 0;
    const uint64_t start = statedStart(tail, end, static_cast<uint64_t>(tailStart) + end);
    // Believed only where an entry's local header begins.
    std::string header(4, '\0');
    if (start == 0 || std::fseek(file.get(), static_cast<long>(start), SEEK_SET) != 0
        || std::fread(header.data(), 1, header.size(), file.get()) != header.size()
        || !signatureAt(header, 0, "PK\3\4"))
        return 0;
    return start;
}

bool isEmptyZip(const std::string& path)
{
    const File file = openFile(path);
    std::string bytes(endSize + longestComment + 1, '\0');
    bytes.resize(file ? std::fread(bytes.data(), 1, bytes.size(), file.get()) : 0);
    return bytes.size() >= endSize && signatureAt(bytes, 0, "PK\5\6")
        && littleEndian(bytes, 10, 2) == 0 && endSize + littleEndian(bytes, 20, 2) == bytes.size();
}

int openFrom(archive* reader, const std::string& path, uint64_t start)
{
    File file = openFile(path);
    if (!file || std::fseek(file.get(), 0, SEEK_END) != 0) {
        archive_set_error(reader, errno, "cannot open the archive");
        return ARCHIVE_FATAL;
    }
    // libarchive reads in blocks of its own; a stream buffer would only copy them once more.
    std::setvbuf(file.get(), nullptr, _IONBF, 0);
    const int64_t size = std::ftell(file.get()) - static_cast<int64_t>(start);
    auto view = std::make_unique<View>(View { std::move(file), static_cast<int64_t>(start), size });
    archive_read_set_read_callback(reader, readView);
    archive_read_set_seek_callback(reader, seekView);
    archive_read_set_close_callback(reader, closeView);
    archive_read_set_callback_data(reader, view.release());
    return archive_read_open1(reader);
}

} // namespace zo::project::detail
