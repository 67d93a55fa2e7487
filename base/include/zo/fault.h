#pragma once

#include <zo/zo_export.h>

// Test hook: makes one durability step of zo::os fail as the system would refuse it, so that the
// rollback of every step of an atomic replacement can be tested. Production code never calls it.
namespace zo::os::fault {

enum class Step { SyncFile, SyncDirectory, Rename };

// The nth call of step from now on (1: the next one) fails with errno set to error, without
// touching the disk. Replaces any fault set before.
ZO_EXPORT void inject(Step step, int nth, int error);
ZO_EXPORT void clear();

} // namespace zo::os::fault
