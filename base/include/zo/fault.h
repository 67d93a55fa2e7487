#pragma once

#include <zo/zo_export.h>

/// @file
/// Makes one durability step of zo/file.h (syncFile, syncDirectory, rename and the renames
/// built on it) fail as the system would refuse it, without touching the disk, so that an
/// application's own tests can check what each of its durable writes leaves behind when any
/// step fails. Nothing fails unless a test asks; an unarmed step costs one atomic load.
namespace zo::os::fault {

/// The durability steps a fault can be set for. Rename covers rename, exchange and
/// renameToFreeName; Remove covers remove.
enum class Step { SyncFile, SyncDirectory, Rename, Remove };

/// Makes the nth call of step from now on (1: the next one), in any thread, fail with errno set
/// to error. Replaces any fault set before; the fault is spent once it has struck.
ZO_EXPORT void inject(Step step, int nth, int error);
/// Disarms a fault set by inject that has not struck yet.
ZO_EXPORT void clear();

} // namespace zo::os::fault
