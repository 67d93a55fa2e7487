#pragma once

// Log categories of the library, one per front end, registered when the library is loaded.
namespace zo::project::detail {

inline constexpr char kFacadeLog[] = "ProjectVFS";
inline constexpr char kEngineLog[] = "ProjectVfs";
inline constexpr char kDirectoryLog[] = "ProjectDir";

} // namespace zo::project::detail
