#include <zo/owner.h>
#include <zo/path.h>
#include <zo/process.h>

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <string_view>
#include <utility>

namespace zo::os {
namespace {

using Clock = std::chrono::system_clock;

constexpr std::string_view kMarkPurpose = "owner";
constexpr std::string_view kFormatLine = "zo-owner 1";
// Byte 0 of a mark is locked for its owner's life, byte 1 while it replaces files.
constexpr off_t kLifeByte = 0;
constexpr off_t kReplacingByte = 1;
// How far file times and the clocks of processes may disagree: coarse file times, a clock
// adjusted while a process runs, the clock of the host that serves the files.
constexpr std::chrono::seconds kClockSlack(2);

std::int64_t nanosecondsOf(Clock::time_point time)
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
}

Clock::time_point timeOfNanoseconds(std::int64_t nanoseconds)
{
    return Clock::time_point(
        std::chrono::duration_cast<Clock::duration>(std::chrono::nanoseconds(nanoseconds)));
}

// The first line of a small system file; empty when it cannot be read.
std::string firstLineOf(const char* path)
{
    const UniqueFd file = openForReading(path);
    std::string text;
    if (!file || !readAll(file.get(), text))
        return {};
    return text.substr(0, text.find('\n'));
}

// A pid namespace is per process and may change with unshare, so it is read each time.
std::string currentPidNamespace()
{
    return readLink("/proc/self/ns/pid").value_or(std::string());
}

struct ThisSystem {
    std::string host;
    std::string machine;
    std::string boot;
    Clock::time_point booted;
};

const ThisSystem& thisSystem()
{
    static const ThisSystem system = [] {
        ThisSystem found;
        char host[HOST_NAME_MAX + 1] = {};
        if (::gethostname(host, HOST_NAME_MAX) == 0)
            found.host = host;
        found.machine = firstLineOf("/etc/machine-id");
        found.boot = firstLineOf("/proc/sys/kernel/random/boot_id");
        timespec now {};
        timespec sinceBoot {};
        ::clock_gettime(CLOCK_REALTIME, &now);
        ::clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
        found.booted = timeOfNanoseconds(
            (now.tv_sec - sinceBoot.tv_sec) * 1000000000LL + (now.tv_nsec - sinceBoot.tv_nsec));
        return found;
    }();
    return system;
}

std::string hexOf(std::string_view bytes)
{
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (const char byte : bytes) {
        hex += kDigits[static_cast<unsigned char>(byte) >> 4];
        hex += kDigits[static_cast<unsigned char>(byte) & 15];
    }
    return hex;
}

std::optional<std::string> bytesOfHex(std::string_view hex)
{
    std::string bytes;
    for (std::size_t at = 0; at + 1 < hex.size(); at += 2) {
        unsigned value = 0;
        const auto [end, error] = std::from_chars(hex.data() + at, hex.data() + at + 2, value, 16);
        if (error != std::errc() || end != hex.data() + at + 2)
            return std::nullopt;
        bytes += static_cast<char>(value);
    }
    if (hex.size() % 2 != 0)
        return std::nullopt;
    return bytes;
}

template <typename Number> bool parseNumber(std::string_view text, Number& value)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
}

// Each value is one word; texts that may hold anything are written in hexadecimal.
std::string recordText(const OwnerRecord& record)
{
    return std::string(kFormatLine) + "\nhost " + record.host + "\nmachine " + record.machine
        + "\nboot " + record.boot + "\npidns " + record.pidNamespace + "\npid "
        + std::to_string(record.pid) + "\nstarted " + std::to_string(nanosecondsOf(record.started))
        + "\nticks " + std::to_string(record.startTicks) + "\ninode "
        + std::to_string(record.file.device) + ' ' + std::to_string(record.file.inode)
        + "\nprogram " + hexOf(record.program) + "\nmarked "
        + std::to_string(nanosecondsOf(record.marked)) + "\nlocked " + (record.locked ? "1" : "0")
        + "\nseals " + (record.sealsContent ? "1" : "0") + "\n";
}

