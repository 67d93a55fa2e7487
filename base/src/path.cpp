#include <zo/path.h>

#include <utility>

namespace zo {

Path::Path(std::string path)
    : _path(std::move(path))
{
}

std::string Path::filename() const
{
    const auto slash = _path.rfind('/');
    return slash == std::string::npos ? _path : _path.substr(slash + 1);
}

std::string Path::directory() const
{
    const auto slash = _path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : _path.substr(0, slash);
}

} // namespace zo
