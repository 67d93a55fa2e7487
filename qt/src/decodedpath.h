#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

#include <string_view>

namespace zo::project::detail {

// A path from a directory read, in the file-name encoding Qt uses for the same bytes.
inline QString decodedPath(std::string_view path)
{
    return QFile::decodeName(QByteArray(path.data(), static_cast<int>(path.size())));
}

} // namespace zo::project::detail
