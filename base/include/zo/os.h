#pragma once

#include <zo/zo_export.h>

#include <cstdio>
#include <initializer_list>

namespace zo::os {

ZO_EXPORT int getpid();

// Opens a C stream on a UTF-8 path; null on failure, with errno set by the C library.
ZO_EXPORT FILE* fopen(const char* path, const char* mode);

// Flushes a file or a directory named by a UTF-8 path to the disk (fsync); false on failure,
// with errno set.
ZO_EXPORT bool sync(const char* path);

// Turns the given signals (SIGINT, SIGTERM, ...) into bytes on a pipe, for an event loop to
// watch: each delivery writes the signal's number as one byte. Returns the pipe's read end,
// the same one on every call; -1 on failure, with errno set. The handlers stay for the life
// of the process.
ZO_EXPORT int signalPipe(std::initializer_list<int> signalNumbers);

} // namespace zo::os
