#pragma once

#include <QString>

#include <string_view>

namespace zo::project::detail {

// A path from a directory read, decoded as QFile::decodeName decodes file names on this
// platform, without copying the bytes into a QByteArray first.
inline QString decodedPath(std::string_view path)
{
    return QString::fromLocal8Bit(path.data(), static_cast<int>(path.size()));
}

} // namespace zo::project::detail
