#pragma once

#include <zo/zo_export.h>

#include <string>

namespace zo {

// A path as a plain byte string; no normalisation, no file-system access.
class ZO_EXPORT Path {
public:
    explicit Path(std::string path);

    const std::string& string() const { return _path; }

    // The bytes after the last "/" (the whole path when it has none). NUL bytes are kept.
    std::string filename() const;

private:
    std::string _path;
};

} // namespace zo
