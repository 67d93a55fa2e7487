#pragma once

#include <zo/project/projectwatcher.h>
#include <zo/project/zoprojectqt_export.h>

#include <QMap>
#include <QObject>
#include <QString>

// The signal sources of the two projects, which are movable values rather than QObjects.
// Both classes carry the same signals but stay separate types, so that each project hands out
// a notifier of its own type. Queued connections of sourceProjectEvent need the map type
// registered; ProjectModel registers it when constructed.
namespace zo::project::detail {

// Handed out by ProjectModel.
class ZOPROJECTQT_EXPORT Notifier : public QObject {
    Q_OBJECT

signals:
    // True when the project's content equals what was last loaded or saved.
    void saved(bool saved);
    // Changes another program made to the project's source, by path.
    void sourceProjectEvent(const QMap<QString, zo::project::FileSystemEvent>& eventList);
};

// Handed out by ProjectDir.
class ZOPROJECTQT_EXPORT Notifier2 : public QObject {
    Q_OBJECT

signals:
    void saved(bool saved);
    void sourceProjectEvent(const QMap<QString, zo::project::FileSystemEvent>& eventList);
};

} // namespace zo::project::detail
