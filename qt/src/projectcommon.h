#pragma once

#include <QByteArray>
#include <QFileDevice>
#include <QString>
#include <QtGlobal>

#include <functional>
#include <string>

// Steps the directory project and the archive project share, with their messages.
namespace zo::project::detail {

// Writes data to the open file and flushes it. When not all of it reached the file, throws
// IOWriteError whose message names path with only "%1" filled, padded to the number of bytes
// written with the character whose code is the data's size, "%2" and "%3" left in the text:
// programs that read these messages expect exactly this.
void writeWhole(QFileDevice& file, const QByteArray& data, const QString& path);

// Makes the directory at absolutePath through create, which returns whether it succeeded;
// nothing is done when the directory exists. PathNotFound when the parent is missing and
// recursive is false, IOWriteError when create fails.
void makeDirectory(
    const QString& absolutePath, bool recursive, const std::function<bool()>& create);

// Refuses an empty export destination (PathNotFound) and makes the destination's directory;
// a relative one is made under the temporary directory.
void prepareExportDestination(const QString& destination);

} // namespace zo::project::detail
