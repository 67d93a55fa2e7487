#pragma once

#include <zo/zo_export.h>

#include <cstdio>

namespace zo::os {

ZO_EXPORT int getpid();

// Opens a C stream on a UTF-8 path; null on failure, with errno set by the C library.
ZO_EXPORT FILE* fopen(const char* path, const char* mode);

// Flushes a file or a directory named by a UTF-8 path to the disk (fsync); false on failure,
// with errno set.
ZO_EXPORT bool sync(const char* path);

} // namespace zo::os
