#pragma once

#include <zo/file.h>
#include <zo/project/fileutils.h>

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QString>

#include <exception>
#include <string>
#include <string_view>

// Paths and texts between Qt and the byte strings of libzo and libzoproject, and the small steps
// on paths that the engine, its save journal, the file utilities and the archive project share.
namespace zo::project::detail {

// A path as the system takes it.
inline QByteArray encoded(const QString& path)
{
    return QFile::encodeName(path);
}

// A path from the system, decoded as QFile::decodeName decodes file names on this platform,
// without copying the bytes into a QByteArray first.
inline QString decodedPath(std::string_view path)
{
    return QString::fromLocal8Bit(path.data(), static_cast<int>(path.size()));
}

// The name a pending file goes by, whichever call names it: its path cleaned as text, as its
// swap file's name is, so that "d/../x" is x beside d whether or not d is a link, and what is
// read, the swap file and what a commit replaces are one file.
inline QString pendingName(const QString& path)
{
    return QDir::cleanPath(path);
}

// A text (a message, a metadata key) as the libraries take it.
inline std::string utf8(const QString& text)
{
    return text.toStdString();
}

// Whether name (a last component) ends as a swap file's name, ".<...>.<extension>".
inline bool isSwapName(std::string_view name, const QString& extension)
{
    const auto size = static_cast<std::size_t>(extension.size());
    return name.size() > size + 2 && name.front() == '.' && name[name.size() - size - 1] == '.'
        && QLatin1String(name.data() + name.size() - size, static_cast<int>(size)) == extension;
}

// Anything under that name, a dangling link included.
inline bool isOnDisk(const QString& path)
{
    return zo::os::linkStatus(encoded(path).constData()).has_value();
}

// Removes what a failed or finished step left, if anything. Its own failure is not reported:
// it would hide the failure being reported, or fail a step that is complete.
inline void removeQuietly(const QString& path)
{
    try {
        if (isOnDisk(path))
            zo::project::remove(path);
    } catch (const std::exception&) {
    }
}

// Syncs the directory of each path once, however many renames a step made in it, so that they
// survive a crash.
class DirectorySyncs {
public:
    // Whether the directories of both paths are durable now; false at the first that cannot be
    // synced (errno set).
    bool madeDurable(const QString& first, const QString& second)
    {
        return sync(QFileInfo(first).absolutePath()) && sync(QFileInfo(second).absolutePath());
    }

private:
    bool sync(const QString& directory)
    {
        if (_synced.contains(directory))
            return true;
        _synced.insert(directory);
        return zo::os::syncDirectory(encoded(directory).constData());
    }

    QSet<QString> _synced;
};

} // namespace zo::project::detail
