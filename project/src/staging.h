#pragma once

#include "entry_reader.h"
#include "files.h"
#include "unpack.h"

#include <zo/owner.h>

#include <memory>
#include <string>

namespace zo::project::detail {

// Where an import unpacks, so that it changes its destination in one step or not at all: a
// hidden directory beside the destination (hiddenTemplateBeside, purpose "unpack"), on the
// destination's file system. A destination that does not exist (missing parents included) comes
// into being by one rename of it; an existing one is swapped with it in one step once it holds
// the archive and everything the destination held besides (unpackOver), through a hidden name
// of purpose "replaced" (swapIntoPlace). Until then the destination is not touched; after the
// swap the previous tree, now under that name, is removed. What a crash leaves is that one
// hidden directory, with this process's owner mark beside it: under "unpack" the unfinished new
// tree, which the next import or export beside it removes once this process is gone; under
// "replaced" a tree that may be the destination's previous content, which stays.
class Staging {
public:
    // destination as the caller named it. Throws ArchiveError when it is not a directory, is a
    // mount point, or no directory can be made beside it. Removes what ended imports and
    // exports left beside it first.
    explicit Staging(const std::string& destination);

    // The path the unpacked tree takes: the destination, or its first missing ancestor.
    const std::string& target() const { return _target; }
    // Unpacks the entries of reader into the hidden directory; archive names them in errors.
    // existing resolves what an existing destination holds at the path of an entry.
    void fill(EntryReader& reader, const std::string& archive, ExistingFiles existing);
    // What fill did with the destination's files.
    const ImportReport& report() const { return _report; }
    // Puts the unpacked tree in the destination's place.
    void commit();

private:
    void takeOverRoot() const;
    void removePrevious();

    std::string _destination;
    std::string _target;
    std::string _staged;
    std::shared_ptr<os::OwnerMark> _mark;
    TreeGuard _guard { {} };
    UniqueFd _root;
    UniqueFd _existing;
    os::FileIdentity _existingIdentity;
    KeptEntries _kept;
    ImportReport _report;
};

} // namespace zo::project::detail
