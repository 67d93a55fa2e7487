#pragma once

#include "libarchive.h"

#include <zo/owner.h>
#include <zo/project/archive.h>

#include <string>

namespace zo::project::detail {

struct MatchFree {
    void operator()(archive* handle) const { archive_match_free(handle); }
};

// The files of a tree that an export leaves out (ExportOptions).
class ExportFilter {
public:
    // Throws ArchiveError naming source for a pattern libarchive refuses.
    ExportFilter(const ExportOptions& options, const std::string& source);

    // Whether the entry, named by its path below the root, is left out with all it contains;
    // path is where it lies on disk.
    bool leavesOut(archive_entry* entry, const std::string& path);

private:
    bool _editingFiles;
    zo::os::OwnerMarks _marks;
    std::unique_ptr<archive, MatchFree> _patterns;
};

} // namespace zo::project::detail
