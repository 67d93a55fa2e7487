#pragma once

#include <zo/zo_export.h>

#include <functional>
#include <string>

// Categorised logging with numeric levels. The default sink writes
// "category: level-name: message" lines to standard error for every level up to the
// threshold read once from ZO_LOG_LEVEL (default Warning).
namespace zo::log {

enum Level : int { Fatal = 0, Critical = 1, Error = 2, Warning = 3, Info = 4, Debug = 5 };

// Registers a category name; registering it again does nothing.
ZO_EXPORT void addCategory(const std::string& name);
ZO_EXPORT bool hasCategory(const std::string& name);

ZO_EXPORT void log(const std::string& category, int level, const std::string& message);

using Sink
    = std::function<void(const std::string& category, int level, const std::string& message)>;

// Installs a sink that receives every call whatever the threshold and returns the previous one.
// An empty sink restores the default one.
ZO_EXPORT Sink setSink(Sink sink);

} // namespace zo::log
