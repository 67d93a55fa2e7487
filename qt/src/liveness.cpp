#include "liveness.h"

#include "logging.h"
#include "paths.h"

#include <zo/log.h>

#include <QFileInfo>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <optional>
#include <unistd.h>
#include <vector>

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

namespace {

struct LeftSwaps {
    std::mutex mutex;
    std::vector<zo::os::FileIdentity> files;
};

LeftSwaps& leftSwaps()
{
    static LeftSwaps left;
    return left;
}

std::optional<zo::os::FileIdentity> identityOf(const QString& path)
{
    const std::optional<zo::os::FileStatus> found = zo::os::linkStatus(encoded(path).constData());
    return found ? std::optional(found->identity) : std::nullopt;
}

} // namespace

void leftForRecovery(const QString& swap)
{
    if (const auto identity = identityOf(swap)) {
        LeftSwaps& left = leftSwaps();
        const std::lock_guard lock(left.mutex);
        left.files.push_back(*identity);
    }
}

void takenBack(const QString& swap)
{
    LeftSwaps& left = leftSwaps();
    const std::lock_guard lock(left.mutex);
    if (left.files.empty())
        return;
    if (const auto identity = identityOf(swap))
        left.files.erase(
            std::remove(left.files.begin(), left.files.end(), *identity), left.files.end());
}

zo::os::OwnerVerdict judgeOwner(zo::os::OwnerMarks& marks, const QString& path, pid_t pid)
{
    zo::os::OwnerVerdict verdict = marks.judge(encoded(path).toStdString(), pid);
    if (pid != ::getpid() || verdict.liveness == zo::os::Liveness::Ended)
        return verdict;
    LeftSwaps& left = leftSwaps();
    const std::lock_guard lock(left.mutex);
    const auto identity = left.files.empty() ? std::nullopt : identityOf(path);
    if (identity && std::find(left.files.begin(), left.files.end(), *identity) != left.files.end())
        verdict.liveness = zo::os::Liveness::Ended;
    return verdict;
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
