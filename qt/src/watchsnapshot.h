#pragma once

#include <QString>
#include <QStringList>
#include <QtGlobal>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zo::project::detail {

// What the watcher compares of a file: its modification time to the millisecond, as Qt reports
// it, and its size truncated to 32 bits.
struct FileStamp {
    qint64 modifiedMs;
    quint32 size;
};

// Paths relative to the watched root with what is known of each, sorted by path, the paths
// packed into one buffer: about 24 bytes per row beside the path's own bytes.
class StampTable {
public:
    struct Row {
        std::uint32_t pathOffset;
        std::uint32_t pathLength;
        FileStamp stamp;
        bool known; // listed at the last check, or named by the caller's reference list
        bool stamped; // stamp holds the last time and size seen
    };

    void append(std::string_view path, FileStamp stamp, bool known, bool stamped);
    void appendRow(const StampTable& from, const Row& row);
    void sort();
    bool empty() const { return _rows.empty(); }
    std::vector<Row>& rows() { return _rows; }
    const std::vector<Row>& rows() const { return _rows; }
    std::string_view pathOf(const Row& row) const
    {
        return std::string_view(_paths).substr(row.pathOffset, row.pathLength);
    }
    // The row of path in a sorted table; null when there is none.
    Row* find(std::string_view path);

private:
    std::string _paths;
    std::vector<Row> _rows;
};

// The paths one check found changed, relative to the root; outside holds reference paths
// that lie outside the root, as the caller gave them.
struct WatchChanges {
    std::vector<std::string> added;
    std::vector<std::string> modified;
    std::vector<std::string> removed;
    QStringList removedOutside;
};

// What a check read again of the tree: the directories walked, whose earlier files it replaces,
// and inside them the directories left unread as unchanged, whose earlier files it keeps; each
// as its path relative to the root followed by "/" ("" for the root itself).
struct PartialListing {
    struct Mark {
        std::string prefix;
        bool unchanged;
    };
    std::vector<Mark> marks;
    StampTable files; // what the walks found, sorted or not
};

// The watcher's memory of the tree between checks: which paths are known and the last stamp
// of each file. A file that left the known set without being seen removed keeps its stamp.
class WatchSnapshot {
public:
    // The caller's statement of the previous state: these paths become the known set.
    void setKnown(const std::vector<std::string>& paths, const QStringList& outsidePaths);

    // Takes in what a walk found, reporting into changes unless it is null. With
    // listingIsKnown the listing itself becomes the known set first, so that nothing counts as
    // added or removed and only changed stamps are reported.
    void update(StampTable listing, bool listingIsKnown, WatchChanges* changes);

    // The files the last update listed, with what read found in place of what it walked again.
    StampTable listingAfter(PartialListing read) const;

private:
    StampTable _table;
    QStringList _knownOutside;
};

} // namespace zo::project::detail