using Notes = std::map<std::string, std::optional<FileVersion>>;
using Seals = std::map<std::string, ContentSeal>;

std::string noteText(const std::string& file, const std::optional<FileVersion>& source)
{
    return "source " + hexOf(file) + ' ' + (source ? versionText(*source) : "none") + '\n';
}

std::string sealText(const std::string& file, const ContentSeal& content)
{
    return "content " + hexOf(file) + ' ' + std::to_string(content.size) + ' '
        + std::to_string(content.hash) + '\n';
}

std::vector<std::string_view> wordsOf(std::string_view line)
{
    std::vector<std::string_view> words;
    for (std::size_t start = 0; start <= line.size();) {
        const std::size_t end = std::min(line.find(' ', start), line.size());
        words.push_back(line.substr(start, end - start));
        start = end + 1;
    }
    return words;
}

// A note's value: the file in hexadecimal, then "none" or its source's version.
void parseNote(std::string_view value, Notes& notes)
{
    const std::size_t space = value.find(' ');
    const std::optional<std::string> file
        = space == std::string_view::npos ? std::nullopt : bytesOfHex(value.substr(0, space));
    if (!file)
        return;
    const std::string_view source = value.substr(space + 1);
    if (source == "none")
        notes[*file] = std::nullopt;
    else if (const std::optional<FileVersion> version = versionFromText(source))
        notes[*file] = version;
}

// A content note's value: the file in hexadecimal, its size and its hash.
void parseSeal(const std::vector<std::string_view>& words, Seals& seals)
{
    const std::optional<std::string> file = words.size() == 4 ? bytesOfHex(words[1]) : std::nullopt;
    ContentSeal seal;
    if (file && parseNumber(words[2], seal.size) && parseNumber(words[3], seal.hash))
        seals[*file] = seal;
}

// The record and the notes of a mark; no record unless its first line and its essential
// fields are there.
std::optional<OwnerRecord> parseMark(std::string_view text, Notes& notes, Seals& seals)
{
    OwnerRecord record;
    bool formatKnown = false;
    bool pidKnown = false;
    bool timesKnown = true;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        const std::string_view line = text.substr(start, end - start);
        start = end + 1;
        if (line == kFormatLine) {
            formatKnown = true;
            continue;
        }
        const std::vector<std::string_view> words = wordsOf(line);
        const std::string_view key = words[0];
        const std::string value(words.size() > 1 ? line.substr(key.size() + 1) : "");
        std::int64_t nanoseconds = 0;
        if (key == "host")
            record.host = value;
        else if (key == "machine")
            record.machine = value;
        else if (key == "boot")
            record.boot = value;
        else if (key == "pidns")
            record.pidNamespace = value;
        else if (key == "pid")
            pidKnown = parseNumber(std::string_view(value), record.pid);
        else if (key == "program")
            record.program = bytesOfHex(value).value_or(std::string());
        else if (key == "locked")
            record.locked = value == "1";
        else if (key == "seals")
            record.sealsContent = value == "1";
        else if (key == "ticks")
            parseNumber(std::string_view(value), record.startTicks);
        else if (key == "inode" && words.size() == 3)
            parseNumber(words[1], record.file.device) && parseNumber(words[2], record.file.inode);
        else if (key == "started" || key == "marked") {
            timesKnown = timesKnown && parseNumber(std::string_view(value), nanoseconds);
            (key == "started" ? record.started : record.marked) = timeOfNanoseconds(nanoseconds);
        } else if (key == "source")
            parseNote(value, notes);
        else if (key == "content")
            parseSeal(words, seals);
    }
    if (!formatKnown || !pidKnown || !timesKnown || record.host.empty())
        return std::nullopt;
    return record;
}

bool setLock(int descriptor, short type, off_t byte)
{
    struct flock lock { };
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    return ::fcntl(descriptor, F_OFD_SETLK, &lock) == 0;
}

enum class LockState { Held, Free, Unknown };

