#include "logging.h"

#include <zo/log.h>

namespace zo::project::detail {
namespace {

const bool kRegistered = [] {
    zo::log::addCategory(kFacadeLog);
    zo::log::addCategory(kEngineLog);
    zo::log::addCategory(kDirectoryLog);
    return true;
}();

} // namespace
} // namespace zo::project::detail
