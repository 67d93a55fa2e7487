#pragma once

#include <QString>
#include <QtGlobal>

#include <functional>
#include <string>

// Steps the directory project and the archive project share, with their messages.
namespace zo::project::detail {

// The message of a write that did not take all of its data. Only "%1" is filled, padded to the
// number of bytes written with the character whose code is the data's size; "%2" and "%3" stay
// in the text. Programs that read these messages expect exactly this.
std::string shortWriteMessage(const QString& path, qint64 written, qint64 size);

// Makes the directory at absolutePath through create, which returns whether it succeeded;
// nothing is done when the directory exists. PathNotFound when the parent is missing and
// recursive is false, IOWriteError when create fails.
void makeDirectory(
    const QString& absolutePath, bool recursive, const std::function<bool()>& create);

// Refuses an empty export destination (PathNotFound) and makes the destination's directory;
// a relative one is made under the temporary directory.
void prepareExportDestination(const QString& destination);

} // namespace zo::project::detail
