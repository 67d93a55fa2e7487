#pragma once

#include <zo/zo_export.h>

#include <cstdio>

namespace zo::os {

ZO_EXPORT int getpid();

// Opens a C stream on a UTF-8 path; null on failure, with errno set by the C library.
ZO_EXPORT FILE* fopen(const char* path, const char* mode);

} // namespace zo::os
