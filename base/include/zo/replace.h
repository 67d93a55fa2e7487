#pragma once

#include <zo/file.h>
#include <zo/owner.h>
#include <zo/zo_export.h>

#include <memory>
#include <string>
#include <string_view>

/// @file
/// The durable replacement of a file, the one way every writer of this system puts new content
/// under a name that may hold old content: write a hidden file beside the target, flush it,
/// rename it over the target, flush the directory. Readers see the old file or the new one,
/// never a part of either, and a crash at any step leaves one of the two under the target's
/// name.
///
/// The rule for the last step: when the directory cannot be flushed, the rename has happened
/// and the target holds the new content, but a system crash may still bring the old content
/// back (whole). This is reported as a failure of SyncDirectory, so that the caller can tell
/// that the change may not last; the old content is gone by then, so the caller must not try
/// to undo the replacement, only report it or write again. Failures are reported as false with
/// errno set, as in zo/file.h; nothing here throws.
namespace zo::os {

/// The steps of a durable replacement, in their order.
enum class ReplaceStep { Create, Write, SyncFile, Rename, SyncDirectory };

/// A new file beside target that takes target's place once written.
class ZO_EXPORT FileReplacement {
public:
    /// Creates the hidden file beside target (hiddenTemplateBeside(target, purpose)) with
    /// target's permissions, and its owner and group where this process may set them; with
    /// those of any new file (0666 less the umask) when target does not exist. False as a bool
    /// when the file cannot be made (step Create). Holds this process's owner mark beside
    /// target (OwnerMark::holdBeside) for its lifetime.
    FileReplacement(std::string target, std::string_view purpose);
    /// Removes the hidden file unless it has taken target's place.
    ~FileReplacement();
    FileReplacement(const FileReplacement&) = delete;
    FileReplacement& operator=(const FileReplacement&) = delete;

    /// Whether the hidden file was made.
    explicit operator bool() const { return static_cast<bool>(_fd); }
    /// The hidden file, for writing its content.
    int fd() const { return _fd.get(); }
    /// The hidden file's path, for messages.
    const std::string& path() const { return _path; }
    /// Writes data as the whole content (step Write).
    bool write(std::string_view data);
    /// Flushes the content, closes the file, renames it over target and flushes target's
    /// directory. Before the rename a failure leaves target as it was; after it, see the rule
    /// above.
    bool commit();
    /// The step that failed last.
    ReplaceStep failedStep() const { return _failed; }

private:
    bool failAt(ReplaceStep step);

    std::string _target;
    std::shared_ptr<OwnerMark> _mark;
    std::string _path;
    UniqueFd _fd;
    ReplaceStep _failed = ReplaceStep::Create;
    bool _renamed = false;
};

/// Replaces target's content by data through a FileReplacement; on failure, failed tells the
/// step and errno the cause.
ZO_EXPORT bool replaceFile(const std::string& target, std::string_view purpose,
    std::string_view data, ReplaceStep& failed);

/// The last two steps for a replacement written and flushed by the caller itself (a commit
/// that keeps a backup, a directory tree): renames from over to and flushes to's directory.
/// On failure, failed is Rename (nothing changed) or SyncDirectory (see the rule above).
ZO_EXPORT bool renameDurably(const char* from, const char* to, ReplaceStep& failed);

/// The same for a directory tree written beside an existing directory to: swaps the two in one
/// step (exchange) and flushes to's directory; the previous tree is then under from, for the
/// caller to remove. On failure, failed is Rename (nothing changed) or SyncDirectory.
ZO_EXPORT bool exchangeDurably(const char* from, const char* to, ReplaceStep& failed);

/// The purpose (zo/file.h) of a hidden tree that is swapped with a directory by swapIntoPlace:
/// once swapped it holds the directory's previous content, which may be the user's only copy of
/// something, so cleanup (zo/leftover.h) never removes it.
inline constexpr std::string_view kReplacedPurpose = "replaced";

/// exchangeDurably for a tree written under a hidden name beside the existing directory to:
/// the tree is first renamed to the hidden name of purpose kReplacedPurpose beside to (returned
/// in previous), then swapped with to. From the rename on, whatever that name holds (the new
/// tree until the swap, the previous one after it) is left to the caller and never to cleanup.
/// On failure, failed is Rename (to is as it was; the new tree is under previous unless
/// previous is empty) or SyncDirectory.
ZO_EXPORT bool swapIntoPlace(
    const std::string& tree, const std::string& to, std::string& previous, ReplaceStep& failed);

} // namespace zo::os