LockState lockState(int descriptor, off_t byte)
{
    struct flock lock { };
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    if (::fcntl(descriptor, F_OFD_GETLK, &lock) != 0)
        return LockState::Unknown;
    return lock.l_type == F_UNLCK ? LockState::Free : LockState::Held;
}

std::optional<std::string> realPath(const std::string& path)
{
    const std::unique_ptr<char, decltype(&std::free)> resolved(
        ::realpath(path.c_str(), nullptr), &std::free);
    return resolved ? std::optional<std::string>(resolved.get()) : std::nullopt;
}

std::string parentOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

// The process of a mark's name, ".zo-owner-<pid>.<unique>"; 0 for any other name.
int pidOfMarkName(std::string_view name)
{
    const std::optional<HiddenName> hidden = parseHiddenName(name);
    return hidden && hidden->purpose == kMarkPurpose && name.rfind(".zo-", 0) == 0 ? hidden->pid
                                                                                   : 0;
}

// The marks this process made (and, in a forked child, those it inherited), by directory.
struct Registry {
    struct Entry {
        FileIdentity directory;
        FileIdentity file;
        int owner; // a forked child finds its parent's marks here
        OwnerMark* mark;
        std::weak_ptr<OwnerMark> shared;
    };
    std::mutex mutex;
    std::vector<Entry> entries;
    std::vector<std::shared_ptr<OwnerMark>> keptUntilExit;
};

// Never destroyed, as marks may go after static destruction began; the kept ones go at exit.
Registry& registry()
{
    static Registry* const instance = [] {
        auto* made = new Registry;
        std::atexit([] {
            std::vector<std::shared_ptr<OwnerMark>> kept;
            {
                const std::lock_guard lock(registry().mutex);
                kept.swap(registry().keptUntilExit);
            }
        });
        return made;
    }();
    return *instance;
}

bool isOurs(const FileIdentity& markFile)
{
    Registry& marks = registry();
    const std::lock_guard lock(marks.mutex);
    const int self = ::getpid();
    return std::any_of(
        marks.entries.begin(), marks.entries.end(), [&](const Registry::Entry& entry) {
            return entry.file == markFile && entry.owner == self;
        });
}

// A process of that id that started at that clock tick since boot runs in this pid namespace.
bool runsHere(int pid, std::uint64_t startTicks)
{
    const std::optional<Process> process = findProcess(pid);
    return process && process->startTicks == startTicks;
}

int rank(Liveness liveness)
{
    return liveness == Liveness::Running ? 2 : liveness == Liveness::Unknown ? 1 : 0;
}

} // namespace

bool isOwnerMarkName(std::string_view name)
{
    return pidOfMarkName(name) != 0;
}

Clock::time_point modificationTime(const FileStatus& status)
{
    return timeOfNanoseconds(status.modifiedSeconds * 1000000000LL + status.modifiedNanoseconds);
}

OwnerMark::OwnerMark(Token, UniqueFd descriptor, std::string directory, std::string path)
    : _descriptor(std::move(descriptor))
    , _owner(::getpid())
    , _directory(std::move(directory))
    , _path(std::move(path))
{
}

