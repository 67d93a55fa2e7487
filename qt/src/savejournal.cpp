#include "savejournal.h"

#include "liveness.h"
#include "logging.h"
#include "paths.h"

#include <zo/file.h>
#include <zo/log.h>
#include <zo/owner.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <functional>
#include <string>
#include <sys/stat.h>

namespace zo::project::detail {
namespace {

using zo::os::FileIdentity;

constexpr char kFormatLine[] = "zo-save-journal 2\n";
constexpr char kSumKey[] = "sum ";
constexpr char kFileKey[] = "file";
constexpr char kNone[] = "-";
constexpr char kVoid[] = "void";
const QString kJournalName = QStringLiteral("save");
constexpr char kJournalPurpose[] = "journal";
// A journal that can be neither voided nor removed goes under this purpose, which no opener
// completes and the leftovers cleanup removes.
constexpr char kVoidedPurpose[] = "save";

// The old content of a file as the save found it. The change time is the one sign of a rewrite
// that restored size and modification time; the save's own rename to the backup sets it too.
struct OldContent {
    zo::os::FileVersion version;
    std::int64_t changedSeconds = 0;
    std::int32_t changedNanoseconds = 0;

    bool shownBy(const std::optional<zo::os::FileStatus>& status, bool renamedBySave) const
    {
        return status && zo::os::FileVersion::of(*status) == version
            && (renamedBySave
                || (status->changedSeconds == changedSeconds
                    && status->changedNanoseconds == changedNanoseconds));
    }
};

// One line of a journal, paths relative to its directory.
struct Entry {
    QString source;
    QString swap;
    QString backup;
    FileIdentity newContent;
    std::optional<OldContent> oldContent; // none for a new file
};

std::string errorText()
{
    return std::strerror(errno);
}

std::optional<zo::os::FileStatus> statusOf(const QString& path)
{
    return zo::os::linkStatus(encoded(path).constData());
}

std::optional<FileIdentity> identityOf(const QString& path)
{
    const std::optional<zo::os::FileStatus> status = statusOf(path);
    return status ? std::optional(status->identity) : std::nullopt;
}

QByteArray checksumOf(const QByteArray& body)
{
    return QCryptographicHash::hash(body, QCryptographicHash::Sha256).toHex();
}

// Paths relative to a root (resolved), their directories' links followed, each directory
// resolved once. The last component is never followed: a rename replaces the name itself.
class Beneath {
public:
    explicit Beneath(QString root)
        : _root(std::move(root))
    {
    }

    // Empty when path (absolute) leads outside the root.
    QString relative(const QString& path)
    {
        const QFileInfo info(path);
        const auto known = _directories.constFind(info.path());
        const QString directory
            = known != _directories.cend() ? known.value() : resolved(info.path());
        return directory.isEmpty()
            ? QString()
            : QDir(_root).relativeFilePath(directory + QLatin1Char('/') + info.fileName());
    }

private:
    QString resolved(const QString& directory)
    {
        const std::optional<std::string> found = zo::os::resolveBeneath(
            encoded(_root).toStdString(), encoded(directory).toStdString());
        return _directories[directory] = found ? decodedPath(*found) : QString();
    }

