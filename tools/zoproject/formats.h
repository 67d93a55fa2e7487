#pragma once

// Archive formats by the names people know them by.

#include <zo/project/archive.h>

#include <QCommandLineOption>
#include <QCommandLineParser>

namespace zo::cli {

// "--format NAME"; detection by default.
QCommandLineOption formatOption();
// Auto when the option is not given; an unknown name is a usage error.
zo::project::ArchiveFormat requestedFormat(const QCommandLineParser& parser);

} // namespace zo::cli