std::shared_ptr<OwnerMark> OwnerMark::hold(const std::string& directory)
{
    static std::once_flag forkHandlers;
    std::call_once(forkHandlers, [] {
        ::pthread_atfork([] { registry().mutex.lock(); }, [] { registry().mutex.unlock(); },
            [] {
                forgetInheritedMarks();
                registry().mutex.unlock();
            });
    });
    const std::optional<FileStatus> found = status(directory.c_str());
    const std::optional<std::string> resolved = realPath(directory);
    if (!found || !resolved)
        return nullptr;
    Registry& marks = registry();
    const std::lock_guard lock(marks.mutex);
    const int self = ::getpid();
    for (const Registry::Entry& entry : marks.entries)
        if (entry.directory == found->identity && entry.owner == self)
            if (std::shared_ptr<OwnerMark> shared = entry.shared.lock())
                return shared;

    std::string path = hiddenTemplateIn(*resolved, kMarkPurpose);
    // Unseen until its record and lock are in place, so that no mark is ever found without
    // them; where the file system has no unnamed files, a crash before the record leaves a mark
    // that tells nothing, which counts as in use elsewhere.
    UniqueFd file = createUnnamedFile(AT_FDCWD, resolved->c_str(), 0600);
    const bool unnamed = static_cast<bool>(file);
    if (unnamed)
        ::fcntl(file.get(), F_SETFL, O_APPEND);
    else if (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL)
        file = UniqueFd(::mkostemp(path.data(), O_CLOEXEC | O_APPEND));
    const std::optional<FileStatus> made = file ? status(file.get()) : std::nullopt;
    if (!made)
        return nullptr;
    // Read once per process, under the registry's lock; a forked child reads its own.
    static std::pair<int, std::optional<Process>> process;
    if (process.first != self)
        process = { self, findProcess(self) };
    const ThisSystem& system = thisSystem();
    // A process that cannot see itself in /proc (a pid namespace without its own) records no
    // start, which leaves it undecided rather than ended.
    const std::optional<Process> seen
        = readLink("/proc/self") == std::to_string(self) ? process.second : std::nullopt;
    OwnerRecord record { system.host, system.machine, system.boot, currentPidNamespace(), self,
        seen ? seen->started : Clock::time_point(), seen ? seen->startTicks : 0, made->identity,
        seen ? seen->program : std::string(), modificationTime(*made),
        setLock(file.get(), F_WRLCK, kLifeByte), true };
    const std::string text = recordText(record);
    // Others must be able to read the record to judge this process.
    if (!setPermissions(file.get(), 0644) || !writeAll(file.get(), text.data(), text.size(), 0)
        || (unnamed && !linkUnnamedFileUnique(file.get(), path))) {
        const int error = errno;
        if (!unnamed)
            ::unlink(path.c_str());
        errno = error;
        return nullptr;
    }
    auto mark = std::make_shared<OwnerMark>(Token {}, std::move(file), *resolved, path);
    marks.entries.push_back({ found->identity, made->identity, self, mark.get(), mark });
    return mark;
}

std::shared_ptr<OwnerMark> OwnerMark::holdBeside(const std::string& path)
{
    return hold(Path(path).directory());
}

void OwnerMark::keepUntilExit(std::shared_ptr<OwnerMark> mark)
{
    if (!mark)
        return;
    Registry& marks = registry();
    const std::lock_guard lock(marks.mutex);
    marks.keptUntilExit.push_back(std::move(mark));
}

void OwnerMark::forgetInheritedMarks()
{
    // Closing a copy leaves the parent's lock alone; the child never removes the parent's mark.
    for (Registry::Entry& entry : registry().entries)
        entry.mark->_descriptor.close();
}

OwnerMark::~OwnerMark()
{
    Registry& marks = registry();
    const std::lock_guard lock(marks.mutex);
    marks.entries.erase(std::remove_if(marks.entries.begin(), marks.entries.end(),
                            [this](const Registry::Entry& entry) { return entry.mark == this; }),
        marks.entries.end());
    if (_owner == ::getpid() && _descriptor)
        ::unlink(_path.c_str());
    // Inside the lock, so that no child forked meanwhile keeps a copy.
    _descriptor.close();
}

bool OwnerMark::noteSource(const std::string& pendingFile, const std::optional<FileVersion>& source)
{
    const std::optional<std::string> relative = relativeName(pendingFile);
    return relative && writeNote(noteText(*relative, source));
}

bool OwnerMark::noteContent(const std::string& pendingFile, const ContentSeal& content)
{
    const std::optional<std::string> relative = relativeName(pendingFile);
    return relative && writeNote(sealText(*relative, content));
}

bool OwnerMark::writeNote(const std::string& text)
{
    return writeAll(_descriptor.get(), text.data(), text.size(), 0);
}