    const QString _root;
    QHash<QString, QString> _directories;
};

// Appends a space and number in decimal.
template <typename Number> void appendNumber(QByteArray& text, Number number)
{
    char digits[24];
    const char* end = std::to_chars(std::begin(digits), std::end(digits), number).ptr;
    text += ' ';
    text.append(digits, static_cast<int>(end - digits));
}

void appendIdentity(QByteArray& text, const FileIdentity& identity)
{
    appendNumber(text, identity.device);
    appendNumber(text, identity.inode);
}

// Seven words: the old content's identity, size, modification and change times; dashes for a
// new file.
void appendOldContent(QByteArray& text, const std::optional<zo::os::FileStatus>& status)
{
    if (!status) {
        for (int word = 0; word < 7; ++word) {
            text += ' ';
            text += kNone;
        }
        return;
    }
    appendIdentity(text, status->identity);
    appendNumber(text, status->size);
    appendNumber(text, status->modifiedSeconds);
    appendNumber(text, status->modifiedNanoseconds);
    appendNumber(text, status->changedSeconds);
    appendNumber(text, status->changedNanoseconds);
}

std::optional<FileIdentity> identityFrom(const QByteArray& device, const QByteArray& inode)
{
    bool deviceRead = false;
    bool inodeRead = false;
    const FileIdentity identity { device.toULongLong(&deviceRead), inode.toULongLong(&inodeRead) };
    return deviceRead && inodeRead ? std::optional(identity) : std::nullopt;
}

// From the seven words appendOldContent writes; none for a new file's dashes.
std::optional<OldContent> oldContentFrom(const QList<QByteArray>& words)
{
    const std::optional<FileIdentity> identity = identityFrom(words[0], words[1]);
    bool read[5] = {};
    const OldContent old { { identity.value_or(FileIdentity {}), words[2].toULongLong(&read[0]),
                               words[3].toLongLong(&read[1]), words[4].toInt(&read[2]) },
        words[5].toLongLong(&read[3]), words[6].toInt(&read[4]) };
    return identity && std::all_of(std::begin(read), std::end(read), [](bool ok) { return ok; })
        ? std::optional(old)
        : std::nullopt;
}

// The entries of a journal's text; none when its checksum does not match or a line is not
// understood.
std::optional<std::vector<Entry>> parse(const QByteArray& text)
{
    const int sumAt = text.lastIndexOf(QByteArray("\n") + kSumKey) + 1;
    if (sumAt == 0 || !text.startsWith(kFormatLine)
        || text.mid(sumAt) != kSumKey + checksumOf(text.left(sumAt)) + '\n')
        return std::nullopt;
    const int bodyAt = static_cast<int>(qstrlen(kFormatLine));
    QList<QByteArray> lines = text.mid(bodyAt, sumAt - bodyAt).split('\n');
    lines.removeLast(); // after the last line's end
    std::vector<Entry> entries;
    for (const QByteArray& line : qAsConst(lines)) {
        const QList<QByteArray> words = line.split(' ');
        if (words.size() != 13 || words[0] != kFileKey)
            return std::nullopt;
        const std::optional<FileIdentity> newContent = identityFrom(words[4], words[5]);
        if (!newContent)
            return std::nullopt;
        entries.push_back({ QFile::decodeName(QByteArray::fromHex(words[1])),
            QFile::decodeName(QByteArray::fromHex(words[2])),
            QFile::decodeName(QByteArray::fromHex(words[3])), *newContent,
            oldContentFrom(words.mid(6)) });
    }
    return entries;
}

// Opens a journal itself, never through a link, for reading; none when it is no regular file.
zo::os::UniqueFd openJournal(const QString& journal)
{
    const QFileInfo info(journal);
    const zo::os::UniqueFd directory = zo::os::openDirectory(encoded(info.absolutePath()));
    zo::os::UniqueFd file = directory
        ? zo::os::openForReadingAt(directory.get(), encoded(info.fileName()).constData())
        : zo::os::UniqueFd();
    const std::optional<zo::os::FileStatus> status
        = file ? zo::os::status(file.get()) : std::nullopt;
    return status && status->type == zo::os::EntryType::File ? std::move(file) : zo::os::UniqueFd();
}

// Takes a journal over under this process's name and reads it; empty when another process took
// it first, or when it is another user's: a journal in a directory that others may write, such
// as the temporary one, must not make this process move its own files. It is stamped first:
// once it bears this process's name, this process's mark in its directory, made before, covers
// it.
QString takeOver(const QString& journal, QByteArray& text)
{
    const zo::os::UniqueFd file = openJournal(journal);
    const std::optional<zo::os::FileStatus> status
        = file ? zo::os::status(file.get()) : std::nullopt;
    if (!status || !zo::os::ownedByThisUser(*status))
        return {};
    zo::os::setTimes(file.get(), { timespec { 0, UTIME_NOW }, timespec { 0, UTIME_NOW } });
    const std::string taken = zo::os::unusedHiddenPathBeside(
        encoded(QFileInfo(journal).absolutePath() + QLatin1Char('/') + kJournalName).toStdString(),
        kJournalPurpose);
    std::string read;
    if (!zo::os::renameToFreeName(encoded(journal).constData(), taken.c_str())
        || !zo::os::readAll(file.get(), read))
        return {};
    text = QByteArray::fromStdString(read);
    return decodedPath(taken);
}

// The files of a journal's entries as absolute paths; none when a name is absolute or leads
// outside the journal's directory, as no save of this library writes it.
std::optional<std::vector<SavedFile>> filesOf(
    const QString& directory, const std::vector<Entry>& entries)
{
    Beneath beneath(QFileInfo(directory).canonicalFilePath());
    const auto inside = [&](const QString& name) {
        const QString path = directory + QLatin1Char('/') + name;
        return QDir::isRelativePath(name) && !beneath.relative(path).isEmpty() ? path : QString();
    };
    std::vector<SavedFile> files;
    for (const Entry& entry : entries) {
        files.push_back({ inside(entry.source), inside(entry.swap), inside(entry.backup) });
        if (files.back().source.isEmpty() || files.back().swap.isEmpty()
            || files.back().backup.isEmpty())
            return std::nullopt;
    }
    return files;
}

void warn(const std::string& message)
{
    zo::log::log(kFacadeLog, zo::log::Warning, message);
}

// Whether a file's name still shows what the save found there: its old content as it was, or,
// once the save renamed that to the backup, nothing; nothing for a new file. Anything else was
// written after the save began, by the user or another process, and is not replaced.
bool untouchedSince(const SavedFile& file, const Entry& entry)
{
    const std::optional<zo::os::FileStatus> source = statusOf(file.source);
    if (!entry.oldContent || !source)
        return !source
            && (!entry.oldContent || entry.oldContent->shownBy(statusOf(file.backup), true));
    return entry.oldContent->shownBy(source, false);
}

} // namespace

std::optional<SaveJournal> SaveJournal::write(
    const QString& directory, const std::vector<FileToSave>& files, QString& failure)
{
    const QString root = QFileInfo(directory).canonicalFilePath();
    // The engine resolved each path inside the root already; one named from the root as it
    // stands needs no second resolution.
    Beneath beneath(root);
    const QString rootAbove = root + QLatin1Char('/');
    const auto relative = [&](const QString& path) {
        return path.startsWith(rootAbove) ? path.mid(rootAbove.size()) : beneath.relative(path);
    };
    QByteArray text = kFormatLine;
    for (const FileToSave& file : files) {
        const QString paths[] = { relative(file.paths.source), relative(file.paths.swap),
            relative(file.paths.backup) };
        if (std::any_of(std::begin(paths), std::end(paths), std::mem_fn(&QString::isEmpty))) {
            failure = QStringLiteral("'%1' is not a file inside '%2'").arg(file.paths.swap, root);
            return std::nullopt;
        }
        text += kFileKey;
        for (const QString& path : paths) {
            text += ' ';
            text += encoded(path).toHex();
        }
        appendIdentity(text, file.newContent);
        appendOldContent(text, file.oldContent);
        text += '\n';
    }
    const auto checksumAt = static_cast<off_t>(text.size() + qstrlen(kSumKey));
    text += kSumKey + checksumOf(text) + '\n';

    std::string path = zo::os::hiddenTemplateBeside(
        encoded(root + '/' + kJournalName).toStdString(), kJournalPurpose);
    zo::os::UniqueFd out = zo::os::createTemporaryFile(path);
    if (!out) {
        failure = QString::fromStdString(errorText());
        return std::nullopt;
    }
    // Readable by others, who may complete the save once this process has ended.
    if (!zo::os::setPermissions(out.get(), 0644)
        || !zo::os::writeAll(out.get(), text.constData(), static_cast<std::size_t>(text.size()), 0)
        || !zo::os::syncFile(out.get()) || !zo::os::syncDirectory(encoded(root).constData())) {
        failure = QString::fromStdString(errorText());
        zo::os::remove(path.c_str());
        return std::nullopt;
    }
    return SaveJournal(decodedPath(path), std::move(out), checksumAt);
}

bool SaveJournal::remove(bool durably)
{
    const std::string path = encoded(_path).toStdString();
    // A save that stopped short voids its journal first, through the descriptor it still
    // holds: one whose removal then fails, or is lost in a crash, redoes nothing.
    const bool voided = durably && zo::os::writeAll(_file.get(), kVoid, qstrlen(kVoid), _checksumAt)
        && zo::os::syncFile(_file.get());
    if (zo::os::remove(path.c_str())
        && (!durably || voided
            || zo::os::syncDirectory(encoded(QFileInfo(_path).path()).constData())))
        return true;
    const std::string cause = errorText();
    // Neither voided nor removed: under a name that no opener completes, if it can be moved.
    const std::string moved = zo::os::unusedHiddenPathBeside(
        encoded(QFileInfo(_path).path() + QLatin1Char('/') + kJournalName).toStdString(),
        kVoidedPurpose);
    const bool harmless
        = voided || (durably && zo::os::renameToFreeName(path.c_str(), moved.c_str()));
    zo::log::log(kEngineLog, zo::log::Warning,
        "Can not remove the save journal '" + utf8(_path) + "': " + cause
            + (harmless       ? "; it can redo nothing"
                    : durably ? "; a later open may redo what this save left pending"
                              : ""));
    return false;
}

std::optional<pid_t> journalOwner(std::string_view name)
{
    const std::optional<zo::os::HiddenName> hidden = zo::os::parseHiddenName(name);
    return hidden && hidden->purpose == kJournalPurpose ? std::optional(hidden->pid) : std::nullopt;
}

QStringList journalsIn(const QString& directory)
{
    QStringList journals;
    const QDir listed(directory);
    for (const QString& name :
        listed.entryList({ QLatin1Char('.') + kJournalName + QStringLiteral(".zo-")
                             + kJournalPurpose + QLatin1Char('*') },
            QDir::Files | QDir::Hidden))
        if (journalOwner(encoded(name).toStdString()))
            journals << listed.filePath(name);
    return journals;
}

std::optional<QStringList> savedSources(const QString& journal)
{
    const zo::os::UniqueFd file = openJournal(journal);
    std::string text;
    if (!file || !zo::os::readAll(file.get(), text))
        return std::nullopt;
    const std::optional<std::vector<Entry>> entries = parse(QByteArray::fromStdString(text));
    if (!entries)
        return std::nullopt;
    QStringList sources;
    for (const Entry& entry : *entries)
        sources << entry.source;
    return sources;
}

bool completeSave(const QString& journal)
{
    const QString directory = QFileInfo(journal).absolutePath();
    // Held while the backups are in play, so that others leave them alone.
    const zo::os::OwnerMark::Replacing replacing(holdOwnerMark(directory));
    QByteArray text;
    const QString taken = takeOver(journal, text);
    if (taken.isEmpty())
        return false;
    const std::string named = "'" + utf8(journal) + "'";
    const std::optional<std::vector<Entry>> entries = parse(text);
    if (!entries) {
        if (!zo::os::remove(encoded(taken).constData()))
            warn("Can not remove the damaged save journal " + named + ": " + errorText());
        else
            zo::log::log(kFacadeLog, zo::log::Info,
                "Removed the damaged save journal " + named + ": its save never began");
        return true;
    }

    const std::optional<std::vector<SavedFile>> files = filesOf(directory, *entries);
    if (!files) {
        warn("The save journal " + named + " names a file outside its directory; left as it is");
        return true;
    }

    // Every rename not done yet: the new content still lies where it was written. Where the
    // name changed since, the swap file and the backup stay for the user to recover; the
    // rest of the save is completed all the same, as nothing is lost that way.
    std::vector<bool> kept(files->size());
    for (std::size_t at = 0; at < files->size(); ++at) {
        const SavedFile& file = (*files)[at];
        if (identityOf(file.swap) != (*entries)[at].newContent)
            continue;
        kept[at] = !untouchedSince(file, (*entries)[at]);
        if (kept[at])
            warn("'" + utf8(file.source) + "' changed after the save of the journal " + named
                + " was interrupted; its saved content stays in '" + utf8(file.swap)
                + "' to recover");
        else if (!zo::os::rename(encoded(file.swap).constData(), encoded(file.source).constData()))
            warn("Can not rename '" + utf8(file.swap) + "' to '" + utf8(file.source)
                + "' for the save journal " + named + ": " + errorText());
    }
    DirectorySyncs syncs;
    for (const SavedFile& file : *files)
        if (!syncs.madeDurable(file.source, file.swap)) {
            warn("Can not complete the save of the journal " + named + ": cannot sync the "
                + "directory of '" + utf8(file.source) + "': " + errorText());
            return true;
        }

    // The old content goes once the new one is durably in its place, and only then.
    int completed = 0;
    for (std::size_t at = 0; at < files->size(); ++at) {
        const SavedFile& file = (*files)[at];
        const Entry& entry = (*entries)[at];
        if (kept[at])
            continue;
        if (identityOf(file.source) != entry.newContent) {
            warn("'" + utf8(file.source) + "' of the save journal " + named
                + " no longer holds the saved content; left as it is");
            continue;
        }
        ++completed;
        if (entry.oldContent && entry.oldContent->shownBy(statusOf(file.backup), true))
            zo::os::remove(encoded(file.backup).constData());
    }
    if (!zo::os::remove(encoded(taken).constData()))
        warn("Can not remove the save journal " + named + ": " + errorText());
    zo::log::log(kFacadeLog, zo::log::Info,
        "Completed the interrupted save of " + std::to_string(completed) + " files of the journal "
            + named);
    return true;
}

} // namespace zo::project::detail
