#pragma once

#include <zo/zo_export.h>

#include <string>

namespace zo {

/// A path as a plain byte string; no normalisation, no file-system access.
class ZO_EXPORT Path {
public:
    /// Keeps path as it is.
    explicit Path(std::string path);

    /// The path as given.
    const std::string& string() const { return _path; }

    /// The bytes after the last "/" (the whole path when it has none). NUL bytes are kept.
    std::string filename() const;
    /// The directory that holds filename(): the bytes before the last "/", "/" for an entry of
    /// the root, "." for a path without a "/".
    std::string directory() const;

private:
    std::string _path;
};

} // namespace zo