std::optional<std::string> OwnerMark::relativeName(const std::string& pendingFile) const
{
    const std::size_t slash = pendingFile.rfind('/');
    const std::optional<std::string> directory
        = slash == std::string::npos ? std::nullopt : realPath(pendingFile.substr(0, slash + 1));
    const bool below = directory && directory->compare(0, _directory.size(), _directory) == 0
        && (_directory == "/" || directory->size() == _directory.size()
            || (*directory)[_directory.size()] == '/');
    if (!below) {
        errno = EINVAL;
        return std::nullopt;
    }
    std::string relative
        = (*directory == "/" ? "" : *directory) + '/' + pendingFile.substr(slash + 1);
    relative.erase(0, _directory == "/" ? 1 : _directory.size() + 1);
    return relative;
}

OwnerMark::Replacing::Replacing(std::shared_ptr<OwnerMark> mark)
    : _mark(std::move(mark))
{
    if (!_mark)
        return;
    const std::lock_guard lock(_mark->_replacingMutex);
    if (_mark->_replacing++ == 0)
        setLock(_mark->_descriptor.get(), F_WRLCK, kReplacingByte);
}

OwnerMark::Replacing::~Replacing()
{
    if (!_mark)
        return;
    const std::lock_guard lock(_mark->_replacingMutex);
    if (--_mark->_replacing == 0)
        setLock(_mark->_descriptor.get(), F_UNLCK, kReplacingByte);
}

struct OwnerMarks::Mark {
    std::string path;
    std::string directory;
    int pid = 0;
    bool read = false;
    std::optional<OwnerRecord> record;
    Notes notes;
    Seals seals;
    LockState life = LockState::Unknown;
    LockState replacing = LockState::Unknown;
    FileIdentity identity;
};

struct OwnerMarks::Directory {
    Clock::time_point listed;
    std::vector<Mark> marks;
};

OwnerMarks::OwnerMarks() = default;
OwnerMarks::~OwnerMarks() = default;

OwnerMarks::Directory& OwnerMarks::directoryOf(
    const std::string& resolved, Clock::time_point lastWrite)
{
    std::unique_ptr<Directory>& known = _directories[resolved];
    if (known && known->listed > lastWrite + kClockSlack)
        return *known;
    known = std::make_unique<Directory>();
    known->listed = Clock::now();
    DIR* stream = ::opendir(resolved.c_str());
    if (stream == nullptr)
        return *known;
    while (const dirent* entry = ::readdir(stream))
        if (const int pid = pidOfMarkName(entry->d_name)) {
            Mark& mark = known->marks.emplace_back();
            mark.path = resolved + (resolved == "/" ? "" : "/") + entry->d_name;
            mark.directory = resolved;
            mark.pid = pid;
        }
    ::closedir(stream);
    return *known;
}

std::vector<OwnerMarks::Mark*> OwnerMarks::marksAbove(
    const std::string& resolvedDirectory, Clock::time_point lastWrite)
{
    std::vector<Mark*> found;
    for (std::string directory = resolvedDirectory;; directory = parentOf(directory)) {
        for (Mark& mark : directoryOf(directory, lastWrite).marks)
            found.push_back(&mark);
        if (directory == "/" || directory.empty())
            return found;
    }
}

std::vector<OwnerMarks::Mark*> OwnerMarks::candidates(
    const std::string& resolvedDirectory, int pid, Clock::time_point lastWrite)
{
    std::vector<Mark*> found;
    for (Mark* mark : marksAbove(resolvedDirectory, lastWrite)) {
        if (mark->pid != pid)
            continue;
        read(*mark);
        // A mark made after the last write belongs to a later process of the same id; one
        // without a record may be anyone's.
        if (!mark->record || mark->record->marked <= lastWrite + kClockSlack)
            found.push_back(mark);
    }
    // Newest first, for the note of the latest owner.
    std::stable_sort(found.begin(), found.end(), [](const Mark* a, const Mark* b) {
        return a->record && (!b->record || a->record->marked > b->record->marked);
    });
    return found;
}

