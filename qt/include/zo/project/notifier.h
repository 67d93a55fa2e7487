#pragma once

#include <zo/project/projectwatcher.h>
#include <zo/project/zoprojectqt_export.h>

#include <QMap>
#include <QObject>
#include <QString>

/// The signal sources of the two projects, which are movable values rather than QObjects.
/// Both classes carry the same signals but stay separate types, so that each project hands out
/// a notifier of its own type. Queued connections of sourceProjectEvent need the map type
/// registered; ProjectModel registers it when constructed.
namespace zo::project::detail {

/// The signals of a ProjectModel, which owns it.
class ZOPROJECTQT_EXPORT Notifier : public QObject {
    Q_OBJECT

Q_SIGNALS:
    /// The saved state changed: true when the project's content equals what was last loaded or
    /// saved.
    void saved(bool saved);
    /// Changes another program made to the project's source, by path relative to it.
    void sourceProjectEvent(const QMap<QString, zo::project::FileSystemEvent>& eventList);
};

/// The signals of a ProjectDir, which owns it.
class ZOPROJECTQT_EXPORT Notifier2 : public QObject {
    Q_OBJECT

Q_SIGNALS:
    /// The saved state changed (see ProjectDir::isSaved()).
    void saved(bool saved);
    /// Changes another program made to the project's directory, by path relative to it; a
    /// removal of a file whose edit is pending is left out.
    void sourceProjectEvent(const QMap<QString, zo::project::FileSystemEvent>& eventList);
};

} // namespace zo::project::detail
