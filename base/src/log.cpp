#include <zo/log.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>

namespace zo::log {
namespace {

// Function-local statics: other libraries register categories from their own static
// initialisers, which may run before this file's.
struct Registry {
    std::mutex mutex;
    std::set<std::string> categories;
    Sink sink;
};

Registry& registry()
{
    static Registry instance;
    return instance;
}

const char* levelName(int level)
{
    switch (level) {
    case Fatal:
        return "fatal";
    case Critical:
        return "critical";
    case Error:
        return "error";
    case Warning:
        return "warning";
    case Info:
        return "info";
    case Debug:
        return "debug";
    default:
        return "trace";
    }
}

int thresholdFromEnvironment()
{
    const char* text = std::getenv("ZO_LOG_LEVEL");
    if (text == nullptr || *text == '\0')
        return Warning;
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    return *end == '\0' ? static_cast<int>(value) : Warning;
}

void writeToStderr(const std::string& category, int level, const std::string& message)
{
    static const int threshold = thresholdFromEnvironment();
    if (level > threshold)
        return;
    std::fprintf(stderr, "%s: %s: %s\n", category.c_str(), levelName(level), message.c_str());
}

} // namespace

void addCategory(const std::string& name)
{
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.categories.insert(name);
}

bool hasCategory(const std::string& name)
{
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.categories.count(name) != 0;
}

void log(const std::string& category, int level, const std::string& message)
{
    Registry& r = registry();
    Sink sink;
    {
        std::lock_guard<std::mutex> lock(r.mutex);
        sink = r.sink;
    }
    // Called outside the lock so that a sink may log or replace itself.
    if (sink)
        sink(category, level, message);
    else
        writeToStderr(category, level, message);
}

Sink setSink(Sink sink)
{
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    std::swap(r.sink, sink);
    return sink;
}

} // namespace zo::log