void OwnerMarks::read(Mark& mark)
{
    if (mark.read)
        return;
    mark.read = true;
    const UniqueFd file(::open(mark.path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    std::string text;
    const std::optional<FileStatus> found = file ? status(file.get()) : std::nullopt;
    if (!found || !readAll(file.get(), text))
        return;
    mark.identity = found->identity;
    mark.record = parseMark(text, mark.notes, mark.seals);
    mark.life = lockState(file.get(), kLifeByte);
    mark.replacing = lockState(file.get(), kReplacingByte);
}

Liveness OwnerMarks::livenessOf(Mark& mark)
{
    read(mark);
    if (mark.life == LockState::Held)
        return Liveness::Running;
    // A copy of a mark (a sync tool's copy and rename) holds no lock and proves nothing.
    if (!mark.record || mark.record->file != mark.identity)
        return Liveness::Unknown;
    const OwnerRecord& record = *mark.record;
    const ThisSystem& system = thisSystem();
    if (!record.boot.empty() && record.boot == system.boot) {
        // The same kernel: its lock table answers, unless the owner could not lock.
        if (record.locked && mark.life == LockState::Free)
            return Liveness::Ended;
        if (record.pidNamespace != currentPidNamespace() || record.startTicks == 0)
            return Liveness::Unknown;
        return runsHere(record.pid, record.startTicks) ? Liveness::Running : Liveness::Ended;
    }
    // An earlier boot of this host; a host of the same name and id that made the mark after
    // this one booted is another host.
    const bool thisHost = record.host == system.host && record.machine == system.machine;
    return thisHost && record.marked < system.booted ? Liveness::Ended : Liveness::Unknown;
}

// The verdict holds for the file as it was both before and after it was reached: while the file
// lies there, a live owner holds the mark that covers it. A file that is gone tells nothing.
OwnerVerdict OwnerMarks::judge(const std::string& file, int pid)
{
    constexpr int kAttempts = 3;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const std::optional<FileStatus> before = linkStatus(file.c_str());
        if (!before)
            break;
        OwnerVerdict verdict = judgeAsOf(file, pid, modificationTime(*before));
        const std::optional<FileStatus> after = linkStatus(file.c_str());
        if (after && FileVersion::of(*before) == FileVersion::of(*after))
            return verdict;
        _directories.clear();
    }
    // Gone or still changing: its owner is busy with it (a commit loop) or gone with it. What
    // the marks say of its owner is reported, but never that it ended.
    OwnerVerdict verdict = judgeAsOf(file, pid, Clock::now());
    if (verdict.liveness == Liveness::Ended)
        verdict.liveness = Liveness::Unknown;
    return verdict;
}

OwnerVerdict OwnerMarks::judgeAsOf(const std::string& file, int pid, Clock::time_point lastWrite)
{
    const std::vector<Mark*> marks = candidates(resolvedDirectoryOf(file), pid, lastWrite);
    if (marks.empty()) {
        const std::optional<Process> process = findProcess(pid);
        if (!process || process->started > lastWrite + kClockSlack)
            return { Liveness::Ended, std::nullopt };
        const ThisSystem& system = thisSystem();
        return { Liveness::Running,
            OwnerRecord { system.host, system.machine, system.boot, currentPidNamespace(), pid,
                process->started, process->startTicks, {}, process->program, {}, false, false } };
    }
    OwnerVerdict verdict { Liveness::Ended, marks.front()->record };
    for (Mark* mark : marks) {
        const Liveness liveness = livenessOf(*mark);
        if (rank(liveness) > rank(verdict.liveness))
            verdict = { liveness, mark->record };
    }
    return verdict;
}

std::vector<std::pair<OwnerMarks::Mark*, std::string>> OwnerMarks::candidatesOf(
    const std::string& file, int pid)
{
    const std::optional<FileStatus> found = linkStatus(file.c_str());
    const Clock::time_point lastWrite = found ? modificationTime(*found) : Clock::now();
    const std::string directory = resolvedDirectoryOf(file);
    const std::string resolved
        = directory + (directory == "/" ? "" : "/") + file.substr(file.rfind('/') + 1);
    std::vector<std::pair<Mark*, std::string>> named;
    for (Mark* mark : candidates(directory, pid, lastWrite)) {
        const std::size_t start = mark->directory == "/" ? 1 : mark->directory.size() + 1;
        named.emplace_back(mark, resolved.substr(std::min(start, resolved.size())));
    }
    return named;
}

std::optional<std::optional<FileVersion>> OwnerMarks::notedSource(const std::string& file, int pid)
{
    for (const auto& [mark, name] : candidatesOf(file, pid)) {
        const auto note = mark->notes.find(name);
        if (note != mark->notes.end())
            return note->second;
    }
    return std::nullopt;
}

bool OwnerMarks::mayBeTorn(const std::string& file, int pid)
{
    const std::vector<std::pair<Mark*, std::string>> marks = candidatesOf(file, pid);
    if (marks.empty())
        return false;
    // The mark that noted the file, else the newest; a mark torn itself tells nothing.
    const std::pair<Mark*, std::string>* owner = &marks.front();
    for (const auto& candidate : marks) {
        const auto& [mark, name] = candidate;
        if (!mark->record)
            return true;
        if (mark->notes.count(name) || mark->seals.count(name)) {
            owner = &candidate;
            break;
        }
    }
    const auto& [mark, name] = *owner;
    const OwnerRecord& record = *mark->record;
    if (!record.sealsContent || (!record.boot.empty() && record.boot == thisSystem().boot))
        return false;
    const auto sealed = mark->seals.find(name);
    return sealed == mark->seals.end() || sealOf(file.c_str()) != sealed->second;
}

bool OwnerMarks::othersMayBeReplacing(const std::string& directory)
{
    for (Mark* mark : marksAbove(realPath(directory).value_or(directory), Clock::now())) {
        read(*mark);
        if (mark->record && isOurs(mark->identity))
            continue;
        if (mark->replacing == LockState::Held)
            return true;
        const Liveness liveness = livenessOf(*mark);
        const bool replacingKnown
            = mark->replacing == LockState::Free && mark->record && mark->record->locked;
        if (liveness == Liveness::Unknown || (liveness == Liveness::Running && !replacingKnown))
            return true;
    }
    return false;
}

std::vector<std::pair<std::string, std::optional<FileVersion>>> OwnerMarks::notesOfEnded(
    const std::string& directory)
{
    std::vector<std::pair<std::string, std::optional<FileVersion>>> notes;
    for (Mark& mark : directoryOf(realPath(directory).value_or(directory), Clock::now()).marks)
        if (livenessOf(mark) == Liveness::Ended)
            notes.insert(notes.end(), mark.notes.begin(), mark.notes.end());
    return notes;
}

void OwnerMarks::removeEndedMarks(
    const std::string& directory, const std::function<bool(int)>& namedAfter)
{
    const std::string resolved = realPath(directory).value_or(directory);
    const std::string prefix = resolved == "/" ? "/" : resolved + "/";
    for (Mark& mark : directoryOf(resolved, Clock::now()).marks) {
        if (namedAfter(mark.pid) || livenessOf(mark) != Liveness::Ended)
            continue;
        // A note names a pending file below the directory, wherever it lies.
        if (std::none_of(mark.notes.begin(), mark.notes.end(), [&prefix](const auto& note) {
                return linkStatus((prefix + note.first).c_str()).has_value();
            }))
            ::unlink(mark.path.c_str());
    }
}

std::string OwnerMarks::resolvedDirectoryOf(const std::string& file)
{
    const std::size_t slash = file.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : file.substr(0, slash + 1);
    std::string& resolved = _resolved[directory];
    if (resolved.empty())
        resolved = realPath(directory).value_or(directory);
    return resolved;
}

} // namespace zo::os
