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

#include <cerrno>
#include <cstring>
#include <string>
#include <sys/stat.h>

namespace zo::project::detail {
namespace {

using zo::os::FileIdentity;

constexpr char kFormatLine[] = "zo-save-journal 1\n";
constexpr char kSumKey[] = "sum ";
constexpr char kFileKey[] = "file";
constexpr char kNone[] = "-";
const QString kJournalName = QStringLiteral("save");
constexpr char kJournalPurpose[] = "journal";

// One line of a journal, paths relative to its directory.
struct Entry {
    QString source;
    QString swap;
    QString backup;
    FileIdentity newContent;
    std::optional<FileIdentity> oldContent; // none for a new file
};

std::string errorText()
{
    return std::strerror(errno);
}

std::optional<FileIdentity> identityOf(const QString& path)
{
    const std::optional<zo::os::FileStatus> status = zo::os::linkStatus(encoded(path).constData());
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

QByteArray identityText(const std::optional<FileIdentity>& identity)
{
    return identity ? QByteArray::number(qulonglong(identity->device)) + ' '
            + QByteArray::number(qulonglong(identity->inode))
                    : QByteArray(kNone) + ' ' + kNone;
}

std::optional<FileIdentity> identityFrom(const QByteArray& device, const QByteArray& inode)
{
    bool deviceRead = false;
    bool inodeRead = false;
    const FileIdentity identity { device.toULongLong(&deviceRead), inode.toULongLong(&inodeRead) };
    return deviceRead && inodeRead ? std::optional(identity) : std::nullopt;
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
        if (words.size() != 8 || words[0] != kFileKey)
            return std::nullopt;
        const std::optional<FileIdentity> newContent = identityFrom(words[4], words[5]);
        if (!newContent)
            return std::nullopt;
        entries.push_back({ QFile::decodeName(QByteArray::fromHex(words[1])),
            QFile::decodeName(QByteArray::fromHex(words[2])),
            QFile::decodeName(QByteArray::fromHex(words[3])), *newContent,
            identityFrom(words[6], words[7]) });
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

} // namespace

std::optional<SaveJournal> SaveJournal::write(
    const QString& directory, const std::vector<SavedFile>& files, QString& failure)
{
    const QString root = QFileInfo(directory).canonicalFilePath();
    // The engine resolved each path inside the root already; one named from the root as it
    // stands needs no second resolution.
    Beneath beneath(root);
    const auto relative = [&](const QString& path) {
        return path.startsWith(root + QLatin1Char('/')) ? path.mid(root.size() + 1)
                                                        : beneath.relative(path);
    };
    QByteArray text = kFormatLine;
    for (const SavedFile& file : files) {
        const QString source = relative(file.source);
        const QString swap = relative(file.swap);
        const QString backup = relative(file.backup);
        const std::optional<FileIdentity> newContent = identityOf(file.swap);
        if (source.isEmpty() || swap.isEmpty() || backup.isEmpty() || !newContent) {
            failure = QStringLiteral("'%1' is not a file inside '%2'").arg(file.swap, root);
            return std::nullopt;
        }
        text += QByteArray(kFileKey) + ' ' + encoded(source).toHex() + ' ' + encoded(swap).toHex()
            + ' ' + encoded(backup).toHex() + ' ' + identityText(newContent) + ' '
            + identityText(identityOf(file.source)) + '\n';
    }
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
        || !zo::os::syncFile(out.get()) || !out.close()
        || !zo::os::syncDirectory(encoded(root).constData())) {
        failure = QString::fromStdString(errorText());
        zo::os::remove(path.c_str());
        return std::nullopt;
    }
    return SaveJournal(decodedPath(path));
}

bool SaveJournal::remove(bool durably) const
{
    if (zo::os::remove(encoded(_path).constData())
        && (!durably || zo::os::syncDirectory(encoded(QFileInfo(_path).path()).constData())))
        return true;
    zo::log::log(kEngineLog, zo::log::Warning,
        "Can not remove the save journal '" + utf8(_path) + "': " + errorText());
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

    // Every rename not done yet: the new content still lies where it was written.
    for (std::size_t at = 0; at < files->size(); ++at) {
        const SavedFile& file = (*files)[at];
        if (identityOf(file.swap) == (*entries)[at].newContent
            && !zo::os::rename(encoded(file.swap).constData(), encoded(file.source).constData()))
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
        if (identityOf(file.source) != entry.newContent) {
            warn("'" + utf8(file.source) + "' of the save journal " + named
                + " no longer holds the saved content; left as it is");
            continue;
        }
        ++completed;
        if (entry.oldContent && identityOf(file.backup) == entry.oldContent)
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
