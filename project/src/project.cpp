#include <zo/project/project.h>

#include <utility>

namespace zo::project {

Project::Project(std::string path)
    : _path(std::move(path))
{
}

const std::string& Project::projectPath() const
{
    return _path;
}

} // namespace zo::project
