#pragma once

#include <zo/owner.h>
#include <zo/project/projectvfs.h>

#include <QString>

#include <memory>
#include <sys/types.h>

// The library's side of the one liveness rule of zo/owner.h: its owner marks, its verdicts on
// files named after a process, and how it reports them.
namespace zo::project::detail {

// This process's owner mark in directory; null, with a warning logged, where the directory
// refuses it: this process's files there are then judged by /proc alone.
std::shared_ptr<zo::os::OwnerMark> holdOwnerMark(const QString& directory);

// The owner of the file at path (absolute) named after process pid.
zo::os::OwnerVerdict judgeOwner(zo::os::OwnerMarks& marks, const QString& path, pid_t pid);

// A swap file that this process leaves pending when its engine forgets it (destroyed, or given
// another root): no engine of this process holds it any more, so this process may take it over
// like one of an ended process.
void leftForRecovery(const QString& swap);
// The swap file is held again (taken over, or made anew under that name).
void takenBack(const QString& swap);

// A verdict as the library reports it.
ProjectVFS::OwnerInfo ownerInfoOf(const zo::os::OwnerVerdict& verdict, pid_t pid);

} // namespace zo::project::detail
