#pragma once

#include <QString>
#include <QStringList>

#include <zo/file.h>

#include <optional>
#include <string_view>
#include <sys/types.h>
#include <vector>

// The intent journal that makes a save of several files all or nothing.
//
// The save writes it into the project root once every swap file of the save is durable, makes it
// durable, and only then renames: each source to its backup, each swap file to its source. Once
// the renames are durable and the backups gone, the journal goes. A process that opens the
// project after the writer ended completes the save from the journal: every rename not done yet
// is done, the directories synced, the backups removed, the journal removed.
//
// For each file the journal names its source, swap file and backup, relative to the journal's
// directory, with the identity (device, inode) of the new content and the version (identity,
// size, modification and change time) of the old one. What lies under each name then tells
// whether its rename happened, and nothing that is not the save's own content is ever renamed
// over or removed, also when the journal outlived its save: a name written to after the save
// began keeps what was written, and the save's content stays in its swap file, with the
// backup, for the user to recover. The
// journal ends with a checksum of what precedes it: one that does not match was torn before it
// became durable, so the renames never began, and it is removed with nothing else touched.
//
// Its name, ".save.zo-journal-<pid>.<unique>", is a hidden name of zo/file.h, and its process is
// judged by the liveness rule of zo/owner.h: a journal whose process may still run is left to
// it. A process that completes a journal first takes it over under its own name, so that no
// two complete one save at once, and a crash while completing leaves a journal that the next
// process completes. Only a process of the journal's own user completes it.
namespace zo::project::detail {

// One file of a save, as absolute paths inside the journal's directory.
struct SavedFile {
    QString source; // where the new content goes
    QString swap; // where it lies until then
    QString backup; // where the old content lies between the two renames
};

// A file of the save being journalled, with what tells later whether its renames took place:
// its new content's identity and its old content's status (none for a new file), as the save
// found them before renaming anything.
struct FileToSave {
    SavedFile paths;
    zo::os::FileIdentity newContent;
    std::optional<zo::os::FileStatus> oldContent;
};

// The journal of this process's save, on disk from write until remove.
class SaveJournal {
public:
    // The journal of files, written into directory and durable. None when that fails, with
    // the reason in failure; nothing is left behind then.
    static std::optional<SaveJournal> write(
        const QString& directory, const std::vector<FileToSave>& files, QString& failure);

    // Durably when the save stopped short, and voided first, so that no later process redoes
    // what it undid or left pending. False (logged) when the journal stays.
    bool remove(bool durably);

    const QString& path() const { return _path; }

private:
    SaveJournal(QString path, zo::os::UniqueFd file, off_t checksumAt)
        : _path(std::move(path))
        , _file(std::move(file))
        , _checksumAt(checksumAt)
    {
    }

    QString _path;
    zo::os::UniqueFd _file; // kept open, so that voiding needs no open
    off_t _checksumAt;
};

// The process that wrote or took over a journal of this name (a file name); none for a name
// that is no journal's.
std::optional<pid_t> journalOwner(std::string_view name);

// The journals in directory itself.
QStringList journalsIn(const QString& directory);

// The sources a journal's save names, relative to the journal's directory; none when the
// journal is damaged or unreadable.
std::optional<QStringList> savedSources(const QString& journal);

// Completes the save of a journal (absolute) whose process has ended, as described above, and
// logs what it did. False when it left the journal as it was: to whoever took it over first, or
// to its user when that is another.
bool completeSave(const QString& journal);

} // namespace zo::project::detail
