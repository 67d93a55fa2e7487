#include "command.h"

#include <QDir>
#include <QFileInfo>

#include <cstdio>

namespace zo::cli {

QCommandLineOption jsonOption()
{
    return QCommandLineOption(QStringLiteral("json"), QStringLiteral("Print one JSON document."));
}

bool jsonRequested(const QCommandLineParser& parser)
{
    return parser.isSet(jsonOption().names().first());
}

void print(const QString& line)
{
    const QByteArray bytes = line.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stdout);
}

void printJson(const QJsonDocument& document)
{
    const QByteArray bytes = document.toJson(QJsonDocument::Indented);
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stdout);
}

QString projectDirectory(const QString& path)
{
    const QFileInfo directory(path);
    if (!directory.isDir())
        throw std::runtime_error("'" + path.toStdString() + "': not a directory");
    return QDir::cleanPath(directory.absoluteFilePath());
}

} // namespace zo::cli
