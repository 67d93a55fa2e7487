#include "liveness.h"

#include "logging.h"
#include "paths.h"

#include <zo/log.h>

#include <QFileInfo>

#include <cstring>

namespace zo::project::detail {

std::shared_ptr<zo::os::OwnerMark> holdOwnerMark(const QString& directory)
{
    std::shared_ptr<zo::os::OwnerMark> mark
        = zo::os::OwnerMark::hold(encoded(directory).toStdString());
    if (!mark)
        zo::log::log(kEngineLog, zo::log::Warning,
            "Can not mark '" + utf8(directory)
                + "' as used by this process: " + std::strerror(errno));
    return mark;
}

zo::os::OwnerVerdict judgeOwner(zo::os::OwnerMarks& marks, const QString& path, pid_t pid)
{
    return marks.judge(encoded(path).toStdString(), pid);
}

ProjectVFS::OwnerInfo ownerInfoOf(const zo::os::OwnerVerdict& verdict, pid_t pid)
{
    using State = ProjectVFS::OwnerInfo::State;
    ProjectVFS::OwnerInfo info;
    info.state = verdict.liveness == zo::os::Liveness::Running ? State::Running
        : verdict.liveness == zo::os::Liveness::Ended          ? State::Ended
                                                               : State::InUseElsewhere;
    info.pid = pid;
    if (const auto& owner = verdict.owner) {
        info.hostName = QString::fromStdString(owner->host);
        info.program = QFileInfo(decodedPath(owner->program)).fileName();
        if (owner->started.time_since_epoch().count() != 0)
            info.started = QDateTime::fromMSecsSinceEpoch(
                std::chrono::duration_cast<std::chrono::milliseconds>(
                    owner->started.time_since_epoch())
                    .count());
    }
    return info;
}

} // namespace zo::project::detail
