#pragma once

#include <zo/zo_export.h>

#include <cstdio>

/// @file
/// The process id and C streams. Files are in zo/file.h, processes and signals in zo/process.h,
/// the tree walk in zo/treewalk.h.
namespace zo::os {

/// The id of this process.
ZO_EXPORT int getpid();

/// Opens a C stream on a UTF-8 path; null on failure, with errno set by the C library.
ZO_EXPORT FILE* fopen(const char* path, const char* mode);

} // namespace zo::os
